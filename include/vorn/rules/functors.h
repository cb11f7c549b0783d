#ifndef VORN_RULES_FUNCTORS_H_
#define VORN_RULES_FUNCTORS_H_

#include <cmath>

#include "vorn/base.h"
#include "vorn/host_device.h"
#include "vorn/rules/scalar_math.h"

/// Scalar rules, each written once for host and device. `x`, `a` and `b` are elements of the
/// operands, `c` is the old value of the output. Arithmetic is in float where nothing else is said,
/// every product and sum rounded in the order written; on int tensors the rules `add` and
/// `add_inplace` thereby compute in float, and storing the result truncates it towards zero. The
/// rules of folds stand in rules/reduce_functors.h.
namespace vorn {
namespace func {

// ---- Without a blend

/// () -> x
template <typename T>
class constant {
public:
    explicit constant(const T& x) : _x(x) {}
    VORN_HD T operator()() const { return _x; }

private:
    const T _x;
};

/// constant + x
template <typename T>
class add_constant {
public:
    explicit add_constant(const T& x) : _x(x) {}
    VORN_HD T operator()(T x) const { return _x + x; }

private:
    const T _x;
};

/// constant * x
template <typename T>
class mul_constant {
public:
    explicit mul_constant(const T& x) : _x(x) {}
    VORN_HD T operator()(T x) const { return _x * x; }

private:
    const T _x;
};

/// x, or the bound that it lies beyond. The upper bound is looked at first.
class limit {
public:
    limit(DType lo, DType hi) : _lo(lo), _hi(hi) {}
    VORN_HD DType operator()(DType x) const { return x > _hi ? _hi : x < _lo ? _lo : x; }

private:
    const DType _lo, _hi;
};

/// x^p
class pow {
public:
    explicit pow(const DType& p) : _p(p) {}
    VORN_HD DType operator()(DType x) const { return math::pow(x, _p); }

private:
    const DType _p;
};

class sqrt {
public:
    VORN_HD DType operator()(DType x) const { return sqrtf(x); }
};

class square {
public:
    VORN_HD DType operator()(DType x) const { return x * x; }
};

class reciprocal {
public:
    VORN_HD DType operator()(DType x) const { return 1 / x; }
};

/// Natural logarithm.
class log {
public:
    VORN_HD DType operator()(DType x) const { return math::log(x); }
};

/// (a + alpha) / (b + beta)
class dot_div {
public:
    dot_div(DType alpha, DType beta) : _alpha(alpha), _beta(beta) {}
    VORN_HD DType operator()(DType a, DType b) const { return (a + _alpha) / (b + _beta); }

private:
    const DType _alpha, _beta;
};

/// alpha * a + beta * b
class add {
public:
    add() : add(1, 1) {}
    add(const DType& alpha, const DType& beta) : _alpha(alpha), _beta(beta) {}
    VORN_HD DType operator()(DType a, DType b) const { return _alpha * a + _beta * b; }

private:
    DType _alpha, _beta;
};

/// The Huber-like loss of box regression (Girshick, "Fast R-CNN", 2015), in double:
/// sigma2 * x^2 / 2 where |x| < 1 / sigma2, else |x| - 1 / (2 sigma2).
class smooth_l1 {
public:
    explicit smooth_l1(DType sigma2) : _sigma2(sigma2) {}
    VORN_HD DType operator()(DType x) const {
        const DType magnitude = fabsf(x);
        const double inside = 0.5 * x * x * _sigma2, outside = magnitude - 0.5 / _sigma2;
        return static_cast<DType>(magnitude < 1 / _sigma2 ? inside : outside);
    }

private:
    DType _sigma2;
};

/// Its derivative: sigma2 * x where |x| < 1 / sigma2, else the sign of x.
class smooth_l1_bp {
public:
    explicit smooth_l1_bp(DType sigma2) : _sigma2(sigma2) {}
    VORN_HD DType operator()(DType x) const {
        const DType sign = x > 0 ? DType(1) : x < 0 ? DType(-1) : DType(0);
        return fabsf(x) < 1 / _sigma2 ? _sigma2 * x : sign;
    }

private:
    DType _sigma2;
};

// ---- With a blend

/// alpha0 * a + alpha1 * b + beta * c
class add_inplace {
public:
    add_inplace() : add_inplace(1, 1, 0) {}
    add_inplace(const DType& alpha0, const DType& alpha1, const DType& beta)
        : _alpha0(alpha0), _alpha1(alpha1), _beta(beta) {}
    VORN_HD DType operator()(DType a, DType b, DType c) const {
        return _alpha0 * a + _alpha1 * b + _beta * c;
    }

private:
    DType _alpha0, _alpha1, _beta;
};

/// What the rules below share: alpha times a new value, plus beta * c.
class blend {
public:
    blend() : blend(1, 0) {}
    blend(const DType& alpha, const DType& beta) : _alpha(alpha), _beta(beta) {}

protected:
    DType _alpha, _beta;
};

/// alpha * tanh(x) + beta * c
class tanh : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType x, DType c) const { return _alpha * math::tanh(x) + _beta * c; }
};

/// alpha * max(x, 0) + beta * c
class relu : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType x, DType c) const {
        const DType r = x > 0 ? x : DType(0);
        return _alpha * r + _beta * c;
    }
};

/// alpha / (1 + exp(-x)) + beta * c with x limited to [-64, 64]; all but the exponential and
/// beta * c in double, rounded once.
class sigmoid {
public:
    sigmoid() : sigmoid(1, 0) {}
    sigmoid(const DType& alpha, const DType& beta)
        : VORN_SIGMOID_MAX(64.0f), VORN_SIGMOID_MIN(-64.0f), _alpha(alpha), _beta(beta) {}
    VORN_HD DType operator()(DType x, DType c) const {
        const DType e = math::limited_exp(-x, -VORN_SIGMOID_MAX, -VORN_SIGMOID_MIN);
        return static_cast<DType>(_alpha / (1.0 + e) + _beta * c);
    }

private:
    const float VORN_SIGMOID_MAX, VORN_SIGMOID_MIN;
    DType _alpha, _beta;
};

/// sigmoid(1, 0), which the host has a way to without double.
class plain_sigmoid {
public:
    VORN_HD DType operator()(DType x, DType c) const { return math::logistic(x) + 0 * c; }
};

/// alpha * (1 - a a) b + beta * c: the error at the input of a tanh, from its output `a` and
/// the error `b` there. So with the other backward rules.
class tanh_bp : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType a, DType b, DType c) const {
        return _alpha * (1 - a * a) * b + _beta * c;
    }
};

/// alpha * [a > 0] b + beta * c
class relu_bp : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType a, DType b, DType c) const {
        const DType d = a > 0 ? DType(1) : DType(0);
        return _alpha * d * b + _beta * c;
    }
};

/// alpha * a (1 - a) b + beta * c; all but alpha * a and beta * c in double, rounded once.
class sigmoid_bp : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType a, DType b, DType c) const {
        return static_cast<DType>(_alpha * a * (1.0 - a) * b + _beta * c);
    }
};

/// alpha * a * b + beta * c
class elem_mul : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType a, DType b, DType c) const { return _alpha * a * b + _beta * c; }
};

/// alpha * a / b + beta * c
class elem_div : public blend {
public:
    using blend::blend;
    VORN_HD DType operator()(DType a, DType b, DType c) const { return _alpha * a / b + _beta * c; }
};

}  // namespace func
}  // namespace vorn

#endif  // VORN_RULES_FUNCTORS_H_
