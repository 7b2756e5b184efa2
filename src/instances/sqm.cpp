// The sampling-based engines with float and double values, for the four
// index types, and with them the static sets of known tuples and their locks.
#include <QZ/QZINF>

namespace QZ {

QZ_SQM_INSTANCES(, float)
QZ_SQM_INSTANCES(, double)

}  // namespace QZ
