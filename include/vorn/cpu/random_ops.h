#ifndef VORN_CPU_RANDOM_OPS_H_
#define VORN_CPU_RANDOM_OPS_H_

#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "vorn/context/context.h"

/// Host forms of the random fills, of dense runs. Elements are drawn in ascending order, and each
/// rule says which draws it takes, so that a seed gives known numbers whatever the standard
/// library makes of its distributions.
namespace vorn {
namespace cpu {

/// lo + u * (hi - lo), u being 2^-32 times a draw of 32 bits, rounded to float: the largest draws
/// give 1.
inline DType uniform(uint32_t draw, DType lo, DType hi) {
    return static_cast<DType>(draw) * 0x1p-32f * (hi - lo) + lo;
}

/// Takes one draw of the thread's engine an element.
inline void vorn_uniform_random(DType* ptr, int size, DType lo, DType hi) {
    rng_t& engine = *t_ctx->c_gen;
    for (int i = 0; i < size; ++i) {
        ptr[i] = uniform(static_cast<uint32_t>(engine()), lo, hi);
    }
}

/// 0 where a uniform draw lies below `mask_prob`, else 1.
inline void vorn_mask_random(DType* ptr, int size, DType mask_prob) {
    vorn_uniform_random(ptr, size, 0, 1);
    for (int i = 0; i < size; ++i) {
        ptr[i] = ptr[i] < mask_prob ? 0.0f : 1.0f;
    }
}

/// One normal deviate by the polar method, from two calls of rand() for each point that it tries;
/// the second deviate of the point is dropped. Marsaglia and Bray, "A convenient method for
/// generating normal variables", SIAM Review 6 (1964).
inline DType box_muller(DType mean, DType std_deviation) {
    float x1, w;
    do {
        const float rand1 = static_cast<float>(rand()) * 0x1p-31f;
        const float rand2 = static_cast<float>(rand()) * 0x1p-31f;
        x1 = static_cast<float>(2.0 * rand1 - 1.0);
        const float x2 = static_cast<float>(2.0 * rand2 - 1.0);
        w = x1 * x1 + x2 * x2;
    } while (w >= 1.0f);
    w = static_cast<float>(std::sqrt(-2.0 * logf(w) / w));
    const float y1 = x1 * w;
    return mean + y1 * std_deviation;
}

inline void vorn_gauss_random(DType* ptr, int size, DType mean, DType stddev) {
    for (int i = 0; i < size; ++i) {
        ptr[i] = box_muller(mean, stddev);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_RANDOM_OPS_H_
