// How operands lie in memory: one object array in any storage form with
// the padding, shifts and table orders a case asks for, sentinels elsewhere.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace lay {

// How the operands of a case lie in memory.
struct Layout {
    int k2 = 1;           // stride2 in elements (standard and list forms)
    int dst_k2 = 1;       // the destination's
    int pad1 = 0;         // extra elements at the end of each stored row
    int pad0 = 0;         // extra elements after each object
    int lead = 0;         // elements before the first object
    int dst_lead = 0;     // the destination's further ones (standard form)
    int shift = 0;        // shift in elements (list and pointer forms)
    bool repeat = false;  // list form: a source table names one object twice
    bool soa = true;      // pointer form: objects of an element position adjacent (else interleaved)
    bool scramble = true;  // tables in scrambled memory order
    int k0 = 1;           // pointer form, soa: stride0 in elements
    bool in_place = false;  // the destination is the first array source read as m or v
    const char* label = "dense";
};

template <class T>
struct Operand {
    char kind = 'm';
    bool array = false;
    char form = 'S';  // addressing form of this operand: S, L or P
    int rows = 1, cols = 1, objs = 1;
    std::vector<T> mem;
    std::vector<T*> tab;
    T* base = nullptr;
    int s0 = 0, s1 = 0, s2 = 0, shift = 0;

    // Address of stored element (r, c) of object n.
    T* at(int n, int r, int c) {
        if (!array) n = 0;
        if (form == 'S')
            return reinterpret_cast<T*>(reinterpret_cast<char*>(base) + std::ptrdiff_t(n) * s0 +
                                        std::ptrdiff_t(r) * s1 + std::ptrdiff_t(c) * s2);
        if (form == 'L')
            return reinterpret_cast<T*>(reinterpret_cast<char*>(tab[n]) + shift + std::ptrdiff_t(r) * s1 +
                                        std::ptrdiff_t(c) * s2);
        return reinterpret_cast<T*>(reinterpret_cast<char*>(tab[std::size_t(r) * cols + c]) + shift +
                                    std::ptrdiff_t(n) * s0);
    }
    std::ptrdiff_t offset(int n, int r, int c) { return at(n, r, c) - mem.data(); }
};

template <class T>
inline T sentinel() {
    // a signalling-looking NaN with a payload that no arithmetic produces
    if constexpr (sizeof(T) == 4) {
        std::uint32_t b = 0x7FA5A5A5u;
        T v;
        std::memcpy(&v, &b, 4);
        return v;
    } else {
        std::uint64_t b = 0x7FF5A5A5A5A5A5A5ull;
        T v;
        std::memcpy(&v, &b, 8);
        return v;
    }
}

// Lays out one matrix/vector operand. `rng` scrambles tables.
template <class T>
void build(Operand<T>& o, char call_form, const Layout& L, bool is_dst, std::mt19937& rng) {
    const int sz = int(sizeof(T));
    o.form = (call_form == 'L' && !o.array) ? 'S' : call_form;
    const int k2 = is_dst ? L.dst_k2 : L.k2;
    if (o.form == 'S' || o.form == 'L') {
        o.s2 = k2 * sz;
        const int row_elems = o.cols * k2 + L.pad1;
        o.s1 = row_elems * sz;
        const int obj_elems = o.rows * row_elems + L.pad0;
        if (o.form == 'S') {
            o.s0 = o.array ? obj_elems * sz : 0;
            const int lead = L.lead + (is_dst ? L.dst_lead : 0);
            o.mem.assign(std::size_t(lead) + std::size_t(obj_elems) * o.objs + 4, sentinel<T>());
            o.base = o.mem.data() + lead;
        } else {
            const int slot = obj_elems + L.shift;
            o.shift = L.shift * sz;
            o.mem.assign(std::size_t(slot) * o.objs + 4, sentinel<T>());
            std::vector<int> perm(o.objs);
            for (int n = 0; n < o.objs; ++n) perm[n] = n;
            if (L.scramble) std::shuffle(perm.begin(), perm.end(), rng);
            o.tab.resize(o.objs);
            for (int n = 0; n < o.objs; ++n) o.tab[n] = o.mem.data() + std::size_t(perm[n]) * slot;
            if (L.repeat && !is_dst && o.objs >= 2) o.tab[o.objs - 1] = o.tab[0];
        }
    } else {  // element table
        const int K = o.rows * o.cols;
        o.shift = L.shift * sz;
        std::vector<int> perm(K);
        for (int k = 0; k < K; ++k) perm[k] = k;
        if (L.scramble) std::shuffle(perm.begin(), perm.end(), rng);
        o.tab.resize(K);
        if (L.soa) {
            const int lane = L.shift + (o.array ? (o.objs - 1) * L.k0 + 1 : 1) + 1;
            o.s0 = o.array ? L.k0 * sz : 0;
            o.mem.assign(std::size_t(lane) * K + 4, sentinel<T>());
            for (int k = 0; k < K; ++k) o.tab[k] = o.mem.data() + std::size_t(perm[k]) * lane;
        } else {
            const int pitch = K + L.pad0;
            o.s0 = o.array ? pitch * sz : 0;
            o.mem.assign(std::size_t(L.shift) + std::size_t(pitch) * o.objs + 4, sentinel<T>());
            for (int k = 0; k < K; ++k) o.tab[k] = o.mem.data() + perm[k];
        }
    }
}

template <class T>
T random_value(std::mt19937& rng) {
    std::uniform_real_distribution<double> d(-8.0, 8.0);
    // full mantissas, so that every sum and product has to be rounded
    return T(d(rng)) * T(1.0000001);
}

}  // namespace lay
