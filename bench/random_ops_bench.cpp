#include <random>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

void sizes(benchmark::internal::Benchmark* bench) {
    bench->ArgName("size")->Arg(1000)->Arg(100000)->Arg(4000000);
}

/// `fill` against a plain loop over the engine that draws as many numbers.
template <typename Fill>
void against_engine(benchmark::State& state, Fill fill) {
    Tensor<float> out = random_tensor(Dim(state.range(0)), -1, 1), plain(out.get_size());
    std::mt19937 engine;
    float* plain_p = plain.get_ptr();
    const index_t count = plain.count();
    const float lo = -2, hi = 3;
    const auto loop = [&] {
        for (index_t i = 0; i < count; ++i) {
            plain_p[i] =
                static_cast<float>(static_cast<uint32_t>(engine())) * 0x1p-32f * (hi - lo) + lo;
        }
    };
    against(
        state, [&] { fill(out); }, loop);
}

void uniform(benchmark::State& state) {
    against_engine(state, [](Tensor<float>& out) { out.random(-2, 3); });
}
BENCHMARK(uniform)->Apply(sizes);

void mask(benchmark::State& state) {
    against_engine(state, [](Tensor<float>& out) { out.zero_random(0.3f); });
}
BENCHMARK(mask)->Apply(sizes);

/// Against the calls of rand() that a number takes on average: two a point, of which pi / 4 count.
void gauss(benchmark::State& state) {
    Tensor<float> out = random_tensor(Dim(state.range(0)), -1, 1);
    const index_t calls = out.count() * 8 / 3.14159;
    const auto loop = [&] {
        int sum = 0;
        for (index_t i = 0; i < calls; ++i) {
            sum ^= rand();
        }
        benchmark::DoNotOptimize(sum);
    };
    against(
        state, [&] { out.gauss_random(0, 1); }, loop);
}
BENCHMARK(gauss)->Apply(sizes);

}  // namespace
}  // namespace bench
}  // namespace vorn
