// The function interface, the optimizer frame and the first-order methods with
// float values, for the four index types.
#include <QZ/QZOPT>

namespace QZ {

QZ_OPT_REAL_INSTANCES_OF(, float)

}  // namespace QZ
