#include "floor.h"

#include <immintrin.h>

#include <chrono>

namespace vorn {
namespace bench {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

void multiply_add() {
    // Enough chains to fill two pipelines of latency 5.
    constexpr int kChains = 10, kLanes = 8, kSteps = kFlopsOfCall / (2 * kLanes * kChains);
    __m256 chain[kChains];
    for (int i = 0; i < kChains; ++i) {
        chain[i] = _mm256_set1_ps(1.0f + i);
    }
    const __m256 factor = _mm256_set1_ps(0.5f), term = _mm256_set1_ps(0.25f);
    for (int step = 0; step < kSteps; ++step) {
#pragma GCC unroll 10
        for (int i = 0; i < kChains; ++i) {
            chain[i] = _mm256_fmadd_ps(chain[i], factor, term);
        }
    }
    for (int i = 0; i < kChains; ++i) {
        benchmark::DoNotOptimize(chain[i]);
    }
}

}  // namespace bench
}  // namespace vorn
