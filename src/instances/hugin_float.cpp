// The junction-tree engine with float values, for the four index types.
#include <QZ/QZBP>

namespace QZ {

template class HuginAlgorithm<unsigned char, float>;
template class HuginAlgorithm<unsigned short, float>;
template class HuginAlgorithm<unsigned int, float>;
template class HuginAlgorithm<unsigned long, float>;

}  // namespace QZ
