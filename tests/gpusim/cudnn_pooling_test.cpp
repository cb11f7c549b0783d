#include "cudnn_fixture.h"

namespace {

// The values of all modes are tested with the pooling operators, which take them from here.
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
