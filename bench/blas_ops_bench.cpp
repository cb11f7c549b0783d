#include <benchmark/benchmark.h>
#include <cblas.h>

#include <cmath>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/ops/blas_ops.h"

namespace vorn {
namespace bench {

/// Products of m x k by k x n; `x_direct` is the ratio to the same through CBLAS directly.
static void sgemm(benchmark::State& state) {
    const int m = state.range(0), n = state.range(1), k = state.range(2);
    const Tensor<float> a = random_tensor(Dim(m, k), -1, 1), b = random_tensor(Dim(k, n), -1, 1);
    Tensor<float> c(Dim(m, n), CPU);
    const auto layered = [&] { c.mul(a, b, 1, 0); };
    const auto direct = [&] {
        cblas_sgemm(CblasRowMajor, CblasNoTrans, CblasNoTrans, m, n, k, 1, a.get_ptr(), k,
                    b.get_ptr(), n, 0, c.get_ptr(), n);
    };
    against_flops(state, 2.0 * m * n * k, layered);
    const Turns turns = take_turns(layered, direct);
    state.counters["direct_us"] = turns.floor * 1e6;
    state.counters["x_direct"] = turns.ratio;
}
BENCHMARK(sgemm)
    ->ArgNames({"m", "n", "k"})
    ->Args({4, 4, 4})
    ->Args({16, 16, 16})
    ->Args({32, 32, 32})
    ->Args({256, 256, 256})
    ->Args({1024, 1024, 1024})
    ->Args({2048, 4096, 1024})
    ->Args({1, 1280, 320})
    ->Unit(benchmark::kMicrosecond);

static void batch_mul(benchmark::State& state) {
    const int batch = state.range(0), size = state.range(1);
    const int64_t stride = static_cast<int64_t>(size) * size;
    const Tensor<float> a = random_tensor(Dim(batch, size, size), -1, 1);
    const Tensor<float> b = random_tensor(Dim(batch, size, size), -1, 1);
    Tensor<float> c(Dim(batch, size, size), CPU);
    against_flops(state, 2.0 * batch * size * size * size,
                  [&] { c.batch_mul(a, false, stride, b, true, stride, stride, batch, 1, 0); });
}
BENCHMARK(batch_mul)->Args({256, 16})->Args({64, 64})->Args({8, 256})->Unit(
    benchmark::kMicrosecond);

static void transpose(benchmark::State& state) {
    const int rows = state.range(0), cols = state.range(1);
    const Tensor<float> in = random_tensor(Dim(rows, cols), -1, 1);
    Tensor<float> out(Dim(cols, rows), CPU);
    against_copy(state, 8.0 * rows * cols, [&] { out.transpose(in); });
}
static void transpose_plain_loop(benchmark::State& state) {
    const index_t rows = state.range(0), cols = state.range(1);
    const Tensor<float> in = random_tensor(Dim(rows, cols), -1, 1);
    Tensor<float> out(Dim(cols, rows), CPU);
    against_copy(state, 8.0 * rows * cols, [&] {
        const float* from = in.get_ptr();
        float* to = out.get_ptr();
        for (index_t i = 0; i < cols; ++i) {
            for (index_t j = 0; j < rows; ++j) {
                to[i * rows + j] = from[j * cols + i];
            }
        }
    });
}
static void transpose_shapes(benchmark::internal::Benchmark* bench) {
    for (const auto& shape : {std::pair<int, int>{64, 64},
                              {256, 256},
                              {1024, 1024},
                              {4096, 4096},
                              {100000, 64},
                              {64, 100000},
                              {4001, 4003}}) {
        bench->Args({shape.first, shape.second});
    }
    bench->Unit(benchmark::kMicrosecond);
}
BENCHMARK(transpose)->Apply(transpose_shapes);
BENCHMARK(transpose_plain_loop)->Args({4096, 4096})->Unit(benchmark::kMicrosecond);

/// Reads only: the floor is the time in which memcpy moves as many bytes.
static void norm1(benchmark::State& state) {
    const Tensor<float> in = random_tensor(Dim(state.range(0)), -1, 1);
    against_copy(state, 4.0 * state.range(0), [&] { benchmark::DoNotOptimize(in.norm1()); });
}
static void norm2(benchmark::State& state) {
    const Tensor<float> in = random_tensor(Dim(state.range(0)), -1, 1);
    against_copy(state, 4.0 * state.range(0), [&] { benchmark::DoNotOptimize(in.norm2()); });
}
static void scal(benchmark::State& state) {
    Tensor<float> out = random_tensor(Dim(state.range(0)), -1, 1);
    against_copy(state, 8.0 * state.range(0), [&] { cpu::vorn_scal(out, -1); });
}
static void axpy(benchmark::State& state) {
    const Tensor<float> in = random_tensor(Dim(state.range(0)), -1, 1);
    Tensor<float> out = random_tensor(Dim(state.range(0)), -1, 1);
    against_copy(state, 12.0 * state.range(0), [&] { cpu::vorn_axpy(in, out, 0.5f, 0.25f); });
}
BENCHMARK(norm1)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(norm2)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(scal)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(axpy)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);

static void sgels(benchmark::State& state) {
    const int batch = state.range(0), m = state.range(1), n = state.range(2);
    const Tensor<float> a = random_tensor(Dim(batch, m, n), -1, 1);
    const Tensor<float> y = random_tensor(Dim(batch, std::max(m, n)), -1, 1);
    Tensor<float> lhs(a.get_size(), CPU), x(y.get_size(), CPU);
    Tensor<unsigned long> ws;
    // Householder: 2 k k (l - k / 3) operations for the shorter side k and the longer l.
    const double k = std::min(m, n), l = std::max(m, n);
    against_flops(state, batch * 2 * k * k * (l - k / 3), [&] {
        lhs.copy_from(a);
        x.copy_from(y);
        x.sgels(lhs, ws, ws);
    });
}
BENCHMARK(sgels)
    ->Args({64, 32, 16})
    ->Args({4, 256, 128})
    ->Args({4, 128, 256})
    ->Unit(benchmark::kMicrosecond);

}  // namespace bench
}  // namespace vorn
