#include "floor.h"
#include "random_tensor.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

// Both read only, but for a result per row or call: the floor moves as many bytes, half of them
// read.
void count_valid_label(benchmark::State& state) {
    const int num = static_cast<int>(state.range(0));
    Tensor<float> label = random_tensor(Dim(num), 0, 1);
    Tensor<int> mask{Dim(num)};
    mask.set_element(1);
    size_t count;
    against_copy(state, num * 8.0, [&] { label.count_valid_label(mask, 0.5f, &count); });
}
BENCHMARK(count_valid_label)->ArgName("labels")->Arg(2000)->Arg(30000)->Arg(4000000);

void cal_classify_acu_target(benchmark::State& state) {
    const int rows = static_cast<int>(state.range(0)), classes = static_cast<int>(state.range(1));
    const Tensor<float> in = random_tensor(Dim(rows, classes), 0, 1);
    Tensor<float> label = random_tensor(Dim(rows), 0, 1), out(Dim{rows});
    Tensor<int> mask{Dim(rows)}, max_idx{Dim(rows)};
    mask.set_element(1);
    size_t count;
    against_copy(state, in.count() * 4.0 + rows * 16.0,
                 [&] { out.cal_classify_acu_target(in, label, mask, max_idx, -1, &count); });
}
BENCHMARK(cal_classify_acu_target)
    ->ArgNames({"rows", "classes"})
    ->Args({1000, 10})
    ->Args({64, 1000})
    ->Args({4096, 128})
    ->Args({1024, 8000});

}  // namespace
}  // namespace bench
}  // namespace vorn
