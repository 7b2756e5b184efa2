// The tables of permutations and set partitions with 8- and 16-bit entries.
// Every list class is built here (and the wider ones in a file of their own,
// so that both compile side by side), and users of the accessors do not
// compile the family again.
#include <QZ/QZCOMB>

namespace QZ {

QZ_COMB_LIST_INSTANCES(, unsigned char)
QZ_COMB_LIST_INSTANCES(, unsigned short)

}  // namespace QZ
