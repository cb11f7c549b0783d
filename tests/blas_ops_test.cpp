#include "vorn/ops/blas_ops.h"

#include "device_test.h"

namespace vorn {
namespace test {

/// A row-major matrix in double, for references.
struct Matrix {
    int rows, cols;
    Doubles values;

    Matrix(int rows, int cols) : rows(rows), cols(cols), values(rows * cols) {}
    Matrix(int rows, int cols, const float* from)
        : rows(rows), cols(cols), values(from, from + rows * cols) {}
    double& operator()(int i, int j) { return values[i * cols + j]; }
    double operator()(int i, int j) const { return values[i * cols + j]; }

    Matrix transposed() const {
        Matrix result(cols, rows);
        for (int i = 0; i < rows; ++i) {
            for (int j = 0; j < cols; ++j) {
                result(j, i) = (*this)(i, j);
            }
        }
        return result;
    }

    Matrix operator*(const Matrix& other) const {
        Matrix result(rows, other.cols);
        for (int i = 0; i < rows; ++i) {
            for (int k = 0; k < cols; ++k) {
                for (int j = 0; j < other.cols; ++j) {
                    result(i, j) += (*this)(i, k) * other(k, j);
                }
            }
        }
        return result;
    }
};

/// x with a x = y, by elimination; `a` is symmetric and positive definite.
Matrix solve(Matrix a, Matrix y) {
    for (int k = 0; k < a.rows; ++k) {
        for (int i = 0; i < a.rows; ++i) {
            const double factor = i == k ? 0 : a(i, k) / a(k, k);
            for (int j = k; j < a.cols && factor != 0; ++j) {
                a(i, j) -= factor * a(k, j);
            }
            y(i, 0) -= factor * y(k, 0);
        }
    }
    for (int k = 0; k < a.rows; ++k) {
        y(k, 0) /= a(k, k);
    }
    return y;
}

class BlasTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, BlasTest, kAllPlaces, name_of_place);

/// op(A) op(B) of row-major matrices in double.
Matrix product(int m, int k, int n, const float* a, bool a_t, const float* b, bool b_t) {
    return (a_t ? Matrix(k, m, a).transposed() : Matrix(m, k, a)) *
           (b_t ? Matrix(n, k, b).transposed() : Matrix(k, n, b));
}

TEST_P(BlasTest, Product) {
    const int shapes[][3] = {{1, 1, 1},    {1, 33, 17},   {31, 1, 5},
                             {64, 70, 33}, {5, 300, 129}, {1, 40, 1}};
    const float scalars[][2] = {{1, 0}, {-0.5f, 1}, {2, 0.25f}, {0, 3}};
    unsigned seed = 1;
    for (const auto& [m, k, n] : shapes) {
        for (int flags = 0; flags < 4; ++flags) {
            const bool a_t = flags & 1, b_t = flags & 2;
            const Values a = random_values(m * k, ++seed), b = random_values(k * n, ++seed),
                         old = random_values(m * n, ++seed);
            const float alpha = scalars[flags][0], beta = scalars[flags][1];
            Doubles expected = product(m, k, n, a.data(), a_t, b.data(), b_t).values;
            for (size_t i = 0; i < expected.size(); ++i) {
                expected[i] = alpha * expected[i] + beta * old[i];
            }
            Tensor<float> c = make(Dim(m, n), old);
            c.mul(make(a_t ? Dim(k, m) : Dim(m, k), a), a_t, make(b_t ? Dim(n, k) : Dim(k, n), b),
                  b_t, alpha, beta);
            SCOPED_TRACE(::testing::Message() << m << " " << k << " " << n << " flags " << flags);
            expect_close(values_of(c), expected, 1e-6, k * 1e-7);
        }
    }
}

TEST_P(BlasTest, ProductWithBetaZeroDoesNotReadTheOutput) {
    const struct {
        Dim a, b;
        Values left, right, expected;
    } cases[] = {{Dim(2, 1), Dim(1, 2), {1, 2}, {3, 4}, {6, 8, 12, 16}},
                 {Dim(1, 2), Dim(2, 2), {1, 2}, {1, 0, 0, 1}, {2, 4}},
                 {Dim(2, 2), Dim(2, 1), {1, 0, 0, 1}, {1, 2}, {2, 4}}};
    for (const auto& c : cases) {
        Tensor<float> out = make(Dim(c.a[0], c.b[1]), Values(c.expected.size(), kNan));
        out.mul(make(c.a, c.left), make(c.b, c.right), 2, 0);
        expect_same_bits(values_of(out), c.expected);
    }
}

// The matrices of a batch lie below each other in one matrix, which may be pitched.
TEST_P(BlasTest, BatchProduct) {
    const int batch = 3, m = 5, k = 9, n = 34;
    for (int flags = 0; flags < 4; ++flags) {
        const bool a_t = flags & 1, b_t = flags & 2;
        const Values a = random_values(batch * m * k, 10), b = random_values(batch * k * n, 20),
                     old = random_values(batch * m * n, 30);
        Doubles expected;
        for (int i = 0; i < batch; ++i) {
            const Matrix c = product(m, k, n, &a[i * m * k], a_t, &b[i * k * n], b_t);
            for (int j = 0; j < m * n; ++j) {
                expected.push_back(0.5 * c.values[j] - old[i * m * n + j]);
            }
        }
        for (const bool cube : {false, true}) {
            const auto size = [&](int rows, int cols) {
                return cube ? Dim(batch, rows, cols) : Dim(batch * rows, cols);
            };
            Tensor<float> c = make(size(m, n), old);
            c.batch_mul(make(a_t ? size(k, m) : size(m, k), a), a_t, m * k,
                        make(b_t ? size(n, k) : size(k, n), b), b_t, k * n, m * n, batch, 0.5f, -1);
            expect_close(values_of(c), expected, 1e-6, 1e-6);
        }
    }
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

TEST_P(BlasTest, Transpose) {
    const int shapes[][2] = {{1, 1},   {1, 40},  {40, 1},    {3, 5},      {16, 16},
                             {15, 17}, {33, 31}, {257, 300}, {1040, 1031}};
    for (const auto& shape : shapes) {
        const int rows = shape[0], cols = shape[1];
        SCOPED_TRACE(::testing::Message() << rows << " " << cols);
        const Values values = random_values(rows * cols, rows);
        Tensor<float> out = poisoned(Dim(cols, rows));
        out.transpose(make(Dim(rows, cols), values));
        expect_same_bits(values_of(out), transposed(values, rows, cols));

        // Integers of all bit patterns, those of signalling NaNs among them.
        std::vector<int> numbers(rows * cols);
        std::mt19937 engine(rows);
        for (int& number : numbers) {
            number = static_cast<int>(engine());
        }
        Tensor<int> int_out = poisoned<int>(Dim(cols, rows));
        int_out.transpose(make(Dim(rows, cols), numbers));
        EXPECT_EQ(values_of(int_out), transposed(numbers, rows, cols));
    }
}

// The rows of a large output are aligned here, unlike those of the fixture's views.
TEST(BlasHostTest, TransposeIntoLargeAlignedBlockKeepsPadding) {
    const int rows = 1033, cols = 1027;
    const Values values = random_values(rows * cols, 5);
    Tensor<float> whole(Dim(cols, 1048), CPU);
    whole.set_element(777);
    Tensor<float> out = whole.range_col(4, 4 + rows);
    out.transpose(dense(Dim(rows, cols), values, CPU));
    expect_same_bits(values_of(out), transposed(values, rows, cols));
    out.set_element(777);
    expect_same_bits(values_of(whole), Values(cols * 1048, 777));
}

TEST_P(BlasTest, LeastSquares) {
    const int shapes[][3] = {{1, 1, 1},  {3, 7, 4},   {2, 5, 5},    {4, 4, 9},
                             {5, 1, 40}, {2, 40, 33}, {2, 33, 170}, {1, 200, 3}};
    Tensor<unsigned long> ws_d(device()), ws_h(CPU);
    unsigned seed = 100;
    for (const auto& shape : shapes) {
        const int batch = shape[0], m = shape[1], n = shape[2], longest = std::max(m, n);
        SCOPED_TRACE(::testing::Message() << batch << " " << m << " " << n);
        const Values a = random_values(batch * m * n, ++seed);
        const Values y = random_values(batch * longest, ++seed);

        const Block<float> whole(Dim(batch, m, n), device(), pitched() ? 3 : 0);
        Tensor<float> lhs = whole.tensor;
        lhs.copy_from(dense(lhs.get_size(), a, CPU));
        Tensor<float> inout = make(Dim(batch, longest), y);
        inout.sgels(lhs, ws_d, ws_h);

        const Values result = values_of(inout);
        for (int b = 0; b < batch; ++b) {
            const Matrix a_b(m, n, &a[b * m * n]), a_t = a_b.transposed();
            const Matrix y_b(m, 1, &y[b * longest]);
            const Matrix x = m < n ? a_t * solve(a_b * a_t, y_b) : solve(a_t * a_b, a_t * y_b);
            const Values x_b(&result[b * longest], &result[b * longest] + n);
            expect_close(x_b, x.values, 1e-4, 1e-4);
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
        const Tensor<float> in = make(values);
        EXPECT_NEAR(in.norm1(), sum, 1e-5 * sum) << count;
        EXPECT_NEAR(in.norm2(), std::sqrt(squares), 1e-5 * std::sqrt(squares)) << count;
    }
    EXPECT_EQ(make<float>(Dim(1, 2, 2), {-3, 4, 0, 12}).norm2(), 13);
    EXPECT_EQ(make<float>(Dim(1, 2, 2), {-3, 4, 0, 12}).norm1(), 19);
    // Squares that are no floats any more.
    EXPECT_NEAR(make<float>({3e30f, -4e30f}).norm2() / 5e30f, 1, 1e-6);
    EXPECT_NEAR(make<float>({3e-30f, -4e-30f}).norm2() / 5e-30f, 1, 1e-6);
    EXPECT_EQ(Tensor<float>(device()).norm1(), 0);
    EXPECT_EQ(Tensor<float>(device()).norm2(), 0);
}

TEST_P(BlasVectorTest, ProductOverNoElementsScalesTheOutput) {
    for (int m : {1, 3}) {
        Tensor<float> c = make(Dim(m, 4), Values(4 * m, 3));
        c.mul(Tensor<float>(Dim(m, 0), device()), Tensor<float>(Dim(0, 4), device()), 1, 2);
        expect_same_bits(values_of(c), Values(4 * m, 6));
    }
}

TEST_P(BlasVectorTest, ScalAndAxpy) {
    const auto scal = on_gpu() ? gpu::vorn_scal : cpu::vorn_scal;
    const auto axpy = on_gpu() ? gpu::vorn_axpy : cpu::vorn_axpy;
    for (int count : {1, 31, 1025}) {
        const Values in = random_values(count, 1), old = random_values(count, 2);
        Values scaled, sum, doubled;
        for (int i = 0; i < count; ++i) {
            scaled.push_back(-3 * old[i]);
            sum.push_back(0.5f * old[i] + 2 * in[i]);  // both factors are powers of two
            doubled.push_back(4 * in[i] + 2 * in[i]);
        }
        const Tensor<float> other = make(in);
        Tensor<float> a = make(old), b = make(old), c = make(in);
        scal(a, -3);
        axpy(other, b, 0.5f, 2);
        axpy(c, c, 4, 2);
        expect_same_bits(values_of(a), scaled);
        expect_same_bits(values_of(b), sum);
        expect_same_bits(values_of(c), doubled);
    }
    Tensor<float> special = make<float>({kNan, kInf, 1});
    scal(special, 0);
    expect_close(values_of(special), {kNan, kNan, 0}, 0);
}

using BlasDeathTest = BlasVectorTest;
INSTANTIATE_TEST_SUITE_P(Places, BlasDeathTest, kDensePlaces, name_of_place);

TEST_P(BlasDeathTest, Failures) {
    auto tensor = [this](const Dim& size) { return Tensor<float>(size, device()); };
    const Tensor<float> m34 = tensor(Dim(3, 4)), m35 = tensor(Dim(3, 5)),
                        cube = tensor(Dim(1, 3, 4));
    Tensor<float> m45 = tensor(Dim(4, 5)), m43 = tensor(Dim(4, 3)), vec = tensor(Dim(5));
    const Tensor<float> pitched = tensor(Dim(4, 6)).range_col(1, 4);
    Tensor<unsigned long> ws_d(device()), ws_h(CPU);

    m45.mul(m34, true, m35, false, 1, 0);
    expect_failures({
        {"Check failed: (a).get_dim() == (2) ", [&] { m45.mul(cube, vec); }},
        {"Check failed: (b).get_dim() == (2) ", [&] { vec.mul(m34, cube); }},
        {"Check failed: (c).get_dim() == (2) ", [&] { vec.mul(m34, m34); }},
        {"Check failed: (a_col) == (b_row) ", [&] { m45.mul(m34, false, m35, false, 1, 0); }},
        {"Check failed: (a_row) == (c_row) ", [&] { m45.mul(m34, m43); }},
        {"Check failed: (b_col) == (c_col) ", [&] { m45.mul(m43, m34); }},

        {"Check failed: static_cast<size_t>(batch * a_stride) == a.get_element_count() ",
         [&] { m45.batch_mul(tensor(Dim(11)), false, 6, m34, false, 1, 1, 2, 1, 0); }},
        {"Check failed: static_cast<size_t>(batch * b_stride) == b.get_element_count() ",
         [&] { m45.batch_mul(m34, false, 6, m35, false, 6, 1, 2, 1, 0); }},
        {"Check failed: static_cast<size_t>(batch * c_stride) == c.get_element_count() ",
         [&] { m45.batch_mul(m34, false, 6, m34, false, 6, 11, 2, 1, 0); }},

        {"Check failed: (in).get_dim() == (2) ", [&] { vec.transpose(cube); }},
        {"Check failed: (out).get_dim() == (2) ", [&] { vec.transpose(m34); }},
        {"Check failed: (in.get_element_count()) == (out.get_element_count()) ",
         [&] { m45.transpose(m34); }},

        {"Check failed: in.is_contiguous() ", [&] { pitched.norm2(); }},
        {"Check failed: in.is_contiguous() ", [&] { pitched.norm1(); }},

        {"Check failed: in.get_size().get_axis() == 3 ", [&] { vec.sgels(m45, ws_d, ws_h); }},
    });
    Tensor<float> lhs = tensor(Dim(4, 2, 5)), tall = tensor(Dim(4, 6, 2));
    Tensor<float> rhs = tensor(Dim(3, 5));
    expect_failures({
        {"Check failed: inout.get_size().get_axis() == 2 ", [&] { vec.sgels(lhs, ws_d, ws_h); }},
        {"Check failed: (in.get_c()) == (inout.get_h()) ", [&] { rhs.sgels(lhs, ws_d, ws_h); }},
        {"Check failed: (inout.get_w()) >= (std::max(in.get_h(), in.get_w())) ",
         [&] { m45.sgels(tall, ws_d, ws_h); }},
    });
}

TEST(BlasHostDeathTest, SingularMatrix) {
    Tensor<float> lhs = dense<float>(Dim(1, 2, 2), {1, 0, 2, 0}, CPU);
    Tensor<float> rhs(Dim(1, 2), CPU);
    Tensor<unsigned long> ws;
    expect_failures({{"Check failed: info == 0 matrix 0 is not of full rank",
                      [&] { rhs.sgels(lhs, ws, ws); }}});
}

using BlasGpuDeathTest = GpuTest;

TEST_F(BlasGpuDeathTest, DevicesAndStatuses) {
    const Tensor<float> host(Dim(2, 2), CPU), device(Dim(2, 2), GPU);
    Tensor<float> out(Dim(2, 2), GPU);
    auto broken = [](const std::function<void()>& call) {
        return [call] {
            t_ctx->handle = nullptr;
            call();
        };
    };
    expect_failures({
        {same_device("a", "c"), [&] { out.mul(host, host); }},
        {same_device("b", "c"), [&] { out.mul(device, host); }},
        {same_device("in"), [&] { out.transpose(host); }},
        {"Check failed: 0 == (cublasSgeam(t_ctx->handle, CUBLAS_OP_T, CUBLAS_OP_N, dim_m, dim_n, "
         "&alpha, in_ptr, ld_in, &beta, nullptr, dim_m, out_ptr, ld_out)) "
         "CUBLAS_STATUS_NOT_INITIALIZED",
         broken([&] { out.transpose(device); })},
        {"Check failed: 0 == (cublasSnrm2_v2(t_ctx->handle, in.get_element_count(), in._ptr, 1, "
         "res)) CUBLAS_STATUS_NOT_INITIALIZED",
         broken([&] { out.norm2(); })},
        {"Check failed: 0 == (cublasSasum_v2(t_ctx->handle, in.get_element_count(), in._ptr, 1, "
         "res)) CUBLAS_STATUS_NOT_INITIALIZED",
         broken([&] { out.norm1(); })},
    });
}

}  // namespace test
}  // namespace vorn
