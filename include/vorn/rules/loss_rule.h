#ifndef VORN_RULES_LOSS_RULE_H_
#define VORN_RULES_LOSS_RULE_H_

#include <cfloat>
#include <cmath>

#include "vorn/host_device.h"
#include "vorn/rules/scalar_math.h"

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

/// The gradient of the squared error for one element of a row.
VORN_HD inline float mean_squre_error_bp(bool is_on, float label, float in, float old, float alpha,
                                         float beta) {
    const float kept = beta * old;
    return is_on ? alpha * (label - in) + kept : kept;
}

/// What the cost of a noise mask and its gradient share, for one element.
struct RnnoiseElement {
    float y_w;           ///< The weight of the element.
    float y_sub_sqrt;    ///< The difference of the square roots.
    float y_mse;         ///< Its square.
    float y_for_ce;      ///< true_val inside (0, 1), for the cross entropy.
    float y_bf_sigmoid;  ///< The logit of that.
};

VORN_HD inline RnnoiseElement rnnoise_element(float pred_val, float true_val) {
    const float hi = 0.999999f, lo = 0.000001f;
    RnnoiseElement y;
    y.y_w = pred_val + 1 < 1 ? pred_val + 1 : 1;
    y.y_sub_sqrt = sqrtf(true_val) - sqrtf(pred_val);
    y.y_mse = y.y_sub_sqrt * y.y_sub_sqrt;
    const float below_hi = true_val < hi ? true_val : hi;
    y.y_for_ce = below_hi > lo ? below_hi : lo;
    y.y_bf_sigmoid = math::log(y.y_for_ce / (1 - y.y_for_ce));
    return y;
}

/// The weighted cost of one element. The cross entropy enters in double.
VORN_HD inline float rnnoise_cost(float pred_val, float true_val) {
    const RnnoiseElement y = rnnoise_element(pred_val, true_val);
    const float above_0 = y.y_bf_sigmoid > 0 ? y.y_bf_sigmoid : 0;
    const float y_ce =
        above_0 - pred_val * y.y_bf_sigmoid + math::log(1 + math::exp(-fabsf(y.y_bf_sigmoid)));
    const float of_roots = 10 * y.y_mse * y.y_mse + y.y_mse;
    const float y_cost = static_cast<float>(of_roots - 0.01 * y_ce);
    return y.y_w * y_cost;
}

/// The derivative of the cost with respect to true_val, blended into `old` in double. The logistic
/// function of the logit is 1 - q or q, with an exponential that can't overflow.
VORN_HD inline float rnnoise_bp(float pred_val, float true_val, float old, float alpha,
                                float beta) {
    const RnnoiseElement y = rnnoise_element(pred_val, true_val);
    const float y_mse_delta = y.y_sub_sqrt / sqrtf(true_val);
    const float e = math::exp(-fabsf(y.y_bf_sigmoid)), q = e / (1 + e);
    const float s_sub_pred = y.y_bf_sigmoid >= 0 ? (1 - pred_val) - q : q - pred_val;
    const float y_ce_delta = -s_sub_pred / y.y_for_ce / (1 - y.y_for_ce);
    const float of_roots = y_mse_delta + 20 * y.y_mse * y_mse_delta;
    const float weight = alpha * y.y_w, kept = beta * old;
    return static_cast<float>(weight * (of_roots + 0.01 * y_ce_delta) + kept);
}

/// The level of -128 to 127 of an element of a column with the bound `max`; `biased` is
/// 127 / max * x with a half added away from zero.
template <typename Real>
VORN_HD signed char fixed_level(float x, float max, Real biased) {
    return x >= max - FLT_EPSILON  ? 127
           : x < FLT_EPSILON - max ? -128
                                   : static_cast<signed char>(biased);
}

}  // namespace func
}  // namespace vorn

#endif  // VORN_RULES_LOSS_RULE_H_
