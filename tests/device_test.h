#ifndef VORN_TESTS_DEVICE_TEST_H_
#define VORN_TESTS_DEVICE_TEST_H_

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "vorn/context/context.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace test {

using TensorF = Tensor<float>;
using Values = std::vector<float>;
using Doubles = std::vector<double>;

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNan = std::numeric_limits<float>::quiet_NaN();
constexpr int kPoison = -12345;           ///< What no test expects; finite, because blends read it.
constexpr double kUlp = 1.0 / (1 << 23);  ///< Upper bound of one ulp, relative.
constexpr double kHalfUlp = 1.0001 / (1 << 24);  ///< One rounding of the exact value.

/// Where a test case runs: each device, dense and as a view of some columns of a wider matrix.
enum class Place { kHost, kHostPitched, kGpu, kGpuPitched };

inline void PrintTo(Place place, std::ostream* os) {
    const char* names[] = {"Host", "HostPitched", "Gpu", "GpuPitched"};
    *os << names[static_cast<int>(place)];
}
inline std::string name_of_place(const ::testing::TestParamInfo<Place>& info) {
    return ::testing::PrintToString(info.param);
}

inline const auto kAllPlaces =
    ::testing::Values(Place::kHost, Place::kHostPitched, Place::kGpu, Place::kGpuPitched);
inline const auto kDensePlaces = ::testing::Values(Place::kHost, Place::kGpu);

/// Random values with a fixed seed per call site, in [lo, hi).
inline std::vector<float> random_values(size_t count, unsigned seed, float lo = -1, float hi = 1) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> draw(lo, hi);
    std::vector<float> values(count);
    for (float& value : values) {
        value = draw(engine);
    }
    return values;
}

inline Doubles widen(const Values& values) {
    return Doubles(values.begin(), values.end());
}

/// An outer x channel x inner tensor, of which operations fold the channels.
struct Extents {
    int outer, channel, inner;

    int count() const { return outer * channel * inner; }
    int items() const { return outer * inner; }  ///< Folds, (o, k) being number o * inner + k.
    int at(int o, int c, int k) const { return (o * channel + c) * inner + k; }
    int at(int item, int c) const { return at(item / inner, c, item % inner); }
    Dim dim() const { return inner == 1 ? Dim(outer, channel) : Dim(outer, channel, inner); }
};

/// first, first + step, ...
template <typename T>
std::vector<T> counting(index_t count, int first = 0, int step = 1) {
    std::vector<T> values(count);
    for (index_t i = 0; i < count; ++i) {
        values[i] = static_cast<T>(first + step * static_cast<int>(i));
    }
    return values;
}

/// A dense tensor with these elements, row-major.
template <typename T>
Tensor<T> dense(const Dim& size, const std::vector<T>& values, Device device) {
    return Tensor<T>(Tensor<T>(const_cast<T*>(values.data()), size, CPU), device);
}

/// Calls f with a zero of each element type.
template <typename F>
void for_each_type(F f) {
    f(0.0f);
    f(0);
    f(0ul);
    f(static_cast<unsigned char>(0));
    f(static_cast<short>(0));
}

/// The elements of a tensor of any device and pitch, row-major.
template <typename T>
std::vector<T> values_of(const Tensor<T>& tensor) {
    std::vector<T> values(tensor.get_element_count());
    Tensor<T> view(values.data(), tensor.get_size(), CPU);
    view.copy_from(tensor);
    return values;
}

/// A block of memory on any device, filled and read past the library, with a tensor in it that has
/// `left` elements before each of its rows and `right` after it.
template <typename T>
class Block {
public:
    Block(const Dim& size, const Device& device, index_t left, index_t right = 0)
        : _ld(size[-1] + left + right),
          _first(left),
          _count(_first + size.height() * _ld),
          _buffer(std::make_shared<Buffer>(_count * sizeof(T), device)),
          tensor(_buffer, size, _ld, static_cast<T*>(_buffer->ptr()) + _first) {}

    void write(const std::vector<T>& all) {
        move(_buffer->ptr(), all.data(), cudaMemcpyHostToDevice);
    }
    std::vector<T> read() const {
        std::vector<T> all(_count);
        move(all.data(), _buffer->ptr(), cudaMemcpyDeviceToHost);
        return all;
    }
    /// Fails unless all elements beside the tensor are `value`.
    void expect_beside(T value) const {
        std::vector<T> all = read();
        for (index_t i = 0; i < tensor.count(); ++i) {
            all[place(i / tensor.get_w(), i % tensor.get_w())] = value;
        }
        EXPECT_EQ(all, std::vector<T>(_count, value));
    }
    index_t count() const { return _count; }
    /// The place of a row's element in the block.
    index_t place(index_t row, index_t col) const { return _first + row * _ld + col; }

private:
    void move(void* to, const void* from, cudaMemcpyKind kind) const {
        if (is_cpu_device(_buffer->device())) {
            memcpy(to, from, _count * sizeof(T));
        } else {
            ASSERT_EQ(cudaMemcpy(to, from, _count * sizeof(T), kind), cudaSuccess);
        }
    }

