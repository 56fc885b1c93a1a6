// KEL_CLONED: on x86-64 a function so marked is built twice, for plain SSE2
// and for AVX2, and the loader picks the version the processor runs. Only
// for loops whose result is the same bit for bit in both builds (moves,
// byte swaps, lane-by-lane float arithmetic without contraction).
// -DKEL_NO_CLONES builds one version only.
#ifndef KEL_CORE_CLONED_H
#define KEL_CORE_CLONED_H

#if defined(__x86_64__) && defined(__GNUC__) && !defined(KEL_NO_CLONES)
#define KEL_CLONED __attribute__((target_clones("avx2", "default")))
#else
#define KEL_CLONED
#endif

#endif
