// The spatio-temporal model, for float and double values and the four index
// types.
#include <QZ/QZMRF>

namespace QZ {

QZ_STRF_INSTANCES_OF(, float)
QZ_STRF_INSTANCES_OF(, double)

}  // namespace QZ
