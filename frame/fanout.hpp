// The parallel fan-out: the one place that touches OpenMP. A wrapper decides
// whether to fork, splits `count` objects into contiguous slices in thread
// order, runs the ordinary kernel on each slice and, where the family needs
// it, hands out per-thread scratch and keeps the first failing status.
#pragma once

#include <omp.h>

#include <cstddef>

#include "frame/frame.hpp"

extern "C" {
// libzelcore
int ownGetNumThreads(void);
// the OpenMP runtime's allocator
void* kmpc_malloc(std::size_t size);
void kmpc_free(void* ptr);
}

namespace zel {

// What a family tells the wrapper about its calls.
struct FanSpec {
    Form form;                 // form of the call's array operands
    unsigned src_arrays;       // bit k: src[k] is an array operand
    unsigned dst_arrays;       // bit k: dst[k] is an array operand
    bool cval_array;           // the constant is an array
    int out_per_object;        // compact results per object in out (0: none)
    bool out2;                 // out2 holds as many per object as out
    int idx_per_object;        // pivot entries per object in idx (0: none)
    std::size_t scratch_bytes; // per-thread scratch (0: none)
    bool merge_status;         // keep the first failure (else return 0)
};

// Moves an operand on to object `first`.
ZEL_INLINE void advance(Opd& o, Form f, int first) {
    if (f == Form::S)
        o.p = static_cast<const char*>(o.p) + std::ptrdiff_t(first) * o.s0;
    else if (f == Form::L)
        o.p = static_cast<const void* const*>(o.p) + first;
    else
        o.shift += std::ptrdiff_t(first) * o.s0;
}

template <class T>
Call<T> slice_of(const Call<T>& c, const FanSpec& fs, int first, int n) {
    Call<T> s = c;
    for (int k = 0; k < 3; ++k)
        if (fs.src_arrays >> k & 1u) advance(s.src[k], fs.form, first);
    for (int k = 0; k < 2; ++k)
        if (fs.dst_arrays >> k & 1u) advance(s.dst[k], fs.form, first);
    if (fs.cval_array) {
        // a constant array keeps its strided shape in the pointer form
        advance(s.cval, fs.form == Form::L ? Form::L : Form::S, first);
    }
    if (fs.out_per_object) {
        s.out += std::ptrdiff_t(first) * fs.out_per_object;
        if (fs.out2) s.out2 += std::ptrdiff_t(first) * fs.out_per_object;
    }
    if (fs.idx_per_object) s.idx += std::ptrdiff_t(first) * fs.idx_per_object;
    s.count = n;
    return s;
}

// The wrapper. `kernel` is the kernel the API function chose by the stride
// test; it is called with the whole call on the direct path.
template <class T, class Kernel>
zelStatus fan_out(const Call<T>& c, const FanSpec& fs, Kernel kernel) {
    const int asked = ownGetNumThreads();
    if (asked <= 1 || c.count < asked) return kernel(c);

    char* scratch = nullptr;
    if (fs.scratch_bytes) {
        scratch = static_cast<char*>(kmpc_malloc(std::size_t(asked) * fs.scratch_bytes));
        // No memory for the team: the caller's own buffer on this thread.
        if (!scratch) return kernel(c);
    }

    int team = 1, q = 0, r = 0;
    zelStatus shared = zelStsOk;
    int nthreads = ownGetNumThreads();
    if (nthreads < 1) nthreads = 1;
    // The thread count can have grown since the block was sized (another
    // thread of the application set it): no more threads than blocks.
    if (scratch && nthreads > asked) nthreads = asked;
#pragma omp parallel num_threads(nthreads) shared(team, q, r, shared)
    {
#pragma omp master
        {
            team = omp_get_num_threads();
            q = c.count / team;
            r = c.count % team;
        }
#pragma omp barrier
        const int t = omp_get_thread_num();
        const int n = t < r ? q + 1 : q;
        const int first = t < r ? (q + 1) * t : (q + 1) * r + (t - r) * q;
        if (n > 0) {
            Call<T> s = slice_of(c, fs, first, n);
            if (scratch) s.buf = reinterpret_cast<T*>(scratch + std::size_t(t) * fs.scratch_bytes);
            const zelStatus st = kernel(s);
            if (fs.merge_status) {
#pragma omp critical
                {
                    if (shared == zelStsOk) shared = st;
                }
            }
        }
    }
    if (scratch) kmpc_free(scratch);
    return fs.merge_status ? shared : zelStsOk;
}

}  // namespace zel
