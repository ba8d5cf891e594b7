// Benchmark inputs shared by the benchmark programs.
#pragma once

#include <cstddef>
#include <random>
#include <vector>

// n values uniform in [-1, 1), the same on every run.
template <class T>
std::vector<T> data(std::size_t n) {
    std::vector<T> v(n);
    std::mt19937 g(1);
    std::uniform_real_distribution<double> d(-1, 1);
    for (auto& x : v) x = T(d(g));
    return v;
}
