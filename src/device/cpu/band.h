#pragma once

/// Marks the functions that run kernels over rows on the CPU. The compiler builds each of them for x86-64,
/// x86-64-v3 (AVX2, FMA) and x86-64-v4 (AVX-512), and the loader chooses one. What such a function calls must
/// be inlined into it; otherwise it runs as plain x86-64 code.
#if defined(TARVO_ISA_DISPATCH) && defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__)
#define TARVO_BAND __attribute__((noinline, target_clones("default", "arch=x86-64-v3", "arch=x86-64-v4")))
#else
#define TARVO_BAND __attribute__((noinline))
#endif
