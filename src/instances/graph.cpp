// The graph classes for the four index widths.
#include <QZ/QZGRAPH>

namespace QZ {

#define QZ_INST_GRAPH(T)                                                                             \
    template class AbstractGraph<T>;                                                               \
    template class Graph<T>;                                                                       \
    template class Chain<T>;                                                                       \
    template class Star<T>;                                                                        \
    template class Grid<T>;                                                                        \
    template class Kn<T>;                                                                          \
    template class RBMGraph<T>;                                                                    \
    template class STGraph<T>;                                                                     \
    template class SetGraph<T>;                                                                    \
    template class JunctionTree<T>;                                                                \
    template class DeepBoltzmannTree<T>;                                                           \
    template void MCS<T>(T*, const AbstractGraph<T>*&);                                            \
    template void MWST<T, T, true>(T*&, const AbstractGraph<T>*&, const T*);                        \
    template void adjFromCSV<T>(std::istream&, T*&, T&, T&, const char&);                          \
    template void adjFromCSV<T>(const std::string&, T*&, T&, T&, const char&);

QZ_INST_GRAPH(unsigned char)
QZ_INST_GRAPH(unsigned short)
QZ_INST_GRAPH(unsigned int)
QZ_INST_GRAPH(unsigned long)

#undef QZ_INST_GRAPH

}  // namespace QZ
