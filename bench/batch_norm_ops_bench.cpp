#include <cmath>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

constexpr float kEpsilon = 1e-5f, kExpAvg = 0.1f, kStatis = 1;

/// Frames of which one in eight is padding.
struct Batch {
    index_t rows, columns;
    int frames = 0;
    Tensor<float> x, y, dy, dx, scale, bias, run_mean, run_var, statis_mean, statis_var, saved_mean,
        saved_inv_std, dscale, dbias;
    Tensor<int> mask;

    explicit Batch(const benchmark::State& state)
        : rows(state.range(0)), columns(state.range(1)), mask(Dim(rows)) {
        for (Tensor<float>* matrix : {&x, &y, &dy, &dx}) {
            *matrix = random_tensor(Dim(rows, columns), -1, 3);
        }
        for (Tensor<float>* vector : {&scale, &bias, &run_mean, &run_var, &statis_mean, &statis_var,
                                      &saved_mean, &saved_inv_std, &dscale, &dbias}) {
            *vector = Tensor<float>(Dim(columns));
            vector->ones();
        }
        for (index_t r = 0; r < rows; ++r) {
            mask.get_ptr()[r] = r % 8 != 7;
            frames += r % 8 != 7;
        }
    }
    double bytes(int matrices) const { return 1.0 * matrices * rows * columns * sizeof(float); }
};

/// Reads x twice, because the statistics come first.
void forward(benchmark::State& state) {
    Batch b(state);
    against_copy(state, b.bytes(3), [&] {
        b.y.audio_batch_norm_train(b.x, b.scale, b.bias, b.mask, b.run_mean, b.run_var,
                                   b.statis_mean, b.statis_var, b.saved_mean, b.saved_inv_std,
                                   b.frames, kExpAvg, kStatis, kEpsilon);
    });
}

void forward_column_loop(benchmark::State& state) {
    Batch b(state);
    const float *x = b.x.get_ptr(), *scale = b.scale.get_ptr(), *bias = b.bias.get_ptr();
    const int* mask = b.mask.get_ptr();
    float *y = b.y.get_ptr(), *mean = b.run_mean.get_ptr(), *var = b.run_var.get_ptr();
    against_copy(state, b.bytes(3), [&] {
        const index_t count = b.rows * b.columns;
        for (index_t c = 0; c < b.columns; ++c) {
            float sum = 0, square = 0;
            for (index_t k = c, r = 0; k < count; k += b.columns, ++r) {
                const float a = mask[r] * x[k];
                sum += a;
                square += a * a;
            }
            const float m = sum / b.frames, v = square / b.frames - m * m;
            mean[c] = (1 - kExpAvg) * mean[c] + kExpAvg * m;
            var[c] = (1 - kExpAvg) * var[c] + kExpAvg * v;
            const float inv_std = 1 / std::sqrt(var[c] + kEpsilon);
            for (index_t k = c, r = 0; k < count; k += b.columns, ++r) {
                y[k] = (scale[c] * (x[k] - mean[c]) * inv_std + bias[c]) * mask[r];
            }
        }
    });
}

/// Reads x and dy twice, because the gradients of scale and bias come first.
void backward(benchmark::State& state) {
    Batch b(state);
    against_copy(state, b.bytes(5), [&] {
        b.dx.audio_batch_norm_bp(b.x, b.dy, b.scale, b.saved_mean, b.saved_inv_std, b.mask,
                                 b.dscale, b.dbias, b.frames, kExpAvg, kEpsilon);
    });
}

void inference(benchmark::State& state) {
    Batch b(state);
    against_copy(state, b.bytes(2), [&] {
        b.y.audio_batch_norm_inf(b.x, b.scale, b.bias, b.run_mean, b.run_var, b.mask, kEpsilon);
    });
}

void sizes(benchmark::internal::Benchmark* row) {
    row->ArgNames({"rows", "columns"})->Args({4096, 1024})->Args({512, 80});
    row->Unit(benchmark::kMicrosecond);
}

BENCHMARK(forward)->Name("batch normalisation over rows, forward")->Apply(sizes);
BENCHMARK(forward_column_loop)
    ->Name("batch normalisation over rows, forward, column loop")
    ->Apply(sizes);
BENCHMARK(backward)->Name("batch normalisation over rows, backward")->Apply(sizes);
BENCHMARK(inference)->Name("batch normalisation over rows, inference")->Apply(sizes);

}  // namespace
}  // namespace bench
}  // namespace vorn
