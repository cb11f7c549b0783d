#include "cudnn_fixture.h"

namespace {

class CudnnPoolingTest : public CudnnTest {
protected:
    CudnnPoolingTest() { EXPECT_DNN(cudnnCreatePoolingDescriptor(&desc_)); }
    ~CudnnPoolingTest() override { EXPECT_DNN(cudnnDestroyPoolingDescriptor(desc_)); }

    void set(cudnnPoolingMode_t mode, std::array<int, 2> window, std::array<int, 2> pad,
             std::array<int, 2> stride, cudnnNanPropagation_t nan = CUDNN_NOT_PROPAGATE_NAN) {
        EXPECT_DNN(cudnnSetPooling2dDescriptor(desc_, mode, nan, window[0], window[1], pad[0],
                                               pad[1], stride[0], stride[1]));
    }
    cudnnStatus_t forward(const TestTensor& x, const TestTensor& y, const Scalars& s = {1, 0}) {
        return cudnnPoolingForward(handle_, desc_, &s.alpha, x.desc, x.get(), &s.beta, y.desc,
                                   y.get());
    }
    cudnnStatus_t backward(const TestTensor& y, const TestTensor& dy, const TestTensor& x,
                           const TestTensor& dx, const Scalars& s = {1, 0}) {
        return cudnnPoolingBackward(handle_, desc_, &s.alpha, y.desc, y.get(), dy.desc, dy.get(),
                                    x.desc, x.get(), &s.beta, dx.desc, dx.get());
    }

