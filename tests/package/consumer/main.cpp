#include <cstdio>

#include "vorn/vorn.h"

int main() {
    vorn::ThreadContextScope context;
    const vorn::Device device = vorn::has_gpu() ? vorn::GPU : vorn::CPU;
    vorn::Tensor<float> a(vorn::Dim(2, 3), device), b(vorn::Dim(3, 4), device);
    vorn::Tensor<float> c(vorn::Dim(2, 4), device);
    a.ones();
    b.set_element(2.0f);
    c.mul(a, b);
    std::printf("%g\n", c.sum());
    return c.sum() == 48.0f ? 0 : 1;
}
