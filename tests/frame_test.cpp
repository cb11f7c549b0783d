#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "device_test.h"
#include "vorn/ops/ops.h"

namespace vorn {
namespace test {
namespace {

// Rules that no operand can stand in for another in, on operands of different types.
struct Affine {
    VORN_HD float operator()(int x) const { return 2.0f * x + 1; }
};
struct Weigh2 {
    VORN_HD float operator()(int a, float b) const { return 2.0f * a + 0.5f * b; }
};
struct Weigh3 {
    VORN_HD float operator()(int a, float b, float c) const { return 4.0f * a + 2 * b + 0.5f * c; }
};

struct Shape {
    int rows, cols;
};

// Memory full of `kBeside`, and a matrix that is all of it or, pitched, some of its columns.
template <typename T>
struct Room {
    static constexpr int kLeft = 2, kRight = 3, kBeside = 77;

    Room(Shape shape, bool is_pitched, Device device) {
        const int width = shape.cols + (is_pitched ? kLeft + kRight : 0);
        const Dim size(shape.rows, width);
        const auto buffer = std::make_shared<Buffer>(size.product() * sizeof(T), device);
        whole = Tensor<T>(buffer, size);
        whole.set_element(T(kBeside));
        view = Tensor<T>(buffer, Dim(shape.rows, shape.cols), width,
                         whole.get_ptr() + (is_pitched ? kLeft : 0));
    }

    void expect_untouched_beside() const {
        const std::vector<T> all = values_of(whole);
        const int width = whole.get_size()[-1], cols = view.get_size()[-1];
        for (size_t i = 0; width > cols && i < all.size(); ++i) {
            const int column = static_cast<int>(i) % width;
            if (column < kLeft || column >= kLeft + cols) {
                ASSERT_EQ(all[i], T(kBeside)) << "position " << i;
            }
        }
    }

    Tensor<T> whole, view;
};

class FrameTest : public DeviceTest {
protected:
    // The matrix in it. Element (i, j) is base + its flat position modulo 1000: small integers, so
    // that results are exact.
    template <typename T>
    static Tensor<T> place_in(const Room<T>& room, T base) {
        std::vector<T> values(room.view.get_element_count());
        for (size_t i = 0; i < values.size(); ++i) {
            values[i] = base + static_cast<T>(i % 1000);
        }
        Tensor<T> view = room.view;
        view.copy_from(Tensor<T>(values.data(), view.get_size(), CPU));
        return view;
    }

