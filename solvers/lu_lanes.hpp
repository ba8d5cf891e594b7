#pragma once
#include "frame/frame.hpp"
namespace zel::lu::lanes {
template <class T, Form F>
int decomp(const Call<T>&) { return 0; }
template <class T, Form F>
int back(const Call<T>&) { return 0; }
}
