#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

void max_out_forward(benchmark::State& state) {
    const int pooling_size = static_cast<int>(state.range(0));
    const Tensor<float> in = random_tensor(Dim(4096, 256 * pooling_size), -1, 1);
    Tensor<float> out = random_tensor(Dim(4096, 256), -1, 1);
    Tensor<int> idx(Dim(4096, 256));
    idx.set_element(1);
    against_copy(state, in.count() * 4.0 + out.count() * 8.0,
                 [&] { out.max_out_fwd(in, pooling_size, idx); });
}
BENCHMARK(max_out_forward)->Name("maxout forward 4096 x 256, groups of")->Arg(2)->Arg(4);

void max_out_backward(benchmark::State& state) {
    const int pooling_size = static_cast<int>(state.range(0));
    const Tensor<float> in = random_tensor(Dim(4096, 256), -1, 1);
    Tensor<float> out = random_tensor(Dim(4096, 256 * pooling_size), -1, 1);
    Tensor<int> idx(Dim(4096, 256));
    random_tensor(Dim(4096, 256), 0, 1).max_out_fwd(out, pooling_size, idx);  // winners anywhere
    against_copy(state, in.count() * 8.0 + out.count() * 8.0,
                 [&] { out.max_out_bwd(in, pooling_size, idx); });
}
BENCHMARK(max_out_backward)->Name("maxout backward 4096 x 256, groups of")->Arg(2)->Arg(4);

// In cache and in memory.
void append_columns(benchmark::State& state) {
    const Tensor<float> in = random_tensor(Dim(state.range(0), 320), -1, 1);
    Tensor<float> out = random_tensor(Dim(state.range(0), 640), -1, 1);
    against_copy(state, in.count() * 8.0, [&] { out.col_append(in, 320); });
}
BENCHMARK(append_columns)->Name("append 320 of 640 columns, rows")->Arg(1024)->Arg(32768);

void deappend_columns(benchmark::State& state) {
    const Tensor<float> in = random_tensor(Dim(state.range(0), 640), -1, 1);
    Tensor<float> out = random_tensor(Dim(state.range(0), 320), -1, 1);
    against_copy(state, out.count() * 8.0, [&] { out.col_deappend(in, 320); });
}
BENCHMARK(deappend_columns)->Name("take 320 of 640 columns, rows")->Arg(1024)->Arg(32768);

}  // namespace
}  // namespace bench
}  // namespace vorn
