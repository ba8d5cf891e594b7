// The QR stage of the general eigenproblem on several objects at once, one
// in each lane of a 256-bit vector, for the array kernels of EigenValues and
// EigenValuesVectors at the fixed orders.
//
// The scans, shifts, start rows and sweeps run on all lanes together: every
// lane computes every step and a mask keeps the results of the lanes whose
// state or active block calls for that step, so each lane does exactly its
// object's operations (IEEE arithmetic is lane by lane) and the bits are
// those of the scalar path (next_sweep, then a sweep). Only the blocks that
// split off are stored lane by lane, through a view of the lanes' store.
// Selecting instead of branching per object also spares the branch
// predictor, which cannot learn the objects of a fresh batch. Stores to H
// and Z round to the element type, as the scalar core's stores into
// pBuffer do.
//
// A group stays together until its slowest object is through, so on average
// 22% (order 4) to 30% (order 3) of the lanes of a sweep sit idle. Refilling
// a lane with the next object as soon as its own was through cut the sweeps
// by that much but was no faster (32f order 4 with both vector sets: 5%
// slower): lanes at different stages leave no step of a sweep that every
// lane skips, so each sweep costs more.
#pragma once

#include <cstring>

#include "eigen/eigengen_core.hpp"
#include "eigen/lane_kit.hpp"
#include "frame/cpu.hpp"

// Vector types of 256 bits pass between always-inline helpers only, inside
// the function built for AVX.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace zel::eigengen::lanes {

using kit::Isa;
using kit::Pack;

// Lanes of one group: 4 doubles or 8 floats.
template <class W>
inline constexpr int kLanes = int(32 / sizeof(W));

// H and Z of the group's objects, element (r, c) of lane l at [c * N + r][l].
template <class W, int N>
struct Store {
    alignas(32) W h[N * N][kLanes<W>];
    alignas(32) W z[N * N][kLanes<W>];
};

// One lane of the store as an object of the scalar core.
template <class W, int N>
struct Lane {
    Store<W, N>* st;
    int l;
    static constexpr int n() { return N; }
    W& h(int r, int c) const { return st->h[c * N + r][l]; }
    W hw(int r, int c) const { return st->h[c * N + r][l]; }
    W& z(int, int r, int c) const { return st->z[c * N + r][l]; }
};

// A group between its phases: each object's pBuffer of NB elements (the
// source in it on the way in), the store, the lanes that ran out of sweeps
// and each lane's values.
template <class T, class W, int N, int NB>
struct Group {
    Loose<T> local[kLanes<W>][NB];
    Store<W, N> st;
    bool failed[kLanes<W>];
    T re[kLanes<W>][N], im[kLanes<W>][N];
};

// What lane l's reduction and QR stage leave in an object's pBuffer: H, Z
// and the reflectors' scalars.
template <Family F, class T, class W, int N, int NB>
void to_buffer(Group<T, W, N, NB>& g, int l, const Object<T, W, N>& o) {
    for (int i = 0; i < N * N; ++i) {
        o.buf[i] = T(g.st.h[i][l]);
        if constexpr (F.reach == Reach::Whole) o.block(F.z_block)[i] = T(g.st.z[i][l]);
    }
    const Object<T, W, N> mine{g.local[l], N};
    for (int k = 0; k + 1 < N; ++k) tau_of<F>(o)[k] = tau_of<F>(mine)[k];
}

// A lane vector of the store, and its masked store.
template <class K>
ZEL_INLINE typename K::V lane_ld(const typename K::S (&a)[K::W]) {
    typename K::V v;
    std::memcpy(&v, a, sizeof v);
    return v;
}
template <class K>
ZEL_INLINE void lane_put(typename K::S (&a)[K::W], typename K::V v, typename K::M m) {
    const typename K::V r = m ? v : lane_ld<K>(a);
    std::memcpy(a, &r, sizeof r);
}

