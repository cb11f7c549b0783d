#include "vorn/ops/blas_ops.h"

#include "device_test.h"

namespace vorn {
namespace test {

/// op(A) op(B) of row-major matrices, (m x k) by (k x n), in double.
template <typename A, typename B>
Doubles product(int m, int k, int n, const A* a, bool a_t, const B* b, bool b_t) {
    Doubles c(m * n);
    for (int i = 0; i < m; ++i) {
        for (int l = 0; l < k; ++l) {
            for (int j = 0; j < n; ++j) {
                const double left = a[a_t ? l * m + i : i * k + l];
                c[i * n + j] += left * b[b_t ? j * k + l : l * n + j];
            }
        }
    }
    return c;
}

template <typename T>
std::vector<T> transposed(const std::vector<T>& in, int rows, int cols) {
    std::vector<T> out(in.size());
    for (int i = 0; i < rows; ++i) {
        for (int j = 0; j < cols; ++j) {
            out[j * rows + i] = in[i * cols + j];
        }
    }
    return out;
}

class BlasTest : public DeviceTest {
protected:
    /// Of one matrix by `mul`. Those of a batch lie below each other in one matrix, which may be
    /// pitched, or in a cube.
    void expect_products(int batch, int m, int k, int n, bool cube = false) {
        const float scalars[][2] = {{1, 0}, {-0.5f, 1}, {2, 0.25f}, {0, 3}};
        const auto size = [&](int rows, int cols) {
            return cube ? Dim(batch, rows, cols) : Dim(batch * rows, cols);
        };
        for (int kind = 0; kind < 16; ++kind) {
            const bool a_t = kind & 1, b_t = kind & 2;
            const float alpha = scalars[kind / 4][0], beta = scalars[kind / 4][1];
            const Values a = random_values(batch * m * k, kind + 1),
                         b = random_values(batch * k * n, kind + 2);
            Values old = random_values(batch * m * n, kind + 3);
            if (beta == 0) {
                old.assign(old.size(), kNan);  // which is not read
            }
            Doubles expected;
            for (int i = 0; i < batch; ++i) {
                for (double x :
                     product(m, k, n, a.data() + i * m * k, a_t, b.data() + i * k * n, b_t)) {
                    const double kept = beta == 0 ? 0 : beta * double(old[expected.size()]);
                    expected.push_back(alpha * x + kept);
                }
            }
            const TensorF left = make(a_t ? size(k, m) : size(m, k), a);
            const TensorF right = make(b_t ? size(n, k) : size(k, n), b);
            TensorF c = make(size(m, n), old);
            batch == 1
                ? c.mul(left, a_t, right, b_t, alpha, beta)
                : c.batch_mul(left, a_t, m * k, right, b_t, k * n, m * n, batch, alpha, beta);
            SCOPED_TRACE(::testing::Message() << m << " " << k << " " << n << " kind " << kind);
            expect_close(values_of(c), expected, 1e-6, k * 1e-7);
        }
    }

