// The junction-tree engine with double values, for the four index types.
#include <QZ/QZBP>

namespace QZ {

template class HuginAlgorithm<unsigned char, double>;
template class HuginAlgorithm<unsigned short, double>;
template class HuginAlgorithm<unsigned int, double>;
template class HuginAlgorithm<unsigned long, double>;

}  // namespace QZ
