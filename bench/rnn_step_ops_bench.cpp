#include <cmath>
#include <random>

#include "floor.h"
#include "vorn/cpu/vector_math.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

Tensor<float> random_matrix(index_t rows, index_t columns) {
    Tensor<float> matrix(Dim(rows, columns));
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> draw(-3, 3);
    for (index_t k = 0; k < matrix.count(); ++k) {
        matrix.get_ptr()[k] = draw(engine);
    }
    return matrix;
}

/// Dense operands, and gate blocks of a matrix four times as wide.
struct Operands {
    index_t rows, cells;
    Tensor<float> gates, block[4], x[5], out, w;

    explicit Operands(const benchmark::State& state)
        : rows(state.range(0)),
          cells(state.range(1)),
          gates(random_matrix(rows, 4 * cells)),
          out(random_matrix(rows, cells)),
          w(random_matrix(1, cells)) {
        for (index_t k = 0; k < 4; ++k) {
            block[k] = gates.range_col(k * cells, (k + 1) * cells);
        }
        for (Tensor<float>& each : x) {
            each = random_matrix(rows, cells);
        }
    }
};

/// `call` reads or writes so many matrices of rows by cells.
template <int matrices, typename F>
void row(benchmark::State& state, F call) {
    Operands o(state);
    against_copy(state, 1.0 * matrices * o.rows * o.cells * sizeof(float), [&] { call(o); });
}

void sizes(benchmark::internal::Benchmark* row) {
    row->ArgNames({"rows", "cells"})->Args({16, 320})->Args({64, 1024})->Args({1024, 1024});
    row->Unit(benchmark::kMicrosecond);
}

#define STEP_BENCH(name, matrices, call)                 \
    void name(benchmark::State& state) {                 \
        row<matrices>(state, [](Operands& o) { call; }); \
    }                                                    \
    BENCHMARK(name)->Apply(sizes)

STEP_BENCH(ld_mul_diag_mat_sigmoid, 3, o.out.ld_mul_diag_mat_sigmoid(o.x[0], o.w, o.block[1]));
STEP_BENCH(elem_mul_add, 5, o.out.elem_mul_add(o.x[0], o.x[1], o.x[2], o.x[3]));
STEP_BENCH(elem_mul_tanh, 4, o.out.elem_mul_tanh(o.x[0], o.x[1], o.x[2]));
STEP_BENCH(ld_sigmoid_bprop, 4, o.block[0].ld_sigmoid_bprop(o.block[1], o.block[2]));
STEP_BENCH(ld_sigmoid_backprop, 4, o.block[0].ld_sigmoid_backprop(o.x[0], o.x[1], o.x[2]));
STEP_BENCH(ld_cell_cur_error, 6,
           o.out.ld_cell_cur_error(o.x[0], o.block[0], o.x[1], o.block[1], o.w, o.x[2]));
STEP_BENCH(ld_cell_back_error, 5,
           o.out.ld_cell_back_error(o.x[0], o.x[1], o.block[0], o.w, o.block[1], o.w));
STEP_BENCH(ld_tanh_backprop, 4, o.block[0].ld_tanh_backprop(o.x[0], o.x[1], o.x[2]));
STEP_BENCH(diag_mat_diff, 2, o.w.diag_mat_diff(o.block[0], o.x[0]));

/// The calls alone, of dense memory to dense memory.
template <typename F>
void call_loop(benchmark::State& state, F f) {
    row<2>(state, [=](Operands& o) {
        const float* in = o.x[2].get_ptr();
        float* out = o.out.get_ptr();
        const index_t count = o.rows * o.cells;
#pragma GCC ivdep
        for (index_t k = 0; k < count; ++k) {
            out[k] = f(in[k]);
        }
    });
}

void plain_expf_loop(benchmark::State& state) {
    call_loop(state, [](float x) { return expf(x); });
}
BENCHMARK(plain_expf_loop)->Apply(sizes);

void plain_tanhf_loop(benchmark::State& state) {
    call_loop(state, [](float x) { return tanhf(x); });
}
BENCHMARK(plain_tanhf_loop)->Apply(sizes);

/// `rows` frames of 16 sequences.
void mask_reverse(benchmark::State& state) {
    const int batch = 16, frames = static_cast<int>(state.range(0));
    Operands o(state);
    const Tensor<float> in = random_matrix(batch * frames, o.cells);
    Tensor<float> out(in.get_size());
    Tensor<int> lengths{Dim(batch)};
    lengths.set_element(frames - frames / 4);
    against_copy(state, 2.0 * in.count() * sizeof(float),
                 [&] { out.mask_reverse(in, lengths, batch, frames); });
}
BENCHMARK(mask_reverse)->ArgNames({"rows", "cells"})->Args({100, 40})->Args({100, 1024});

}  // namespace
}  // namespace bench
}  // namespace vorn
