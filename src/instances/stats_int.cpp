// Table counts of the integer models (values as wide as the indices), and the
// reference rows of the latent columns, which depend on the index type only.
#include <QZ/QZMRF>

namespace QZ {

QZ_STATS_INSTANCE(, unsigned char, unsigned char)
QZ_STATS_INSTANCE(, unsigned short, unsigned short)
QZ_STATS_INSTANCE(, unsigned int, unsigned int)
QZ_STATS_INSTANCE(, unsigned long, unsigned long)

template unsigned char* randomCenters<unsigned char>(const unsigned char&, const unsigned char&, const unsigned char&,
                                                     std::mt19937*);
template unsigned short* randomCenters<unsigned short>(const unsigned short&, const unsigned short&,
                                                       const unsigned short&, std::mt19937*);
template unsigned int* randomCenters<unsigned int>(const unsigned int&, const unsigned int&, const unsigned int&,
                                                   std::mt19937*);
template unsigned long* randomCenters<unsigned long>(const unsigned long&, const unsigned long&,
                                                     const unsigned long&, std::mt19937*);

}  // namespace QZ
