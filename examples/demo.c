/* A first look at zelm: the version record and a vector sum. */
#include <stdio.h>

#include "zelm.h"

int main(void) {
    const zelLibVersion* v = zelmGetLibVersion();
    printf("%s, version %s, built %s\n", v->name, v->version, v->buildDate);

    float a[6] = {1, 2, 3, 4, 5, 6};
    float b[6] = {0.5f, 0.5f, 0.5f, 0.5f, 0.5f, 0.5f};
    float d[6];
    zelStatus st = zelmAdd_vv_32f(a, sizeof(float), b, sizeof(float), d, sizeof(float), 6);
    printf("zelmAdd_vv_32f: status %d:", st);
    for (int j = 0; j < 6; ++j) printf(" %g", d[j]);
    printf("\n");

    /* every other element of a, times 10 */
    st = zelmMul_vc_32f(a, 2 * sizeof(float), 10.0f, d, sizeof(float), 3);
    printf("zelmMul_vc_32f: status %d:", st);
    for (int j = 0; j < 3; ++j) printf(" %g", d[j]);
    printf("\n");

    /* a null pointer is refused, and nothing is written */
    st = zelmSub_vv_32f(a, sizeof(float), NULL, sizeof(float), d, sizeof(float), 6);
    printf("zelmSub_vv_32f with a null source: status %d\n", st);
    return 0;
}
