#include "vorn/tensor/dim.h"

#include <gtest/gtest.h>

#include <sstream>

#include "device_test.h"
#include "vorn/base.h"
#include "vorn/tensor/device.h"

namespace vorn {
namespace {

using test::expect_failures;

std::vector<int> axes(const Dim& d) {
    return std::vector<int>(d.begin(), d.end());
}

TEST(DimTest, Construction) {
    EXPECT_EQ(Dim().get_axis(), 0);
    EXPECT_EQ(axes(Dim(1, 2ul, 3, 4, 5)), (std::vector<int>{1, 2, 3, 4, 5}));
    EXPECT_EQ(axes(Dim((1ul << 32) + 7)), (std::vector<int>{7}));  // narrowed, not tested
    EXPECT_EQ(axes(Dim(std::vector<int>{4, 3})), (std::vector<int>{4, 3}));
    EXPECT_EQ(axes(make_zero_dim(3)), (std::vector<int>{0, 0, 0}));
    EXPECT_EQ(make_zero_dim(0).get_axis(), 0);
}

TEST(DimTest, Text) {
    std::ostringstream os;
    os << Dim() << Dim(7) << Dim(3, 4);
    EXPECT_EQ(os.str(), "Dim [null]Dim [7]Dim [3, 4]");
    EXPECT_EQ(Dim(1, 2, 3).to_string(), "Dim [1, 2, 3]");
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

TEST(DimTest, Products) {
    EXPECT_EQ(Dim().product(), 0);
    EXPECT_EQ(Dim().product_check(), 1);
    EXPECT_EQ(Dim(3, 4, 5).product(), 60);
    EXPECT_EQ(Dim(3, 4, 5).height(), 12);
    EXPECT_EQ(Dim(9).height(), 1);
    EXPECT_EQ(Dim(65536, 65536).product(), 0);
    EXPECT_EQ(Dim(1, 2147483647).product_check(), 2147483647);
}

TEST(DimTest, AxesCountFromBothEnds) {
    Dim d(2, 3, 4);
    EXPECT_EQ(d[-1], 4);
    EXPECT_EQ(d[-3], 2);
    d[-2] = 9;
    EXPECT_EQ(d[1], 9);
    EXPECT_EQ(get_reverse<-1>(d), 4);
    EXPECT_EQ(get_reverse<-4>(d), 1);
    EXPECT_EQ(get_reverse<-1>(Dim()), 1);
    d.clear();
    EXPECT_EQ(d.get_size(), 0);
    EXPECT_EQ(d.dims[2], 0);
}

TEST(DimTest, StridesAndOffsets) {
    EXPECT_EQ(axes(contiguous_strides(Dim(2, 1, 3), 3)), (std::vector<int>{3, 0, 1}));
    EXPECT_EQ(axes(contiguous_strides(Dim(2, 3, 4, 5), 8)), (std::vector<int>{96, 32, 8, 1}));
    EXPECT_EQ(contiguous_strides(Dim(), 4).get_axis(), 0);
    EXPECT_EQ(offset(Dim(1, 2), Dim(4, 6), 10), 12u);
    EXPECT_EQ(linearize(Dim(), Dim()), 0);
    EXPECT_EQ(axes(Dim(5, 7) - Dim(1, 9)), (std::vector<int>{4, -2}));
}

// Walking a pitched layout in order visits each coordinate of the padded shape once.
TEST(DimTest, PositionMapInvertsOffset) {
    const Dim size(2, 3, 4);
    const index_t stride = 6;
    for (int n = 0; n < 2; ++n) {
        for (int h = 0; h < 3; ++h) {
            for (int w = 0; w < 4; ++w) {
                const Dim coordinate(n, h, w);
                EXPECT_EQ(axes(Dim(size, stride, offset(coordinate, size, stride))),
                          axes(coordinate));
            }
        }
    }
    EXPECT_EQ(axes(Dim(Dim(4, 6), 8)), (std::vector<int>{1, 2}));
}

TEST(DimTest, FailureTexts) {
    const std::string bounds =
        "Check failed: axis_idx >= -num_axis && axis_idx < num_axis error axis index.";
    const std::string too_large =
        "Check failed: ret <= static_cast<index_t>(std::numeric_limits<int>::max()) Dim size "
        "error ";
    expect_failures({
        {"Check failed: (dimension) < (kMaxDim) ", [] { Dim(1, 2, 3, 4, 5, 6); }},
        {"Check failed: (static_cast<int>(_dims.size())) <= (kMaxDim) ", [] { make_zero_dim(6); }},
        {bounds, [] { Dim()[0]; }},
        {bounds, [] { Dim(3)[1]; }},
        {bounds, [] { Dim(3)[-2]; }},
        {too_large + "Dim [65536, 65536] product_long 4294967296",
         [] { Dim(65536, 65536).product_check(); }},
        {too_large + "Dim [-1, 5] product_long -5", [] { Dim(-1, 5).product_check(); }},
        {"Check failed: (a.get_axis()) == (b.get_axis()) ", [] { linearize(Dim(1), Dim(1, 2)); }},
        {"Check failed: (a.get_axis()) == (b.get_axis()) ", [] { Dim(1) - Dim(1, 2); }},
        {"Check failed: idx <= static_cast<index_t>(std::numeric_limits<int>::max()) ",
         [] { Dim(Dim(), 1, index_t(1) << 31); }},  // before the axes are looked at
        {"Check failed: (dimension) > (0) ", [] { Dim(Dim(), 1, 0); }},
    });
}

TEST(BaseTest, Devices) {
    EXPECT_TRUE(is_cpu_device(CPU) && is_cpu_device(CPU_PINNED) && !is_cpu_device(GPU));
    EXPECT_TRUE(is_gpu_device(GPU) && !is_gpu_device(CPU) && !is_gpu_device(CPU_PINNED));
    EXPECT_TRUE(is_same_devices(CPU, CPU_PINNED) && is_same_devices(GPU, GPU));
    EXPECT_FALSE(is_same_devices(CPU_PINNED, GPU));
    EXPECT_EQ(&get_device(), &get_device());
    EXPECT_TRUE(is_cpu_device(cpu_device()) && is_gpu_device(gpu_device()));
}

}  // namespace
}  // namespace vorn
