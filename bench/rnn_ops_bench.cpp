
#include "floor.h"
#include "random_tensor.h"
#include "vorn/rules/lstm_rule.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

struct Layer {
    index_t rows, cells;
    Tensor<float> wx, wc, c_pre, c_cur, i, f, g, o, h, m;

    explicit Layer(const benchmark::State& state)
        : rows(state.range(0)),
          cells(state.range(1)),
          wx(random_tensor(Dim(rows, 4 * cells), -3, 3)),
          wc(random_tensor(Dim(1, cells), -3, 3)),
          c_pre(random_tensor(Dim(rows, cells), -3, 3)) {
        for (Tensor<float>* out : {&c_cur, &i, &f, &g, &o, &h, &m}) {
            *out = Tensor<float>(Dim(rows, cells));
        }
    }
    /// A step reads or writes so many matrices of the layer's rows and cells.
    double bytes(int matrices) const { return 1.0 * matrices * rows * cells * sizeof(float); }
    void forward() { m.lstm_op(wx, wc, wc, wc, c_pre, c_cur, i, f, g, o, h, 50, -50); }
    void backward() { wx.lstm_bp_op(i, f, g, o, wc, m, h, c_pre, c_cur, c_cur); }
};

void lstm_step(benchmark::State& state) {
    Layer layer(state);
    against_copy(state, layer.bytes(12), [&] { layer.forward(); });
}

/// The same rule, a cell at a time.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("no-tree-vectorize")))
#endif
void scalar_step(Layer& layer) {
    const index_t cells = layer.cells;
    const float* wc = layer.wc.get_ptr();
    for (index_t r = 0; r < layer.rows; ++r) {
        const float* x = layer.wx.get_row(r);
        for (index_t j = 0, k = r * cells; j < cells; ++j, ++k) {
            const func::LstmCell cell =
                func::lstm_cell<true>(x[j], x[cells + j], x[2 * cells + j], x[3 * cells + j], wc[j],
                                      wc[j], wc[j], layer.c_pre.get_ptr()[k], 50, -50);
            layer.i.get_ptr()[k] = cell.i;
            layer.f.get_ptr()[k] = cell.f;
            layer.g.get_ptr()[k] = cell.g;
            layer.c_cur.get_ptr()[k] = cell.c;
            layer.o.get_ptr()[k] = cell.o;
            layer.h.get_ptr()[k] = cell.h;
            layer.m.get_ptr()[k] = cell.m;
        }
    }
}

void lstm_step_scalar_loop(benchmark::State& state) {
    Layer layer(state);
    against_copy(state, layer.bytes(12), [&] { scalar_step(layer); });
}

void lstm_step_backward(benchmark::State& state) {
    Layer layer(state);
    layer.forward();
    against_copy(state, layer.bytes(13), [&] { layer.backward(); });
}

void sizes(benchmark::internal::Benchmark* row) {
    row->ArgNames({"rows", "cells"})->Args({64, 1024})->Args({16, 320});
    row->Unit(benchmark::kMicrosecond);
}

BENCHMARK(lstm_step)->Apply(sizes);
BENCHMARK(lstm_step_scalar_loop)->Apply(sizes);
BENCHMARK(lstm_step_backward)->Apply(sizes);

}  // namespace
}  // namespace bench
}  // namespace vorn
