#ifndef GPUSIM_DETAIL_CUDNN_HANDLE_H_
#define GPUSIM_DETAIL_CUDNN_HANDLE_H_

// The handle of cuDNN.

#include "cudnn.h"
#include "library.h"

struct cudnnContext {
    cudaStream_t stream = nullptr;
};

#endif  // GPUSIM_DETAIL_CUDNN_HANDLE_H_
