#ifndef VORN_OPS_FUNCTORS_H_
#define VORN_OPS_FUNCTORS_H_

/// The rules that run over elements and in folds, and the wrappers that carry them into kernels.
#include "vorn/rules/functors.h"
#include "vorn/rules/op_wrappers.h"
#include "vorn/rules/reduce_functors.h"

#endif  // VORN_OPS_FUNCTORS_H_
