// The function interface and the optimizer frame with integer values, where the
// value type equals the index type.
#include <QZ/QZOPT>

namespace QZ {

template class Function<unsigned char, unsigned char>;
template class Optimizer<unsigned char, unsigned char, true>;
template class Function<unsigned short, unsigned short>;
template class Optimizer<unsigned short, unsigned short, true>;
template class Function<unsigned int, unsigned int>;
template class Optimizer<unsigned int, unsigned int, true>;
template class Function<unsigned long, unsigned long>;
template class Optimizer<unsigned long, unsigned long, true>;

}  // namespace QZ
