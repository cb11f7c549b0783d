#include "vorn/tensor/tensor.h"

#include <gtest/gtest.h>

#include <numeric>

#include "device_test.h"
#include "vorn/tensor/tensor_view.h"

namespace vorn {
namespace {

using test::expect_failures;
using test::values_of;

class TensorTest : public test::ContextTest {};

// 0, 1, 2, ... in row-major order.
Tensor<float> counting(const Dim& size, Device device = CPU) {
    std::vector<float> values(size.product());
    std::iota(values.begin(), values.end(), 0.0f);
    return test::dense(size, values, device);
}

TEST_F(TensorTest, EmptyTensor) {
    const Tensor<float> t;
    EXPECT_EQ(t.get_dim(), 0u);
    EXPECT_EQ(t.get_element_count(), 0u);
    EXPECT_TRUE(t.is_contiguous());
    EXPECT_FALSE(t.is_init());
    EXPECT_EQ(t.get_ptr(), nullptr);
    EXPECT_EQ(t.get_device(), get_device());
    EXPECT_EQ(Tensor<float>(GPU).get_device(), GPU);
}

TEST_F(TensorTest, ZeroSizes) {
    Tensor<float> no_axes{Dim()};
    EXPECT_TRUE(no_axes.is_init());
    EXPECT_EQ(no_axes.get_element_count(), 0u);

    Tensor<float> t(Dim(3, 0));
    EXPECT_EQ(t.get_dim(), 2u);
    EXPECT_EQ(t.get_element_count(), 0u);
    Tensor<float> owning(Dim(2, 2));
    owning.resize(Dim(3, 0), true);
    EXPECT_FALSE(owning.is_init());
    EXPECT_EQ(owning.get_ptr(), nullptr);
    EXPECT_EQ(owning.get_size(0), 3u);
}

TEST_F(TensorTest, HostBlocksAreAligned) {
    for (int size : {1, 3, 1000}) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(Tensor<float>(Dim(size)).get_ptr()) % 64, 0u);
    }
}

TEST_F(TensorTest, Queries) {
    const Tensor<float> t(Dim(2, 3, 4, 5));
    EXPECT_EQ(t.get_n() * 1000 + t.get_c() * 100 + t.get_h() * 10 + t.get_w(), 2345u);
    EXPECT_EQ(t.row(), 24u);
    EXPECT_EQ(t.col(), 5u);
    EXPECT_EQ(t.ld(), 5u);
    EXPECT_EQ(t.count(1, 3), 12u);
    EXPECT_EQ(t.count(2), 20u);
    EXPECT_EQ(t.count(3, 3), 1u);
    EXPECT_EQ(t.get_size(static_cast<index_t>(-2)), 4u);
    EXPECT_EQ(Tensor<float>(Dim(7)).row(), 1u);
    EXPECT_TRUE(Tensor<float>(Dim(1, 5)) == Tensor<float>(Dim(5)));
    EXPECT_TRUE(Tensor<float>(Dim(2, 5)) != Tensor<float>(Dim(5)));
}

TEST_F(TensorTest, ResizeKeepsItsBufferWhileItFits) {
    Tensor<float> t(Dim(10, 10));
    t.ones();
    const float* start = t.get_ptr();
    const Tensor<float> view = t.slice(0, 2);
    t.resize(Dim(10), false);
    EXPECT_EQ(t.get_ptr(), start);
    EXPECT_EQ(values_of(t), std::vector<float>(10, 1));
    t.resize(Dim(100), true);
    EXPECT_EQ(t.get_ptr(), start);
    EXPECT_EQ(values_of(t), std::vector<float>(100, 0));
    t.ones();
    t.resize(Dim(101));
    EXPECT_NE(t.get_ptr(), start);
    EXPECT_EQ(view.get_ptr(), start);  // the view keeps the old buffer
    EXPECT_EQ(values_of(view), std::vector<float>(20, 1));

    t.clear();
    EXPECT_EQ(t.get_element_count(), 101u);
    start = t.get_ptr();
    t.clear_size();
    EXPECT_TRUE(t.is_init());
    EXPECT_EQ(t.get_element_count(), 0u);
    t.resize_like(Tensor<float>(Dim(10, 10)));
    EXPECT_EQ(t.get_ptr(), start);
}

