// The pairwise model functions with double values, for the four index types.
#include <QZ/QZMRF>

namespace QZ {

QZ_MRF_INSTANCES_OF(, double)

}  // namespace QZ
