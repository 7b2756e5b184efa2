// The model container over float values, for the four index widths.
#include <QZ/QZIO>

namespace QZ {

template class IO<unsigned char, float>;
template class IO<unsigned short, float>;
template class IO<unsigned int, float>;
template class IO<unsigned long, float>;

}  // namespace QZ
