// The size queries of the general eigenproblem's pBuffer: bytes for one
// object, which an array call reuses for each object in turn.
#include "eigen/eigengen_table.hpp"

namespace {

template <std::int32_t (*Bytes)(int, int), int Esz>
zelStatus buf_size(int widthHeight, int* pSize) {
    if (!pSize) return zelStsErrNullPointer;
    if (widthHeight < 1) return zelStsErrSize;
    *pSize = Bytes(widthHeight, Esz);
    return zelStsOk;
}

}  // namespace

using zel::eigengen::values_bytes;
using zel::eigengen::vectors_bytes;

extern "C" ZEL_INTERNAL zelStatus w7_zelmEigenValuesGetBufSize_32f(int widthHeight, int* pSize) {
    return buf_size<values_bytes, 4>(widthHeight, pSize);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmEigenValuesGetBufSize_64f(int widthHeight, int* pSize) {
    return buf_size<values_bytes, 8>(widthHeight, pSize);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmEigenValuesVectorsGetBufSize_32f(int widthHeight, int* pSize) {
    return buf_size<vectors_bytes, 4>(widthHeight, pSize);
}
extern "C" ZEL_INTERNAL zelStatus w7_zelmEigenValuesVectorsGetBufSize_64f(int widthHeight, int* pSize) {
    return buf_size<vectors_bytes, 8>(widthHeight, pSize);
}
