#include <cublas_v2.h>

#include <cmath>

#include "device_fixture.h"

#define EXPECT_BLAS(call) EXPECT_EQ(call, CUBLAS_STATUS_SUCCESS)

namespace {

class CublasTest : public DeviceTest {
protected:
    void SetUp() override {
        DeviceTest::SetUp();
        // A stream of its own, so that a call that ignored the handle's stream would come too late.
        EXPECT_CUDA(cudaStreamCreateWithFlags(&stream_, cudaStreamNonBlocking));
        EXPECT_BLAS(cublasCreate(&handle_));
        EXPECT_BLAS(cublasSetStream(handle_, stream_));
    }
    void TearDown() override {
        EXPECT_BLAS(cublasDestroy(handle_));
        DeviceTest::TearDown();
    }
    template <class T>
    std::vector<T> read(const DeviceArray<T>& array) {
        EXPECT_CUDA(cudaStreamSynchronize(stream_));
        return array.read();
    }

    cublasHandle_t handle_ = nullptr;
    cudaStream_t stream_ = nullptr;
};

/// Element (row, col) of op(M), for a column-major M.
double at(const float* m, cublasOperation_t op, int ld, int row, int col) {
    return op == CUBLAS_OP_N ? m[col * ld + row] : m[row * ld + col];
}

constexpr cublasOperation_t kOps[] = {CUBLAS_OP_N, CUBLAS_OP_T};

TEST_F(CublasTest, GemmAndBatchedGemm) {
    constexpr int m = 13, n = 9, k = 21, pad = 3, batch = 3;
    for (cublasOperation_t ta : kOps) {
        for (cublasOperation_t tb : kOps) {
            const int lda = (ta == CUBLAS_OP_N ? m : k) + pad;
            const int ldb = (tb == CUBLAS_OP_N ? k : n) + pad;
            const int ldc = m + pad;
            const int size_a = lda * 21, size_b = ldb * 21, size_c = ldc * n;
            const auto a = random_floats(batch * size_a, 1), b = random_floats(batch * size_b, 2);
            const auto c = random_floats(batch * size_c, 3);
            DeviceArray<float> da(a), db(b), dc(c), single(c);
            EXPECT_CUDA(cudaDeviceSynchronize());
            const float alpha = 0.75f, beta = -0.5f;
            EXPECT_BLAS(cublasSgemmStridedBatched(handle_, ta, tb, m, n, k, &alpha, da.get(), lda,
                                                  size_a, db.get(), ldb, size_b, &beta, dc.get(),
                                                  ldc, size_c, batch));
            EXPECT_BLAS(cublasSgemm(handle_, ta, tb, m, n, k, &alpha, da.get(), lda, db.get(), ldb,
                                    &beta, single.get(), ldc));
            const auto out = read(dc), one = read(single);
            for (int place = 0; place < batch * size_c; ++place) {
                const int i = place / size_c, col = place % size_c / ldc, row = place % ldc;
                double expected = c[place];
                if (row < m) {
                    expected *= beta;
                    for (int p = 0; p < k; ++p) {
                        expected += alpha * at(&a[i * size_a], ta, lda, row, p) *
                                    at(&b[i * size_b], tb, ldb, p, col);
                    }
                }
                ASSERT_NEAR(out[place], expected, 1e-5);
                ASSERT_NEAR(one[place], i == 0 ? expected : c[place], 1e-5);
            }
        }
    }
}

TEST_F(CublasTest, Geam) {
    // Sizes on both sides of a tile, with pitched rows.
    for (const auto& [m, n] : std::vector<std::pair<int, int>>{{5, 70}, {32, 33}, {100, 31}}) {
        for (cublasOperation_t ta : kOps) {
            for (cublasOperation_t tb : kOps) {
                const int lda = (ta == CUBLAS_OP_N ? m : n) + 2;
                const int ldb = (tb == CUBLAS_OP_N ? m : n) + 1, ldc = m + 4;
                const auto a = random_floats(lda * 100, 1), b = random_floats(ldb * 100, 2);
                const auto c = random_floats(ldc * n, 3);
                DeviceArray<float> da(a), db(b), sum(c), turned(c);
                EXPECT_CUDA(cudaDeviceSynchronize());
                const float alpha = 1.5f, beta = -2, one = 1, zero = 0;
                EXPECT_BLAS(cublasSgeam(handle_, ta, tb, m, n, &alpha, da.get(), lda, &beta,
                                        db.get(), ldb, sum.get(), ldc));
                EXPECT_BLAS(cublasSgeam(handle_, ta, CUBLAS_OP_N, m, n, &one, da.get(), lda, &zero,
                                        nullptr, m, turned.get(), ldc));
                const auto s = read(sum), t = read(turned);
                for (int i = 0; i < ldc * n; ++i) {
                    const int col = i / ldc, row = i % ldc;
                    const double x = row < m ? at(a.data(), ta, lda, row, col) : c[i];
                    const double y = row < m ? at(b.data(), tb, ldb, row, col) : 0;
                    ASSERT_EQ(t[i], static_cast<float>(x));
                    ASSERT_NEAR(s[i], row < m ? 1.5 * x - 2 * y : x, 1e-5);
                }
            }
        }
    }
    // In place: C = 2 C + 3 B and C = 3 B + 2 C.
    const auto b = random_floats(12, 4), c = random_floats(12, 5);
    const float two = 2, three = 3, zero = 0;
    for (const bool c_first : {true, false}) {
        DeviceArray<float> db(b), dc(c);
        EXPECT_CUDA(cudaDeviceSynchronize());
        const float *x = c_first ? dc.get() : db.get(), *y = c_first ? db.get() : dc.get();
        EXPECT_BLAS(cublasSgeam(handle_, CUBLAS_OP_N, CUBLAS_OP_N, 4, 3, c_first ? &two : &three, x,
                                4, c_first ? &three : &two, y, 4, dc.get(), 4));
        const auto out = read(dc);
        for (int i = 0; i < 12; ++i) {
            EXPECT_NEAR(out[i], 2.0 * c[i] + 3.0 * b[i], 1e-6);
        }
        EXPECT_EQ(cublasSgeam(handle_, CUBLAS_OP_T, CUBLAS_OP_N, 3, 3, &two, dc.get(), 3, &zero,
                              nullptr, 3, dc.get(), 3),
                  CUBLAS_STATUS_INVALID_VALUE);
    }
}

TEST_F(CublasTest, Vectors) {
    constexpr int n = 1001;
    const auto x = random_floats(2 * n, 1), y = random_floats(3 * n, 2);
    for (const int incx : {1, 2}) {
        const int incy = incx + 1;
        DeviceArray<float> dx(x), dy(y), copied(y), scaled(x);
        EXPECT_CUDA(cudaDeviceSynchronize());
        float norm = -1, sum = -1, dot = -1, alpha = 0.25f;
        int place = -1;
        EXPECT_BLAS(cublasSnrm2_v2(handle_, n, dx.get(), incx, &norm));
        EXPECT_BLAS(cublasSasum_v2(handle_, n, dx.get(), incx, &sum));
        EXPECT_BLAS(cublasSdot(handle_, n, dx.get(), incx, dy.get(), incy, &dot));
        EXPECT_BLAS(cublasIsamax(handle_, n, dx.get(), incx, &place));
        EXPECT_BLAS(cublasSaxpy(handle_, n, &alpha, dx.get(), incx, dy.get(), incy));
        EXPECT_BLAS(cublasScopy(handle_, n, dx.get(), incx, copied.get(), incy));
        EXPECT_BLAS(cublasSscal(handle_, n, &alpha, scaled.get(), incx));
        alpha = 99;  // was read at the calls
        const auto axpy = read(dy), copy = read(copied), scal = read(scaled);
        double squares = 0, magnitudes = 0, product = 0;
        int largest = 0;
        for (int i = 0; i < n; ++i) {
            const double xi = x[i * incx], yi = y[i * incy];
            squares += xi * xi;
            magnitudes += std::abs(xi);
            product += xi * yi;
            largest = std::abs(xi) > std::abs(x[largest * incx]) ? i : largest;
            ASSERT_NEAR(axpy[i * incy], yi + 0.25 * xi, 1e-6);
            ASSERT_EQ(copy[i * incy], x[i * incx]);
            ASSERT_EQ(scal[i * incx], 0.25f * x[i * incx]);
        }
        EXPECT_NEAR(norm, std::sqrt(squares), 1e-4);
        EXPECT_NEAR(sum, magnitudes, 1e-2);
        EXPECT_NEAR(dot, product, 1e-3);
        EXPECT_EQ(place, largest + 1);
        EXPECT_BLAS(cublasSnrm2(handle_, 0, dx.get(), incx, &norm));
        EXPECT_EQ(norm, 0.0f);
    }
}

TEST_F(CublasTest, GemvAndDevicePointers) {
    constexpr int m = 17, n = 23, lda = 20;
    const auto a = random_floats(lda * n, 1), x = random_floats(n, 2), y = random_floats(n, 3);
    DeviceArray<float> da(a), dx(x), scalars(std::vector<float>{0.5f, 2.0f, -1});
    for (cublasOperation_t op : kOps) {
        DeviceArray<float> dy(y);
        EXPECT_CUDA(cudaDeviceSynchronize());
        EXPECT_BLAS(cublasSetPointerMode(handle_, CUBLAS_POINTER_MODE_DEVICE));
        EXPECT_BLAS(cublasSgemv(handle_, op, m, n, scalars.get(), da.get(), lda, dx.get(), 1,
                                scalars.get() + 1, dy.get(), 1));
        EXPECT_BLAS(cublasSasum(handle_, n, dx.get(), 1, scalars.get() + 2));
        EXPECT_BLAS(cublasSetPointerMode(handle_, CUBLAS_POINTER_MODE_HOST));
        const auto out = read(dy);
        const int rows = op == CUBLAS_OP_N ? m : n, cols = op == CUBLAS_OP_N ? n : m;
        for (int row = 0; row < n; ++row) {
            double expected = y[row];
            if (row < rows) {
                expected *= 2;
                for (int col = 0; col < cols; ++col) {
                    expected += 0.5 * at(a.data(), op, lda, row, col) * x[col];
                }
            }
            EXPECT_NEAR(out[row], expected, 1e-5);
        }
    }
    double sum = 0;
    for (float v : x) {
        sum += std::abs(v);
    }
    EXPECT_NEAR(read(scalars)[2], sum, 1e-5);
}

TEST_F(CublasTest, LeastSquares) {
    // The residual of a least squares solution is orthogonal to the columns.
    constexpr int m = 9, n = 4, nrhs = 2, lda = 11, ldc = 10, batch = 3;
    const auto a = random_floats(batch * lda * n, 1), c = random_floats(batch * ldc * nrhs, 2);
    DeviceArray<float> da(a), dc(c);
    std::vector<float*> as, cs;
    for (int i = 0; i < batch; ++i) {
        as.push_back(da.get() + i * lda * n);
        cs.push_back(dc.get() + i * ldc * nrhs);
    }
    DeviceArray<float*> das(as), dcs(cs);
    DeviceArray<int> infos(batch);
    EXPECT_CUDA(cudaDeviceSynchronize());
    int info = -1;
    EXPECT_BLAS(cublasSgelsBatched(handle_, CUBLAS_OP_N, m, n, nrhs, das.get(), lda, dcs.get(), ldc,
                                   &info, infos.get(), batch));
    EXPECT_EQ(info, 0);
    EXPECT_EQ(read(infos), std::vector<int>(batch, 0));
    const auto x = read(dc);
    for (int i = 0; i < batch * nrhs; ++i) {
        const float *matrix = &a[i / nrhs * lda * n], *y = &c[i * ldc];
        for (int column = 0; column < n; ++column) {
            double inner = 0;
            for (int row = 0; row < m; ++row) {
                double residual = y[row];
                for (int p = 0; p < n; ++p) {
                    residual -= static_cast<double>(matrix[p * lda + row]) * x[i * ldc + p];
                }
                inner += residual * matrix[column * lda + row];
            }
            EXPECT_NEAR(inner, 0, 1e-5);
        }
    }
    EXPECT_EQ(cublasSgelsBatched(handle_, CUBLAS_OP_N, 3, 4, 1, das.get(), lda, dcs.get(), ldc,
                                 &info, nullptr, 1),
              CUBLAS_STATUS_NOT_SUPPORTED);
}

TEST_F(CublasTest, ArgumentsAndNames) {
    DeviceArray<float> device(16);
    std::vector<float> host(16);
    const float one = 1;
    const auto gemm = [&](int m, int lda, const float* a) {
        return cublasSgemm(handle_, CUBLAS_OP_N, CUBLAS_OP_N, m, 4, 4, &one, a, lda, device.get(),
                           4, &one, device.get(), 4);
    };
    EXPECT_EQ(gemm(-1, 4, device.get()), CUBLAS_STATUS_INVALID_VALUE);
    EXPECT_EQ(gemm(4, 3, device.get()), CUBLAS_STATUS_INVALID_VALUE);
    EXPECT_EQ(cublasSetStream(nullptr, stream_), CUBLAS_STATUS_NOT_INITIALIZED);
    EXPECT_STREQ(cublasGetStatusName(CUBLAS_STATUS_ARCH_MISMATCH), "CUBLAS_STATUS_ARCH_MISMATCH");
    // A GPU would read what isn't there.
    testing::internal::CaptureStderr();
    EXPECT_EQ(gemm(4, 4, host.data()), CUBLAS_STATUS_EXECUTION_FAILED);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("A is not 64 bytes"), std::string::npos);
    EXPECT_EQ(cudaGetLastError(), cudaErrorIllegalAddress);
}

}  // namespace
