// The polynomial approximations for the four index types with float and
// double values, and the matrix inversion also for int indices.
#include <QZ/QZPOLY>

namespace QZ {

QZ_POLY_INSTANCES(, float)
QZ_POLY_INSTANCES(, double)

}  // namespace QZ
