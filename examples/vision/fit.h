#ifndef VISION_FIT_H_
#define VISION_FIT_H_

#include "vorn/vorn.h"

namespace vision {

/// Gives an output its size. Operations multiply what was there by zero, so it has to be a number:
/// a new size clears it, and what has the size already keeps the numbers of the latest batch. To
/// clear it for every batch costs a tenth of training.
template <typename T>
void fit(const vorn::Dim& size, vorn::Tensor<T>* output) {
    if (output->get_size() != size) {
        output->resize(size);
    }
}

}  // namespace vision

#endif  // VISION_FIT_H_
