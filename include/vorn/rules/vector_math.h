#ifndef VORN_RULES_VECTOR_MATH_H_
#define VORN_RULES_VECTOR_MATH_H_

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

/// Elementary functions in single precision for host loops. They are plain inline code without
/// branches, tables or calls: a loop over any of them becomes vector code, and its body and its
/// rest run the same arithmetic, so that equal arguments give equal bits wherever they lie.
///
/// Errors, in units in the last place of the exact value and over all floats (for `pow` on a grid),
/// as tests/vector_math_sweep.cpp shows them: `exp` and `log` at most 1, `tanh`, `logistic` and
/// `pow` at most 2. All but `pow` are monotone. Zeros, infinities, NaN, denormal arguments and
/// results are those of the C library.
///
/// Products and sums are fused where the instruction set has it (__FMA__), which takes a third of
/// the time off. Last bits therefore depend on the instruction set that the code is built for.
///
/// Arguments are reduced as in Cody and Waite, "Software Manual for the Elementary Functions"
/// (1980). The polynomials are minimax approximations by Remez' algorithm, with their coefficients
/// rounded to float, but for those of `pow`.
namespace vorn {
namespace cpu {

// ---- Parts

inline constexpr float kLog2E = 0x1.715476p0f;
inline constexpr float kLn2High = 0x1.62e4p-1f;    ///< Its products with exponents are exact.
inline constexpr float kLn2Low = 0x1.7f7d1cp-20f;  ///< ln 2 less that.
inline constexpr float kCut = -0.085f;             ///< 1/2 - log2(3/2)
inline constexpr float kToInteger = 0x1.8p23f;     ///< Added, it leaves no fraction.
inline constexpr std::uint32_t kSignBit = 0x80000000;

inline std::uint32_t bits_of(float x) {
    std::uint32_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return bits;
}

inline float float_of(std::uint32_t bits) {
    float x;
    std::memcpy(&x, &bits, sizeof x);
    return x;
}

/// a * b + c
template <typename Real>
Real multiply_add(Real a, Real b, Real c) {
#ifdef __FMA__
    return std::fma(a, b, c);
#else
    return a * b + c;
#endif
}

/// c0 + c1 x + c2 x^2 + ..., by Horner's rule.
template <typename Real>
Real polynomial(Real, Real c0) {
    return c0;
}
template <typename Real, typename... C>
Real polynomial(Real x, Real c0, C... others) {
    return multiply_add(polynomial(x, others...), x, c0);
}

// Bounds are compared as bits, for which g++ has one instruction, and several for floats. NaN does
// not pass.

/// The smaller of x and a bound above 0.
inline float at_most(float bound, float x) {
    std::int32_t bits, bound_bits;
    std::memcpy(&bits, &x, sizeof bits);
    std::memcpy(&bound_bits, &bound, sizeof bits);
    const std::int32_t least = bits < bound_bits ? bits : bound_bits;
    std::memcpy(&x, &least, sizeof x);
    return x;
}

/// The larger of x and a bound below 0.
inline float at_least(float bound, float x) {
    const std::uint32_t bits = bits_of(x), bound_bits = bits_of(bound);
    const std::uint32_t least = bits < bound_bits ? bits : bound_bits;
    return float_of(least);
}

/// y, or NaN
inline float nan_if(bool is_nan, float y) {
    return float_of(bits_of(y) | (is_nan ? ~0u : 0u));
}

/// x = n ln 2 + r with exp(r) between 3/4 and 3/2, for |x| up to 177. An even cut would round
/// exp(r) - 1 to one bit less where exp(r) is least.
struct ReducedExponent {
    float r;
    std::uint32_t biased;  ///< n + kBias in its low bits, and kToInteger's exponent above.

