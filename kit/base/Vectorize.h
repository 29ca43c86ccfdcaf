#pragma once

// HARLUNE_VECTOR_CLONES marks a hot loop function to be compiled twice, for AVX2 and for
// baseline x86-64, with the choice made once at load time. Release builds must run on any
// x86-64, so -march=native is never used. ThreadSanitizer instruments the load-time resolver,
// which then runs before the sanitizer is ready and crashes: there the clones are left out.
#if defined(__x86_64__) && !defined(__SANITIZE_THREAD__)
#define HARLUNE_VECTOR_CLONES __attribute__((target_clones("avx2", "default")))
#else
#define HARLUNE_VECTOR_CLONES
#endif
