// Transposition of matrices whose rows have unit step: the banded 32f path
// with its choice between ordinary and non-temporal stores, and the 64f path.
// Elements move through integer registers only.
#include <emmintrin.h>

#include <algorithm>

#include "core/zelcore.h"
#include "movement/movement.hpp"

namespace zel::movement {

namespace {

// The machine's largest cache in bytes, 0 if unknown.
int cache_size() {
    int c = 0;
    zelGetMaxCacheSizeB(&c);
    return c;
}

ZEL_INLINE __m128i load4(const char* p) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(p)); }
ZEL_INLINE void store4(char* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

// One band of `rows` source rows, ordinary stores: strips of 4 source columns
// (4 destination rows) in 4x4 tiles, then the rows and columns left over.
void band_plain(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int rows) {
    int j = 0;
    for (; j + 4 <= W; j += 4) {
        const char* sc = s + std::ptrdiff_t(j) * 4;
        char* d0 = d + std::ptrdiff_t(j) * d1;
        char* r1 = d0 + d1;
        char* r2 = r1 + d1;
        char* r3 = r2 + d1;
        int i = 0;
        for (; i + 4 <= rows; i += 4) {
            const char* p = sc + std::ptrdiff_t(i) * s1;
            const __m128i a = load4(p), b = load4(p + s1), e = load4(p + 2 * s1), f = load4(p + 3 * s1);
            const __m128i t0 = _mm_unpacklo_epi32(a, b), t1 = _mm_unpacklo_epi32(e, f);
            const __m128i t2 = _mm_unpackhi_epi32(a, b), t3 = _mm_unpackhi_epi32(e, f);
            const std::ptrdiff_t o = std::ptrdiff_t(i) * 4;
            store4(d0 + o, _mm_unpacklo_epi64(t0, t1));
            store4(r1 + o, _mm_unpackhi_epi64(t0, t1));
            store4(r2 + o, _mm_unpacklo_epi64(t2, t3));
            store4(r3 + o, _mm_unpackhi_epi64(t2, t3));
        }
        for (; i < rows; ++i) {
            const char* p = sc + std::ptrdiff_t(i) * s1;
            const std::ptrdiff_t o = std::ptrdiff_t(i) * 4;
            move1<float>(d0 + o, p);
            move1<float>(r1 + o, p + 4);
            move1<float>(r2 + o, p + 8);
            move1<float>(r3 + o, p + 12);
        }
    }
    for (; j < W; ++j) {
        char* dr = d + std::ptrdiff_t(j) * d1;
        const char* sc = s + std::ptrdiff_t(j) * 4;
        for (int i = 0; i < rows; ++i) move1<float>(dr + std::ptrdiff_t(i) * 4, sc + std::ptrdiff_t(i) * s1);
    }
}

// One band, non-temporal stores: two source columns at a time, each source
// row's pair of elements streamed to the two destination rows; an odd last
// column alone. The fence completes the band's stores before the next band.
void band_nt(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int rows) {
    int j = 0;
    for (; j + 2 <= W; j += 2) {
        const char* sc = s + std::ptrdiff_t(j) * 4;
        int* r0 = reinterpret_cast<int*>(d + std::ptrdiff_t(j) * d1);
        int* r1 = reinterpret_cast<int*>(d + std::ptrdiff_t(j + 1) * d1);
        for (int i = 0; i < rows; ++i) {
            const char* p = sc + std::ptrdiff_t(i) * s1;
            int a, b;
            std::memcpy(&a, p, 4);
            std::memcpy(&b, p + 4, 4);
            _mm_stream_si32(r0 + i, a);
            _mm_stream_si32(r1 + i, b);
        }
    }
    if (j < W) {
        const char* sc = s + std::ptrdiff_t(j) * 4;
        int* r0 = reinterpret_cast<int*>(d + std::ptrdiff_t(j) * d1);
        for (int i = 0; i < rows; ++i) {
            int a;
            std::memcpy(&a, sc + std::ptrdiff_t(i) * s1, 4);
            _mm_stream_si32(r0 + i, a);
        }
    }
    _mm_sfence();
}

}  // namespace

// A single 32f matrix, or one object of an array with the array's decision in
// `nt`. Without it, a matrix whose smaller side exceeds 128 asks for the cache
// size and streams its stores if the matrix's traffic exceeds a known cache.
// Bands are 64 source rows, except that a streamed matrix whose width is not a
// multiple of 16 goes in one band.
void transpose32(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int H, bool nt) {
    if (!nt && std::min(W, H) > 128) {
        const int c = cache_size();
        nt = c != 0 && c < (Est(8) * Est(W) * Est(H)).value();
    }
    const int band = (nt && W % 16 != 0) ? H : std::min(H, 64);
    for (int r = 0; r < H; r += band) {
        const int rows = std::min(band, H - r);
        const char* sb = s + std::ptrdiff_t(r) * s1;
        char* db = d + std::ptrdiff_t(r) * 4;
        if (nt) band_nt(sb, s1, db, d1, W, rows);
        else band_plain(sb, s1, db, d1, W, rows);
    }
}

bool array_wants_nt(int W, int H, int count) {
    const int size = (Est(8) * Est(W) * Est(H) * Est(count)).value();
    if (size <= 0x20000) return false;
    const int c = cache_size();
    return c != 0 && size > c - c / 4;
}

// 64f: source columns in pairs, each pair two destination rows, two source
// rows a trip through 2x2 tiles; the rest singly.
void transpose64(const char* s, std::ptrdiff_t s1, char* d, std::ptrdiff_t d1, int W, int H) {
    int j = 0;
    for (; j + 2 <= W; j += 2) {
        const char* sc = s + std::ptrdiff_t(j) * 8;
        char* r0 = d + std::ptrdiff_t(j) * d1;
        char* r1 = r0 + d1;
        int i = 0;
        for (; i + 2 <= H; i += 2) {
            const char* p = sc + std::ptrdiff_t(i) * s1;
            const __m128i a = load4(p), b = load4(p + s1);
            store4(r0 + std::ptrdiff_t(i) * 8, _mm_unpacklo_epi64(a, b));
            store4(r1 + std::ptrdiff_t(i) * 8, _mm_unpackhi_epi64(a, b));
        }
        if (i < H) {
            const char* p = sc + std::ptrdiff_t(i) * s1;
            move1<double>(r0 + std::ptrdiff_t(i) * 8, p);
            move1<double>(r1 + std::ptrdiff_t(i) * 8, p + 8);
        }
    }
    if (j < W) {
        char* r0 = d + std::ptrdiff_t(j) * d1;
        const char* sc = s + std::ptrdiff_t(j) * 8;
        for (int i = 0; i < H; ++i) move1<double>(r0 + std::ptrdiff_t(i) * 8, sc + std::ptrdiff_t(i) * s1);
    }
}

}  // namespace zel::movement
