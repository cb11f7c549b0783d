#include "vorn/tensor/dim.h"

#include <algorithm>
#include <sstream>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

TEST(DimTest, MaximumCanBeReferredTo) {
    EXPECT_EQ(std::min(9, Dim::kMaxDim), 5);  // by reference, which needs a definition
}

TEST(DimTest, MakesAxes) {
    const std::pair<Dim, std::string> cases[] = {
        {Dim(), "Dim [null]"},
        {Dim(7), "Dim [7]"},
        {Dim(1, 2ul, 3, 4, 5), "Dim [1, 2, 3, 4, 5]"},
        {Dim((1ul << 32) + 7), "Dim [7]"},  // narrowed, not tested
        {Dim(std::vector<int>{4, 3}), "Dim [4, 3]"},
        {make_zero_dim(3), "Dim [0, 0, 0]"},
        {make_zero_dim(0), "Dim [null]"},
        {Dim(5, 7) - Dim(1, 9), "Dim [4, -2]"},
        {contiguous_strides(Dim(2, 1, 3), 3), "Dim [3, 0, 1]"},
        {contiguous_strides(Dim(2, 3, 4, 5), 8), "Dim [96, 32, 8, 1]"},
        {contiguous_strides(Dim(), 4), "Dim [null]"},
        {Dim(Dim(4, 6), 8), "Dim [1, 2]"},
    };
    std::ostringstream os;
    std::string all;
    for (const auto& [dim, text] : cases) {
        EXPECT_EQ(dim.to_string(), text);
        os << dim;
        all += text;
    }
    EXPECT_EQ(os.str(), all);
}

TEST(DimTest, EqualityIgnoresLeadingOnes) {
    EXPECT_TRUE(Dim(1, 1, 5) == Dim(5));
    EXPECT_TRUE(Dim(5) == Dim(1, 5));
    EXPECT_TRUE(Dim(2, 5) != Dim(5));
    EXPECT_TRUE(Dim(2, 5) != Dim(5, 2));
    EXPECT_TRUE(Dim() == Dim(0));  // both products are 0
    EXPECT_TRUE(Dim() != Dim(1));  // 0 against 1
    EXPECT_TRUE(Dim(0, 5) == Dim(5, 0, 5));
}

TEST(DimTest, ProductsAndAxes) {
    EXPECT_EQ(Dim().product(), 0);
    EXPECT_EQ(Dim().product_check(), 1);
    EXPECT_EQ(Dim(65536, 65536).product(), 0);
    EXPECT_EQ(Dim(1, 2147483647).product_check(), 2147483647);
    EXPECT_EQ(Dim(9).height(), 1);
    EXPECT_EQ(get_reverse<-1>(Dim()), 1);

    Dim d(2, 3, 4);
    d[-2] = 5;
    EXPECT_EQ(d[0] * 100 + d[1] * 10 + d[2], 254);
    EXPECT_EQ(d[-3] * 100 + d[-2] * 10 + d[-1], 254);
    EXPECT_EQ(get_reverse<-1>(d) * 10 + get_reverse<-4>(d), 41);
    EXPECT_EQ(d.product(), 40);
    EXPECT_EQ(d.height(), 10);
    d.clear();
    EXPECT_EQ(d.get_size(), 0);
    EXPECT_EQ(d.dims[2], 0);
}

// Walking a pitched layout in order visits each coordinate once, a row of 6 apart from the last.
TEST(DimTest, PositionMapInvertsOffset) {
    const Dim size(2, 3, 4);
    for (int i = 0; i < 24; ++i) {
        const Dim coordinate(i / 12, i / 4 % 3, i % 4);
        const index_t position = offset(coordinate, size, 6);
        EXPECT_EQ(position, i / 4 * 6u + i % 4);
        EXPECT_EQ(Dim(size, 6, position).to_string(), coordinate.to_string());
    }
    EXPECT_EQ(offset(Dim(), Dim(), 1), 0u);
}

TEST(DimTest, FailureTexts) {
    const std::string unequal = failed("(a.get_axis()) == (b.get_axis())");
    expect_failures({
        {failed("(dimension) < (kMaxDim)"), [] { Dim(1, 2, 3, 4, 5, 6); }},
        {failed("(static_cast<int>(_dims.size())) <= (kMaxDim)"), [] { make_zero_dim(6); }},
        {kBadAxis, [] { Dim()[0]; }},
        {kBadAxis, [] { Dim(3)[1]; }},
        {kBadAxis, [] { Dim(3)[-2]; }},
        {unequal, [] { linearize(Dim(1), Dim(1, 2)); }},
        {unequal, [] { Dim(1) - Dim(1, 2); }},
        {failed("idx <= static_cast<index_t>(std::numeric_limits<int>::max())"),
         [] { Dim(Dim(), 1, index_t(1) << 31); }},  // before the axes are looked at
        {failed("(dimension) > (0)"), [] { Dim(Dim(), 1, 0); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
