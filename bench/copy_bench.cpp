#include <benchmark/benchmark.h>

#include "floor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {

static void copy(benchmark::State& state) {
    Tensor<float> from(Dim(state.range(0)), CPU), to(Dim(state.range(0)), CPU);
    from.set_element(1.5f);
    against_copy(state, 8.0 * state.range(0), [&] { to.copy_from(from); });
}

/// 1000 of 1024 columns on both sides.
static void copy_pitched(benchmark::State& state) {
    const int rows = state.range(0) / 1024;
    Tensor<float> from(Dim(rows, 1024), CPU), to(Dim(rows, 1024), CPU);
    from.set_element(1.5f);
    const Tensor<float> from_block = from.range_col(8, 1008);
    Tensor<float> to_block = to.range_col(8, 1008);
    against_copy(state, 8.0 * rows * 1000, [&] { to_block.copy_from(from_block); });
}

// A fill writes only: its floor is the time in which memcpy moves as many bytes.
static void fill_0(benchmark::State& state) {
    Tensor<float> to(Dim(state.range(0)), CPU);
    against_copy(state, 4.0 * state.range(0), [&] { to.zero(); });
}
static void fill_1(benchmark::State& state) {
    Tensor<float> to(Dim(state.range(0)), CPU);
    against_copy(state, 4.0 * state.range(0), [&] { to.ones(); });
}
static void fill_1_pitched(benchmark::State& state) {
    const int rows = state.range(0) / 1024;
    Tensor<float> to(Dim(rows, 1024), CPU);
    Tensor<float> block = to.range_col(8, 1008);
    against_copy(state, 4.0 * rows * 1000, [&] { block.ones(); });
}

BENCHMARK(copy)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(copy_pitched)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(fill_0)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(fill_1)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);
BENCHMARK(fill_1_pitched)->Arg(1 << 20)->Arg(1 << 24)->Unit(benchmark::kMicrosecond);

}  // namespace bench
}  // namespace vorn
