#ifndef COMMON_DROPOUT_H_
#define COMMON_DROPOUT_H_

#include "common/pass.h"
#include "vorn/vorn.h"

namespace common {

/// In training each value is left out with probability `share`, by the random generator of the
/// thread's context, and what is kept is scaled by 1 / (1 - share), so that inference, which leaves
/// out nothing, needs no scale. After Srivastava et al., "Dropout: a simple way to prevent neural
/// networks from overfitting", JMLR 2014.
class Dropout {
public:
    /// 0 <= share < 1.
    Dropout(float share, vorn::Device device)
        : _share(share), _mask(device), _out(device), _in_error(device) {}

    /// `in` itself where nothing is left out. The result is good until the next call.
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in, Pass pass);
    /// The error at the input of the latest training forward(), from the error at its output.
    const vorn::Tensor<float>& backward(const vorn::Tensor<float>& error);

private:
    float _share;
    vorn::Tensor<float> _mask, _out, _in_error;
};

}  // namespace common

#endif  // COMMON_DROPOUT_H_
