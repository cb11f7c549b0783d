#include "vorn/tensor/tensor.h"

#include "device_test.h"
#include "vorn/tensor/tensor_view.h"

namespace vorn {
namespace test {
namespace {

class TensorTest : public ContextTest {};

TEST_F(TensorTest, WithoutElements) {
    const Tensor<float> t;
    EXPECT_EQ(t.get_dim(), 0u);
    EXPECT_EQ(t.get_element_count(), 0u);
    EXPECT_TRUE(t.is_contiguous());
    EXPECT_FALSE(t.is_init());
    EXPECT_EQ(t.get_ptr(), nullptr);
    EXPECT_EQ(t.get_device(), CPU);
    EXPECT_EQ(Tensor<float>(GPU).get_device(), GPU);
    EXPECT_TRUE(Tensor<float>(Dim()).is_init());

    Tensor<float> owning(Dim(2, 2));
    owning.resize(Dim(3, 0), true);
    EXPECT_FALSE(owning.is_init());
    EXPECT_EQ(owning.get_ptr(), nullptr);
    EXPECT_EQ(owning.get_size(0), 3u);
    EXPECT_EQ(owning.get_element_count(), 0u);
}

TEST_F(TensorTest, Queries) {
    const Tensor<float> t(Dim(2, 3, 4, 5));
    EXPECT_EQ(t.get_n() * 1000 + t.get_c() * 100 + t.get_h() * 10 + t.get_w(), 2345u);
    EXPECT_EQ(t.row() * 100 + t.col() * 10 + t.ld(), 2455u);
    EXPECT_EQ(t.count(1, 3), 12u);
    EXPECT_EQ(t.count(2), 20u);
    EXPECT_EQ(t.count(3, 3), 1u);
    EXPECT_EQ(t.get_size(static_cast<index_t>(-2)), 4u);
    EXPECT_TRUE(Tensor<float>(Dim(1, 5)) == Tensor<float>(Dim(5)));
    EXPECT_TRUE(Tensor<float>(Dim(2, 5)) != Tensor<float>(Dim(5)));
    for (int size : {1, 3, 1000}) {
        EXPECT_EQ(reinterpret_cast<uintptr_t>(Tensor<float>(Dim(size)).get_ptr()) % 64, 0u);
    }
}

TEST_F(TensorTest, ResizeKeepsItsBufferWhileItFits) {
    Tensor<float> t(Dim(10, 10));
    t.ones();
    const float* start = t.get_ptr();
    const Tensor<float> view = t.slice(0, 2);
    t.resize(Dim(10), false);
    EXPECT_EQ(t.get_ptr(), start);
    EXPECT_EQ(values_of(t), Values(10, 1));
    t.resize(Dim(100), true);
    EXPECT_EQ(t.get_ptr(), start);
    EXPECT_EQ(values_of(t), Values(100, 0));
    t.ones();
    t.resize(Dim(101));
    EXPECT_NE(t.get_ptr(), start);
    EXPECT_EQ(view.get_ptr(), start);  // the view keeps the old buffer
    EXPECT_EQ(values_of(view), Values(20, 1));

    t.clear();
    EXPECT_EQ(t.get_element_count(), 101u);
    start = t.get_ptr();
    t.clear_size();
    EXPECT_TRUE(t.is_init());
    EXPECT_EQ(t.get_element_count(), 0u);
    t.resize_like(Tensor<float>(Dim(10, 10)));
    EXPECT_EQ(t.get_ptr(), start);
}

TEST_F(TensorTest, Views) {
    const Tensor<float> vector = dense(Dim(10), counting<float>(10), CPU);
    const Tensor<float> matrix = dense(Dim(4, 6), counting<float>(24), CPU);
    const Tensor<float> cube = dense(Dim(4, 2, 3), counting<float>(24), CPU);
    const Tensor<float> columns = matrix.range_col(1, 3);
    const struct {
        Tensor<float> view;
        const char* size;
        index_t ld;
        float first;
    } cases[] = {
        {vector.slice(2, 5), "Dim [3]", 10, 2},
        {cube.slice(1, 3), "Dim [2, 2, 3]", 3, 6},
        {columns, "Dim [4, 2]", 6, 1},
        {columns.range_row(1, 3), "Dim [2, 2]", 6, 7},
        {matrix.range_row(1, 2, 2), "Dim [2, 6]", 6, 12},  // start and stop count in steps
        {matrix.range_col(1, 2, 2), "Dim [4, 2]", 6, 2},
        // Another shape begins at the buffer, not at the slice.
        {matrix.range_row(2, 4).get_with_shape(Dim(12)), "Dim [12]", 12, 0},
        // A middle axis is taken whole; the first or the last is cut.
        {cube.get_block(Dim(1, 0, 0), Dim(2, 2, 3)), "Dim [1, 2, 3]", 3, 6},
        {cube.get_block(Dim(0, 0, 1), Dim(4, 2, 3)), "Dim [4, 2, 2]", 3, 1},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(c.view.get_size().to_string(), c.size);
        EXPECT_EQ(c.view.ld(), c.ld) << c.size;
        EXPECT_EQ(*c.view.get_ptr(), c.first) << c.size;
    }
    EXPECT_FALSE(cases[0].view.is_contiguous());
    EXPECT_TRUE(vector.slice(0, 10).is_contiguous());
}

TEST_F(TensorTest, ViewsOfOutsideMemoryAreOutsideMemory) {
    Values memory(12, 1);
    Tensor<float> t(memory.data(), Dim(3, 4), CPU);
    EXPECT_FALSE(t.is_init());
    t.range_col(1, 3).set_element(5);
    t.range_row(2, 3).set_element(6);
    EXPECT_EQ(memory, (Values{1, 5, 5, 1, 1, 5, 5, 1, 6, 6, 6, 6}));
    EXPECT_EQ(t.get_with_shape(Dim(6, 2)).get_ptr(), memory.data());
    t.reshape(Dim(2, 6));
    EXPECT_EQ(t.ld(), 6u);
}

TEST_F(TensorTest, BufferOfOutsideMemoryGivesItBackAfterTheLastView) {
    Values memory(12);
    int given_back = 0;
    TensorF view;
    {
        const std::shared_ptr<void> held(memory.data(), [&](void*) { ++given_back; });
        const auto buffer = std::make_shared<Buffer>(held, memory.size() * sizeof(float), CPU);
        const TensorF pitched(buffer, Dim(3, 2), 4);
        view = pitched.slice(1, 3);
    }
    view.set_element(7);
    EXPECT_EQ(memory, (Values{0, 0, 0, 0, 7, 7, 0, 0, 7, 7, 0, 0}));
    EXPECT_EQ(given_back, 0);
    view = TensorF();
    EXPECT_EQ(given_back, 1);
}

TEST_F(TensorTest, ElementAccessOnEveryDevice) {
    for (Device device : {CPU, CPU_PINNED, GPU}) {
        if (device == GPU && !has_gpu()) {
            continue;
        }
        Tensor<float> t = dense(Dim(3, 4), counting<float>(12), device);
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
        for (const Dim& outside : {Dim(0, 4), Dim(0, -1), Dim(0)}) {
            EXPECT_FALSE(t.is_valid_index(outside)) << outside;
        }
    }
    Tensor<int> labels(Dim(4));
    labels[Dim(3)] = 9;
    EXPECT_EQ(labels[Dim(3)], 9);
}

TEST_F(TensorTest, FailureTexts) {
    const Tensor<float> t(Dim(4, 6)), cube(Dim(2, 3, 4)), vector(Dim(8));
    const Tensor<float> cube_block = cube.slice(0, 2);
    Tensor<float> columns = t.range_col(0, 2), block = t.slice(0, 2), owner(Dim(2));
    Tensor<float> no_axes{Dim()};
    const auto buffer = std::make_shared<Buffer>(16, CPU);
    const std::string dense = failed("is_contiguous()", "memory not contiguous");
    const std::string matrix = "Check failed: (2) == (get_dim()) Tensor::";
    const std::string count = "Check failed: product(_size) == product(";
    const std::string end = failed("end <= _size[0] invalid param, end =");
    const std::string too_large = kTooLarge + "[65536, 65536] product_long 4294967296";
    expect_failures({
        {failed("_ptr >= _buffer->ptr() && _ptr < _buffer->end()",
                "Cannot create tensor outside of buffer."),
         [&] { Tensor<float>(buffer, Dim(1), 1, static_cast<float*>(buffer->ptr()) + 4); }},
        {kBadAxis, [] { Tensor<float>().get_w(); }},
        {kBadAxis, [&] { t.get_c(); }},
        {too_large, [] { Tensor<float>(Dim(65536, 65536)); }},
        {kTooLarge + "[-1, 5] product_long -5", [] { Tensor<float>(Dim(-1, 5)); }},
        {dense, [&] { columns.get_with_shape(Dim(5)); }},
        {count + "dim) memory size not match Dim [4, 6] vs Dim [5]",
         [&] { t.get_with_shape(Dim(5)); }},
        {dense, [&] { columns.reshape(Dim(5)); }},
        {count + "size) memory size not match Dim [2] vs Dim [3]", [&] { owner.reshape(Dim(3)); }},
        {kBadAxis, [&] { no_axes.reshape(Dim()); }},
        {kBadAxis, [&] { columns.reshape(Dim()); }},
        {failed("end > start", "end 1 start 1"), [&] { t.slice(1, 1); }},
        {failed("end > start", "end 6 start 6"), [&] { t.slice(6, 6); }},
        {end + "5 Dim [4, 6]", [&] { t.slice(3, 5); }},
        {matrix + "range_row just support 2-D matrix.", [&] { cube.range_row(0, 9); }},
        {matrix + "get_col just support 2-D matrix.", [&] { cube.range_col(0, 9); }},
        {failed("get_dim() == 2 || (!_is_block)"),
         [&] { cube_block.get_block(Dim(0), Dim(1, 2)); }},
        {failed("(a.get_axis()) == (b.get_axis())"), [&] { t.get_block(Dim(0), Dim(1, 2)); }},
        {failed("size.get_axis() == _size.get_axis()"), [&] { t.get_block(Dim(0), Dim(9)); }},
        {failed("size[sub_dim] > 0 && size[sub_dim] <= _size[sub_dim]"),
         [&] { cube.get_block(Dim(0, 0, 2), Dim(9, 9, 2)); }},
        {failed("size[i] == _size[i]"), [&] { cube.get_block(Dim(0, 0, 0), Dim(9, 2, 4)); }},
        {failed("size[0] > 0 && size[0] <= _size[0]", "slice invalid"),
         [&] { t.get_block(Dim(0, 0), Dim(5, 6)); }},
        {failed("sub_dim == 0 || size[0] == _size[0]", "slice invalid"),
         [&] { t.get_block(Dim(0, 0), Dim(2, 2)); }},
        {kBadIndex, [&] { t.get_block(Dim(4, 0), Dim(5, 6)); }},
        {too_large, [&] { block.resize(Dim(65536, 65536), true); }},  // tested first
        {failed("!_is_block", "block tensor can not resize"),
         [&] { block.resize(block.get_size(), true); }},
        {failed("nullptr == _ptr", "tensor inited before"), [&] { owner.set_device(GPU); }},
        {failed("start_axis <= end_axis"), [&] { t.count(0, -1); }},
        {failed("start_axis >= 0"), [&] { t.count(-1, 1); }},
        {kBadIndex, [&] { t.index(Dim(4, 0)); }},
        {failed("2 == get_dim()"), [&] { vector.get_row(0); }},
        {failed("t.is_contiguous()"), [&] { MatrixView<float, true> view(columns); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
