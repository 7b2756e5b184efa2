// The function interface, the optimizer frame and the first-order methods with
// float values, for the four index types.
#include <QZ/QZOPT>

namespace QZ {

template class Function<unsigned char, float>;
template class Optimizer<unsigned char, float, true>;
template class GradientDescent<unsigned char, float>;
template class ProximalGradient<unsigned char, float>;
template class FISTA<unsigned char, float>;
template class Function<unsigned short, float>;
template class Optimizer<unsigned short, float, true>;
template class GradientDescent<unsigned short, float>;
template class ProximalGradient<unsigned short, float>;
template class FISTA<unsigned short, float>;
template class Function<unsigned int, float>;
template class Optimizer<unsigned int, float, true>;
template class GradientDescent<unsigned int, float>;
template class ProximalGradient<unsigned int, float>;
template class FISTA<unsigned int, float>;
template class Function<unsigned long, float>;
template class Optimizer<unsigned long, float, true>;
template class GradientDescent<unsigned long, float>;
template class ProximalGradient<unsigned long, float>;
template class FISTA<unsigned long, float>;

}  // namespace QZ
