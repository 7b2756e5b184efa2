// Table counts of the floating models with float values.
#include <QZ/QZMRF>

namespace QZ {

QZ_STATS_INSTANCES_OF(, float)

}  // namespace QZ
