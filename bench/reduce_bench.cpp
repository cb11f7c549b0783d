#include <cfloat>

#include "floor.h"
#include "vorn/ops/reduce.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

Tensor<float> filled(const Dim& size) {
    Tensor<float> tensor(size);
    float* p = tensor.get_data();
    for (index_t i = 0; i < tensor.count(); ++i) {
        p[i] = static_cast<float>(i * 2654435761u % 1024) / 1024 - 0.5f;
    }
    return tensor;
}

using Fold = void (Tensor<float>::*)(const Tensor<float>&, DType, DType);

void fold_matrix(benchmark::State& state, Fold fold, bool of_rows) {
    const Tensor<float> in = filled(Dim(state.range(0), state.range(1)));
    Tensor<float> out(Dim(state.range(of_rows ? 0 : 1)));
    against_copy(state, 4.0 * (in.count() + 2 * out.count()), [&] { (out.*fold)(in, 1, 0); });
}

// The order that all others keep: one result after the other.
template <typename Reducer>
void plain_rows(benchmark::State& state, Reducer f) {
    const Tensor<float> in = filled(Dim(state.range(0), state.range(1)));
    Tensor<float> out(Dim(state.range(0)));
    against_copy(state, 4.0 * (in.count() + 2 * out.count()), [&] {
        const float* p = in.get_data();
        for (index_t i = 0; i < in.row(); ++i, p += in.ld()) {
            float value = f.identity();
            for (index_t j = 0; j < in.col(); ++j) {
                value = f.combine(value, p[j]);
            }
            out.get_data()[i] = f.save(value, out.get_data()[i]);
        }
    });
}

template <typename Reducer>
void plain_columns(benchmark::State& state, Reducer f) {
    const Tensor<float> in = filled(Dim(state.range(0), state.range(1)));
    Tensor<float> out(Dim(state.range(1)));
    against_copy(state, 4.0 * (in.count() + 2 * out.count()), [&] {
        for (index_t j = 0; j < in.col(); ++j) {
            const float* p = in.get_data() + j;
            float value = f.identity();
            for (index_t i = 0; i < in.row(); ++i, p += in.ld()) {
                value = f.combine(value, *p);
            }
            out.get_data()[j] = f.save(value, out.get_data()[j]);
        }
    });
}

void matrix_sizes(benchmark::internal::Benchmark* row) {
    row->Args({4096, 1024})->Args({100000, 64})->Args({64, 100000});
    row->Unit(benchmark::kMicrosecond);
}

BENCHMARK_CAPTURE(fold_matrix, row_sum, &Tensor<float>::row_sum, true)->Apply(matrix_sizes);
BENCHMARK_CAPTURE(fold_matrix, row_max, &Tensor<float>::row_max, true)->Apply(matrix_sizes);
BENCHMARK_CAPTURE(fold_matrix, col_sum, &Tensor<float>::col_sum, false)->Apply(matrix_sizes);
BENCHMARK_CAPTURE(fold_matrix, col_max, &Tensor<float>::col_max, false)->Apply(matrix_sizes);
BENCHMARK_CAPTURE(plain_rows, sum, func::reduce_sum<float>(0, 1, 0))->Apply(matrix_sizes);
BENCHMARK_CAPTURE(plain_rows, max, func::reduce_max<float>(-FLT_MAX, 1, 0))->Apply(matrix_sizes);
BENCHMARK_CAPTURE(plain_columns, sum, func::reduce_sum<float>(0, 1, 0))->Apply(matrix_sizes);
BENCHMARK_CAPTURE(plain_columns, max, func::reduce_max<float>(-FLT_MAX, 1, 0))->Apply(matrix_sizes);

template <typename F, typename T>
void time_all(benchmark::State& state, const Tensor<T>& in, F fold) {
    against_copy(state, 4.0 * in.count(), [&] { benchmark::DoNotOptimize((in.*fold)()); });
}

void fold_all(benchmark::State& state, float (Tensor<float>::*fold)() const) {
    time_all(state, filled(Dim(state.range(0))), fold);
}

// Small values, whose sums are exact.
void fold_all_ints(benchmark::State& state, int (Tensor<int>::*fold)() const) {
    Tensor<int> in{Dim(state.range(0))};
    in.ones();
    time_all(state, in, fold);
}

template <typename Op>
void plain_all(benchmark::State& state, Op f) {
    const Tensor<float> in = filled(Dim(state.range(0)));
    against_copy(state, 4.0 * in.count(), [&] {
        float result = 0;
        for (index_t i = 0; i < in.count(); ++i) {
            result = f(result, in.get_data()[i]);
        }
        benchmark::DoNotOptimize(result);
    });
}

void vector_sizes(benchmark::internal::Benchmark* row) {
    row->Arg(1 << 20)->Arg(16 << 20)->Unit(benchmark::kMicrosecond);
}

// The sum is one chain of additions by definition.
BENCHMARK_CAPTURE(fold_all, sum, &Tensor<float>::sum)->Apply(vector_sizes);
BENCHMARK_CAPTURE(fold_all_ints, sum, &Tensor<int>::sum)->Apply(vector_sizes);
BENCHMARK_CAPTURE(fold_all, max, &Tensor<float>::max)->Apply(vector_sizes);
BENCHMARK_CAPTURE(fold_all, min, &Tensor<float>::min)->Apply(vector_sizes);
BENCHMARK_CAPTURE(plain_all, max, func::max())->Apply(vector_sizes);
BENCHMARK_CAPTURE(plain_all, min, func::min())->Apply(vector_sizes);

}  // namespace
}  // namespace bench
}  // namespace vorn
