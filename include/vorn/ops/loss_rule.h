#ifndef VORN_OPS_LOSS_RULE_H_
#define VORN_OPS_LOSS_RULE_H_

#include "vorn/gpu/kernel_util.h"

/// The arithmetic of the training objectives for one element, written once for host and device. In
/// float where nothing else is said, every product and sum rounded in the order written.
namespace vorn {
namespace func {

/// The gradient of cross entropy for one class of an item, blended into `old`.
VORN_HD inline float cross_entropy_bp(bool is_on, bool is_label, float in, float old, float alpha,
                                      float beta) {
    const float kept = beta * old;
    return !is_on ? kept : is_label ? alpha * (1 - in) + kept : kept - alpha * in;
}

}  // namespace func
}  // namespace vorn

#endif  // VORN_OPS_LOSS_RULE_H_
