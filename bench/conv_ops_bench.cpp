#include "floor.h"
#include "random_tensor.h"
#include "vorn/cpu/conv_ops.h"

namespace vorn {
namespace bench {
namespace {

// 64 filters of 3 x 3 over 64 channels of 56 x 56, padded to keep the size.
constexpr int kBatch = 16, kChannels = 64, kSide = 56, kFilters = 64, kKernel = 3;
constexpr int kTaps = kChannels * kKernel * kKernel, kPlane = kSide * kSide;

struct Convolution {
    ConvDesc desc{1, 1, 1, 1};
    Tensor<float> x = random_tensor(Dim(kBatch, kChannels, kSide, kSide), -1, 1);
    Tensor<float> w = random_tensor(Dim(kFilters, kChannels, kKernel, kKernel), -1, 1);
    Tensor<float> y = random_tensor(Dim(kBatch, kFilters, kSide, kSide), -1, 1);
    Tensor<float> columns = random_tensor(Dim(kTaps, kPlane), -1, 1);

    void* work_space() { return columns.get_ptr(); }
    index_t bytes() const { return columns.count() * sizeof(float); }
    Tensor<float> filter() const { return w.get_with_shape(Dim(kFilters, kTaps)); }
    /// Sample n as a matrix.
    Tensor<float> sample(int n) const {
        return Tensor<float>(y.get_ptr() + n * kFilters * kPlane, Dim(kFilters, kPlane), CPU);
    }
};

/// The floor of a convolution is its products.
void forward(benchmark::State& state) {
    Convolution c;
    const Tensor<float> w = c.filter();
    against(
        state, [&] { c.y.conv_fwd(c.desc, c.x, c.w, c.work_space(), c.bytes()); },
        [&] {
            for (int n = 0; n < kBatch; ++n) {
                c.sample(n).mul(w, c.columns, 1, 0);
            }
        });
}
BENCHMARK(forward)->Name("convolution, 16 x 64 x 56 x 56 by 64 of 3 x 3, floor: its products");

void filter_gradient(benchmark::State& state) {
    Convolution c;
    Tensor<float> w = c.filter();
    against(
        state, [&] { c.w.conv_grad(c.desc, c.x, c.y, c.work_space(), c.bytes()); },
        [&] {
            for (int n = 0; n < kBatch; ++n) {
                w.mul(c.sample(n), false, c.columns, true, 1, 1);
            }
        });
}
BENCHMARK(filter_gradient)->Name("filter gradient, same");

void image_gradient(benchmark::State& state) {
    Convolution c;
    const Tensor<float> w = c.filter();
    against(
        state, [&] { c.x.conv_diff(c.desc, c.w, c.y, c.work_space(), c.bytes()); },
        [&] {
            for (int n = 0; n < kBatch; ++n) {
                c.columns.mul(w, true, c.sample(n), false, 1, 0);
            }
        });
}
BENCHMARK(image_gradient)->Name("image gradient, same");

/// One sample between its image and its columns, `stride` in both directions.
template <typename Move>
void move_columns(benchmark::State& state, int passes, Move move) {
    Convolution c;
    const int stride = static_cast<int>(state.range(0));
    const int side = cpu::conv_output_extent(kSide, kKernel, 1, stride, 1);
    against_copy(state, 4.0 * (passes * kChannels * kPlane + kTaps * side * side),
                 [&] { move(c.x.get_ptr(), c.columns.get_ptr(), stride); });
}
void to_columns(benchmark::State& state) {
    move_columns(state, 1, [](float* image, float* columns, int stride) {
        cpu::im2col(image, kChannels, kSide, kSide, kKernel, kKernel, 1, 1, stride, stride, 1, 1,
                    columns);
    });
}
void from_columns(benchmark::State& state) {
    move_columns(state, 1, [](float* image, float* columns, int stride) {
        cpu::col2im(columns, kChannels, kSide, kSide, kKernel, kKernel, 1, 1, stride, stride, 1, 1,
                    image);
    });
}
BENCHMARK(to_columns)->Name("im2col, 64 x 56 x 56, 3 x 3")->Arg(1)->Arg(2);
BENCHMARK(from_columns)->Name("col2im, same")->Arg(1)->Arg(2);

void add_bias(benchmark::State& state) {
    Convolution c;
    const Tensor<float> bias = random_tensor(Dim(1, kFilters, 1, 1), -1, 1);
    against_copy(state, 8.0 * c.y.count(), [&] { c.y.add_tensor(bias); });
}
void bias_gradient(benchmark::State& state) {
    Convolution c;
    Tensor<float> bias = random_tensor(Dim(1, kFilters, 1, 1), -1, 1);
    against_copy(state, 4.0 * c.y.count(), [&] { bias.conv_bias(c.y); });
}
void transpose(benchmark::State& state) {
    Convolution c;
    Tensor<float> out(Dim(kBatch, kSide, kChannels, kSide));
    against_copy(state, 8.0 * out.count(), [&] { out.transpose_channel_height(c.x); });
}
BENCHMARK(add_bias)->Name("bias, 16 x 64 x 56 x 56");
BENCHMARK(bias_gradient)->Name("bias gradient, same");
BENCHMARK(transpose)->Name("channels and rows exchanged, same");

}  // namespace
}  // namespace bench
}  // namespace vorn
