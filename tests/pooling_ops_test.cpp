#include <algorithm>
#include <cfloat>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

struct Pool {
    int h, w, win_h, win_w, stride_h, stride_w, pad_h = 0, pad_w = 0;
};

// Regions that fill the image and its padding to the last row and column: there the host, which
// rounds the number of regions up, and cuDNN, which rounds it down, agree.
const std::vector<Pool> kEven = {
    {6, 8, 2, 2, 2, 2},  {5, 7, 3, 3, 1, 1, 1, 1}, {7, 12, 3, 5, 2, 3, 1, 1},
    {9, 33, 3, 3, 2, 2}, {1, 40, 1, 4, 1, 4},      {4, 9, 2, 3, 4, 1, 1, 0},
    {7, 7, 7, 7, 1, 1},  {3, 5, 5, 5, 1, 2, 1, 1}, {5, 70, 3, 2, 1, 1},
    {8, 6, 1, 1, 1, 1},  {10, 13, 4, 3, 3, 5},     {6, 29, 2, 5, 2, 3},
};
// On the host only: a last row and column of regions that are partly filled.
const std::vector<Pool> kUneven = {{5, 5, 2, 2, 2, 2},
                                   {8, 10, 3, 3, 2, 2, 1, 1},
                                   {9, 12, 3, 5, 3, 4, 1, 1},
                                   {112, 37, 3, 3, 2, 2}};

constexpr int kBatch = 2, kChannels = 3;
const std::vector<PoolingType> kTypes = {MAX_POOLING_TYPE, AVG_POOLING_TYPE_INCLUDE_PADDING,
                                         AVG_POOLING_TYPE_EXCLUDE_PADDING};

class PoolingTest : public DeviceTest {
protected:
    /// Both directions against their definition, in double.
    void expect_definition(const Pool& pool, PoolingType type, float alpha, float beta);
};
INSTANTIATE_TEST_SUITE_P(Places, PoolingTest, kAllPlaces, name_of_place);

void PoolingTest::expect_definition(const Pool& pool, PoolingType type, float alpha, float beta) {
    const int out_h =
                  (pool.h + 2 * pool.pad_h - pool.win_h + pool.stride_h - 1) / pool.stride_h + 1,
              out_w =
                  (pool.w + 2 * pool.pad_w - pool.win_w + pool.stride_w - 1) / pool.stride_w + 1;
    const Dim x_size(kBatch, kChannels, pool.h, pool.w), pooled(kBatch, kChannels, out_h, out_w);
    Values x = random_values(x_size.product(), 1, -4, 4);
    const Values old_x = random_values(x.size(), 2), old_y = random_values(pooled.product(), 3),
                 dy = random_values(old_y.size(), 4);
    for (float& value : x) {
        value = std::floor(value);  // so that maxima tie
    }
    Doubles y(old_y.size()), dx(x.size());
    for (size_t at = 0; at < x.size(); ++at) {
        dx[at] = static_cast<double>(beta) * old_x[at];
    }
    for (int at = 0; at < pooled.product(); ++at) {
        const int start_h = at / out_w % out_h * pool.stride_h - pool.pad_h,
                  start_w = at % out_w * pool.stride_w - pool.pad_w;
        double sum = 0, max = -FLT_MAX;
        std::vector<int> inside;
        int first_of_maxima = -1;
        for (int h = std::max(start_h, 0); h < std::min(start_h + pool.win_h, pool.h); ++h) {
            for (int w = std::max(start_w, 0); w < std::min(start_w + pool.win_w, pool.w); ++w) {
                inside.push_back((at / (out_h * out_w) * pool.h + h) * pool.w + w);
                sum += x[inside.back()];
                if (x[inside.back()] > max) {
                    max = x[inside.back()];
                    first_of_maxima = inside.back();
                }
            }
        }
        // The host leaves padding below and right out of the count, whatever the type.
        int size = (std::min(start_h + pool.win_h, pool.h) - start_h) *
                   (std::min(start_w + pool.win_w, pool.w) - start_w);
        if (on_gpu()) {
            size = type == AVG_POOLING_TYPE_INCLUDE_PADDING ? pool.win_h * pool.win_w
                                                            : static_cast<int>(inside.size());
        }
        if (type == MAX_POOLING_TYPE) {
            y[at] = alpha * max;
            dx[first_of_maxima] += static_cast<double>(alpha) * dy[at];
        } else {
            y[at] = alpha * sum / size;
            for (int element : inside) {
                dx[element] += static_cast<double>(alpha) * dy[at] / size;
            }
        }
        y[at] += static_cast<double>(beta) * old_y[at];
    }

    PoolingDesc desc(pool.win_h, pool.win_w, pool.stride_h, pool.stride_w, type);
    desc.pad_h = pool.pad_h;
    desc.pad_w = pool.pad_w;
    const TensorF x_in = image(x_size, x);
    TensorF plain = image(pooled, old_y), out = image(pooled, old_y), back = image(x_size, old_x);
    out.pool_fwd(desc, x_in, alpha, beta);
    expect_close(values_of(out), y, 1e-6, 1e-6);
    plain.pool_fwd(desc, x_in);
    back.pool_bp(desc, plain, image(pooled, dy), x_in, alpha, beta);
    expect_close(values_of(back), dx, 1e-6, 2e-6);
}

