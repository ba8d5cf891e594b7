// Vector-lane paths of the vector algebra: several objects at once, each lane
// doing exactly its object's operations.
#pragma once

#include "frame/frame.hpp"
#include "vectors/assoc.hpp"

namespace zel::vectors::lanes {

template <Op O, class T, int N>
constexpr bool has_reduce() { return false; }
template <Op O, Str Sig, class T, Form F, int N, Assoc Own, Assoc Block>
bool reduce(const Call<T>&, int) { return false; }
template <class T, int N>
constexpr bool has_trace() { return false; }
template <Str Sig, class T, Form F, int N, Assoc Own>
bool trace(const Call<T>&) { return false; }
template <class T, int N>
constexpr bool has_frob() { return false; }
template <Str Sig, class T, Form F, int N, Assoc Own, Assoc Block>
bool frob(const Call<T>&, int) { return false; }
template <Str Sig, class T, Form F>
bool cross(const Call<T>&) { return false; }
template <Op O, Str Sig, class T, Form F, class Fn>
bool combine(const Call<T>&, const Fn&) { return false; }

}  // namespace zel::vectors::lanes
