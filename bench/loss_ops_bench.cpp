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

// ---- Objectives of rows

struct Rows {
    explicit Rows(const benchmark::State& state)
        : size(static_cast<int>(state.range(0)), static_cast<int>(state.range(1))),
          in(random_tensor(size, 0, 1)),
          label(random_tensor(size, 0, 1, 2)),
          gradient(random_tensor(size, 0, 1, 3)),
          cost(random_tensor(Dim(size[0]), 0, 1, 4)),
          mask(Dim(size[0])) {
        mask.ones();
    }

    Dim size;
    Tensor<float> in, label, gradient, cost;
    Tensor<int> mask;
};

void extents(benchmark::internal::Benchmark* rows) {
    rows->Args({4096, 1024})->Args({100000, 64})->Unit(benchmark::kMicrosecond);
}

// Two inputs.
void squared_error(benchmark::State& state) {
    Rows t(state);
    against_copy(state, 8.0 * t.in.count(),
                 [&] { t.cost.mean_squre_error(t.in, t.label, t.mask); });
}
BENCHMARK(squared_error)->Apply(extents);

// The sums as a loop over rows, beside which the above stands.
void squared_error_scalar(benchmark::State& state) {
    Rows t(state);
    const int dim_n = t.size[1];
    against_copy(state, 8.0 * t.in.count(), [&] {
        for (int i = 0; i < t.size[0]; ++i) {
            const float* x = t.in.get_ptr() + i * dim_n;
            const float* y = t.label.get_ptr() + i * dim_n;
            float sum = 0;
            for (int j = 0; j < dim_n; ++j) {
                sum += (x[j] - y[j]) * (x[j] - y[j]);
            }
            t.cost.get_ptr()[i] = sum * 0.5f;
        }
    });
}
BENCHMARK(squared_error_scalar)->Apply(extents);

// Two inputs, the old and the new gradient.
void squared_error_backward(benchmark::State& state) {
    Rows t(state);
    against_copy(state, 16.0 * t.in.count(),
                 [&] { t.gradient.mean_squre_error_bp(t.in, t.label, t.mask, 1, 0); });
}
BENCHMARK(squared_error_backward)->Apply(extents);

void rnnoise(benchmark::State& state) {
    Rows t(state);
    against_copy(state, 8.0 * t.in.count(), [&] { t.cost.rnnoise(t.in, t.label, t.mask, 1, 0); });
}
BENCHMARK(rnnoise)->Apply(extents);

// The same loop over rows.
void rnnoise_scalar(benchmark::State& state) {
    Rows t(state);
    const int dim_n = t.size[1];
    against_copy(state, 8.0 * t.in.count(), [&] {
        for (int i = 0; i < t.size[0]; ++i) {
            float sum = 0;
            for (int j = i * dim_n; j < (i + 1) * dim_n; ++j) {
                sum += func::rnnoise_cost(t.in.get_ptr()[j], t.label.get_ptr()[j]);
            }
            t.cost.get_ptr()[i] = sum;
        }
    });
}
BENCHMARK(rnnoise_scalar)->Apply(extents);

void rnnoise_backward(benchmark::State& state) {
    Rows t(state);
    against_copy(state, 16.0 * t.in.count(),
                 [&] { t.gradient.rnnoise_bp(t.in, t.label, t.mask, 1, 0); });
}
BENCHMARK(rnnoise_backward)->Apply(extents);

// The input twice, because the bounds come first, and the output.
void fixed_loss(benchmark::State& state) {
    Rows t(state);
    against_copy(state, 12.0 * t.in.count(), [&] { t.gradient.fixed_loss(t.in); });
}
BENCHMARK(fixed_loss)->Apply(extents);

void smooth_l1(benchmark::State& state) {
    Rows t(state);
    against_copy(state, 8.0 * t.in.count(), [&] { t.gradient.smooth_l1(t.in, 1); });
}
BENCHMARK(smooth_l1)->Apply(extents);

}  // namespace
}  // namespace bench
}  // namespace vorn
