#include <algorithm>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class LinearOpsTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, LinearOpsTest, kDensePlaces, name_of_place);

// Values from a small set, so that groups have ties; the lowest offset wins. The pooled matrix has
// sizes on both sides of the kernels' tiles.
TEST_P(LinearOpsTest, MaxOutTakesTheFirstMaximumOfEachGroupAndSendsItsErrorBack) {
    for (const Dim& size : {Dim(1, 1), Dim(31, 33), Dim(33, 32), Dim(3, 65)}) {
        for (int pooling_size : {1, 2, 3, 4, 5}) {
            const Values error = random_values(size.product(), 8);
            Values wide = random_values(size.product() * pooling_size, 3, -2, 2), maxima;
            for (float& value : wide) {
                value = std::floor(value);
            }
            Values back = wide;
            std::vector<int> offsets;
            for (size_t i = 0; i < error.size(); ++i) {
                const auto begin = wide.begin() + i * pooling_size;
                const auto top = std::max_element(begin, begin + pooling_size);
                maxima.push_back(*top);
                offsets.push_back(static_cast<int>(top - begin));
                back[top - wide.begin()] = 2 * error[i] + 0.5f * *top;
            }
            TensorF in = make(Dim(size[0], size[1] * pooling_size), wide), out = poisoned(size);
            Tensor<int> idx = poisoned<int>(size);
            out.max_out_fwd(in, pooling_size, idx);
            EXPECT_EQ(values_of(out), maxima);
            EXPECT_EQ(values_of(idx), offsets);
            in.max_out_bwd(make(size, error), pooling_size, idx, 2, 0.5);
            EXPECT_EQ(values_of(in), back);
        }
    }
}

TEST_P(LinearOpsTest, ColumnsGoInAndComeOut) {
    for (int width : {1, 511, 513}) {
        const int rows = 3, wide = width + 7;
        const Values left = random_values(rows * 3, 5), right = random_values(rows * width, 6);
        Values expected(rows * wide, kPoison);
        for (int i = 0; i < rows; ++i) {
            std::copy_n(&left[i * 3], 3, &expected[i * wide]);
            std::copy_n(&right[i * width], width, &expected[i * wide + 5]);
        }
        TensorF out = poisoned(Dim(rows, wide)), back = poisoned(Dim(rows, width));
        out.col_append(make(Dim(rows, 3), left), 0);
        out.col_append(make(Dim(rows, width), right), 5);
        EXPECT_EQ(values_of(out), expected);
        back.col_deappend(out, 5);
        EXPECT_EQ(values_of(back), right);
    }
}

TEST_P(LinearOpsTest, RowsBeyondWhatAGridTakes) {
    const int columns_limit = 65535, max_out_limit = 32 * 65535;
    const Values tall = random_values(columns_limit + 2, 7);
    const int rows = static_cast<int>(tall.size());
    TensorF wide = poisoned(Dim(rows, 2)), back = poisoned(Dim(rows, 1));
    wide.col_append(make(Dim(rows, 1), tall), 1);
    back.col_deappend(wide, 1);
    EXPECT_EQ(values_of(back), tall);

    const Values values = random_values(max_out_limit + 2, 8);
    const Dim size(static_cast<int>(values.size()), 1);
    TensorF in = make(size, values), out = poisoned(size), error = poisoned(size);
    Tensor<int> idx = poisoned<int>(size);
    out.max_out_fwd(in, 1, idx);
    EXPECT_EQ(values_of(out), values);
    error.max_out_bwd(out, 1, idx, 1, 0);
    EXPECT_EQ(values_of(error), values);
}

using LinearOpsFailureTest = FailureTest;

TEST_F(LinearOpsFailureTest, Texts) {
    expect_failures({
        {same_device("in"), [&] { out.max_out_fwd(far, 1, far_ints); }},  // tested first
        {same_device("idx_vec"), [&] { out.max_out_fwd(in, 1, far_ints); }},
        {same_device("in"), [&] { far.max_out_bwd(in, 1, ints); }},
        {same_device("idx_vec"), [&] { far.max_out_bwd(far, 1, ints); }},
        {same_device("in"), [&] { out.col_append(far, 0); }},
        {same_device("in"), [&] { far.col_deappend(in, 0); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