    cudnnPoolingDescriptor_t desc_ = nullptr;
};

TEST_F(CudnnPoolingTest, WorkedByHand) {
    const TestTensor x({1, 1, 3, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9});
    TestTensor y({1, 1, 3, 3}, 1), dx({1, 1, 3, 3}, 2);
    const TestTensor ones({1, 1, 3, 3}, std::vector<float>(9, 1));
    const struct {
        cudnnPoolingMode_t mode;
        double first, last, gradient_of_first;
    } cases[] = {
        {CUDNN_POOLING_MAX, 5, 9, 0},
        {CUDNN_POOLING_MAX_DETERMINISTIC, 5, 9, 0},
        {CUDNN_POOLING_AVERAGE_COUNT_INCLUDE_PADDING, 12 / 9.0, 28 / 9.0, 4 / 9.0},
        {CUDNN_POOLING_AVERAGE_COUNT_EXCLUDE_PADDING, 3, 7, 1 / 4.0 + 2 / 6.0 + 1 / 9.0},
    };
    for (const auto& c : cases) {
        set(c.mode, {3, 3}, {1, 1}, {1, 1});
        EXPECT_DNN(forward(x, y));
        const auto pooled = y.read();
        EXPECT_FLOAT_EQ(pooled[0], c.first);
        EXPECT_FLOAT_EQ(pooled[8], c.last);
        EXPECT_DNN(backward(y, ones, x, dx));
        EXPECT_FLOAT_EQ(dx.read()[0], c.gradient_of_first);
    }
}

TEST_F(CudnnPoolingTest, AllModesByDefinition) {
    const struct {
        std::array<int, 2> window, pad, stride;
        int h, w;
    } cases[] = {
        {{2, 2}, {0, 0}, {2, 2}, 3, 4},
        {{3, 2}, {1, 0}, {2, 1}, 4, 7},
        {{3, 4}, {2, 3}, {1, 2}, 9, 6},
        {{1, 1}, {0, 0}, {3, 3}, 3, 3},
    };
    for (const auto& c : cases) {
        for (const int mode : {0, 1, 2, 3}) {
            for (const Layout layout : {kPacked, kInterleaved, kGaps}) {
                for (const Scalars& s : kScalars) {
                    set(cudnnPoolingMode_t(mode), c.window, c.pad, c.stride);
                    const Extents in = {2, 3, 7, 8}, out = {2, 3, c.h, c.w};
                    TestTensor x(in, 1, layout), y(out, 2, layout), dy(out, 3, layout),
                        dx(in, 4, layout);
                    std::vector<double> pooled(y.values.size()), gradient(x.values.size());
                    for_all(out, [&](int n, int ch, int oh, int ow) {
                        double sum = 0;
                        int largest = -1;
                        std::vector<int> inside;
                        for_all({1, 1, c.window[0], c.window[1]}, [&](int, int, int r, int q) {
                            const int h = oh * c.stride[0] - c.pad[0] + r;
                            const int w = ow * c.stride[1] - c.pad[1] + q;
                            if (x.contains(h, w)) {
                                const int at = x.offset(n, ch, h, w);
                                inside.push_back(at);
                                sum += x.values[at];
                                largest =
                                    largest < 0 || x.values[at] > x.values[largest] ? at : largest;
                            }
                        });
                        const int at = y.offset(n, ch, oh, ow);
                        if (mode == 0 || mode == 3) {
                            pooled[at] = x.values[largest];
                            gradient[largest] += dy.values[at];
                        } else {
                            const double count =
                                mode == 1 ? c.window[0] * c.window[1] : inside.size();
                            pooled[at] = sum / count;
                            for (const int i : inside) {
                                gradient[i] += dy.values[at] / count;
                            }
                        }
                    });
                    // The gradient goes by an unblended y.
                    EXPECT_DNN(forward(x, y));
                    EXPECT_DNN(backward(y, dy, x, dx, kScalars[0]));
                    y.expect(kScalars[0], [&](auto... i) { return pooled[y.offset(i...)]; });
                    dx.make_old(s);
                    EXPECT_DNN(backward(y, dy, x, dx, s));
                    dx.expect(s, [&](auto... i) { return gradient[x.offset(i...)]; });
                    y.make_old(s);
                    EXPECT_DNN(forward(x, y, s));
                    y.expect(s, [&](auto... i) { return pooled[y.offset(i...)]; });
                }
            }
        }
    }
}

TEST_F(CudnnPoolingTest, TiesAndNans) {
    constexpr float lowest = std::numeric_limits<float>::lowest();
    constexpr auto off = CUDNN_NOT_PROPAGATE_NAN, on = CUDNN_PROPAGATE_NAN;
    const struct {
        std::vector<float> x;
        cudnnNanPropagation_t nan;
        float y;
        int maximum;  // where the gradient goes
    } cases[] = {
        {{1, 7, 7, 7}, off, 7, 1},
        {{kNan, 2, kNan, 3}, off, 3, 3},
        {{1, 2, kNan, 3}, on, kNan, 2},
        {{kNan, kNan, kNan, kNan}, off, lowest, -1},
    };
    for (const auto& c : cases) {
        set(CUDNN_POOLING_MAX, {2, 2}, {0, 0}, {1, 1}, c.nan);
        const TestTensor x({1, 1, 2, 2}, c.x), dy({1, 1, 1, 1}, std::vector<float>{5});
        TestTensor y({1, 1, 1, 1}, 1), dx({1, 1, 2, 2}, 2);
        EXPECT_DNN(forward(x, y));
        EXPECT_TRUE(y.read()[0] == c.y || std::isnan(c.y));
        EXPECT_EQ(std::isnan(y.read()[0]), std::isnan(c.y));
        EXPECT_DNN(backward(y, dy, x, dx));
        for (int i = 0; i < 4; ++i) {
            EXPECT_EQ(dx.read()[i], i == c.maximum ? 5 : 0);
        }
    }
}

TEST_F(CudnnPoolingTest, Refusals) {
    TestTensor x({2, 3, 5, 5}, 1), dx({2, 3, 5, 5}, 2), y({2, 3, 2, 2}, 3), dy({2, 3, 2, 2}, 4);
    TestTensor ceiled({2, 3, 3, 3}, 5), dy_gaps({2, 3, 2, 2}, 6, kGaps);
    EXPECT_BAD_PARAM(forward(x, y));  // nothing is set
    set(CUDNN_POOLING_MAX, {2, 2}, {0, 0}, {2, 2});
    EXPECT_DNN(forward(x, y));
    EXPECT_DNN(backward(y, dy, x, dx));
    EXPECT_BAD_PARAM(forward(x, ceiled));
    EXPECT_BAD_PARAM(backward(y, ceiled, x, dx));
    EXPECT_BAD_PARAM(backward(y, dy_gaps, x, dx));
    EXPECT_BAD_PARAM(backward(y, dy, x, y));
    for (const int pad : {-1, 2}) {
        set(CUDNN_POOLING_MAX, {2, 2}, {pad, 0}, {2, 2});
        EXPECT_NOT_SUPPORTED(forward(x, y));
        EXPECT_NOT_SUPPORTED(backward(y, dy, x, dx));
    }
}

}  // namespace
