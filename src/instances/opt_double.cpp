// The function interface, the optimizer frame and the first-order methods with
// double values, for the four index types.
#include <QZ/QZOPT>

namespace QZ {

QZ_OPT_REAL_INSTANCES_OF(, double)

}  // namespace QZ