// One sweep on every lane in `due`, each from its own start row m down to
// its hi: the scalar sweep's steps k2 = 0 .. N-2, a lane taking part in
// those with m <= k2 < hi, with a three-row reflector where k2 <= hi - 2.
// The lanes' positions (lo, hi, m) and start vectors come from the driver d.
template <Family F, class T, class K, int N, class G, class D>
ZEL_INLINE void sweep(G& g, typename K::M due, const D& d) {
    using W = typename K::S;
    using V = typename K::V;
    using M = typename K::M;
    constexpr int L = K::W;
    constexpr bool whole = F.reach == Reach::Whole;
    const V lo = d.lo, hi = d.hi, m = d.m, u1 = d.u1, u2 = d.u2, u3 = d.u3;
    auto ld = [](const W (&a)[L]) ZEL_LAMBDA_INLINE { return lane_ld<K>(a); };
    auto put = [](W (&a)[L], V v, M mask) ZEL_LAMBDA_INLINE { lane_put<K>(a, v, mask); };
    auto H = [&](int r, int c) ZEL_LAMBDA_INLINE -> W (&)[L] { return g.st.h[c * N + r]; };
    auto Z = [&](int r, int c) ZEL_LAMBDA_INLINE -> W (&)[L] { return g.st.z[c * N + r]; };
    auto st = [](V x) ZEL_LAMBDA_INLINE { return kit::stored<T, K>(x); };
    const V zero = K::splat(W(0)), one = K::splat(W(1)), two = K::splat(W(2));
    const V safmin = K::splat(W(Consts<T>::safmin));
    static_for<0, N - 1>([&](auto K2) ZEL_LAMBDA_INLINE {
        constexpr int k2 = K2;
        const V kv = K::splat(W(k2));
        const M act = due && kv >= m && kv < hi;
        if (!K::any(act)) return;
        const M three = act && kv <= hi - two;
        const M first = kv == m;
        // the reflector on (v0, x0[, x1])
        V v0 = u1, x0 = u2, x1 = u3;
        if constexpr (k2 > 0) {
            v0 = first ? u1 : ld(H(k2, k2 - 1));
            x0 = first ? u2 : ld(H(k2 + 1, k2 - 1));
            if constexpr (k2 + 2 < N) x1 = first ? u3 : three ? ld(H(k2 + 2, k2 - 1)) : zero;
            else x1 = first ? u3 : zero;
        }
        V ss = x0 * x0;
        ss = three ? ss + x1 * x1 : ss;
        const V xnorm = K::sqrt(ss);
        const M small = xnorm < safmin;
        const V beta = -sgn_k<K>(v0) * hyp_k<K, Consts<T>>(v0, xnorm);
        const V tau = (beta - v0) / beta;
        const V f = one / (v0 - beta);
        const V t1 = small ? zero : tau;
        const V alpha = small ? v0 : beta;
        const V v1 = small ? x0 : x0 * f;
        const V v2 = (small || !three) ? x1 : x1 * f;
        if constexpr (k2 > 0) {
            const M later = act && !first;
            put(H(k2, k2 - 1), st(alpha), later);
            put(H(k2 + 1, k2 - 1), zero, later);
            if constexpr (k2 + 2 < N) put(H(k2 + 2, k2 - 1), zero, later && three);
            put(H(k2, k2 - 1), st(-ld(H(k2, k2 - 1))), act && first && m > lo);
        }
        const V t2 = t1 * v1, t3 = t1 * v2;
        // reflect<R> on entries e0, e1[, e2] of a row or column where mask
        auto reflect = [&](W (&e0)[L], W (&e1)[L], W (*e2)[L], M mask) ZEL_LAMBDA_INLINE {
            const V a = ld(e0), b = ld(e1);
            V s = a + v1 * b;
            if (e2) {
                const V c = ld(*e2);
                s = three ? s + v2 * c : s;
                put(*e2, st(c - s * t3), mask && three);
            }
            put(e0, st(a - s * t1), mask);
            put(e1, st(b - s * t2), mask);
        };
        // rows k2.. of the columns k2 .. (whole: n-1; else hi)
        static_for<k2, N>([&](auto J) ZEL_LAMBDA_INLINE {
            constexpr int j = J;
            const M mj = whole ? act : act && K::splat(W(j)) <= hi;
            reflect(H(k2, j), H(k2 + 1, j), k2 + 2 < N ? &H(k2 + 2 < N ? k2 + 2 : 0, j) : nullptr, mj);
        });
        // columns k2.. of the rows (whole: 0; else lo) .. min(k2 + 3, hi)
        static_for<0, (k2 + 4 < N ? k2 + 4 : N)>([&](auto R) ZEL_LAMBDA_INLINE {
            constexpr int r = R;
            const V rv = K::splat(W(r));
            const M mr = whole ? act && rv <= hi : act && rv <= hi && rv >= lo;
            reflect(H(r, k2), H(r, k2 + 1), k2 + 2 < N ? &H(r, k2 + 2 < N ? k2 + 2 : 0) : nullptr, mr);
        });
        if constexpr (whole) {
            static_for<0, N>([&](auto R) ZEL_LAMBDA_INLINE {
                constexpr int r = R;
                reflect(Z(r, k2), Z(r, k2 + 1), k2 + 2 < N ? &Z(r, k2 + 2 < N ? k2 + 2 : 0) : nullptr, act);
            });
        }
    });
}

