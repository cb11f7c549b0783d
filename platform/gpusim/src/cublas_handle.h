#ifndef GPUSIM_DETAIL_CUBLAS_HANDLE_H_
#define GPUSIM_DETAIL_CUBLAS_HANDLE_H_

// Handles, scalars and operands of cuBLAS.

#include "cublas_v2.h"
#include "library.h"

struct cublasContext {
    cudaStream_t stream = nullptr;
    cublasPointerMode_t pointer_mode = CUBLAS_POINTER_MODE_HOST;
    cublasMath_t math_mode = CUBLAS_DEFAULT_MATH;
};

namespace gpusim {

/// A factor: its value if it came through a host pointer, else where to read it in stream order.
class Scalar {
public:
    Scalar(cublasHandle_t handle, const float* pointer)
        : on_device_(handle->pointer_mode == CUBLAS_POINTER_MODE_DEVICE) {
        if (on_device_) {
            pointer_ = pointer;
        } else if (pointer != nullptr) {
            value_ = *pointer;
        }
    }
    float get() const { return on_device_ ? *pointer_ : value_; }
    /// Whether it is known at the call to be 0, so that its operand is never read.
    bool surely_zero() const { return !on_device_ && value_ == 0; }

private:
    bool on_device_;
    const float* pointer_ = nullptr;
    float value_ = 0;
};

/// Bytes from the first to behind the last element of a vector.
inline size_t vector_bytes(int n, int inc) {
    return n <= 0 ? 0
                  : (static_cast<size_t>(n - 1) * static_cast<size_t>(inc < 0 ? -inc : inc) + 1) *
                        sizeof(float);
}

inline size_t matrix_bytes(int rows, int cols, int ld) {
    return rows <= 0 || cols <= 0 ? 0
                                  : (static_cast<size_t>(cols - 1) * static_cast<size_t>(ld) +
                                     static_cast<size_t>(rows)) *
                                        sizeof(float);
}

/// The address at which threads of the BLAS library may use an operand.
template <class T>
T* for_blas(T* pointer) {
    return Memory::get().arena().alias(pointer);
}

/// Enqueues `work` on the handle's stream; waits for it where `wait` is set.
template <class F>
cublasStatus_t enqueue(cublasHandle_t handle, bool wait, F work) {
    if (call_barrier() != cudaSuccess) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    Device& device = Device::get();
    const StreamPtr stream = device.find_stream(handle->stream);
    if (stream == nullptr) {
        return CUBLAS_STATUS_EXECUTION_FAILED;
    }
    const StreamPoint point = device.submit(stream, make_task(std::move(work)));
    if (wait || device.launch_blocking()) {
        device.wait(point);
        if (device.fault() != cudaSuccess) {
            return CUBLAS_STATUS_EXECUTION_FAILED;
        }
    }
    return CUBLAS_STATUS_SUCCESS;
}

inline bool valid(cublasOperation_t op) {
    return op == CUBLAS_OP_N || op == CUBLAS_OP_T || op == CUBLAS_OP_C;
}

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_CUBLAS_HANDLE_H_
