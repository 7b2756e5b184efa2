// Structure searches of the models with float values.
#include <QZ/QZSTRUCT>

namespace QZ {

QZ_STRUCT_INSTANCES_OF(, float)

}  // namespace QZ
