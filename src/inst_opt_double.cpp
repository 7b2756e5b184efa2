// The function interface, the optimizer frame and the first-order methods with
// double values, for the four index types.
#include <QZ/QZOPT>

namespace QZ {

template class Function<unsigned char, double>;
template class Optimizer<unsigned char, double, true>;
template class GradientDescent<unsigned char, double>;
template class ProximalGradient<unsigned char, double>;
template class FISTA<unsigned char, double>;
template class Function<unsigned short, double>;
template class Optimizer<unsigned short, double, true>;
template class GradientDescent<unsigned short, double>;
template class ProximalGradient<unsigned short, double>;
template class FISTA<unsigned short, double>;
template class Function<unsigned int, double>;
template class Optimizer<unsigned int, double, true>;
template class GradientDescent<unsigned int, double>;
template class ProximalGradient<unsigned int, double>;
template class FISTA<unsigned int, double>;
template class Function<unsigned long, double>;
template class Optimizer<unsigned long, double, true>;
template class GradientDescent<unsigned long, double>;
template class ProximalGradient<unsigned long, double>;
template class FISTA<unsigned long, double>;

}  // namespace QZ
