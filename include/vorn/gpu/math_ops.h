#ifndef VORN_GPU_MATH_OPS_H_
#define VORN_GPU_MATH_OPS_H_

/// The GPU forms of the families that ops/math_ops.h offers and that have kernels of their own.
#include "vorn/gpu/channel_ops.h"
#include "vorn/gpu/label_ops.h"
#include "vorn/gpu/loss_ops.h"
#include "vorn/gpu/softmax_ops.h"
#include "vorn/gpu/vec_ops.h"

#endif  // VORN_GPU_MATH_OPS_H_
