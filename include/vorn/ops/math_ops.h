#ifndef VORN_OPS_MATH_OPS_H_
#define VORN_OPS_MATH_OPS_H_

/// All dense operations on elements, rows and channels: the rooms that they are divided into.
#include "vorn/ops/channel_ops.h"
#include "vorn/ops/element_ops.h"
#include "vorn/ops/label_ops.h"
#include "vorn/ops/loss_ops.h"
#include "vorn/ops/softmax_ops.h"
#include "vorn/ops/vec_ops.h"

#endif  // VORN_OPS_MATH_OPS_H_
