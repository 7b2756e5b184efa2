// The inference base, the message-passing engine and its bit-length form with
// integer values, where the value type equals the index type.
#include <QZ/QZBP>

namespace QZ {

template class InferenceAlgorithm<unsigned char, unsigned char>;
template class InferenceAlgorithm<unsigned short, unsigned short>;
template class InferenceAlgorithm<unsigned int, unsigned int>;
template class InferenceAlgorithm<unsigned long, unsigned long>;
template class PairwiseBP<unsigned char, unsigned char>;
template class PairwiseBP<unsigned short, unsigned short>;
template class PairwiseBP<unsigned int, unsigned int>;
template class PairwiseBP<unsigned long, unsigned long>;
template class BitLengthBP<unsigned char>;
template class BitLengthBP<unsigned short>;
template class BitLengthBP<unsigned int>;
template class BitLengthBP<unsigned long>;

}  // namespace QZ
