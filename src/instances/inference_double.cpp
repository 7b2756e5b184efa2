// The inference engines with double values, for the four index types.
#include <QZ/QZBP>

namespace QZ {

template class InferenceAlgorithm<unsigned char, double>;
template class InferenceAlgorithm<unsigned short, double>;
template class InferenceAlgorithm<unsigned int, double>;
template class InferenceAlgorithm<unsigned long, double>;
template class PairwiseBP<unsigned char, double>;
template class PairwiseBP<unsigned short, double>;
template class PairwiseBP<unsigned int, double>;
template class PairwiseBP<unsigned long, double>;
template class LBP<unsigned char, double>;
template class LBP<unsigned short, double>;
template class LBP<unsigned int, double>;
template class LBP<unsigned long, double>;

}  // namespace QZ
