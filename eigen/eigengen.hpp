// The general eigenproblem: EigenValues, EigenValuesVectors,
// EigenValuesVectorsRight and EigenValuesVectorsLeft in every storage form.
//
// A kernel copies each source object row by row into pBuffer (which makes
// the working matrix its transpose), runs the family's core
// (eigen/eigengen_core.hpp) at the object's order, and copies the vector
// blocks out. Orders 3 to 6 are the core instantiated at a fixed order;
// every order runs the same arithmetic. eigen/eigengen_table.hpp holds the
// families' differences and limits.
#pragma once

#include <cstdint>

#include "eigen/eigengen_core.hpp"
#include "eigen/eigengen_lanes.hpp"
#include "eigen/eigengen_table.hpp"
#include "frame/fanout.hpp"

extern "C" {
ZEL_INTERNAL zelStatus w7_zelmEigenValuesVectorsGetBufSize_32f(int widthHeight, int* pSize);
ZEL_INTERNAL zelStatus w7_zelmEigenValuesVectorsGetBufSize_64f(int widthHeight, int* pSize);
}

namespace zel::eigengen {

// The kernel of one export at order N (0: any order): any stride2, `count`
// objects (1 for the single forms), stopping at the first object that fails.
// Array kernels of the families with plain shifts at a fixed order take
// their objects in groups whose QR stages run in lanes (with AVX), then
// finish each object in order as the scalar path does; the rest go alone.
template <Op O, class T, Form F, bool Array, int N>
zelStatus kernel_at(const Call<T>& c) {
    static constexpr Family fam = family(O);
    using W = Wide<O, T, Array>;
    const int n = N ? N : c.widthHeight;
    const int count = Array ? c.count : 1;
    const Ref<T, F> src{&c.src[0], n};
    const Ref<T, F> d0{&c.dst[0], n}, d1{&c.dst[1], n};
    Loose<T>* const buf = c.buf;
    auto load_source = [&](int k, Loose<T>* b) {
        for (int i = 0; i < n; ++i)
            for (int j = 0; j < n; ++j) b[i * n + j] = load(src.at(k, i, j));
    };
    // the vectors of object k, from pBuffer; element (r, c) of a destination
    // is component r of vector c
    auto copy_out = [&](int k) {
        if constexpr (fam.sets != kNoSet) {
            const Loose<T>* z = buf + std::ptrdiff_t(fam.z_block) * n * n;
            for (int r = 0; r < n; ++r)
                for (int j = 0; j < n; ++j) store(d0.at(k, r, j), T(z[j * n + r]));
            if constexpr (fam.copy_block != 0) {
                const Loose<T>* y = buf + std::ptrdiff_t(fam.copy_block) * n * n;
                for (int r = 0; r < n; ++r)
                    for (int j = 0; j < n; ++j) store(d1.at(k, r, j), T(y[j * n + r]));
            }
        }
    };
    int k = 0;
    if constexpr (Array && N >= 3 && fam.shifts == Shifts::Plain) {
        constexpr int L = lanes::kLanes<W>;
        constexpr int nb = buffer_elems(fam, N);
        if (cpu::avx()) {
            for (; k + L <= count; k += L) {
                lanes::Group<T, W, N, nb> g;
                for (int l = 0; l < L; ++l) load_source(k + l, g.local[l]);
                cpu::built_32<lanes::Stage<fam, T, W, N, nb>>(&g);
                for (int l = 0; l < L; ++l) {
                    const int o = k + l;
                    T* const re = c.out + std::ptrdiff_t(o) * N;
                    T* const im = c.out2 + std::ptrdiff_t(o) * N;
                    zelStatus st = zelStsOk;
                    if (g.failed[l]) {
                        // out of sweeps: again alone, for the state and status it leaves
                        load_source(o, buf);
                        st = solve_object<fam, T, W, N>(buf, N, re, im);
                    } else {
                        const Object<T, W, N> ob{buf, N};
                        lanes::to_buffer<fam>(g, l, ob);
                        for (int i = 0; i < N; ++i) {
                            store(re + i, g.re[l][i]);
                            store(im + i, g.im[l][i]);
                        }
                        if constexpr (fam.sets != kNoSet) st = vectors_of_object<fam>(ob, im);
                    }
                    if (st != zelStsOk) return st;
                    copy_out(o);
                }
            }
        }
    }
    for (; k < count; ++k) {
        load_source(k, buf);
        const std::ptrdiff_t first = std::ptrdiff_t(k) * n;
        const zelStatus st = solve_object<fam, T, W, N>(buf, n, c.out + first, c.out2 + first);
        if (st != zelStsOk) return st;
        copy_out(k);
    }
    return zelStsOk;
}

// Orders 3 to 6 run the kernel instantiated at their order.
template <Op O, class T, Form F, bool Array>
zelStatus kernel(const Call<T>& c) {
    switch (c.widthHeight) {
        case 3: return kernel_at<O, T, F, Array, 3>(c);
        case 4: return kernel_at<O, T, F, Array, 4>(c);
        case 5: return kernel_at<O, T, F, Array, 5>(c);
        case 6: return kernel_at<O, T, F, Array, 6>(c);
        default: return kernel_at<O, T, F, Array, 0>(c);
    }
}

// The entry of every export of the four families, behind its argument
// tests: single objects and the left/right families run their kernel on the
// calling thread; EigenValues and EigenValuesVectors arrays fan out above
// their limit, with per-thread scratch of the vector families' size.
template <Op O, Str Sig, class T, Str FS>
zelStatus entry(Call<T>& c) {
    constexpr Form F = form_of<FS>();
    constexpr bool array = parse<Sig>().any_array();
    static constexpr Family fam = family(O);
    auto run = [](const Call<T>& s) { return kernel<O, T, F, array>(s); };
    if constexpr (!array || fam.limit < 0) {
        return run(c);
    } else {
        const int n = c.widthHeight;
        if (estimate(fam, n, c.count) <= fam.limit) return run(c);
        int bytes = 0;
        if constexpr (sizeof(T) == 4) w7_zelmEigenValuesVectorsGetBufSize_32f(n, &bytes);
        else w7_zelmEigenValuesVectorsGetBufSize_64f(n, &bytes);
        FanSpec fs{};
        fs.form = F;
        fs.src_arrays = 1u;
        fs.dst_arrays = fam.sets == kNoSet ? 0u : fam.copy_block ? 3u : 1u;
        fs.out_per_object = n;
        fs.out2 = true;
        // The query's int holds up to 4 GB read as unsigned; a thread's
        // scratch beyond that gets no block: the caller's buffer on this
        // thread, as when the allocation fails.
        if (std::uint64_t(std::uint32_t(bytes)) != vectors_bytes_exact(n, int(sizeof(T))))
            return run(c);
        fs.scratch_bytes = std::size_t(std::uint32_t(bytes));
        fs.merge_status = true;
        return fan_out(c, fs, run);
    }
}

}  // namespace zel::eigengen
