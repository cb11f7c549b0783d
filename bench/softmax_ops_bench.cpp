#include "vorn/ops/softmax_ops.h"

#include <cmath>
#include <random>

#include "floor.h"

namespace vorn {
namespace bench {
namespace {

// Scores, a second operand of their size, and an output, as outer * channel * inner elements.
struct Operands {
    explicit Operands(const benchmark::State& state)
        : outer(static_cast<int>(state.range(0))),
          channel(static_cast<int>(state.range(1))),
          inner(static_cast<int>(state.range(2))),
          in(make()),
          grad(make()),
          out(make()),
          sums(Dim(outer * inner)) {}

    Tensor<float> make() const {
        Tensor<float> tensor(Dim(outer, channel, inner));
        std::mt19937 engine(1);
        std::normal_distribution<float> draw(0, 3);
        for (index_t i = 0; i < tensor.count(); ++i) {
            tensor.get_ptr()[i] = draw(engine);
        }
        return tensor;
    }

    int outer, channel, inner;
    Tensor<float> in, grad, out, sums;
};

void extents(benchmark::internal::Benchmark* rows) {
    rows->Args({4096, 1024, 1})->Args({512, 8000, 1})->Args({8, 21, 64 * 64});
    rows->Unit(benchmark::kMicrosecond);
}

void softmax(benchmark::State& state) {
    Operands t(state);
    against_copy(state, 8.0 * t.out.count(),
                 [&] { t.out.softmax(t.in, t.outer, t.channel, t.inner); });
}
BENCHMARK(softmax)->Apply(extents)->Args({2000, 100, 5})->Args({1, 8000, 1});

// Every third score masked by minus infinity.
void softmax_masked(benchmark::State& state) {
    Operands t(state);
    for (index_t i = 0; i < t.in.count(); i += 3) {
        t.in.get_ptr()[i] = -INFINITY;
    }
    against_copy(state, 8.0 * t.out.count(),
                 [&] { t.out.softmax(t.in, t.outer, t.channel, t.inner); });
}
BENCHMARK(softmax_masked)->Apply(extents);

// The definition as a loop over single elements, beside which softmax stands.
void softmax_scalar(benchmark::State& state) {
    Operands t(state);
    const index_t channel = t.channel, inner = t.inner;
    against_copy(state, 8.0 * t.out.count(), [&] {
        for (int o = 0; o < t.outer; ++o) {
            for (index_t k = 0; k < inner; ++k) {
                const float* x = t.in.get_ptr() + o * channel * inner + k;
                float* y = t.out.get_ptr() + o * channel * inner + k;
                float max = x[0], sum = 0;
                for (index_t c = 0; c < channel; ++c) {
                    max = max > x[c * inner] ? max : x[c * inner];
                }
                for (index_t c = 0; c < channel; ++c) {
                    y[c * inner] = expf(x[c * inner] - max);
                    asm volatile("");
                }
                for (index_t c = 0; c < channel; ++c) {
                    sum += y[c * inner];
                }
                for (index_t c = 0; c < channel; ++c) {
                    y[c * inner] /= sum;
                }
            }
        }
    });
}
BENCHMARK(softmax_scalar)->Apply(extents);

// Two inputs and an output.
void softmax_backward(benchmark::State& state) {
    Operands t(state);
    against_copy(state, 12.0 * t.out.count(), [&] {
        t.sums.zero();
        t.out.softmax_bp_normal(t.in, t.grad, t.sums, t.outer, t.channel, t.inner);
    });
}
BENCHMARK(softmax_backward)->Apply(extents);

// The same work as three passes.
void softmax_backward_in_steps(benchmark::State& state) {
    Operands t(state);
    against_copy(state, 12.0 * t.out.count(), [&] {
        t.sums.zero();
        t.out.elem_mul(t.in, t.grad);
        vorn_stat_channel_sum(t.out, t.sums, t.outer, t.channel, t.inner);
        cpu::vorn_softmax_bp_normal(t.in, t.grad, t.sums, t.out, t.outer, t.channel, t.inner, 1, 0);
    });
}
BENCHMARK(softmax_backward_in_steps)->Apply(extents);

}  // namespace
}  // namespace bench
}  // namespace vorn
