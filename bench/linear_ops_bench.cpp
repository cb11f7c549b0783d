#include "floor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

void max_out_forward(benchmark::State& state) {
    const int pooling_size = static_cast<int>(state.range(0));
    Tensor<float> in(Dim(4096, 256 * pooling_size)), out(Dim(4096, 256));
    Tensor<int> idx(Dim(4096, 256));
    against_copy(state, in.count() * 4.0 + out.count() * 8.0,
                 [&] { out.max_out_fwd(in, pooling_size, idx); });
}
BENCHMARK(max_out_forward)->Name("maxout forward 4096 x 256, groups of")->Arg(2)->Arg(4);

void max_out_backward(benchmark::State& state) {
    const int pooling_size = static_cast<int>(state.range(0));
    Tensor<float> in(Dim(4096, 256)), out(Dim(4096, 256 * pooling_size));
    Tensor<int> idx(Dim(4096, 256));
    against_copy(state, in.count() * 8.0 + out.count() * 8.0,
                 [&] { out.max_out_bwd(in, pooling_size, idx); });
}
BENCHMARK(max_out_backward)->Name("maxout backward 4096 x 256, groups of")->Arg(2)->Arg(4);

void append_columns(benchmark::State& state) {
    Tensor<float> in(Dim(4096, 320)), out(Dim(4096, 640));
    against_copy(state, in.count() * 8.0, [&] { out.col_append(in, 320); });
}
BENCHMARK(append_columns)->Name("append 320 of 640 columns, 4096 rows");

}  // namespace
}  // namespace bench
}  // namespace vorn
