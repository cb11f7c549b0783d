#ifndef EXAMPLES_GRADIENT_CHECK_H_
#define EXAMPLES_GRADIENT_CHECK_H_

#include <vector>

#include "vorn/vorn.h"

inline const vorn::Device kDevices[] = {vorn::CPU, vorn::GPU};

inline std::vector<float> to_host(const vorn::Tensor<float>& tensor) {
    std::vector<float> values(tensor.count());
    tensor.copy_to(values.data(), 0, values.size());
    return values;
}

/// Of `f()` with respect to `value`, on which it depends.
template <typename F>
double derivative(double* value, F f) {
    const double step = 1e-5, at = *value;
    *value = at + step;
    const double above = f();
    *value = at - step;
    const double below = f();
    *value = at;
    return (above - below) / (2 * step);
}

#endif  // EXAMPLES_GRADIENT_CHECK_H_