    template <int kBias>
    static ReducedExponent of(float x) {
        constexpr float kShift = kToInteger + kBias;
        const float shifted = multiply_add(x, kLog2E, kCut) + kShift, n = shifted - kShift;
        const float high = multiply_add(n, -kLn2High, x);
        return {multiply_add(n, -kLn2Low, high), bits_of(shifted)};
    }
};

/// exp(r) - 1 where that is between -1/4 and 1/2, within 2^-28 of exp(r).
inline float exponential_less_1(float r) {
    const float bend = polynomial(r, 0x1.000006p-1f, 0x1.5554d6p-3f, 0x1.55438cp-5f, 0x1.11f30ep-7f,
                                  0x1.800fep-10f);
    return multiply_add(r * r, bend, r);
}

/// exp(r) 2^n, where n + 254 stands in the low bits of `biased`. The scale is applied in two steps,
/// so that it is neither infinite nor 0 where the result is not.
inline float scaled_exponential(float r, std::uint32_t biased) {
    const std::uint32_t first = biased >> 1, second = biased - first;
    return (1 + exponential_less_1(r)) * float_of(first << 23) * float_of(second << 23);
}

/// x = 2^exponent (1 + f) with f in [-1/3, 1/3].
struct ReducedLogarithm {
    float exponent, f;

    /// For normal x, infinity and NaN, none of them negative. The exponent of the last two is x.
    static ReducedLogarithm of_normal(float x) {
        constexpr std::uint32_t kTwoThirds = 0x3f2aaaab, kExponentBits = 0xff800000;
        const std::uint32_t bits = bits_of(x), power = (bits - kTwoThirds) & kExponentBits;
        const float n = static_cast<float>(static_cast<std::int32_t>(power) >> 23);
        const float beyond = x < std::numeric_limits<float>::infinity() ? 0.0f : x;
        return {n + beyond, float_of(bits - power) - 1};
    }

    /// For any x that isn't negative. The exponent of 0 is minus infinity.
    static ReducedLogarithm of(float x) {
        const bool is_small = x < std::numeric_limits<float>::min();
        const ReducedLogarithm y = of_normal(is_small ? x * 0x1p32f : x);
        const float of_0 = x == 0 ? -std::numeric_limits<float>::infinity() : 0.0f;
        return {y.exponent + (is_small ? of_0 - 32 : 0.0f), y.f};
    }