    static void expect_each(const Tensor<float>& out, float start, float slope) {
        const std::vector<float> values = values_of(out);
        for (size_t i = 0; i < values.size(); ++i) {
            ASSERT_EQ(values[i], start + slope * (i % 1000)) << "position " << i;
        }
    }
};

TEST_P(FrameTest, RunsRulesOverDenseAndPitchedOperands) {
    const std::vector<Shape> shapes = {{1, 1},   {1, 127}, {3, 128},  {2, 129},
                                       {129, 5}, {7, 33},  {2, 8192}, {40961, 10}};
    for (Shape shape : shapes) {
        // Each operand dense or pitched; large shapes in two mixes only, to save time.
        for (int mix = 0; mix<8; mix += shape.rows * shape.cols> 10000 ? 7 : 1) {
            SCOPED_TRACE(std::to_string(shape.rows) + " x " + std::to_string(shape.cols) +
                         ", mix " + std::to_string(mix));
            const Tensor<int> a = place_in(Room<int>(shape, mix & 1, device()), 3);
            const Tensor<float> b = place_in(Room<float>(shape, mix & 2, device()), 10.0f);
            const Room<float> room(shape, mix & 4, device());
            Tensor<float> out = place_in(room, 20.0f);
            unary_op(Affine(), a, out);
            expect_each(out, 7, 2);
            binary_op(Weigh2(), a, b, out);
            expect_each(out, 11, 2.5f);
            trinary_inplace_op(Weigh3(), a, b, out);
            expect_each(out, 37.5f, 7.25f);
            binary_inplace_op(Weigh2(), a, out);
            expect_each(out, 24.75f, 5.625f);
            room.expect_untouched_beside();
        }
    }
}

TEST_P(FrameTest, TakesFurtherTurnsBeyondTheCapOfBlocks) {
    const int count = 40960 * 128 + 1;
    const Tensor<int> in = place_in(Room<int>({1, count}, false, device()), 0);
    Tensor<float> out(Dim(count), device());
    unary_op(Affine(), in, out);  // shapes (1, count) and (count) are equal
    expect_each(out, 1, 2);
}

TEST_P(FrameTest, EmptyTensorsAreLeftAlone) {
    g_sync_flag = true;  // a refused launch would abort
    for (bool is_pitched : {false, true}) {
        for (Shape shape : {Shape{0, 4}, Shape{4, 0}}) {
            const Dim size(shape.rows, shape.cols);
            Tensor<float> whole(Dim(5, 6), device());
            Tensor<float> out(whole.get_ptr(), size, device());
            if (is_pitched) {
                out = Tensor<float>(std::make_shared<Buffer>(64, device()), size, 6);
            }
            binary_inplace_op(func::add(1, 1), out, out);
            vorn_fill(out, 1.0f);
            EXPECT_EQ(values_of(whole), std::vector<float>(30, 0.0f));
        }
    }
    g_sync_flag = false;
}

template <typename T>
void expect_fills(const Device& device) {
    Room<T> room({4, 3}, true, device);
    for (T value : {T(9), T(0)}) {
        room.view.set_element(value);
        EXPECT_EQ(values_of(room.view), std::vector<T>(12, value));
        room.expect_untouched_beside();
    }
    room.whole.ones();
    EXPECT_EQ(values_of(room.whole), std::vector<T>(32, T(1)));
    room.whole.zero();
    EXPECT_EQ(values_of(room.whole), std::vector<T>(32, T(0)));
}

TEST_P(FrameTest, FillsEveryTypeAndNothingBesideAView) {
    expect_fills<float>(device());
    expect_fills<int>(device());
    expect_fills<unsigned long>(device());
    expect_fills<unsigned char>(device());
    expect_fills<short>(device());
    // A negative zero is equal to 0: dense memory gets the byte fill, a view the value.
    Tensor<float> whole(Dim(2, 20), device());
    whole.ones();
    whole.set_element(-0.0f);
    expect_same_bits(values_of(whole), std::vector<float>(40, 0.0f));
    Tensor<float> view = whole.range_col(1, 19);
    view.set_element(-0.0f);
    expect_same_bits(values_of(view), std::vector<float>(36, -0.0f));
}

INSTANTIATE_TEST_SUITE_P(Places, FrameTest, kDensePlaces, name_of_place);

// Notes the launch that runs it.
struct GridProbe {
    float* out;
    __device__ void note() {
        out[0] = gridDim.x;
        out[1] = gridDim.y;
        out[2] = blockDim.x;
    }
    __device__ void operator()(index_t i) {
        if (i == 0) {
            note();
        }
    }
    __device__ void operator()(index_t row, index_t col) {
        if (row == 0 && col == 0) {
            note();
        }
    }
};

class LaunchTest : public DeviceTest {};

TEST_P(LaunchTest, GridsAreCappedAt40960Blocks) {
    Tensor<float> out(Dim(3), GPU);
    const std::vector<std::pair<index_t, float>> dense = {
        {1, 1}, {128, 1}, {129, 2}, {5242880, 40960}, {5242881, 40960}};
    for (const auto& [count, blocks] : dense) {
        gpu::iterate(GridProbe{out.get_ptr()}, count);
        EXPECT_EQ(values_of(out), (std::vector<float>{blocks, 1, 128})) << count;
    }
    struct {
        index_t rows, cols;
        float grid_x, grid_y;
    } const pitched[] = {{3, 128, 1, 3},         {3, 129, 2, 3},   {40961, 10, 1, 40960},
                         {20481, 129, 2, 20480}, {3, 8192, 32, 3}, {1281, 8192, 32, 1280}};
    for (const auto& c : pitched) {
        gpu::iterate(GridProbe{out.get_ptr()}, c.rows, c.cols);
        EXPECT_EQ(values_of(out), (std::vector<float>{c.grid_x, c.grid_y, 128})) << c.rows;
    }
}

INSTANTIATE_TEST_SUITE_P(Places, LaunchTest, ::testing::Values(Place::kGpu), name_of_place);

TEST(ViewTest, AddressesElementsLikeTheTensor) {
    Tensor<float> whole(Dim(2, 3, 4, 5));
    for (int i = 0; i < 120; ++i) {
        whole.get_ptr()[i] = i;
    }
    const Tensor<float> block = whole.get_block(Dim(0, 0, 0, 1), Dim(2, 3, 4, 4));
    const Tensor4DView<float, false> view4(block);
    const MatrixView<float, false> view2(block);
    EXPECT_EQ(view4(1, 2, 3, 2), 118);
    EXPECT_EQ(&view4(1, 0, 2, 1), block.index(Dim(1, 0, 2, 1)));
    EXPECT_EQ(view2(23, 2), 118);
    EXPECT_EQ(view2(23 * 3 + 2), 118);
    const MatrixView<float, true> dense(whole);
    EXPECT_EQ(dense(5, 3), 28);
    EXPECT_EQ(dense(28), 28);

    const Tensor4DView<float, false> vector(Tensor<float>(whole.get_ptr(), Dim(7), CPU));
    EXPECT_EQ(vector.n * vector.c * vector.h, 1);
    EXPECT_EQ(vector(0, 0, 0, 6), 6);
    expect_failures(
        {{"Check failed: t.is_contiguous() ", [&] { MatrixView<float, true>{block}; }}});
}

TEST(IterateTest, GoesThroughIndicesInOrder) {
    std::vector<index_t> seen;
    cpu::iterate([&](index_t i) { seen.push_back(i); }, 3);
    cpu::iterate([&](index_t i) { seen.push_back(i); }, 0);
    EXPECT_EQ(seen, (std::vector<index_t>{0, 1, 2}));
}

TEST(FrameFailureTest, TestsSizesThenDevices) {
    float memory[6] = {};
    Tensor<int> in_int(Dim(2, 3)), short_int(Dim(3));
    Tensor<float> out(Dim(2, 3)), in(Dim(2, 3)), small(Dim(2, 2));
    Tensor<float> far(memory, Dim(2, 3), GPU), far_small(memory, Dim(2, 2), GPU);
    Tensor<int> far_int(reinterpret_cast<int*>(memory), Dim(2, 3), GPU);
    const std::string in1_size = "Check failed: (in1.get_size()) == (out.get_size()) ",
                      in2_size = "Check failed: (in2.get_size()) == (out.get_size()) ";
    const std::string in1_device =
        "Check failed: is_same_devices((in1).get_device(), (out).get_device()) ";
    const std::string in2_device =
        "Check failed: is_same_devices((in2).get_device(), (out).get_device()) ";
    expect_failures({
        {"Check failed: (in.get_size()) == (out.get_size()) ",
         [&] { unary_op(Affine(), short_int, far); }},
        {"Check failed: is_same_devices((in).get_device(), (out).get_device()) ",
         [&] { unary_op(Affine(), far_int, out); }},
        {in1_size, [&] { binary_op(Weigh2(), short_int, small, far); }},
        {in2_size, [&] { binary_op(Weigh2(), far_int, far_small, out); }},
        {in1_device, [&] { binary_op(Weigh2(), far_int, far, out); }},
        {in2_device, [&] { binary_op(Weigh2(), in_int, far, out); }},
        {in1_size, [&] { trinary_inplace_op(Weigh3(), short_int, small, far); }},
        {in2_size, [&] { trinary_inplace_op(Weigh3(), far_int, far_small, out); }},
        {in1_device, [&] { trinary_inplace_op(Weigh3(), far_int, far, out); }},
        {in2_device, [&] { trinary_inplace_op(Weigh3(), in_int, far, out); }},
        {in1_size, [&] { binary_inplace_op(Weigh2(), short_int, far); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
