// The tables of permutations and set partitions with 32- and 64-bit entries.
#include <QZ/QZCOMB>

namespace QZ {

QZ_COMB_LIST_INSTANCES(, unsigned int)
QZ_COMB_LIST_INSTANCES(, unsigned long)

}  // namespace QZ