TEST_F(TensorTest, Slices) {
    const Tensor<float> t = counting(Dim(4, 2, 3));
    const Tensor<float> s = t.slice(1, 3);
    EXPECT_EQ(s.get_size().to_string(), "Dim [2, 2, 3]");
    EXPECT_EQ(values_of(s)[0], 6.0f);

    const Tensor<float> vector = counting(Dim(10));
    const Tensor<float> part = vector.slice(2, 5);
    EXPECT_EQ(part.get_ptr(), vector.get_ptr() + 2);
    EXPECT_EQ(part.ld(), 10u);
    EXPECT_FALSE(part.is_contiguous());
    EXPECT_TRUE(vector.slice(0, 10).is_contiguous());
}

TEST_F(TensorTest, MatrixViews) {
    const Tensor<float> t = counting(Dim(4, 6));
    const Tensor<float> columns = t.range_col(1, 3);
    EXPECT_EQ(columns.get_size().to_string(), "Dim [4, 2]");
    EXPECT_EQ(columns.ld(), 6u);
    EXPECT_FALSE(columns.is_contiguous());
    EXPECT_EQ(values_of(columns), (std::vector<float>{1, 2, 7, 8, 13, 14, 19, 20}));
    EXPECT_EQ(values_of(columns.range_row(1, 3)), (std::vector<float>{7, 8, 13, 14}));
    // start and stop count in steps
    EXPECT_EQ(t.range_row(1, 2, 2).get_ptr(), t.get_ptr() + 12);
    EXPECT_EQ(t.range_row(1, 2, 2).row(), 2u);
    EXPECT_EQ(values_of(t.range_col(0, 1, 2))[2], 6.0f);

    // A view of another shape begins at the buffer, not at the slice.
    EXPECT_EQ(t.range_row(2, 4).get_with_shape(Dim(12)).get_ptr(), t.get_ptr());
    // A middle axis is taken whole; the first or the last is cut.
    const Tensor<float> cube = counting(Dim(3, 2, 4));
    EXPECT_EQ(values_of(cube.get_block(Dim(1, 0, 0), Dim(2, 2, 4))),
              (std::vector<float>{8, 9, 10, 11, 12, 13, 14, 15}));
    EXPECT_EQ(cube.get_block(Dim(0, 0, 1), Dim(3, 2, 3)).get_ptr(), cube.get_ptr() + 1);
}

TEST_F(TensorTest, ViewsOfOutsideMemoryAreOutsideMemory) {
    std::vector<float> memory(12, 1);
    Tensor<float> t(memory.data(), Dim(3, 4), CPU);
    EXPECT_FALSE(t.is_init());
    t.range_col(1, 3).set_element(5);
    t.range_row(2, 3).set_element(6);
    EXPECT_EQ(memory, (std::vector<float>{1, 5, 5, 1, 1, 5, 5, 1, 6, 6, 6, 6}));
    EXPECT_EQ(t.get_with_shape(Dim(6, 2)).get_ptr(), memory.data());
    t.reshape(Dim(2, 6));
    EXPECT_EQ(t.ld(), 6u);
}

TEST_F(TensorTest, ElementAccessOnEveryDevice) {
    for (Device device : {CPU, CPU_PINNED, GPU}) {
        if (device == GPU && !has_gpu()) {
            continue;
        }
        Tensor<float> t = counting(Dim(3, 4), device);
        const Tensor<float>& constant = t;
        t[Dim(1, 2)] = 50.0f;
        t.set_element(Dim(2, 3), 60.0f);
        t[Dim(0, 0)] = t[Dim(1, 2)];  // copies the element, not the proxy
        EXPECT_EQ(constant[Dim(1, 2)], 50.0f);
        EXPECT_EQ(t.get_element(Dim(2, 3)), 60.0f);
        EXPECT_EQ(t.get_element(Dim(0, 0)), 50.0f);
        EXPECT_TRUE(t[Dim(0, 0)] == t[Dim(1, 2)]);
        EXPECT_TRUE(t[Dim(0, 1)] == 1.0f);
        EXPECT_EQ(&t[Dim(1, 0)], t.get_row(1));
        EXPECT_FALSE(t.is_valid_index(Dim(0, 4)));
        EXPECT_FALSE(t.is_valid_index(Dim(0, -1)));
        EXPECT_FALSE(t.is_valid_index(Dim(0)));
    }
    Tensor<int> labels(Dim(4));
    labels[Dim(3)] = 9;
    EXPECT_EQ(labels[Dim(3)], 9);
}

