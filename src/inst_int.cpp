// The sparse integers of the four index widths, carried by the library.
#include <QZ/QZINT>

namespace QZ {

template class sparse_uint_t<unsigned char>;
template class sparse_uint_t<unsigned short>;
template class sparse_uint_t<unsigned int>;
template class sparse_uint_t<unsigned long>;

}  // namespace QZ
