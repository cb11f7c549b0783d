#include <cmath>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/rules/vector_math.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

/// Dense operands, and gate blocks of a matrix four times as wide.
struct Operands {
    index_t rows, cells;
    Tensor<float> gates, block[4], x[5], out, w;
    float alpha = 1, beta = 1;

    explicit Operands(const benchmark::State& state)
        : rows(state.range(0)),
          cells(state.range(1)),
          gates(random_tensor(Dim(rows, 4 * cells), -3, 3)),
          out(random_tensor(Dim(rows, cells), -3, 3)),
          w(random_tensor(Dim(1, cells), -3, 3)) {
        for (index_t k = 0; k < 4; ++k) {
            block[k] = gates.range_col(k * cells, (k + 1) * cells);
        }
        for (Tensor<float>& each : x) {
            each = random_tensor(Dim(rows, cells), -3, 3);
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

STEP_BENCH(elem_mul_add, 5, o.out.elem_mul_add(o.x[0], o.x[1], o.x[2], o.x[3]));
STEP_BENCH(ld_sigmoid_bprop, 4, o.block[0].ld_sigmoid_bprop(o.block[1], o.block[2]));
STEP_BENCH(ld_sigmoid_backprop, 4, o.block[0].ld_sigmoid_backprop(o.x[0], o.x[1], o.x[2]));
STEP_BENCH(ld_cell_cur_error, 6,
           o.out.ld_cell_cur_error(o.x[0], o.block[0], o.x[1], o.block[1], o.w, o.x[2]));
STEP_BENCH(ld_cell_back_error, 5,
           o.out.ld_cell_back_error(o.x[0], o.x[1], o.block[0], o.w, o.block[1], o.w));
STEP_BENCH(ld_tanh_backprop, 4, o.block[0].ld_tanh_backprop(o.x[0], o.x[1], o.x[2]));
STEP_BENCH(diag_mat_diff, 2, o.w.diag_mat_diff(o.block[0], o.x[0]));

// The operators with an exponential or a tangent, against plain loops over the same operands.
// `x_calls` is the ratio to the calls alone, of dense memory to dense memory.
template <typename F, typename Plain, typename Call>
void against_plain_loop(benchmark::State& state, F work, Plain plain, Call one) {
    Operands o(state);
    Tensor<float> plain_out(o.out.get_size());
    float* out = plain_out.get_ptr();
    const auto calls = [&, in = o.x[2].get_ptr(), count = o.rows * o.cells] {
#pragma GCC ivdep
        for (index_t k = 0; k < count; ++k) {
            out[k] = one(in[k]);
        }
    };
    const Turns against_calls = take_turns([&] { work(o); }, calls);
    against(
        state, [&] { work(o); }, [&] { plain(o, out); });
    state.counters["x_calls"] = against_calls.ratio;
}

void ld_mul_diag_mat_sigmoid(benchmark::State& state) {
    const auto plain = [](const Operands& o, float* out) {
        const float* w = o.w.get_ptr();
        for (index_t i = 0; i < o.rows; ++i, out += o.cells) {
            const float *in = o.x[2].get_row(i), *bak = o.block[1].get_row(i);
#pragma GCC ivdep
            for (index_t j = 0; j < o.cells; ++j) {
                const float x = o.alpha * in[j] * w[j] + o.beta * bak[j];
                out[j] = 1.0f / (1.0f + cpu::limited_exp(-x, -64, 64));
            }
        }
    };
    against_plain_loop(
        state,
        [](Operands& o) {
            o.out.ld_mul_diag_mat_sigmoid(o.x[2], o.w, o.block[1], o.alpha, o.beta);
        },
        plain, [](float x) { return 1.0f / (1.0f + cpu::limited_exp(-x, -64, 64)); });
}
BENCHMARK(ld_mul_diag_mat_sigmoid)->Apply(sizes);

void elem_mul_tanh(benchmark::State& state) {
    const auto plain = [](const Operands& o, float* out) {
        const float *a = o.x[0].get_ptr(), *c = o.x[2].get_ptr();
        float* b = o.x[3].get_ptr();
        const index_t count = o.rows * o.cells;
#pragma GCC ivdep
        for (index_t k = 0; k < count; ++k) {
            b[k] = cpu::tanh(c[k]);
            out[k] = a[k] * b[k];
        }
    };
    against_plain_loop(
        state, [](Operands& o) { o.out.elem_mul_tanh(o.x[0], o.x[1], o.x[2]); }, plain,
        [](float x) { return cpu::tanh(x); });
}
BENCHMARK(elem_mul_tanh)->Apply(sizes);

/// Frames of 16 sequences.
void mask_reverse(benchmark::State& state) {
    const int batch = 16, frames = static_cast<int>(state.range(0));
    Operands o(state);
    const Tensor<float> in = random_tensor(Dim(batch * frames, o.cells), -3, 3);
    Tensor<float> out(in.get_size());
    Tensor<int> lengths{Dim(batch)};
    lengths.set_element(frames - frames / 4);
    against_copy(state, 2.0 * in.count() * sizeof(float),
                 [&] { out.mask_reverse(in, lengths, batch, frames); });
}
// Sizes well inside and well beyond a cache of 512 KiB, which `in` and `out` share.
BENCHMARK(mask_reverse)
    ->ArgNames({"frames", "cells"})
    ->Args({50, 40})
    ->Args({400, 40})
    ->Args({100, 1024});

/// Reads only, but for a count per sequence.
void count_valid_label(benchmark::State& state) {
    const int batch = static_cast<int>(state.range(0)), frames = static_cast<int>(state.range(1));
    Tensor<int> mask(Dim(frames, batch)), lengths{Dim(batch)};
    mask.set_element(1);
    against_copy(state, 1.0 * mask.count() * sizeof(int),
                 [&] { lengths.count_valid_label(mask, batch, frames); });
}
BENCHMARK(count_valid_label)->ArgNames({"batch", "frames"})->Args({32, 1000})->Args({512, 2000});

}  // namespace
}  // namespace bench
}  // namespace vorn
