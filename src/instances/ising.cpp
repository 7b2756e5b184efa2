// The binary reparametrisation of the pairwise model, for float and double
// values and the four index types.
#include <QZ/QZMRF>

namespace QZ {

QZ_ISING_INSTANCES_OF(, float)
QZ_ISING_INSTANCES_OF(, double)

}  // namespace QZ
