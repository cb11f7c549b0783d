#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

// 16 x 64 channels of 112 x 112 to 56 x 56 by regions of 3 x 3. The floor is one copy of the image.
constexpr int kBatch = 16, kChannels = 64, kSide = 112, kPooled = 56;

struct Pooling {
    PoolingDesc desc;
    Tensor<float> x = random_tensor(Dim(kBatch, kChannels, kSide, kSide), -1, 1);
    Tensor<float> y = random_tensor(Dim(kBatch, kChannels, kPooled, kPooled), -1, 1);
    Tensor<float> dx = random_tensor(x.get_size(), -1, 1);
    double bytes = 8.0 * x.count();

    explicit Pooling(PoolingType type) : desc(3, 3, 2, 2, type) {}
};

void forward(benchmark::State& state, PoolingType type) {
    Pooling p(type);
    against_copy(state, p.bytes, [&] { p.y.pool_fwd(p.desc, p.x); });
}
void backward(benchmark::State& state, PoolingType type) {
    Pooling p(type);
    against_copy(state, p.bytes, [&] { p.dx.pool_bp(p.desc, p.y, p.y, p.x); });
}
BENCHMARK_CAPTURE(forward, max, MAX_POOLING_TYPE)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(forward, average, AVG_POOLING_TYPE_EXCLUDE_PADDING)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(backward, max, MAX_POOLING_TYPE)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(backward, average, AVG_POOLING_TYPE_EXCLUDE_PADDING)
    ->Unit(benchmark::kMillisecond);

/// One region over a whole plane: sums in row-major order, one addition after the other.
void global_average(benchmark::State& state) {
    const int side = 7;
    const PoolingDesc desc(side, side, 1, 1, AVG_POOLING_TYPE_EXCLUDE_PADDING);
    const Tensor<float> x = random_tensor(Dim(kBatch, 2048, side, side), -1, 1);
    Tensor<float> y(Dim(kBatch, 2048, 1, 1));
    against_copy(state, 8.0 * x.count(), [&] { y.pool_fwd(desc, x); });
}
BENCHMARK(global_average)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace bench
}  // namespace vorn
