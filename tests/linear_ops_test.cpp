#include <gtest/gtest.h>

#include <vector>

#include "device_test.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace {

using test::expect_failures;
using test::random_values;
using test::values_of;

class LinearOpsTest : public test::DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, LinearOpsTest, test::kDensePlaces, test::name_of_place);

// The pooled matrix has sizes on both sides of the kernels' tiles.
const Dim kPooledSizes[] = {Dim(1, 1), Dim(31, 33), Dim(33, 32), Dim(3, 65)};

// Values from a small set, so that groups have ties; the lowest offset wins.
TEST_P(LinearOpsTest, MaxOutTakesTheFirstMaximumOfEachGroup) {
    for (const Dim& size : kPooledSizes) {
        for (int pooling_size : {1, 2, 3, 4, 5}) {
            std::vector<float> wide(size.product() * pooling_size);
            const std::vector<float> draws = random_values(wide.size(), 3, -2, 2);
            for (size_t i = 0; i < wide.size(); ++i) {
                wide[i] = std::floor(draws[i]);
            }
            Tensor<float> in = make(Dim(size[0], size[1] * pooling_size), wide);
            Tensor<float> out = poisoned(size);
            Tensor<int> idx = poisoned<int>(size);
            out.max_out_fwd(in, pooling_size, idx);

            std::vector<float> maxima;
            std::vector<int> offsets;
            for (size_t start = 0; start < wide.size(); start += pooling_size) {
                const auto begin = wide.begin() + start;
                const auto top = std::max_element(begin, begin + pooling_size);
                maxima.push_back(*top);
                offsets.push_back(static_cast<int>(top - begin));
            }
            EXPECT_EQ(values_of(out), maxima);
            EXPECT_EQ(values_of(idx), offsets);
        }
    }
}

TEST_P(LinearOpsTest, MaxOutErrorGoesToTheWinnerOnly) {
    for (int pooling_size : {1, 2, 3, 4, 5}) {
        const Dim size(33, 7);
        const std::vector<float> error = random_values(size.product(), 8);
        std::vector<float> expected = random_values(size.product() * pooling_size, 9);
        std::vector<int> winners(size.product());
        Tensor<float> out = make(Dim(size[0], size[1] * pooling_size), expected);
        for (size_t i = 0; i < winners.size(); ++i) {
            winners[i] = static_cast<int>(i * 7 % pooling_size);
            float& winner = expected[i * pooling_size + winners[i]];
            winner = 2 * error[i] + 0.5f * winner;
        }
        out.max_out_bwd(make(size, error), pooling_size, make(size, winners), 2, 0.5);
        EXPECT_EQ(values_of(out), expected);
    }
}

TEST_P(LinearOpsTest, ColumnsGoInAndComeOut) {
    for (int width : {1, 511, 513}) {
        const int rows = 3, wide = width + 7;
        const std::vector<float> left = random_values(rows * 3, 5);
        const std::vector<float> right = random_values(rows * width, 6);
        Tensor<float> out = poisoned(Dim(rows, wide));
        out.col_append(make(Dim(rows, 3), left), 0);
        out.col_append(make(Dim(rows, width), right), 5);
        const std::vector<float> all = values_of(out);
        for (int i = 0; i < rows; ++i) {
            for (int j = 0; j < wide; ++j) {
                const float expected = j < 3                     ? left[i * 3 + j]
                                       : j < 5 || j - 5 >= width ? -12345
                                                                 : right[i * width + j - 5];
                ASSERT_EQ(all[i * wide + j], expected) << "row " << i << " column " << j;
            }
        }
        Tensor<float> back = poisoned(Dim(rows, width));
        back.col_deappend(out, 5);
        EXPECT_EQ(values_of(back), right);
    }
}

using LinearOpsFailureTest = test::GpuTest;

TEST_F(LinearOpsFailureTest, Texts) {
    Tensor<float> host(Dim(2, 2), CPU), device(Dim(2, 2), GPU);
    Tensor<int> host_idx(Dim(2, 2), CPU), device_idx(Dim(2, 2), GPU);
    const std::string in = test::same_device("in"), idx = test::same_device("idx_vec");
    expect_failures({
        {in, [&] { host.max_out_fwd(device, 1, device_idx); }},  // tested first
        {idx, [&] { host.max_out_fwd(host, 1, device_idx); }},
        {in, [&] { device.max_out_bwd(host, 1, host_idx); }},
        {idx, [&] { device.max_out_bwd(device, 1, host_idx); }},
        {in, [&] { host.col_append(device, 0); }},
        {in, [&] { device.col_deappend(host, 0); }},
    });
}

}  // namespace
}  // namespace vorn
