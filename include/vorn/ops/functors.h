#ifndef VORN_OPS_FUNCTORS_H_
#define VORN_OPS_FUNCTORS_H_

#include "vorn/base.h"
#include "vorn/cpu/vector_math.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/ops/op_wrappers.h"

/// Scalar rules, each written once for host and device.
namespace vorn {
namespace func {

/// () -> x
template <typename T>
class constant {
public:
    explicit constant(const T& x) : _x(x) {}
    VORN_HD T operator()() const { return _x; }

private:
    const T _x;
};

}  // namespace func
}  // namespace vorn

#endif  // VORN_OPS_FUNCTORS_H_