    index_t _ld, _first, _count;
    std::shared_ptr<Buffer> _buffer;

public:
    Tensor<T> tensor;
};

/// A context for the thread of the test, and tensors of the test's place.
class ContextTest : public ::testing::Test {
protected:
    ThreadContextScope _context;
};

class GpuTest : public ContextTest {
protected:
    void SetUp() override {
        if (!has_gpu()) {
            GTEST_SKIP() << "no GPU on this machine";
        }
    }
};

class DeviceTest : public ::testing::TestWithParam<Place> {
protected:
    void SetUp() override {
        if (on_gpu() && !has_gpu()) {
            GTEST_SKIP() << "no GPU on this machine";
        }
    }

    bool on_gpu() const { return GetParam() == Place::kGpu || GetParam() == Place::kGpuPitched; }
    bool pitched() const {
        return GetParam() == Place::kHostPitched || GetParam() == Place::kGpuPitched;
    }
    Device device() const { return on_gpu() ? GPU : CPU; }

    /// A tensor of the test's place with these elements. A matrix is pitched where the place is,
    /// between guard columns, of which `right` stand after it; other shapes are dense.
    template <typename T>
    Tensor<T> make(const Dim& size, const std::vector<T>& values, int right = kGuard + 1) {
        Tensor<T> tensor(size, device());
        if constexpr (std::is_same<T, float>::value) {
            if (pitched() && size.get_axis() == 2) {
                _guarded.emplace_back(size, device(), kGuard, right);
                _guarded.back().write(Values(_guarded.back().count(), kGuardValue));
                tensor = _guarded.back().tensor;
            }
        }
        tensor.copy_from(Tensor<T>(const_cast<T*>(values.data()), size, CPU));
        return tensor;
    }

    /// A vector of these elements.
    template <typename T>
    Tensor<T> make(const std::vector<T>& values) {
        return make(Dim(static_cast<int>(values.size())), values);
    }

    /// A tensor whose old elements no test expects in a result.
    template <typename T = float>
    Tensor<T> poisoned(const Dim& size, int right = kGuard + 1) {
        return make(size, std::vector<T>(size.product(), T(kPoison)), right);
    }

    /// A dense tensor of poison between guards.
    template <typename T = float>
    Tensor<T> guarded(const Dim& size) {
        const int count = size.product();
        Tensor<T> all(Dim(kGuard + count + kGuard), device());
        all.set_element(T(kGuardValue));
        _guards.push_back([=] {
            std::vector<T> values = values_of(all);
            values.erase(values.begin() + kGuard, values.end() - kGuard);
            EXPECT_EQ(values, std::vector<T>(2 * kGuard, T(kGuardValue)));
        });
        Tensor<T> tensor(all.get_ptr() + kGuard, size, device());
        tensor.set_element(T(kPoison));
        return tensor;
    }

    /// A tensor of any number of axes between guards, pitched where the place is.
    TensorF image(const Dim& size, const Values& values) {
        TensorF tensor = guarded(size);
        if (pitched() && !values.empty()) {
            _guarded.emplace_back(size, device(), 2, 3);
            _guarded.back().write(Values(_guarded.back().count(), kGuardValue));
            tensor = _guarded.back().tensor;
        }
        tensor.copy_from(TensorF(const_cast<float*>(values.data()), size, CPU));
        return tensor;
    }

    /// alpha * x + beta * old as the device rounds it.
    float blend(float alpha, float x, float beta, float old) const {
        return on_gpu() ? std::fma(alpha, x, beta * old) : alpha * x + beta * old;
    }

    /// Fails if an operation wrote beside a tensor made by this test.
    void TearDown() override {
        for (const std::function<void()>& check : _guards) {
            check();
        }
        for (const Block<float>& guarded : _guarded) {
            guarded.expect_beside(kGuardValue);
        }
    }

private:
    static constexpr int kGuard = 3;
    static constexpr float kGuardValue = 777;

    ThreadContextScope _context;
    std::vector<Block<float>> _guarded;
    std::vector<std::function<void()>> _guards;
};

/// The logistic function, of a limited argument.
inline double sigmoid_of(double x) {
    return 1 / (1 + std::exp(-std::min(std::max(x, -64.0), 64.0)));
}

/// The place of a column among those of equal maxima: the lowest wins on the host, and on a GPU the
/// one whose thread comes first when the seven bits of its number are reversed.
inline std::pair<int, int> order_of_ties(int column, bool on_gpu) {
    int reversed = 0;
    for (int bit = 0; bit < 7 && on_gpu; ++bit) {
        reversed |= (column >> bit & 1) << (6 - bit);
    }
    return {reversed, column};
}