// The reductions of a group's objects, in lanes of the element type, each
// lane its object's operations; each object's Q (vector families) and
// clearing below the subdiagonal, alone.
template <Family F, class T, class W, int N, int NB>
ZEL_INLINE void reduce_group(Group<T, W, N, NB>& g) {
    constexpr int L = kLanes<W>, bytes = L * int(sizeof(T));
    using K = Pack<T, bytes, bytes == 32 ? Isa::Avx : Isa::Sse2>;
    using V = typename K::V;
    struct View {
        V* e;
        static constexpr int n() { return N; }
        V& h(int r, int c) const { return e[c * N + r]; }
    };
    V h[N * N], tau[N];
    for (int i = 0; i < N * N; ++i)
        for (int l = 0; l < L; ++l) h[i][l] = g.local[l][i];
    reduce_on<K>(View{h}, [&](int k) ZEL_LAMBDA_INLINE -> V& { return tau[k]; });
    for (int l = 0; l < L; ++l) {
        const Object<T, W, N> o{g.local[l], N};
        for (int i = 0; i < N * N; ++i) g.local[l][i] = h[i][l];
        Loose<T>* t = tau_of<F>(o);
        for (int k = 0; k + 1 < N; ++k) t[k] = tau[k][l];
        if constexpr (F.sets != kNoSet) form_q(o, o.block(F.z_block), t);
        clear_below_subdiagonal(o);
    }
}

// Every lane of a group to its next sweep, as next_sweep takes one object:
// the scan for a negligible subdiagonal, the shifts and the start row on all
// lanes at once, selected per lane; the blocks that split off stored lane by
// lane. The iteration's counters are lane values. Returns the lanes due for
// a sweep; lanes that finish or run out of sweeps leave `live`.
template <Family F, class T, class K, int N, class G>
struct Drive {
    using W = typename K::S;
    using V = typename K::V;
    using M = typename K::M;
    using C = Consts<T>;
    static constexpr int L = K::W;
    G& g;
    V hi = K::splat(W(N - 1)), lo = K::splat(W(0)), its = K::splat(W(0)), itn = K::splat(W(kSweepsPerOrder * N));
    V m = K::splat(W(0)), u1 = K::splat(W(1)), u2 = K::splat(W(0)), u3 = K::splat(W(0));
    M live = K::all(), failed = K::none();

