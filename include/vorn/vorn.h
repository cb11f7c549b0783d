#ifndef VORN_VORN_H_
#define VORN_VORN_H_

/// All that a program needs to use the library. It compiles without a CUDA header; the headers
/// under ops/, cpu/ and gpu/, with which new operators are written, do not.
#include "vorn/base.h"
#include "vorn/context/context.h"
#include "vorn/logging.h"
#include "vorn/naive_gpu.h"
#include "vorn/tensor/buffer.h"
#include "vorn/tensor/device.h"
#include "vorn/tensor/dim.h"
#include "vorn/tensor/reference.h"
#include "vorn/tensor/tensor.h"

#endif  // VORN_VORN_H_
