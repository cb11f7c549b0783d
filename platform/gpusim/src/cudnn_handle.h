#ifndef GPUSIM_DETAIL_CUDNN_HANDLE_H_
#define GPUSIM_DETAIL_CUDNN_HANDLE_H_

// The handle of cuDNN, and what all its operations do with their operands.

#include <initializer_list>

#include "cudnn_descriptors.h"
#include "library.h"

struct cudnnContext {
    cudaStream_t stream = nullptr;
};

namespace gpusim::cudnn {

constexpr Library<cudnnStatus_t, cudnnContext> kLibrary = {
    CUDNN_STATUS_SUCCESS,         CUDNN_STATUS_BAD_PARAM,        CUDNN_STATUS_BAD_PARAM,
    CUDNN_STATUS_NOT_INITIALIZED, CUDNN_STATUS_EXECUTION_FAILED, CUDNN_STATUS_EXECUTION_FAILED,
};

/// result = alpha * value + beta * result, rounded once; a beta of 0 does not read the result.
struct Blend {
    Blend(const void* alpha_pointer, const void* beta_pointer)
        : alpha(*static_cast<const float*>(alpha_pointer)),
          beta(*static_cast<const float*>(beta_pointer)) {}

    void operator()(double value, float* result) const {
        const double scaled = alpha * value;
        *result = static_cast<float>(beta == 0 ? scaled : scaled + beta * *result);
    }

    double alpha;
    double beta;
};

/// What a call is given behind one pointer: a tensor, or plain bytes.
struct Operand {
    Operand(const char* name, const void* data, const Tensor& tensor)
        : name(name), data(data), size(tensor.bytes()), tensor(&tensor) {}
    Operand(const char* name, const void* data, size_t size)
        : name(name), data(data), size(size), tensor(nullptr) {}

    const char* name;
    const void* data;
    size_t size;
    const Tensor* tensor;
};

/// What cuDNN refuses in the operands of any operation, and what would go wrong on a device without
/// a refusal: an output that shares memory with another operand, unless `in_place` allows the first
/// output to be the first input, in the same layout.
cudnnStatus_t check_operands(const char* function, std::initializer_list<Operand> inputs,
                             std::initializer_list<Operand> outputs, bool in_place);

/// Checks the operands and enqueues `work`.
template <class F>
cudnnStatus_t enqueue(const char* function, cudnnHandle_t handle,
                      std::initializer_list<Operand> inputs, std::initializer_list<Operand> outputs,
                      F work, bool in_place = false) {
    const cudnnStatus_t status = check_operands(function, inputs, outputs, in_place);
    return status == CUDNN_STATUS_SUCCESS ? kLibrary.enqueue(handle, false, std::move(work))
                                          : status;
}

}  // namespace gpusim::cudnn

#endif  // GPUSIM_DETAIL_CUDNN_HANDLE_H_