/// |actual - expected| <= absolute + relative * |expected|, element by element; NaN equals NaN.
inline void expect_close(const std::vector<float>& actual, const std::vector<double>& expected,
                         double relative, double absolute = 0) {
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        if (std::isnan(expected[i])) {
            ASSERT_TRUE(std::isnan(actual[i])) << "element " << i << " is " << actual[i];
        } else if (std::isinf(expected[i])) {
            ASSERT_EQ(actual[i], expected[i]) << "element " << i;
        } else {
            ASSERT_NEAR(actual[i], expected[i], absolute + relative * std::abs(expected[i]))
                << "element " << i;
        }
    }
}

/// The same bits.
inline void expect_same_bits(const std::vector<float>& actual, const std::vector<float>& expected) {
    ASSERT_EQ(actual.size(), expected.size());
    for (size_t i = 0; i < actual.size(); ++i) {
        ASSERT_EQ(memcmp(&actual[i], &expected[i], sizeof(float)), 0)
            << "element " << i << ": " << actual[i] << " against " << expected[i];
    }
}

/// Compares an analytic gradient with central differences of a loss in double precision.
/// `loss` evaluates the loss with its present inputs; `x` are the inputs, changed and restored.
inline void expect_gradient(const std::function<double()>& loss, std::vector<double>& x,
                            const std::vector<float>& gradient, double tolerance,
                            double step = 1e-4) {
    ASSERT_EQ(x.size(), gradient.size());
    for (size_t i = 0; i < x.size(); ++i) {
        const double saved = x[i];
        x[i] = saved + step;
        const double above = loss();
        x[i] = saved - step;
        const double below = loss();
        x[i] = saved;
        const double expected = (above - below) / (2 * step);
        ASSERT_NEAR(gradient[i], expected, tolerance * (1 + std::abs(expected)))
            << "derivative by input " << i;
    }
}

/// The text of a failed check, with what the check adds to it.
inline std::string failed(const std::string& condition, const std::string& extra = "") {
    return "Check failed: " + condition + " " + extra;
}
inline std::string not_null(const std::string& pointer) {
    return "Check notnull: " + pointer + " ";
}
inline std::string same_device(const std::string& a, const std::string& b = "out") {
    return failed("is_same_devices((" + a + ").get_device(), (" + b + ").get_device())");
}
inline std::string same_size(const std::string& a, const std::string& b = "out") {
    return failed("(" + a + ".get_size()) == (" + b + ".get_size())");
}

inline const std::string kNotImplemented = "Not Implemented Yet";
inline const std::string kBadAxis =
    failed("axis_idx >= -num_axis && axis_idx < num_axis", "error axis index.");
inline const std::string kBadIndex = failed("is_valid_index(coor)", "invalid index dim.");
/// The shape and its product follow.
inline const std::string kTooLarge =
    failed("ret <= static_cast<index_t>(std::numeric_limits<int>::max())", "Dim size error Dim ");

/// One row of a table of failures: a call and the exact text after the log prefixes.
struct FailureCase {
    std::string text;
    std::function<void()> call;
};

/// A pattern that matches `text` literally.
inline std::string literal(const std::string& text) {
    std::string pattern;
    for (char c : text) {
        if (std::strchr("\\^$.|?*+()[]{}", c)) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern;
}

/// Each call aborts with a fatal line whose text is exactly the given one: the log prefix before
/// it, the end of the line after it. A text without extras thus ends with its blank.
inline void expect_failures(const std::vector<FailureCase>& failures) {
    for (const FailureCase& failure : failures) {
        EXPECT_DEATH(failure.call(), literal(": " + failure.text + "\n")) << failure.text;
    }
}

/// Operands for tables of failures, of the sizes and devices that checks tell apart. The `far` ones
/// are said to be on a GPU, where they have an address and no memory: each check comes before the
/// first read, and the tables run on machines without a GPU too.
class FailureTest : public ContextTest {
protected:
    template <typename T = float>
    static Tensor<T> far_of(const Dim& size) {
        static double memory[32];
        return Tensor<T>(reinterpret_cast<T*>(memory), size, GPU);
    }

    TensorF in{Dim(3, 4)}, out{Dim(3, 4)}, small{Dim(3, 3)}, cube{Dim(1, 3, 4)}, flat{Dim(12)},
        vec{Dim(3)};
    TensorF far = far_of(Dim(3, 4)), far_small = far_of(Dim(3, 3)), far_cube = far_of(Dim(1, 3, 4)),
            far_flat = far_of(Dim(12)), far_vec = far_of(Dim(3));
    Tensor<int> ints{Dim(3)}, far_ints = far_of<int>(Dim(3));
};

}  // namespace test
}  // namespace vorn

#endif  // VORN_TESTS_DEVICE_TEST_H_
