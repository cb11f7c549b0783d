#ifndef VORN_GPU_MATH_OPS_H_
#define VORN_GPU_MATH_OPS_H_

#include "vorn/gpu/loss_ops.h"

#endif  // VORN_GPU_MATH_OPS_H_
