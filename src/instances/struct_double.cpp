// Structure searches of the models with double values.
#include <QZ/QZSTRUCT>

namespace QZ {

QZ_STRUCT_INSTANCES_OF(, double)

}  // namespace QZ
