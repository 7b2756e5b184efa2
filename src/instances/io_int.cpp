// The model container of the integer models: values as wide as the indices.
#include <QZ/QZIO>

namespace QZ {

template class IO<unsigned char, unsigned char>;
template class IO<unsigned short, unsigned short>;
template class IO<unsigned int, unsigned int>;
template class IO<unsigned long, unsigned long>;

}  // namespace QZ
