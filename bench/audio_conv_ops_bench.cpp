
#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

// 4096 frames of 11 context frames, 3 deltas and 40 filter banks; filters of 8 taps; one group of
// all 33 positions.
constexpr int kFrames = 4096, kContext = 11, kDelta = 3, kBanks = 40, kFilter = 8;
constexpr int kPositions = kBanks - kFilter + 1;

struct Patches {
    Tensor<float> features = random_tensor(Dim(kFrames, kContext* kDelta* kBanks), -1, 1);
    Tensor<float> patches =
        random_tensor(Dim(kFrames * kPositions, kFilter* kContext* kDelta), -1, 1);
    Tensor<int> start{Dim(1)}, end{Dim(1)};
    double bytes = 4.0 * (features.count() + patches.count());

    Patches() { end.set_element(kPositions - 1); }
};

void expand(benchmark::State& state) {
    Patches p;
    against_copy(state, p.bytes, [&] {
        p.patches.expand_feat(p.features, kBanks, kDelta, 0, kFilter, p.start, p.end);
    });
}
BENCHMARK(expand)->Name("patches along frequency, 4096 rows of 11 x 3 x 40, filter 8");

void shrink(benchmark::State& state) {
    Patches p;
    against_copy(state, p.bytes + 4.0 * p.features.count(), [&] {
        p.features.shrink_errors(p.patches, kBanks, kDelta, 0, kFilter, p.start, p.end);
    });
}
BENCHMARK(shrink)->Name("errors of patches along frequency, same");

constexpr int kFilters = 64, kPool = 3;

struct Pooling {
    Tensor<float> in = random_tensor(Dim(kFrames * kPositions, kFilters), -1, 1);
    Tensor<float> out = random_tensor(Dim(kFrames, kFilters*(kPositions / kPool)), -1, 1);
    Tensor<int> idx{out.get_size()}, size{Dim(1)};

    Pooling() {
        size.set_element(kPositions);
        idx.set_element(1);
    }
};

void pool(benchmark::State& state) {
    Pooling p;
    against_copy(state, 4.0 * (p.in.count() + 3 * p.out.count()),
                 [&] { p.out.max_pooling(p.in, p.size, kFilters, kPool, p.idx); });
}
BENCHMARK(pool)->Name("max pooling of 3 along frequency, 4096 x 33 x 64");

void pool_backward(benchmark::State& state) {
    Pooling p;
    against_copy(state, 4.0 * (2 * p.in.count() + 2 * p.out.count()),
                 [&] { p.in.max_pooling_bp(p.out, p.size, kFilters, kPool, p.idx); });
}
BENCHMARK(pool_backward)->Name("max pooling backward, same");

void bias(benchmark::State& state) {
    Tensor<float> rows = random_tensor(Dim(kFrames * kPositions, kFilters), -1, 1);
    Tensor<float> bias = random_tensor(Dim(1, kFilters), -1, 1);
    against_copy(state, 8.0 * rows.count(), [&] { rows.audio_conv_batch_bias(bias, 1); });
}
BENCHMARK(bias)->Name("bias per block, 4096 x 33 rows of 64");

void bias_backward(benchmark::State& state) {
    Tensor<float> rows = random_tensor(Dim(kFrames * kPositions, kFilters), -1, 1);
    Tensor<float> bias = random_tensor(Dim(1, kFilters), -1, 1);
    against_copy(state, 4.0 * rows.count(), [&] { bias.audio_conv_batch_bias_bp(rows, 1); });
}
BENCHMARK(bias_backward)->Name("bias gradient per block, same");

}  // namespace
}  // namespace bench
}  // namespace vorn
