/* zelm at its real job: very many small problems, each batch in one call.

   (a) one million 4x4 linear systems, LU factorisation and solve, residual checked;
   (b) 100,000 symmetric 3x3 tensors, eigenvalues and eigenvectors, orthogonality checked;
   (c) one million 3D points through one 4x4 affine transform, checked against doubles;
   (d) the batch of (a) once more, handed over as lists of pointers (the _L form), which
       must give the very same bits as the contiguous call.

   Prints a table of throughput and check figures; exits with 1 if a check fails.
   Copy any section: each is a self-contained use of one or two calls. */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "zelcore.h"
#include "zelm.h"

enum { SYSTEMS = 1000000, TENSORS = 100000, POINTS = 1000000 };

static double now(void) {
    struct timespec t;
    clock_gettime(CLOCK_MONOTONIC, &t);
    return (double)t.tv_sec + 1e-9 * (double)t.tv_nsec;
}

/* A small reproducible generator: uniform floats in [-1, 1). */
static unsigned long long seed = 0x9E3779B97F4A7C15ull;
static float uniform(void) {
    seed = seed * 6364136223846793005ull + 1442695040888963407ull;
    return (float)((double)(seed >> 40) / (double)(1ull << 23) - 1.0);
}

static void* alloc(size_t bytes) {
    void* p = malloc(bytes);
    if (!p) {
        fprintf(stderr, "demo: out of memory\n");
        exit(2);
    }
    return p;
}

static int failures = 0;

/* One line of the table; a check passes when its figure is at most its limit. */
static void row(const char* job, long objects, double seconds, const char* check, double figure, double limit) {
    const int ok = figure <= limit; /* NaN fails */
    failures += !ok;
    if (*job)
        printf("%-46s %8ld %9.2f %10.3g", job, objects, 1e3 * seconds, objects / seconds);
    else /* a further check of the job above */
        printf("%-46s %8s %9s %10s", "", "", "", "");
    printf("  %-29s %9.2e %9.2e  %s\n", check, figure, limit, ok ? "ok" : "FAILED");
}

static void status(const char* call, zelStatus st) {
    if (st != zelStsOk) {
        printf("%s returned %d\n", call, (int)st);
        ++failures;
    }
}

/* Largest relative residual |A x - b| / (|A| |x| + |b|) over the batch, infinity norms, in double. */
static double lu_residual(const float* a, const float* b, const float* x, long count) {
    double worst = 0.0;
    for (long k = 0; k < count; ++k) {
        const float* A = a + 16 * k;
        const float* B = b + 4 * k;
        const float* X = x + 4 * k;
        double r = 0.0, na = 0.0, nx = 0.0, nb = 0.0;
        for (int i = 0; i < 4; ++i) {
            double s = -(double)B[i], rowsum = 0.0;
            for (int j = 0; j < 4; ++j) {
                s += (double)A[4 * i + j] * X[j];
                rowsum += fabs(A[4 * i + j]);
            }
            r = fmax(r, fabs(s));
            na = fmax(na, rowsum);
            nx = fmax(nx, fabs(X[i]));
            nb = fmax(nb, fabs(B[i]));
        }
        const double rel = r / (na * nx + nb);
        if (!(rel <= worst)) worst = rel; /* keeps a NaN */
    }
    return worst;
}

