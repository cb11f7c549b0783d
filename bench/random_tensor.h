#ifndef VORN_BENCH_RANDOM_TENSOR_H_
#define VORN_BENCH_RANDOM_TENSOR_H_

#include <algorithm>
#include <random>

#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {

/// A host tensor of numbers drawn evenly from [low, high), the same for the same seed. Operands
/// are always filled: memory that nobody has written to may all be one page of zeros.
inline Tensor<float> random_tensor(const Dim& size, float low, float high, unsigned seed = 1) {
    Tensor<float> tensor(size, CPU);
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> draw(low, high);
    std::generate_n(tensor.get_ptr(), tensor.count(), [&] { return draw(engine); });
    return tensor;
}

}  // namespace bench
}  // namespace vorn

#endif  // VORN_BENCH_RANDOM_TENSOR_H_
