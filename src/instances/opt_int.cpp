// The function interface and the optimizer frame with integer values, where the
// value type equals the index type.
#include <QZ/QZOPT>

namespace QZ {

QZ_OPT_INT_INSTANCES()

}  // namespace QZ