int main(void) {
    const zelLibVersion* v = zelmGetLibVersion();
    printf("%s %s, %d threads\n\n", v->name, v->version, ownGetNumThreads());
    printf("%-46s %8s %9s %10s  %-29s %9s %9s\n", "job", "objects", "ms", "objects/s", "check", "figure", "limit");

    /* (a) 4x4 systems A x = b. The matrices are row-major and back to back: object stride
       64 bytes, row stride 16, element stride 4. The factors overwrite nothing: they go to
       their own array, with one pivot table of four ints per matrix. */
    float* a = alloc(sizeof(float) * 16 * SYSTEMS);
    float* b = alloc(sizeof(float) * 4 * SYSTEMS);
    float* lu = alloc(sizeof(float) * 16 * SYSTEMS);
    float* x = alloc(sizeof(float) * 4 * SYSTEMS);
    int* pivots = alloc(sizeof(int) * 4 * SYSTEMS);
    for (long k = 0; k < 16L * SYSTEMS; ++k) a[k] = uniform();
    for (long k = 0; k < 4L * SYSTEMS; ++k) b[k] = uniform();

    double t0 = now();
    status("zelmLUDecomp_ma_32f",
           zelmLUDecomp_ma_32f(a, 64, 16, 4, pivots, lu, 64, 16, 4, 4, SYSTEMS));
    status("zelmLUBackSubst_mava_32f",
           zelmLUBackSubst_mava_32f(lu, 64, 16, 4, pivots, b, 16, 4, x, 16, 4, 4, SYSTEMS));
    double t1 = now();
    row("(a) 4x4 systems, LU factor + solve, 32f", SYSTEMS, t1 - t0, "relative residual, max",
        lu_residual(a, b, x, SYSTEMS), 1e-4);

    /* (d) The same systems as lists: one pointer per matrix and per vector, here in reverse
       order to show that the objects may lie anywhere. Pivot tables stay one block. */
    const float** pa = alloc(sizeof(float*) * SYSTEMS);
    float** plu = alloc(sizeof(float*) * SYSTEMS);
    const float** pb = alloc(sizeof(float*) * SYSTEMS);
    float** px = alloc(sizeof(float*) * SYSTEMS);
    float* lu2 = alloc(sizeof(float) * 16 * SYSTEMS);
    float* x2 = alloc(sizeof(float) * 4 * SYSTEMS);
    int* pivots2 = alloc(sizeof(int) * 4 * SYSTEMS);
    for (long k = 0; k < SYSTEMS; ++k) {
        const long r = SYSTEMS - 1 - k;
        pa[k] = a + 16 * r;
        plu[k] = lu2 + 16 * r;
        pb[k] = b + 4 * r;
        px[k] = x2 + 4 * r;
    }
    t0 = now();
    status("zelmLUDecomp_ma_32f_L", zelmLUDecomp_ma_32f_L(pa, 0, 16, 4, pivots2, plu, 0, 16, 4, 4, SYSTEMS));
    status("zelmLUBackSubst_mava_32f_L",
           zelmLUBackSubst_mava_32f_L((const float* const*)plu, 0, 16, 4, pivots2, pb, 0, 4, px, 0, 4, 4, SYSTEMS));
    t1 = now();
    /* Object k of the list is matrix SYSTEMS-1-k, so its pivot table is in reverse block order. */
    long differ = memcmp(lu2, lu, sizeof(float) * 16 * SYSTEMS) != 0 || memcmp(x2, x, sizeof(float) * 4 * SYSTEMS) != 0;
    for (long k = 0; k < SYSTEMS && !differ; ++k)
        differ = memcmp(pivots2 + 4 * k, pivots + 4 * (SYSTEMS - 1 - k), sizeof(int) * 4) != 0;
    row("(d) the same, as lists of pointers (_L)", SYSTEMS, t1 - t0, "differs from (a) in bits", (double)differ, 0);

    /* (b) Symmetric 3x3 tensors: eigenvalues (descending) and eigenvectors (columns).
       pBuffer holds one 3x3 working matrix. */
    float* s = alloc(sizeof(float) * 9 * TENSORS);
    float* vec = alloc(sizeof(float) * 9 * TENSORS);
    float* val = alloc(sizeof(float) * 3 * TENSORS);
    float buffer[9];
    for (long k = 0; k < TENSORS; ++k)
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j <= i; ++j) s[9 * k + 3 * i + j] = s[9 * k + 3 * j + i] = uniform();
    t0 = now();
    status("zelmEigenValuesVectorsSym_ma_32f",
           zelmEigenValuesVectorsSym_ma_32f(s, 36, 12, 4, buffer, vec, 36, 12, 4, val, 3, TENSORS));
    t1 = now();
    double orth = 0.0, resid = 0.0; /* max |V^T V - I|, max |S V - V diag(w)| / max(|S|, 1) */
    for (long k = 0; k < TENSORS; ++k) {
        const float* S = s + 9 * k;
        const float* V = vec + 9 * k;
        double ns = 0.0;
        for (int e = 0; e < 9; ++e) ns = fmax(ns, fabs(S[e]));
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) {
                double d = (i == j) ? -1.0 : 0.0, r = -(double)V[3 * i + j] * val[3 * k + j];
                for (int m = 0; m < 3; ++m) {
                    d += (double)V[3 * m + i] * V[3 * m + j];
                    r += (double)S[3 * i + m] * V[3 * m + j];
                }
                if (!(fabs(d) <= orth)) orth = fabs(d);
                if (!(fabs(r) / fmax(ns, 1.0) <= resid)) resid = fabs(r) / fmax(ns, 1.0);
            }
    }
    row("(b) symmetric 3x3, eigenvalues + vectors, 32f", TENSORS, t1 - t0, "|V^T V - I|, max", orth, 1e-5);
    /* The family's tolerances are absolute (2^-23 in 32f): a reflector whose vector lies
       within that of its axis is passed over, which can leave an entry of about
       sqrt(2^-22 |x|) outside the tridiagonal form. Hence a residual limit far above the
       orthogonality one. */
    row("", TENSORS, t1 - t0, "|S V - V diag(w)| / |S|, max", resid, 1e-3);

    /* (c) Points (x, y, z) as row vectors times a 4x4 matrix whose last row is the
       translation; each result has four floats (x', y', z', w'). */
    const float c = 0.8f, sn = 0.6f; /* a rotation about z, a scale, a shift */
    const float m[16] = {2 * c, 2 * sn, 0, 0, -2 * sn, 2 * c, 0, 0, 0, 0, 2, 0, 10, -5, 1, 1};
    float* p = alloc(sizeof(float) * 3 * POINTS);
    float* q = alloc(sizeof(float) * 4 * POINTS);
    for (long k = 0; k < 3L * POINTS; ++k) p[k] = 100.0f * uniform();
    t0 = now();
    status("zelmAffineTransform_m4v3a_32f", zelmAffineTransform_m4v3a_32f(m, p, 12, q, 16, POINTS));
    t1 = now();
    double err = 0.0; /* max relative error against the product in double */
    for (long k = 0; k < POINTS; ++k)
        for (int j = 0; j < 4; ++j) {
            double r = m[12 + j], scale = fabs(m[12 + j]);
            for (int i = 0; i < 3; ++i) {
                r += (double)p[3 * k + i] * m[4 * i + j];
                scale += fabs((double)p[3 * k + i] * m[4 * i + j]);
            }
            const double e = fabs(q[4 * k + j] - r) / fmax(scale, 1e-30);
            if (!(e <= err)) err = e;
        }
    row("(c) 3D points, 4x4 affine transform, 32f", POINTS, t1 - t0, "relative error, max", err, 1e-6);

    printf("\n%s\n", failures ? "demo: a check FAILED" : "demo: all checks passed");
    free(a), free(b), free(lu), free(x), free(pivots), free(pa), free(plu), free(pb), free(px), free(lu2), free(x2),
        free(pivots2), free(s), free(vec), free(val), free(p), free(q);
    return failures ? 1 : 0;
}
