#include <cublas_v2.h>

#include <cmath>

#include "device_fixture.h"

#define EXPECT_BLAS(call) EXPECT_EQ(call, CUBLAS_STATUS_SUCCESS)

namespace {

constexpr auto N = CUBLAS_OP_N, T = CUBLAS_OP_T;

class CublasTest : public DeviceTest {
protected:
    CublasTest() {
        EXPECT_BLAS(cublasCreate(&handle_));
        EXPECT_BLAS(cublasSetStream(handle_, stream_));
    }
    ~CublasTest() override { EXPECT_BLAS(cublasDestroy(handle_)); }

    std::vector<float> read(const DeviceArray<float>& array) {
        EXPECT_CUDA(cudaStreamSynchronize(stream_));
        return array.read();
    }

    cublasHandle_t handle_ = nullptr;
    // A stream of its own, so that a call that ignored the handle's stream would come too late.
    cudaStream_t stream_ = create_stream(cudaStreamNonBlocking);
};

/// A random column-major matrix M, of which op(M) has `rows` rows and `cols` columns; `pad` more
/// elements stand after each of its columns.
struct Matrix {
    Matrix(cublasOperation_t op, int rows, int cols, int pad)
        : op(op),
          rows(op == N ? rows : cols),
          cols(op == N ? cols : rows),
          ld(this->rows + pad),
          values(random_floats(ld * this->cols, rows + 100 * cols + 1000 * pad)),
          device(values) {}

    /// Element (row, col) of op(M).
    double operator()(int row, int col) const {
        return values[op == N ? col * ld + row : row * ld + col];
    }
    /// Holds results of a matrix that is not transposed against expected(row, col), and what
    /// stands after its columns against the old values.
    template <class F>
    void expect(const std::vector<float>& actual, F expected) const {
        for (int i = 0; i < ld * cols; ++i) {
            const int col = i / ld, row = i % ld;
            ASSERT_NEAR(actual[i], row < rows ? expected(row, col) : values[i], 1e-5);
        }
    }

    const cublasOperation_t op;
    const int rows, cols, ld;
    const std::vector<float> values;
    const DeviceArray<float> device;
};

constexpr std::pair<cublasOperation_t, cublasOperation_t> kOps[] = {{N, N}, {N, T}, {T, N}, {T, T}};

TEST_F(CublasTest, Products) {
    constexpr int m = 13, n = 9, k = 21;
    for (const auto& [ta, tb] : kOps) {
        const Matrix a(ta, m, k, 3), b(tb, k, n, 2), c(N, m, n, 4);
        float alpha = 0.75f, beta = -0.5f;
        EXPECT_CUDA(cudaDeviceSynchronize());
        Gate gate(stream_);
        EXPECT_BLAS(cublasSgemm(handle_, ta, tb, m, n, k, &alpha, a.device.get(), a.ld,
                                b.device.get(), b.ld, &beta, c.device.get(), c.ld));
        alpha = beta = 99;  // were read at the call
        gate.open();
        c.expect(read(c.device), [&](int row, int col) {
            double sum = -0.5 * c(row, col);
            for (int p = 0; p < k; ++p) {
                sum += 0.75 * a(row, p) * b(p, col);
            }
            return sum;
        });
    }
}

TEST_F(CublasTest, Sums) {
    const float alpha = 1.5f, beta = -2;
    const auto check = [&](const Matrix& a, const Matrix& b, const Matrix& c) {
        EXPECT_CUDA(cudaDeviceSynchronize());
        EXPECT_BLAS(cublasSgeam(handle_, a.op, b.op, c.rows, c.cols, &alpha, a.device.get(), a.ld,
                                &beta, b.device.get(), b.ld, c.device.get(), c.ld));
        c.expect(read(c.device),
                 [&](int row, int col) { return alpha * a(row, col) + beta * b(row, col); });
    };
    // Sizes on both sides of a tile.
    for (const auto& [m, n] : {std::pair(5, 70), {32, 33}, {100, 31}}) {
        for (const auto& [ta, tb] : kOps) {
            check(Matrix(ta, m, n, 2), Matrix(tb, m, n, 1), Matrix(N, m, n, 4));
        }
    }
    const Matrix first(N, 4, 4, 1), second(N, 4, 4, 1), other(N, 4, 4, 0);
    check(first, other, first);
    check(other, second, second);
    EXPECT_EQ(cublasSgeam(handle_, T, N, 4, 4, &alpha, first.device.get(), 5, &beta,
                          other.device.get(), 4, first.device.get(), 5),
              CUBLAS_STATUS_INVALID_VALUE);
}

TEST_F(CublasTest, BadArguments) {
    DeviceArray<float> device(16);
    std::vector<float> host(16);
    const float one = 1;
    const auto gemm = [&](int m, int lda, const float* a) {
        return cublasSgemm(handle_, N, N, m, 4, 4, &one, a, lda, device.get(), 4, &one,
                           device.get(), 4);
    };
    EXPECT_EQ(gemm(-1, 4, device.get()), CUBLAS_STATUS_INVALID_VALUE);
    EXPECT_EQ(gemm(4, 3, device.get()), CUBLAS_STATUS_INVALID_VALUE);
    EXPECT_EQ(cublasSetStream(nullptr, stream_), CUBLAS_STATUS_NOT_INITIALIZED);
    // A GPU would read what isn't there.
    testing::internal::CaptureStderr();
    EXPECT_EQ(gemm(4, 4, host.data()), CUBLAS_STATUS_EXECUTION_FAILED);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("A is not 64 bytes"), std::string::npos);
    EXPECT_EQ(cudaGetLastError(), cudaErrorIllegalAddress);
}

}  // namespace
