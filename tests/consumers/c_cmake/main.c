/* Built against an installed zelm: the version record, and an array sum
   large enough to be divided among two threads, checked element by element. */
#include <stdio.h>
#include <stdlib.h>

#include "zelcore.h"
#include "zelm.h"

int main(void) {
    const zelLibVersion* v = zelmGetLibVersion();
    if (v->major != 7) {
        fprintf(stderr, "unexpected version %s\n", v->version);
        return 1;
    }
    enum { N = 4, COUNT = 20000 };
    float* a = malloc(sizeof(float) * N * N * COUNT);
    float* b = malloc(sizeof(float) * N * N * COUNT);
    float* d = malloc(sizeof(float) * N * N * COUNT);
    for (int k = 0; k < N * N * COUNT; ++k) {
        a[k] = (float)(k % 1009) * 0.25f;
        b[k] = (float)(k % 17) - 8.0f;
    }
    zelSetNumThreads(2);
    const int s2 = sizeof(float), s1 = N * s2, s0 = N * s1;
    zelStatus st = zelmAdd_mama_32f(a, s0, s1, s2, b, s0, s1, s2, d, s0, s1, s2, N, N, COUNT);
    int bad = st != zelStsOk;
    for (int k = 0; k < N * N * COUNT && !bad; ++k) bad = d[k] != a[k] + b[k];
    printf("%s: zelmAdd_mama_32f on %d 4x4 matrices: %s\n", v->name, COUNT, bad ? "WRONG" : "ok");
    free(a);
    free(b);
    free(d);
    return bad;
}
