#ifndef VORN_GPU_MATH_OPS_H_
#define VORN_GPU_MATH_OPS_H_

#include "vorn/gpu/channel_ops.h"
#include "vorn/gpu/label_ops.h"
#include "vorn/gpu/loss_ops.h"
/// The rooms of ops/math_ops.h that have kernels of their own.

#endif  // VORN_GPU_MATH_OPS_H_
