// The inference engines with float values, for the four index types.
#include <QZ/QZBP>

namespace QZ {

template class InferenceAlgorithm<unsigned char, float>;
template class InferenceAlgorithm<unsigned short, float>;
template class InferenceAlgorithm<unsigned int, float>;
template class InferenceAlgorithm<unsigned long, float>;
template class PairwiseBP<unsigned char, float>;
template class PairwiseBP<unsigned short, float>;
template class PairwiseBP<unsigned int, float>;
template class PairwiseBP<unsigned long, float>;
template class LBP<unsigned char, float>;
template class LBP<unsigned short, float>;
template class LBP<unsigned int, float>;
template class LBP<unsigned long, float>;

}  // namespace QZ
