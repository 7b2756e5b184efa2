// The sparse integers and the vertex set helpers of the four index widths,
// carried by the library.
#include <QZ/QZALGO>
#include <QZ/QZINT>

#include <set>

namespace QZ {

#define QZ_INST_INT(T)                                                                          \
    template class sparse_uint_t<T>;                                                            \
    template bool is_subset<T>(const std::set<T>* const&, const std::set<T>* const&);           \
    template T intersect_size<T>(const std::set<T>* const&, const std::set<T>* const&);         \
    template std::set<T>* intersect<T>(const std::set<T>* const&, const std::set<T>* const&);

QZ_INST_INT(unsigned char)
QZ_INST_INT(unsigned short)
QZ_INST_INT(unsigned int)
QZ_INST_INT(unsigned long)

#undef QZ_INST_INT

}  // namespace QZ
