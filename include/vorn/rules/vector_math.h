#ifndef VORN_RULES_VECTOR_MATH_H_
#define VORN_RULES_VECTOR_MATH_H_

#include <cmath>

/// Lets g++ vectorise host loops that call the platform's single-precision functions: glibc has
/// vector forms of them in libmvec, but declares them only under -ffast-math, which would also
/// reorder our sums. Against the exact value they stay within 4 ulp, the scalar forms within about
/// 2. Other compilers call the scalar forms.
#if defined(__x86_64__) && defined(__GNUC__) && !defined(__clang__) && !defined(__CUDA_ARCH__)
extern "C" {
__attribute__((simd("notinbranch"), const)) float expf(float) noexcept;
__attribute__((simd("notinbranch"), const)) float logf(float) noexcept;
__attribute__((simd("notinbranch"), const)) float powf(float, float) noexcept;
__attribute__((simd("notinbranch"), const)) float tanhf(float) noexcept;
}
#endif

#endif  // VORN_RULES_VECTOR_MATH_H_
