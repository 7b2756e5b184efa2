// The model container over double values, for the four index widths.
#include <QZ/QZIO>

namespace QZ {

template class IO<unsigned char, double>;
template class IO<unsigned short, double>;
template class IO<unsigned int, double>;
template class IO<unsigned long, double>;

}  // namespace QZ
