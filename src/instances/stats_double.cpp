// Table counts of the floating models with double values.
#include <QZ/QZMRF>

namespace QZ {

QZ_STATS_INSTANCES_OF(, double)

}  // namespace QZ