TEST_F(TensorTest, FailureTexts) {
    const Tensor<float> t(Dim(4, 6)), cube(Dim(2, 3, 4)), vector(Dim(8));
    const Tensor<float> columns = t.range_col(0, 2);
    const Tensor<float> cube_block = cube.slice(0, 2);
    Tensor<float> block = t.slice(0, 2), owner(Dim(2));
    auto buffer = std::make_shared<Buffer>(16, CPU);
    const std::string bounds =
        "Check failed: axis_idx >= -num_axis && axis_idx < num_axis error axis index.";
    const std::string too_large =
        "Check failed: ret <= static_cast<index_t>(std::numeric_limits<int>::max()) Dim size "
        "error Dim [65536, 65536] product_long 4294967296";
    expect_failures({
        {"Check failed: _ptr >= _buffer->ptr() && _ptr < _buffer->end() Cannot create tensor "
         "outside of buffer.",
         [=] { Tensor<float>(buffer, Dim(1), 1, static_cast<float*>(buffer->ptr()) + 4); }},
        {bounds, [] { Tensor<float>().get_w(); }},
        {bounds, [=] { t.get_c(); }},
        {too_large, [] { Tensor<float>(Dim(65536, 65536)); }},
        {"Check failed: is_contiguous() memory not contiguous",
         [=] { columns.get_with_shape(Dim(5)); }},
        {"Check failed: product(_size) == product(dim) memory size not match Dim [4, 6] vs "
         "Dim [5]",
         [=] { t.get_with_shape(Dim(5)); }},
        {"Check failed: is_contiguous() memory not contiguous",
         [=]() mutable { Tensor<float>(columns).reshape(Dim(5)); }},
        {"Check failed: product(_size) == product(size) memory size not match Dim [2] vs Dim [3]",
         [=]() mutable { owner.reshape(Dim(3)); }},
        {bounds, [=]() mutable { Tensor<float>(Dim()).reshape(Dim()); }},
        {"Check failed: end > start end 1 start 1", [=] { t.slice(1, 1); }},
        {"Check failed: end > start end 6 start 6", [=] { t.slice(6, 6); }},
        {"Check failed: end <= _size[0] invalid param, end = 5 Dim [4, 6]", [=] { t.slice(3, 5); }},
        {"Check failed: (2) == (get_dim()) Tensor::range_row just support 2-D matrix.",
         [=] { cube.range_row(0, 9); }},
        {"Check failed: (2) == (get_dim()) Tensor::get_col just support 2-D matrix.",
         [=] { cube.range_col(0, 9); }},
        {"Check failed: get_dim() == 2 || (!_is_block) ",
         [=] { cube_block.get_block(Dim(0), Dim(1, 2)); }},
        {"Check failed: (a.get_axis()) == (b.get_axis()) ",
         [=] { t.get_block(Dim(0), Dim(1, 2)); }},
        {"Check failed: size.get_axis() == _size.get_axis() ",
         [=] { t.get_block(Dim(0), Dim(9)); }},
        {"Check failed: size[sub_dim] > 0 && size[sub_dim] <= _size[sub_dim] ",
         [=] { cube.get_block(Dim(0, 0, 2), Dim(9, 9, 2)); }},
        {"Check failed: size[i] == _size[i] ", [=] { cube.get_block(Dim(0, 0, 0), Dim(9, 2, 4)); }},
        {"Check failed: size[0] > 0 && size[0] <= _size[0] slice invalid",
         [=] { t.get_block(Dim(0, 0), Dim(5, 6)); }},
        {"Check failed: sub_dim == 0 || size[0] == _size[0] slice invalid",
         [=] { t.get_block(Dim(0, 0), Dim(2, 2)); }},
        {"Check failed: is_valid_index(coor) invalid index dim.",
         [=] { t.get_block(Dim(4, 0), Dim(5, 6)); }},
        {too_large, [=]() mutable { block.resize(Dim(65536, 65536), true); }},  // tested first
        {"Check failed: !_is_block block tensor can not resize",
         [=]() mutable { block.resize(block.get_size(), true); }},
        {"Check failed: nullptr == _ptr tensor inited before",
         [=]() mutable { owner.set_device(GPU); }},
        {"Check failed: start_axis <= end_axis ", [=] { t.count(0, -1); }},
        {"Check failed: start_axis >= 0 ", [=] { t.count(-1, 1); }},
        {"Check failed: is_valid_index(coor) invalid index dim.", [=] { t.index(Dim(4, 0)); }},
        {"Check failed: 2 == get_dim() ", [=] { vector.get_row(0); }},
        {"Check failed: t.is_contiguous() ", [=] { MatrixView<float, true> view(columns); }},
    });
}

}  // namespace
}  // namespace vorn
