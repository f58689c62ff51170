// Vectors of a fixed number of lanes for plain loops that have to stay in registers; the compiler
// splits them for the machine at hand.
#pragma once

namespace plain {

typedef float Floats __attribute__((vector_size(64)));
typedef double Doubles __attribute__((vector_size(32)));
typedef float FloatsAnywhere __attribute__((vector_size(64), aligned(4), may_alias));
typedef double DoublesAnywhere __attribute__((vector_size(32), aligned(8), may_alias));

inline Floats load(const float* from) {
    return *reinterpret_cast<const FloatsAnywhere*>(from);
}
inline void store(float* to, Floats value) {
    *reinterpret_cast<FloatsAnywhere*>(to) = value;
}
inline Doubles load(const double* from) {
    return *reinterpret_cast<const DoublesAnywhere*>(from);
}
inline void store(double* to, Doubles value) {
    *reinterpret_cast<DoublesAnywhere*>(to) = value;
}

} // namespace plain
