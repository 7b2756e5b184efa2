// Structure searches of the integer models, whose values are as wide as their
// indices.
#include <QZ/QZSTRUCT>

namespace QZ {

QZ_STRUCT_INSTANCE(, unsigned char, unsigned char)
QZ_STRUCT_INSTANCE(, unsigned short, unsigned short)
QZ_STRUCT_INSTANCE(, unsigned int, unsigned int)
QZ_STRUCT_INSTANCE(, unsigned long, unsigned long)

}  // namespace QZ
