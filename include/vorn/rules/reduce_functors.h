#ifndef VORN_RULES_REDUCE_FUNCTORS_H_
#define VORN_RULES_REDUCE_FUNCTORS_H_

#include <cfloat>
#include <cmath>

#include "vorn/base.h"
#include "vorn/host_device.h"

/// Rules of folds. A comparison takes its second operand wherever it is false, so a NaN passes or
/// goes by its place.
namespace vorn {
namespace func {

/// What the rules of row and column folds share: the start value and the blend of a result.
template <typename T>
class reduce_rule {
public:
    VORN_HD T identity() const { return _initial; }

    /// alpha * value + beta * out in float, every product and the sum rounded, truncated for int;
    /// `value` alone without a blend. `out` is read only for the blend.
    VORN_HD T save(T value, const T& out) const {
        return is_inplace ? static_cast<T>(_alpha * static_cast<DType>(value) +
                                           _beta * static_cast<DType>(out))
                          : value;
    }

    /// The same with the first product and the sum fused, for kernels.
    VORN_HD T save_fused(T value, const T& out) const {
        return is_inplace ? static_cast<T>(fmaf(_alpha, static_cast<DType>(value),
                                                _beta * static_cast<DType>(out)))
                          : value;
    }

protected:
    explicit reduce_rule(const T& init) : _initial(init), _alpha(1), _beta(0), is_inplace(false) {}
    reduce_rule(const T& init, const DType& alpha, const DType& beta)
        : _initial(init), _alpha(alpha), _beta(beta), is_inplace(true) {}

    const T _initial;
    const DType _alpha;
    const DType _beta;
    bool is_inplace;
};

// Each rule has three forms of one formula: `combine` of two elements, `reduce` for shared memory,
// and `fold` for vectors of elements, which host code has only.

/// a + b
template <typename T>
class reduce_sum : public reduce_rule<T> {
public:
    reduce_sum() : reduce_rule<T>(0) {}
    reduce_sum(const T& init, const DType& alpha, const DType& beta)
        : reduce_rule<T>(init, alpha, beta) {}
    VORN_HD T combine(T a, T b) const { return a + b; }
    VORN_HD void reduce(volatile T& a, T b) const { a = combine(a, b); }
    template <typename V>
    void fold(V& a, const V& b) const {
        a = a + b;
    }
};

/// a > b ? a : b
template <typename T>
class reduce_max : public reduce_rule<T> {
public:
    reduce_max() : reduce_rule<T>(-FLT_MAX) {}
    reduce_max(const T& init, const DType& alpha, const DType& beta)
        : reduce_rule<T>(init, alpha, beta) {}
    VORN_HD T combine(T a, T b) const { return a > b ? a : b; }
    VORN_HD void reduce(volatile T& a, T b) const { a = combine(a, b); }
    template <typename V>
    void fold(V& a, const V& b) const {
        a = a > b ? a : b;
    }
};

/// a < b ? a : b
template <typename T>
class reduce_min : public reduce_rule<T> {
public:
    reduce_min() : reduce_rule<T>(FLT_MAX) {}
    reduce_min(const T& init, const DType& alpha, const DType& beta)
        : reduce_rule<T>(init, alpha, beta) {}
    VORN_HD T combine(T a, T b) const { return a < b ? a : b; }
    VORN_HD void reduce(volatile T& a, T b) const { a = combine(a, b); }
    template <typename V>
    void fold(V& a, const V& b) const {
        a = a < b ? a : b;
    }
};

/// The step of a maximum over all elements: x > result ? x : result, which passes over NaN.
class max {
public:
    VORN_HD DType operator()(DType result, DType x) const { return x > result ? x : result; }
};

/// The step of a minimum over all elements: result < x ? result : x, in which a NaN element
/// replaces the result, and the next element replaces the NaN.
class min {
public:
    VORN_HD DType operator()(DType result, DType x) const { return result < x ? result : x; }
};

}  // namespace func
}  // namespace vorn

#endif  // VORN_RULES_REDUCE_FUNCTORS_H_