    ZEL_INLINE V ld(int r, int c) const { return lane_ld<K>(g.st.h[c * N + r]); }
    // h(hi + dr, hi + dc) of each lane, for 2 <= hi
    ZEL_INLINE V at_hi(int dr, int dc) const {
        V v = K::splat(W(0));
        static_for<2, N>([&](auto H) ZEL_LAMBDA_INLINE {
            constexpr int h = H;
            v = hi == K::splat(W(h)) ? ld(h + dr, h + dc) : v;
        });
        return v;
    }
    ZEL_INLINE M next() {
        M due = K::none(), pend = live;
        const V zero = K::splat(W(0)), one = K::splat(W(1));
        for (;;) {
            const M act = pend && hi >= zero;
            live = live && !(pend && hi < zero);
            const M can = act && its < itn;
            // the last k in (lo, hi] where the scan stops, else lo
            V k = lo;
            static_for<1, N>([&](auto J) ZEL_LAMBDA_INLINE {
                constexpr int j = J;
                const V jv = K::splat(W(j));
                const M in = can && jv > lo && jv <= hi;
                V t = zero;
                if constexpr (F.scan == Scan::Relative) {
                    t = K::abs(ld(j - 1, j - 1)) + K::abs(ld(j, j));
                    const M tiny = in && t <= K::splat(W(C::safmin));
                    if (K::any(tiny))
                        for (int l = 0; l < L; ++l)
                            if (K::on(tiny, l))
                                t[l] = block_norm<W>(Lane<W, N>{&g.st, l}, int(K::lane(lo, l)), int(K::lane(hi, l)));
                }
                const M stop = scan_stops<F.scan, K, C>(K::abs(ld(j, j - 1)), t, K::splat(W(N) * W(C::small_unit)));
                k = in && stop ? jv : k;
            });
            lo = can ? k : lo;
            static_for<1, N>([&](auto J) ZEL_LAMBDA_INLINE {
                constexpr int j = J;
                const M clear = can && lo == K::splat(W(j));
                if (K::any(clear)) lane_put<K>(g.st.h[(j - 1) * N + j], zero, clear);
            });
            const M go = can && lo < hi - one;
            if (K::any(go)) start(go);
            due = due || go;
            const M fail = act && !can && lo < hi - one;
            failed |= fail;  // (|| here stops g++ 12 with AVX-512 on an internal error)
            live = live && !fail;
            const M defl = act && !go && !fail;
            if (!K::any(defl)) return due;
            for (int l = 0; l < L; ++l)
                if (K::on(defl, l))
                    deflate<F, T, W>(Lane<W, N>{&g.st, l}, int(K::lane(lo, l)), int(K::lane(hi, l)), g.re[l], g.im[l]);
            itn = defl ? itn - its : itn;
            hi = defl ? lo - one : hi;
            lo = defl ? zero : lo;
            its = defl ? zero : its;
            pend = defl;
        }
    }
    // the shifts and the start row of the lanes in `go`
    ZEL_INLINE void start(M go) {
        const M ex = its == K::splat(W(kExceptional1)) || its == K::splat(W(kExceptional2));
        const Shifts3<K> sh = plain_shifts<K>(ex, at_hi(0, 0), at_hi(-1, -1), at_hi(0, -1), at_hi(-1, 0), at_hi(-1, -2));
        M found = K::none();
        for (int mm = N - 3; mm >= 0; --mm) {
            const V mv = K::splat(W(mm));
            const M sel = go && !found && mv <= hi - K::splat(W(2)) && mv >= lo;
            if (!K::any(sel)) continue;
            const V h11 = ld(mm, mm), h22 = ld(mm + 1, mm + 1);
            V v1, v2, v3;
            start_vector<K>(sh, h11, h22, ld(mm + 1, mm), ld(mm, mm + 1), ld(mm + 2, mm + 1), v1, v2, v3);
            u1 = sel ? v1 : u1;
            u2 = sel ? v2 : u2;
            u3 = sel ? v3 : u3;
            m = sel ? mv : m;
            M stop = mv == lo;
            if (mm > 0) stop = stop || starts_here<K, C>(v1, v2, v3, h11, h22, ld(mm - 1, mm - 1), ld(mm, mm - 1));
            found = found || (sel && stop);
        }
        its = go ? its + K::splat(W(1)) : its;
    }
};

// A group's reductions and QR stages: H and Z into the store, then the lanes
// go to their next sweeps together and sweep together, until none has a
// sweep left.
template <Family F, class T, class W, int N, int NB>
struct Stage {
    template <int Bytes>
    static ZEL_INLINE int run(Group<T, W, N, NB>* g) {
        using K = Pack<W, 32, Isa::Avx>;
        constexpr int L = K::W;
        reduce_group<F>(*g);
        for (int l = 0; l < L; ++l) {
            const Object<T, W, N> o{g->local[l], N};
            for (int i = 0; i < N * N; ++i) {
                g->st.h[i][l] = W(g->local[l][i]);
                if constexpr (F.reach == Reach::Whole) g->st.z[i][l] = W(o.block(F.z_block)[i]);
            }
        }
        Drive<F, T, K, N, Group<T, W, N, NB>> d{*g};
        for (;;) {
            const typename K::M due = d.next();
            if (!K::any(due)) break;
            sweep<F, T, K, N>(*g, due, d);
        }
        for (int l = 0; l < L; ++l) g->failed[l] = K::on(d.failed, l);
        return 0;
    }
};

}  // namespace zel::eigengen::lanes