TEST_P(PoolingTest, ForwardAndBackwardAreTheDefinition) {
    for (PoolingType type : kTypes) {
        for (const Pool& pool : kEven) {
            expect_definition(pool, type, 1, 0);
            expect_definition(pool, type, 0.5f, -2);
        }
        for (size_t i = 0; i < kUneven.size() && !on_gpu(); ++i) {
            expect_definition(kUneven[i], type, 2, 1);
        }
    }
}

// A beta of 0 clears the gradient, NaN or not.
TEST_P(PoolingTest, BackwardClears) {
    const Dim x_size(1, 2, 4, 6), pooled(1, 2, 2, 2);
    const Values ones(x_size.product(), 1);
    Values maxima(x_size.product()), shares(x_size.product(), 1.0f / 6);
    for (int plane : {0, 24}) {
        for (int first : {0, 3, 12, 15}) {
            maxima[plane + first] = 1;
        }
    }
    for (PoolingType type : kTypes) {
        const PoolingDesc desc(2, 3, 2, 3, type);
        const TensorF x = image(x_size, ones), dy = image(pooled, Values(8, 1));
        TensorF dx = image(x_size, Values(x_size.product(), kNan));
        dx.pool_bp(desc, dy, dy, x, 1, 0);
        EXPECT_EQ(values_of(dx), type == MAX_POOLING_TYPE ? maxima : shares);
    }
}

class HostPoolingTest : public ContextTest {
protected:
    static Values pool(const PoolingDesc& desc, const Dim& size, const Values& x, const Dim& pooled,
                       float alpha = 1, float beta = 0) {
        TensorF out = dense(pooled, Values(pooled.product(), 10), CPU);
        out.pool_fwd(desc, dense(size, x, CPU), alpha, beta);
        return values_of(out);
    }
};

// Worked by hand.
TEST_F(HostPoolingTest, CountsAndPartialRegions) {
    PoolingDesc average(3, 3, 1, 1, AVG_POOLING_TYPE_EXCLUDE_PADDING);
    average.pad_h = average.pad_w = 1;
    const Values averages =
        pool(average, Dim(1, 1, 3, 3), Values({9, 18, 3, 27, 36, 6, 12, 15, 21}), Dim(1, 1, 3, 3));
    EXPECT_EQ(averages[0], 10);     // 90 / 9: padding above and left counts
    EXPECT_EQ(averages[8], 19.5f);  // 78 / 4: padding below and right does not
    const Values column = {1, 5, 2, 4, 3};
    EXPECT_EQ(pool(PoolingDesc(2, 1, 2, 1, MAX_POOLING_TYPE), Dim(4, 1), column, Dim(2, 1)),
              Values({5, 4}));
    EXPECT_EQ(pool(PoolingDesc(2, 1, 2, 1, MAX_POOLING_TYPE), Dim(5, 1), column, Dim(3, 1)),
              Values({5, 4, 3}));
}

TEST_F(HostPoolingTest, NanIsPassedOver) {
    const PoolingDesc max(1, 3, 1, 3, MAX_POOLING_TYPE);
    const Values x = {kNan, -2, kNan, kNan, kNan, kNan, -kInf, -kInf, -kInf};
    EXPECT_EQ(pool(max, Dim(1, 9), x, Dim(1, 3), 0.5f, 1), Values({9, -FLT_MAX / 2, -FLT_MAX / 2}));
    TensorF dx = dense(Dim(1, 9), Values(9, 1), CPU);
    const TensorF dy = dense(Dim(1, 3), Values({1, 2, 3}), CPU);
    dx.pool_bp(max, dy, dy, dense(Dim(1, 9), x, CPU), 1, 1);
    EXPECT_EQ(values_of(dx), Values({1, 2, 1, 3, 1, 1, 4, 1, 1}));
}

