// The handle of cuDNN.
#pragma once

#include "cudnn.h"
#include "library.h"

struct cudnnContext {
    cudaStream_t stream = nullptr;
};
