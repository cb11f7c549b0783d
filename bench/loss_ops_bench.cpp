#include "vorn/ops/loss_ops.h"

#include "floor.h"
#include "random_tensor.h"

namespace vorn {
namespace bench {
namespace {

// ---- Cross entropy on outer * channel * inner elements

struct Items {
    explicit Items(const benchmark::State& state)
        : outer(static_cast<int>(state.range(0))),
          channel(static_cast<int>(state.range(1))),
          inner(static_cast<int>(state.range(2))),
          in(random_tensor(Dim(outer, channel, inner), 0, 1)),
          out(random_tensor(Dim(outer, channel, inner), 0, 1, 2)),
          label(random_tensor(Dim(outer * inner), 0, channel - 0.5f, 3)),
          mask(Dim(outer * inner)) {
        mask.ones();
    }

    int outer, channel, inner;
    Tensor<float> in, out, label;
    Tensor<int> mask;
};

// The input, the old and the new gradient.
void cross_entropy_backward(benchmark::State& state) {
    Items t(state);
    against_copy(state, 12.0 * t.out.count(), [&] {
        t.out.cross_entropy_bp(t.in, t.label, t.mask, t.outer, t.channel, t.inner, -1, 0);
    });
}
BENCHMARK(cross_entropy_backward)
    ->Args({4096, 1024, 1})
    ->Args({100000, 10, 1})
    ->Args({8, 21, 64 * 64})
    ->Args({256, 21, 14 * 14})
    ->Args({2000, 100, 5})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
}  // namespace vorn
