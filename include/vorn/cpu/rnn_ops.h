#ifndef VORN_CPU_RNN_OPS_H_
#define VORN_CPU_RNN_OPS_H_

#include <algorithm>

#include "vorn/cpu/kit/loops.h"
#include "vorn/rules/lstm_rule.h"
#include "vorn/tensor/tensor.h"

/// Host forms of the fused LSTM steps. Every matrix has its own pitch.
namespace vorn {
namespace cpu {

/// The rows of a matrix of at least `height` rows, `height` not 0. The first and the last go
/// through get_row, so that a tensor that is no such matrix stops a call before it writes.
class MatrixRows {
public:
    MatrixRows(const Tensor<float>& matrix, index_t height)
        : _first(matrix.get_row(0)), _ld(matrix.ld()) {
        matrix.get_row(height - 1);
    }
    float* operator[](index_t row) const { return _first + row * _ld; }

private:
    float* _first;
    index_t _ld;
};

// A cell depends on its own position only: c_cur may be c_pre, and e_cur c_err.

inline void lstm_gate_row(const float* x, const float* wc, const float* c, float* gate, float* out,
                          index_t n) {
    for_each_element(n, [=](index_t j) {
        const float value = func::lstm_gate(x[j], wc[j], c[j]);
        gate[j] = value;
        out[j] = value;
    });
}

/// A row of what func::lstm_cell takes, and of the cells that it makes.
struct LstmOperands {
    const float *x_i, *x_f, *x_o, *x_c, *wc_i, *wc_f, *wc_o, *c_pre;
};
struct LstmCells {
    float *i, *f, *g, *c, *o, *h, *m;
};

/// func::lstm_cell for a row, in blocks that stay in the L1 cache and with one exponential or
/// tangent a loop: a single loop has too few registers and takes a third longer. The gates are kept
/// beside the outputs, so that a caller who needs no backward step may pass one tensor for several.
template <bool is_limit>
void lstm_row(const LstmOperands& in, const LstmCells& out, index_t width, float max, float min) {
    constexpr index_t kBlock = 256;
    float gates[3][kBlock];
    float *const i = gates[0], *const f = gates[1], *const o = gates[2];
    for (index_t at = 0; at < width; at += kBlock) {
        const index_t n = std::min(kBlock, width - at);
        const float *x_c = in.x_c + at, *c_pre = in.c_pre + at;
        float *g_out = out.g + at, *c = out.c + at, *h_out = out.h + at, *m = out.m + at;
        lstm_gate_row(in.x_i + at, in.wc_i + at, c_pre, i, out.i + at, n);
        lstm_gate_row(in.x_f + at, in.wc_f + at, c_pre, f, out.f + at, n);
        for_each_element(n, [=](index_t j) {
            const float g = math::tanh(x_c[j]);
            g_out[j] = g;
            c[j] = func::lstm_state<is_limit>(i[j], f[j], g, c_pre[j], max, min);
        });
        lstm_gate_row(in.x_o + at, in.wc_o + at, c, o, out.o + at, n);
        for_each_element(n, [=](index_t j) {
            const float h = math::tanh(c[j]);
            h_out[j] = h;
            m[j] = o[j] * h;
        });
    }
}

inline void lstm_bp_row(const float* i_out, const float* f_out, const float* c_out,
                        const float* o_out, const float* wc_o, const float* m_err, const float* hc,
                        const float* c_pre, const float* c_err, float* e_cur, float* wx_err,
                        index_t width) {
    float *err_i = wx_err, *err_f = wx_err + width, *err_o = wx_err + 2 * width,
          *err_c = wx_err + 3 * width;
    for_each_element(width, [=](index_t j) {
        const func::LstmCellError error = func::lstm_cell_bp(
            i_out[j], f_out[j], c_out[j], o_out[j], wc_o[j], m_err[j], hc[j], c_pre[j], c_err[j]);
        err_o[j] = error.d_o;
        e_cur[j] = error.e;
        err_c[j] = error.d_c;
        err_f[j] = error.d_f;
        err_i[j] = error.d_i;
    });
}

inline void vorn_lstm_op(const Tensor<float>& wx_out, const Tensor<float>& wc_i,
                         const Tensor<float>& wc_f, const Tensor<float>& wc_o,
                         const Tensor<float>& c_pre, Tensor<float>& c_cur, Tensor<float>& i_out,
                         Tensor<float>& f_out, Tensor<float>& c_out, Tensor<float>& o_out,
                         Tensor<float>& hc, Tensor<float>& m_cur, float max, float min) {
    const index_t sub_width = wc_i.get_width(), sub_height = wx_out.get_height();
    if (sub_height == 0) {
        return;
    }
    const MatrixRows x(wx_out, sub_height), pre(c_pre, sub_height), cur(c_cur, sub_height),
        i(i_out, sub_height), f(f_out, sub_height), g(c_out, sub_height), o(o_out, sub_height),
        h(hc, sub_height), m(m_cur, sub_height);
    const auto row = func::is_lstm_limit(max, min) ? lstm_row<true> : lstm_row<false>;
    for (index_t r = 0; r < sub_height; ++r) {
        const float *x_i = x[r], *x_f = x_i + sub_width, *x_o = x_f + sub_width,
                    *x_c = x_o + sub_width;
        const LstmOperands in{x_i,   x_f, x_o, x_c, wc_i.get_ptr(), wc_f.get_ptr(), wc_o.get_ptr(),
                              pre[r]};
        row(in, {i[r], f[r], g[r], cur[r], o[r], h[r], m[r]}, sub_width, max, min);
    }
}

inline void vorn_lstm_bp_op(const Tensor<float>& i_out, const Tensor<float>& f_out,
                            const Tensor<float>& c_out, const Tensor<float>& o_out,
                            const Tensor<float>& wc_o, const Tensor<float>& m_err,
                            const Tensor<float>& hc, const Tensor<float>& c_pre,
                            const Tensor<float>& c_err, Tensor<float>& e_cur,
                            Tensor<float>& wx_err) {
    const index_t sub_width = i_out.get_width(), sub_height = i_out.get_height();
    if (sub_height == 0) {
        return;
    }
    const MatrixRows i(i_out, sub_height), f(f_out, sub_height), c(c_out, sub_height),
        o(o_out, sub_height), m(m_err, sub_height), h(hc, sub_height), pre(c_pre, sub_height),
        next(c_err, sub_height), e(e_cur, sub_height), out(wx_err, sub_height);
    for (index_t r = 0; r < sub_height; ++r) {
        lstm_bp_row(i[r], f[r], c[r], o[r], wc_o.get_ptr(), m[r], h[r], pre[r], next[r], e[r],
                    out[r], sub_width);
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_RNN_OPS_H_
