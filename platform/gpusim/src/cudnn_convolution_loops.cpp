#include <algorithm>
#include <vector>

#include "cudnn_convolution.h"

namespace gpusim::cudnn {

namespace {

/// One axis of the images: output o and filter tap t meet at the input o * stride + offset(t).
struct Axis {
    Axis(const ConvolutionProblem& p, int i)
        : in(p.x.extent[kH + i]),
          out(p.y.extent[kH + i]),
          taps(p.w.tensor.extent[kH + i]),
          stride(p.conv.stride[i]),
          pad_(p.conv.pad[i]),
          dilation_(p.conv.dilation[i]),
          flipped_(p.conv.mode == CUDNN_CONVOLUTION) {}

    int offset(int tap) const { return (flipped_ ? taps - 1 - tap : tap) * dilation_ - pad_; }
    /// The outputs from `begin` to `end` whose input for the tap is inside the image.
    int begin(int tap) const {
        const int o = offset(tap);
        return o >= 0 ? 0 : std::min(out, (-o + stride - 1) / stride);
    }
    int end(int tap) const {
        const int o = offset(tap);
        return o >= in ? begin(tap)
                       : std::max(begin(tap), std::min(out, (in - 1 - o) / stride + 1));
    }

    const int in, out, taps, stride;

private:
    const int pad_, dilation_;
    const bool flipped_;
};

/// to[i] += factor * from[i], for elements `step` apart.
void add_scaled(int count, double factor, const float* from, ptrdiff_t step, double* to,
                ptrdiff_t to_step) {
    if (step == 1 && to_step == 1) {
        for (int i = 0; i < count; ++i) {
            to[i] += factor * from[i];
        }
    } else {
        for (int i = 0; i < count; ++i) {
            to[i * to_step] += factor * from[i * step];
        }
    }
}

/// to[i] += a[i] * b[i]
void add_products(int count, const float* a, ptrdiff_t a_step, const float* b, ptrdiff_t b_step,
                  double* to) {
    if (a_step == 1 && b_step == 1) {
        for (int i = 0; i < count; ++i) {
            to[i] += double{a[i]} * b[i];
        }
    } else {
        for (int i = 0; i < count; ++i) {
            to[i] += double{a[i * a_step]} * b[i * b_step];
        }
    }
}

void store_row(const std::vector<double>& sums, const Blend& blend, float* row, ptrdiff_t step) {
    for (size_t i = 0; i < sums.size(); ++i) {
        blend(sums[i], row + static_cast<ptrdiff_t>(i) * step);
    }
}

void forward(const ConvolutionProblem& p, const Axis& rows, const Axis& cols, const Blend& blend,
             const ConvolutionData& data) {
    const Tensor& w = p.w.tensor;
    std::vector<double> sums(static_cast<size_t>(cols.out));
    const auto add_row = [&](int n, int k, int out_row, int c, int r) {
        const int in_row = out_row * rows.stride + rows.offset(r);
        if (in_row < 0 || in_row >= rows.in) {
            return;
        }
        const float* const x_row = data.x + p.x.offset(n, c, in_row);
        const float* const w_row = data.w + w.offset(k, c, r);
        const ptrdiff_t x_step = p.x.stride[kW];
        for (int s = 0; s < cols.taps; ++s) {
            const int begin = cols.begin(s), end = cols.end(s);
            add_scaled(end - begin, w_row[s * w.stride[kW]],
                       x_row + (begin * cols.stride + cols.offset(s)) * x_step,
                       cols.stride * x_step, sums.data() + begin, 1);
        }
    };
    for (int n = 0; n < p.y.extent[kN]; ++n) {
        for (int k = 0; k < p.y.extent[kC]; ++k) {
            for (int out_row = 0; out_row < rows.out; ++out_row) {
                std::fill(sums.begin(), sums.end(), 0.0);
                for (int c = 0; c < w.extent[kC]; ++c) {
                    for (int r = 0; r < rows.taps; ++r) {
                        add_row(n, k, out_row, c, r);
                    }
                }
                store_row(sums, blend, data.y + p.y.offset(n, k, out_row), p.y.stride[kW]);
            }
        }
    }
}

void backward_data(const ConvolutionProblem& p, const Axis& rows, const Axis& cols,
                   const Blend& blend, const ConvolutionData& data) {
    const Tensor& w = p.w.tensor;
    std::vector<double> sums(static_cast<size_t>(cols.in));
    const auto add_row = [&](int n, int c, int in_row, int k, int r) {
        const int distance = in_row - rows.offset(r);
        const int out_row = distance / rows.stride;
        if (distance < 0 || distance % rows.stride != 0 || out_row >= rows.out) {
            return;
        }
        const float* const dy_row = data.y + p.y.offset(n, k, out_row);
        const float* const w_row = data.w + w.offset(k, c, r);
        const ptrdiff_t dy_step = p.y.stride[kW];
        for (int s = 0; s < cols.taps; ++s) {
            const int begin = cols.begin(s), end = cols.end(s);
            add_scaled(end - begin, w_row[s * w.stride[kW]], dy_row + begin * dy_step, dy_step,
                       sums.data() + begin * cols.stride + cols.offset(s), cols.stride);
        }
    };
    for (int n = 0; n < p.x.extent[kN]; ++n) {
        for (int c = 0; c < p.x.extent[kC]; ++c) {
            for (int in_row = 0; in_row < rows.in; ++in_row) {
                std::fill(sums.begin(), sums.end(), 0.0);
                for (int k = 0; k < w.extent[kN]; ++k) {
                    for (int r = 0; r < rows.taps; ++r) {
                        add_row(n, c, in_row, k, r);
                    }
                }
                store_row(sums, blend, data.x + p.x.offset(n, c, in_row), p.x.stride[kW]);
            }
        }
    }
}

void backward_filter(const ConvolutionProblem& p, const Axis& rows, const Axis& cols,
                     const Blend& blend, const ConvolutionData& data) {
    const Tensor& w = p.w.tensor;
    std::vector<double> products(static_cast<size_t>(cols.out));
    const auto sum_tap = [&](int k, int c, int r, int s) {
        const int col_begin = cols.begin(s), col_end = cols.end(s);
        const ptrdiff_t x_step = p.x.stride[kW], dy_step = p.y.stride[kW];
        std::fill(products.begin(), products.end(), 0.0);
        for (int n = 0; n < p.x.extent[kN]; ++n) {
            for (int out_row = rows.begin(r); out_row < rows.end(r); ++out_row) {
                const int in_row = out_row * rows.stride + rows.offset(r);
                const int in_col = col_begin * cols.stride + cols.offset(s);
                add_products(col_end - col_begin, data.y + p.y.offset(n, k, out_row, col_begin),
                             dy_step, data.x + p.x.offset(n, c, in_row, in_col),
                             cols.stride * x_step, products.data());
            }
        }
        double sum = 0;
        for (const double product : products) {
            sum += product;
        }
        return sum;
    };
    for (int k = 0; k < w.extent[kN]; ++k) {
        for (int c = 0; c < w.extent[kC]; ++c) {
            for (int r = 0; r < rows.taps; ++r) {
                for (int s = 0; s < cols.taps; ++s) {
                    blend(sum_tap(k, c, r, s), data.w + w.offset(k, c, r, s));
                }
            }
        }
    }
}

}  // namespace

void convolve(Pass pass, const ConvolutionProblem& problem, const Blend& blend,
              const ConvolutionData& data) {
    const auto compute = pass == Pass::kForward          ? &forward
                         : pass == Pass::kBackwardFilter ? &backward_filter
                                                         : &backward_data;
    compute(problem, Axis(problem, 0), Axis(problem, 1), blend, data);
}

}  // namespace gpusim::cudnn
