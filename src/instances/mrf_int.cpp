// The pairwise and integer model functions with integer values, where the
// value type equals the index type.
#include <QZ/QZMRF>

namespace QZ {

QZ_MRF_INSTANCE(, unsigned char, unsigned char)
QZ_MRF_INSTANCE(, unsigned short, unsigned short)
QZ_MRF_INSTANCE(, unsigned int, unsigned int)
QZ_MRF_INSTANCE(, unsigned long, unsigned long)
QZ_INTEGER_MRF_INSTANCES()

}  // namespace QZ
