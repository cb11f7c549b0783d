// What the simulated GPU costs against a plain scalar loop on the host: how long the tests of
// kernels take, and no statement about a GPU.
#include <cmath>
#include <vector>

#include "floor.h"
#include "vorn/context/context.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

constexpr int kElements = 4 << 20;

// The loops against which kernels are held call the scalar functions, as a kernel's thread does.
__attribute__((noinline, optimize("no-tree-vectorize"))) void plain_tanh(const float* in,
                                                                         float* out, int n) {
    for (int i = 0; i < n; ++i) {
        out[i] = tanhf(in[i]);
    }
}

__attribute__((noinline, optimize("no-tree-vectorize"))) void plain_add(const float* a,
                                                                        const float* b, float* out,
                                                                        int n) {
    for (int i = 0; i < n; ++i) {
        out[i] = a[i] + b[i];
    }
}

__attribute__((noinline, optimize("no-tree-vectorize"))) void plain_softmax(const float* in,
                                                                            float* out, int rows,
                                                                            int columns) {
    for (int i = 0; i < rows; ++i, in += columns, out += columns) {
        float max = in[0], sum = 0;
        for (int j = 1; j < columns; ++j) {
            max = in[j] > max ? in[j] : max;
        }
        for (int j = 0; j < columns; ++j) {
            out[j] = expf(in[j] - max);
            sum += out[j];
        }
        for (int j = 0; j < columns; ++j) {
            out[j] /= sum;
        }
    }
}

// Times `kernel`, waited for, and reports its ratio to the plain loop.
template <typename Loop, typename Kernel>
void against_plain_loop(benchmark::State& state, Loop loop, Kernel kernel) {
    Tensor<float> marker(Dim(1), GPU);
    const auto waited_for = [&] {
        kernel();
        marker.get_element(Dim(0));  // waits for the stream
    };
    against(state, waited_for, loop);
}

void tanh_kernel(benchmark::State& state) {
    std::vector<float> in(kElements, 0.5f), out(kElements);
    Tensor<float> x(Dim(kElements), GPU), y(Dim(kElements), GPU);
    x.set_element(0.5f);
    against_plain_loop(
        state, [&] { plain_tanh(in.data(), out.data(), kElements); }, [&] { y.tanh(x); });
}
BENCHMARK(tanh_kernel)->Name("simulated tanh, 4 M, against the scalar loop");

void add_kernel(benchmark::State& state) {
    std::vector<float> in(kElements, 0.5f), out(kElements);
    Tensor<float> x(Dim(kElements), GPU), y(Dim(kElements), GPU);
    against_plain_loop(
        state, [&] { plain_add(in.data(), in.data(), out.data(), kElements); },
        [&] { y.add(x, x); });
}
BENCHMARK(add_kernel)->Name("simulated a + b, 4 M, against the scalar loop");

void softmax_kernel(benchmark::State& state) {
    constexpr int kRows = 4096, kColumns = 1024;
    std::vector<float> in(kRows * kColumns, 0.5f), out(in.size());
    Tensor<float> x(Dim(kRows, kColumns), GPU), y(Dim(kRows, kColumns), GPU);
    against_plain_loop(
        state, [&] { plain_softmax(in.data(), out.data(), kRows, kColumns); },
        [&] { y.softmax(x); });
}
BENCHMARK(softmax_kernel)->Name("simulated softmax of 512 threads, 4096 x 1024");

}  // namespace
}  // namespace bench
}  // namespace vorn