// Steps that are longer than the window, and padding that is wider: the regions of the first row
// lie above the image, those of the last row and of the outer columns beside it.
TEST_F(HostPoolingTest, RegionsOutsideTheImage) {
    PoolingDesc desc(1, 1, 2, 2, MAX_POOLING_TYPE);
    desc.pad_h = 2;
    desc.pad_w = 1;
    const Dim size(1, 1, 2, 2), pooled(1, 1, 4, 3);  // rows -2, 0, 2, 4; columns -1, 1, 3
    const Values x = {1, 2, 3, 4};
    Values maxima(12, -FLT_MAX + 5), averages(12, 5);
    maxima[4] = averages[4] = 2 + 5;
    EXPECT_EQ(pool(desc, size, x, pooled, 1, 0.5f), maxima);
    TensorF dx(size);
    const TensorF dy = dense(pooled, counting<float>(12, 1), CPU);
    dx.pool_bp(desc, dy, dy, dense(size, x, CPU), 1, 0);
    EXPECT_EQ(values_of(dx), Values({0, 5, 0, 0}));
    desc.pooling_type = AVG_POOLING_TYPE_INCLUDE_PADDING;
    EXPECT_EQ(pool(desc, size, x, pooled, 1, 0.5f), averages);
    dx.pool_bp(desc, dy, dy, dense(size, x, CPU), 1, 0);
    EXPECT_EQ(values_of(dx), Values({0, 5, 0, 0}));
}

// Float sums of a region in row-major order, on both ways through the loops, and of an element's
// gradient in the order of its regions.
TEST_F(HostPoolingTest, SumsAreRoundedInOrder) {
    const int side = 41;
    const Values x = random_values(side * side, 5);
    const float alpha = 0.3f, beta = 0.7f;
    for (const auto& [window, stride] : {std::pair<int, int>{5, 1}, {5, 2}, {5, 3}, {41, 1}}) {
        const int count = (side - window) / stride + 1, size = window * window;
        const Values dy = random_values(count * count, 6);
        Values expected, gradient = x;
        for (float& value : gradient) {
            value *= beta;
        }
        for (int at = 0; at < count * count; ++at) {
            float sum = 0;
            for (int i = 0; i < size; ++i) {
                const int h = at / count * stride + i / window,
                          w = at % count * stride + i % window;
                sum += x[h * side + w];
                gradient[h * side + w] += (dy[at] * alpha) / size;
            }
            expected.push_back((sum * alpha) / size + beta * 10);
        }
        const PoolingDesc desc(window, window, stride, stride, AVG_POOLING_TYPE_INCLUDE_PADDING);
        const Dim pooled(count, count);
        expect_same_bits(pool(desc, Dim(side, side), x, pooled, alpha, beta), expected);
        TensorF dx = dense(Dim(side, side), x, CPU);
        const TensorF dy_in = dense(pooled, dy, CPU);
        dx.pool_bp(desc, dy_in, dy_in, dx, alpha, beta);
        expect_same_bits(values_of(dx), gradient);
    }
}

using PoolingFailureTest = FailureTest;

TEST_F(PoolingFailureTest, ChecksInOrder) {
    const PoolingDesc unknown(1, 1, 1, 1, POOL_TYPE_UNKNOWN);
    expect_failures({
        {same_device("in"), [&] { out.pool_fwd(unknown, far); }},
        {same_device("y"), [&] { out.pool_bp(unknown, far, far, far); }},
        {same_device("dy"), [&] { out.pool_bp(unknown, in, far, far); }},
        {same_device("x"), [&] { out.pool_bp(unknown, in, in, far); }},
        {"unsupport pooling type 3", [&] { out.pool_fwd(unknown, in); }},
        {"unsupport pooling type 3", [&] { out.pool_bp(unknown, in, in, in); }},
        {"invalid pooling type 3", [&] { far.pool_fwd(unknown, far); }},
        {"invalid pooling type 3", [&] { far.pool_bp(unknown, far, far, far); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