    template <typename T>
    void expect_transposed(const std::vector<T>& values, int rows, int cols) {
        Tensor<T> out = poisoned<T>(Dim(cols, rows));
        out.transpose(make(Dim(rows, cols), values));
        EXPECT_EQ(values_of(out), transposed(values, rows, cols)) << rows << " " << cols;
    }
};
INSTANTIATE_TEST_SUITE_P(Places, BlasTest, kAllPlaces, name_of_place);

TEST_P(BlasTest, Products) {
    const int shapes[][3] = {{1, 1, 1},   {1, 33, 17}, {31, 1, 5}, {64, 70, 33}, {5, 300, 129},
                             {1, 140, 1}, {40, 33, 1}, {3, 4, 5},  {1, 0, 4},    {3, 0, 4}};
    for (const auto& [m, k, n] : shapes) {
        if (k != 0 || !pitched()) {  // a view has columns
            expect_products(1, m, k, n);
            expect_products(3, m, k, n, true);
        }
    }
    expect_products(3, 5, 9, 34);
}

TEST_P(BlasTest, Transpose) {
    const int shapes[][2] = {{1, 1},   {1, 40},  {40, 1},  {3, 5},
                             {16, 16}, {15, 17}, {33, 31}, {257, 300}};
    for (const auto& [rows, cols] : shapes) {
        expect_transposed(random_values(rows * cols, rows), rows, cols);
        // Integers of all bit patterns, those of signalling NaNs among them.
        std::vector<int> numbers(rows * cols);
        std::generate(numbers.begin(), numbers.end(), std::mt19937(rows));
        expect_transposed(numbers, rows, cols);
    }
}

// The rows of a large output are aligned here, unlike those of the fixture's views.
TEST(BlasHostTest, TransposeIntoLargeAlignedBlockKeepsPadding) {
    const int rows = 2063, cols = 2047, pitch = 2072;
    ASSERT_GE(rows * cols * sizeof(float), cpu::kStreamBytes);
    const Values values = random_values(rows * cols, 5);
    TensorF whole(Dim(cols, pitch), CPU);
    whole.set_element(777);
    TensorF out = whole.range_col(4, 4 + rows);
    out.transpose(dense(Dim(rows, cols), values, CPU));
    expect_same_bits(values_of(out), transposed(values, rows, cols));
    out.set_element(777);
    expect_same_bits(values_of(whole), Values(cols * pitch, 777));
}

TEST_P(BlasTest, LeastSquares) {
    const int shapes[][3] = {{1, 1, 1},  {3, 7, 4},   {2, 5, 5},    {4, 4, 9},  {3, 2, 3},
                             {5, 1, 40}, {2, 40, 33}, {2, 33, 170}, {1, 200, 3}};
    Tensor<unsigned long> ws_d(device()), ws_h(CPU);
    for (const auto& [batch, m, n] : shapes) {
        SCOPED_TRACE(::testing::Message() << batch << " " << m << " " << n);
        const int longest = std::max(m, n);
        const Values a = random_values(batch * m * n, m), z = random_values(batch * m, n);
        Values y(batch * longest, kPoison);
        Doubles shortest;
        for (int b = 0; b < batch; ++b) {
            // A combination of the rows is the shortest of all x with the same a x.
            const Doubles x = product(n, m, 1, &a[b * m * n], true, &z[b * m], false);
            const Doubles image = product(m, n, 1, &a[b * m * n], false, x.data(), false);
            m < n ? std::copy(image.begin(), image.end(), &y[b * longest])
                  : std::copy_n(&z[b * m], m, &y[b * longest]);
            shortest.insert(shortest.end(), x.begin(), x.end());
        }
        const Block<float> whole(Dim(batch, m, n), device(), pitched() ? 3 : 0);
        TensorF lhs = whole.tensor, inout = make(Dim(batch, longest), y);
        // The last scales have squares that are no floats any more; small systems are enough.
        for (const float scale : {1.0f, 0x1p-83f, 0x1p-73f, 0x1p63f}) {
            if (scale != 1 && (m >= n || n > 40)) {
                break;
            }
            const auto scaled = [scale](Values values) {
                for (float& value : values) {
                    value *= scale;
                }
                return values;
            };
            lhs.copy_from(dense(lhs.get_size(), scaled(a), CPU));
            inout.copy_from(dense(inout.get_size(), y, CPU));
            inout.sgels(lhs, ws_d, ws_h);
            const Values result = values_of(inout);
            for (int b = 0; b < batch; ++b) {
                const Values x = scaled(Values(&result[b * longest], &result[b * longest] + n));
                if (m < n) {
                    expect_close(x, Doubles(&shortest[b * n], &shortest[b * n] + n), 1e-4, 1e-4);
                    continue;
                }
                // What is left of y is orthogonal to the columns.
                Doubles rest = product(m, n, 1, &a[b * m * n], false, x.data(), false);
                for (int i = 0; i < m; ++i) {
                    rest[i] -= y[b * longest + i];
                }
                for (double slope : product(n, m, 1, &a[b * m * n], true, rest.data(), false)) {
                    EXPECT_NEAR(slope, 0, 1e-4);
                }
            }
        }
    }
}

class BlasVectorTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, BlasVectorTest, kDensePlaces, name_of_place);

TEST_P(BlasVectorTest, Norms) {
    for (int count : {1, 7, 33, 1000, 100003}) {
        Values values = random_values(count, count);
        double sum = 0, squares = 0;
        for (float value : values) {
            sum += std::abs(value);
            squares += static_cast<double>(value) * value;
        }
        const TensorF in = make(values);
        EXPECT_NEAR(in.norm1(), sum, 1e-5 * sum) << count;
        EXPECT_NEAR(in.norm2(), std::sqrt(squares), 1e-5 * std::sqrt(squares)) << count;
    }
    // Squares that are no floats any more.
    EXPECT_NEAR(make(Values(100, -3e30f)).norm2() / 3e31f, 1, 1e-6);
    EXPECT_NEAR(make(Values(100, -3e-30f)).norm2() / 3e-29f, 1, 1e-6);
    EXPECT_EQ(TensorF(device()).norm1(), 0);
    EXPECT_EQ(TensorF(device()).norm2(), 0);
}

using BlasDeathTest = BlasVectorTest;
INSTANTIATE_TEST_SUITE_P(Places, BlasDeathTest, kDensePlaces, name_of_place);

TEST_P(BlasDeathTest, Failures) {
    const auto tensor = [this](const Dim& size) { return TensorF(size, device()); };
    const TensorF m34 = tensor(Dim(3, 4)), m35 = tensor(Dim(3, 5)), cube = tensor(Dim(1, 3, 4));
    TensorF m45 = tensor(Dim(4, 5)), m43 = tensor(Dim(4, 3)), vec = tensor(Dim(5));
    const TensorF pitched = tensor(Dim(4, 6)).range_col(1, 4);
    TensorF lhs = tensor(Dim(4, 2, 5)), tall = tensor(Dim(4, 6, 2)), rhs = tensor(Dim(3, 5));
    Tensor<unsigned long> ws_d(device()), ws_h(CPU);
    const auto batch = [](const std::string& x) {
        return failed("static_cast<size_t>(batch * " + x + "_stride) == " + x +
                      ".get_element_count()");
    };
    expect_failures({
        {failed("(a).get_dim() == (2)"), [&] { m45.mul(cube, vec); }},
        {failed("(b).get_dim() == (2)"), [&] { vec.mul(m34, cube); }},
        {failed("(c).get_dim() == (2)"), [&] { vec.mul(m34, m34); }},
        {failed("(a_col) == (b_row)"), [&] { m45.mul(m34, false, m35, false, 1, 0); }},
        {failed("(a_row) == (c_row)"), [&] { m45.mul(m34, m43); }},
        {failed("(b_col) == (c_col)"), [&] { m45.mul(m43, m34); }},

        {batch("a"), [&] { m45.batch_mul(vec, false, 6, m34, false, 1, 1, 2, 1, 0); }},
        {batch("b"), [&] { m45.batch_mul(m34, false, 6, m35, false, 6, 1, 2, 1, 0); }},
        {batch("c"), [&] { m45.batch_mul(m34, false, 6, m34, false, 6, 11, 2, 1, 0); }},

        {failed("(in).get_dim() == (2)"), [&] { vec.transpose(cube); }},
        {failed("(out).get_dim() == (2)"), [&] { vec.transpose(m34); }},
        {failed("(in.get_element_count()) == (out.get_element_count())"),
         [&] { m45.transpose(m34); }},

        {failed("in.is_contiguous()"), [&] { pitched.norm2(); }},
        {failed("in.is_contiguous()"), [&] { pitched.norm1(); }},

        {failed("in.get_size().get_axis() == 3"), [&] { vec.sgels(m45, ws_d, ws_h); }},
        {failed("inout.get_size().get_axis() == 2"), [&] { vec.sgels(lhs, ws_d, ws_h); }},
        {failed("(in.get_c()) == (inout.get_h())"), [&] { rhs.sgels(tall, ws_d, ws_h); }},
        {failed("(inout.get_w()) >= (std::max(in.get_h(), in.get_w()))"),
         [&] { m45.sgels(tall, ws_d, ws_h); }},
    });
}

TEST(BlasHostDeathTest, SingularMatrix) {
    TensorF lhs = dense<float>(Dim(1, 2, 2), {1, 0, 2, 0}, CPU);
    TensorF rhs(Dim(1, 2), CPU);
    Tensor<unsigned long> ws;
    expect_failures(
        {{failed("info == 0", "matrix 0 is not of full rank"), [&] { rhs.sgels(lhs, ws, ws); }}});
}

using BlasGpuDeathTest = GpuTest;

TEST_F(BlasGpuDeathTest, DevicesAndStatuses) {
    const TensorF host(Dim(2, 2), CPU), device(Dim(2, 2), GPU);
    TensorF out(Dim(2, 2), GPU);
    const auto broken = [](const std::string& text, const std::function<void()>& call) {
        return FailureCase{failed("0 == (" + text + ")", "CUBLAS_STATUS_NOT_INITIALIZED"), [call] {
                               t_ctx->handle = nullptr;
                               call();
                           }};
    };
    expect_failures({
        {same_device("a", "c"), [&] { out.mul(host, host); }},
        {same_device("b", "c"), [&] { out.mul(device, host); }},
        {same_device("in"), [&] { out.transpose(host); }},
        broken("cublasSgeam(t_ctx->handle, CUBLAS_OP_T, CUBLAS_OP_N, dim_m, dim_n, &alpha, "
               "in_ptr, ld_in, &beta, nullptr, dim_m, out_ptr, ld_out)",
               [&] { out.transpose(device); }),
        broken("cublasSnrm2_v2(t_ctx->handle, in.get_element_count(), in._ptr, 1, res)",
               [&] { out.norm2(); }),
        broken("cublasSasum_v2(t_ctx->handle, in.get_element_count(), in._ptr, 1, res)",
               [&] { out.norm1(); }),
    });
}

}  // namespace test
}  // namespace vorn
