// For code that works on several numbers side by side, and is written once and compiled for several processors. A lane
// goes through the same IEEE operations whatever their number, so results do not depend on it.
#ifndef TOLVIN_KERNEL_KERNELLANES_HPP
#define TOLVIN_KERNEL_KERNELLANES_HPP

#include <cstddef>
#include <cstdint>

// A function that is inlined wherever it is used, so that it is compiled for the processor of its caller.
#define INLINE [[gnu::always_inline]] inline

// Before a loop of few rounds: unroll it, so that its vectors stay in registers.
#ifdef __clang__
#define UNROLL _Pragma("unroll")
#else
#define UNROLL _Pragma("GCC unroll 8")
#endif

// How wide vectors are handed over depends on the processor, but all that do so here are inlined.
#pragma GCC diagnostic ignored "-Wpsabi"

template<size_t n>
struct LanesOf
{
    // Aligned as processors want it that can work on so many, whatever the code around is compiled for.
    typedef double Doubles __attribute__((vector_size(8 * n), aligned(8 * n)));
    typedef int64_t Bits __attribute__((vector_size(8 * n), aligned(8 * n)));
};

using Pair = LanesOf<2>::Doubles;
using PairBits = LanesOf<2>::Bits;

// Whether this processor has AVX2. Tests compile the library's modules a second time with TOLVIN_WITHOUT_AVX2, so
// that the other code is tested on processors that have it, too.
inline bool hasAvx2()
{
#ifdef TOLVIN_WITHOUT_AVX2
    return false;
#else
    static const bool has = __builtin_cpu_supports("avx2") != 0;
    return has;
#endif
}

// Estrin's scheme: about as many operations as Horner's in a third of its latency.
template<class Lanes>
INLINE Lanes polynomial(const Lanes &x, const double (&c)[6])
{
    const Lanes x2 = x * x;
    return (c[0] + c[1] * x) + x2 * ((c[2] + c[3] * x) + x2 * (c[4] + c[5] * x));
}

template<class Lanes>
INLINE Lanes polynomial(const Lanes &x, const double (&c)[10])
{
    const Lanes x2 = x * x, x4 = x2 * x2;
    const Lanes low = (c[0] + c[1] * x) + x2 * (c[2] + c[3] * x);
    const Lanes high = (c[4] + c[5] * x) + x2 * (c[6] + c[7] * x);
    return low + x4 * (high + x4 * (c[8] + c[9] * x));
}

#endif
