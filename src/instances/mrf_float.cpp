// The pairwise model functions with float values, for the four index types.
#include <QZ/QZMRF>

namespace QZ {

QZ_MRF_INSTANCES_OF(, float)

}  // namespace QZ