    float logarithm() const {
        // (log(1 + f) - f) / f^2
        const float bend =
            polynomial(f, -0.5f, 0x1.555506p-2f, -0x1.fffef0p-3f, 0x1.99d028p-3f, -0x1.559dccp-3f,
                       0x1.1ed718p-3f, -0x1.f3113cp-4f, 0x1.1e66b8p-3f, -0x1.08058ep-3f);
        const float low = multiply_add(exponent, kLn2Low, f * f * bend);
        return multiply_add(exponent, kLn2High, f + low);
    }
};

// ---- Functions

/// exp(x)
inline float exp(float x) {
    // At -176 both scales are 0: a product that underflows takes some processors a hundred times
    // as long.
    const auto [r, biased] = ReducedExponent::of<254>(at_most(89, at_least(-176, x)));
    return nan_if(x != x, scaled_exponential(r, biased));
}

/// exp(x) for x <= 0 and NaN: the same bits as exp's, in less time.
inline float exp_of_negative(float x) {
    const auto [r, biased] = ReducedExponent::of<227>(at_least(-157.25f, x));  // where biased is 0
    return nan_if(x != x, (1 + exponential_less_1(r)) * float_of(biased << 23) * 0x1p-100f);
}

/// exp(x) with x limited to [lo, hi], for -87 <= lo < 0 < hi <= 88: the same bits as exp's, in less
/// time.
inline float limited_exp(float x, float lo, float hi) {
    const auto [r, biased] = ReducedExponent::of<127>(at_most(hi, at_least(lo, x)));
    return nan_if(x != x, (1 + exponential_less_1(r)) * float_of(biased << 23));
}

/// 1 / (1 + e) for e >= 0, as in double and rounded once, but for one argument in a million. With
/// fused products it takes float only: the error of 1 + e (Knuth, "The Art of Computer
/// Programming", volume 2, 4.2.2) and the rest of the division (Markstein, "Computation of
/// elementary functions on the IBM RISC System/6000 processor", 1990) are exact and correct the
/// quotient.
inline float reciprocal_of_successor(float e) {
#ifdef __FMA__
    const float sum = 1 + e, of_e = sum - 1;
    const float lost = (1 - (sum - of_e)) + (e - of_e);
    const float quotient = 1 / sum;
    const float rest = std::fma(-quotient, lost, std::fma(-quotient, sum, 1.0f));
    return std::fma(quotient, rest, quotient);
#else
    return static_cast<float>(1 / (1.0 + e));
#endif
}

/// 1 / (1 + exp(-x)) with x limited to [-64, 64]. All but the exponential is rounded once.
inline float logistic(float x) {
    return nan_if(x != x, reciprocal_of_successor(limited_exp(-x, -64, 64)));
}

/// Where |x| >= 9/16, 1 - 2 / (exp(2 |x|) + 1), else a polynomial. The exponential enters as
/// 2^n + 2^n (exp(r) - 1), which with 1 is rounded once.
inline float tanh(float x) {
    const float a = float_of(bits_of(x) & ~kSignBit);
    const float square = a * a;
    const float slope = polynomial(square, -0x1.55553ep-2f, 0x1.1109aep-3f, -0x1.b898dep-5f,
                                   0x1.54b8a0p-6f, -0x1.825858p-8f);
    const float near_0 = multiply_add(a * square, slope, a);

    const float twice = at_most(19, a + a);
    const auto [r, biased] = ReducedExponent::of<127>(twice);
    const float scale = float_of(biased << 23);
    const float successor = multiply_add(exponential_less_1(r), scale, scale + 1);
    const float y = a >= 0.5625f ? 1 - 2 / successor : near_0;
    return float_of(bits_of(y) | (bits_of(x) & kSignBit));
}

/// Natural logarithm.
inline float log(float x) {
    return nan_if(x < 0, ReducedLogarithm::of(x).logarithm());
}

/// The same bits for x from the smallest normal number on, infinity and NaN, in less time.
inline float log_of_normal(float x) {
    return ReducedLogarithm::of_normal(x).logarithm();
}

/// log(1 + exp(x)) for -87 <= x <= 0 and NaN: the same bits as those of log and exp, in half the
/// time.
inline float softplus_of_negative(float x) {
    const auto [r, biased] = ReducedExponent::of<127>(x);
    const float sum = 1 + (1 + exponential_less_1(r)) * float_of(biased << 23);
    // From 1 to 2, where the exponent is 0 or 1.
    const bool is_upper = sum >= 0x1.555556p0f;
    const ReducedLogarithm y{is_upper ? 1.0f : 0.0f, (is_upper ? 0.5f * sum : sum) - 1};
    return y.logarithm();
}

/// x^y = 2^(y log2 |x|), with the exponent in double and with the sign of x where y is odd.
inline float pow(float x, float y) {
    const float magnitude = float_of(bits_of(x) & ~kSignBit);
    const auto [exponent, f] = ReducedLogarithm::of(magnitude);
    // log2(1 + f) = 2 / ln 2 artanh(s), by a polynomial in s^2 within 2^-35 of it.
    const double s = f / (2.0 + f), square = s * s;
    const double artanh =
        s * polynomial(square, 0x1.71547652b82fep1, 0x1.ec709c0921614p-1, 0x1.277865be7f165p-1,
                       0x1.a52435609243ap-2, 0x1.64031c26a06c2p-2);
    // An infinite y gives what a large one does, also with |x| = 1.
    const float y_magnitude = at_most(0x1p100f, float_of(bits_of(y) & ~kSignBit));
    const float y_limited = float_of(bits_of(y_magnitude) | (bits_of(y) & kSignBit));
    const double log2_of_power = y_limited * (exponent + artanh);

    // The limits matter where the power is 0 or infinite.
    constexpr float kShift = kToInteger + 254;
    const float limited = at_most(130, at_least(-254, static_cast<float>(log2_of_power)));
    const float shifted = (limited + kCut) + kShift;
    const double rest = (log2_of_power - (shifted - kShift)) * 0x1.62e42fefa39efp-1;
    const float r = at_most(0.5f, at_least(-0.5f, static_cast<float>(rest)));
    const float power = scaled_exponential(r, bits_of(shifted));

    const std::int32_t whole = static_cast<std::int32_t>(at_most(0x1p24f, y_magnitude));
    const bool is_whole = static_cast<float>(whole) == y_magnitude || y_magnitude > 0x1p24f;
    const std::uint32_t odd_sign = is_whole ? static_cast<std::uint32_t>(whole) << 31 : 0u;
    const bool is_complex =
        x < 0 && magnitude < std::numeric_limits<float>::infinity() && !is_whole;
    const float value =
        nan_if(x != x || y != y || is_complex, float_of(bits_of(power) | (bits_of(x) & odd_sign)));
    return x == 1 || y == 0 ? 1.0f : value;
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_RULES_VECTOR_MATH_H_
