// Built against an installed zelm with `pkg-config --cflags --libs zelm`: an
// array of 3x3 matrix-vector products in the list form, on two threads,
// against a plain loop.
#include <cmath>
#include <cstdio>
#include <vector>

#include "zelcore.h"
#include "zelm.h"

int main() {
    constexpr int n = 3, count = 30000;
    std::vector<double> m(n * n * count), x(n), y(n * count);
    for (std::size_t k = 0; k < m.size(); ++k) m[k] = std::sin(double(k));
    for (int j = 0; j < n; ++j) x[j] = 1.0 + j;
    std::vector<const double*> pm(count);
    std::vector<double*> py(count);
    for (int o = 0; o < count; ++o) {
        pm[o] = &m[o * n * n];
        py[o] = &y[o * n];
    }
    zelSetNumThreads(2);
    const int e = sizeof(double);
    const zelStatus st = zelmMul_mav_64f_L(pm.data(), 0, n * e, e, n, n, x.data(), e, n, py.data(), 0, e, count);
    double worst = 0;
    for (int o = 0; o < count; ++o)
        for (int i = 0; i < n; ++i) {
            double want = 0;
            for (int k = 0; k < n; ++k) want += m[o * n * n + i * n + k] * x[k];
            worst = std::fmax(worst, std::fabs(y[o * n + i] - want));
        }
    const bool ok = st == zelStsOk && worst < 1e-12;
    std::printf("%s: zelmMul_mav_64f_L on %d 3x3 matrices: %s (largest difference %.1e)\n",
                zelmGetLibVersion()->name, count, ok ? "ok" : "WRONG", worst);
    return ok ? 0 : 1;
}
