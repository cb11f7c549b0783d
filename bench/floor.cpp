#include "floor.h"

#include <immintrin.h>

#include <chrono>
#include <cstring>
#include <map>

#include "vorn/tensor/buffer.h"

namespace vorn {
namespace bench {

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double copy_bandwidth(size_t working_set) {
    static std::map<size_t, double> measured;
    const auto found = measured.find(working_set);
    if (found != measured.end()) {
        return found->second;
    }
    const size_t bytes = working_set / 2;
    Buffer source(bytes, CPU), destination(bytes, CPU);
    memset(source.ptr(), 1, bytes);
    const double seconds = seconds_of([&] {
        memcpy(destination.ptr(), source.ptr(), bytes);
        benchmark::ClobberMemory();
    });
    return measured[working_set] = 2.0 * bytes / seconds;
}

double peak_flops() {
    static const double flops = [] {
        // Enough chains to fill two pipelines of latency 5.
        constexpr int kChains = 12, kSteps = 10000, kLanes = 8;
        const double seconds = seconds_of([] {
            __m256 chain[kChains];
            for (int i = 0; i < kChains; ++i) {
                chain[i] = _mm256_set1_ps(1.0f + i);
            }
            const __m256 factor = _mm256_set1_ps(0.5f), term = _mm256_set1_ps(0.25f);
            for (int step = 0; step < kSteps; ++step) {
#pragma GCC unroll 12
                for (int i = 0; i < kChains; ++i) {
                    chain[i] = _mm256_fmadd_ps(chain[i], factor, term);
                }
            }
            for (int i = 0; i < kChains; ++i) {
                benchmark::DoNotOptimize(chain[i]);
            }
        });
        return 2.0 * kLanes * kChains * kSteps / seconds;
    }();
    return flops;
}

}  // namespace bench
}  // namespace vorn
