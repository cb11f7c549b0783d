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

class FrameTest : public DeviceTest {
protected:
    // A block that holds base + the position modulo 1000 everywhere: small integers, so that
    // results are exact. The tensor in it is dense or pitched.
    template <typename T>
    Block<T> block(const Dim& shape, bool is_pitched, T base) {
        Block<T> block(shape, device(), is_pitched ? 3 : 0);
        std::vector<T> all(block.count(), T(kPoison));
        for (int i = 0; i < shape.product(); ++i) {
            all[block.place(i / shape[1], i % shape[1])] = base + static_cast<T>(i % 1000);
        }
        block.write(all);
        return block;
    }

    static void expect_each(const Tensor<float>& out, float start, float slope) {
        const Values values = values_of(out);
        for (size_t i = 0; i < values.size(); ++i) {
            ASSERT_EQ(values[i], start + slope * (i % 1000)) << "position " << i;
        }
    }
};

TEST_P(FrameTest, RunsRulesOverDenseAndPitchedOperands) {
    for (const Dim& shape : {Dim(1, 1), Dim(1, 127), Dim(3, 128), Dim(2, 129), Dim(129, 5),
                             Dim(7, 33), Dim(2, 8192), Dim(40961, 10)}) {
        // Each operand dense or pitched; large shapes in two mixes only, to save time.
        const int step = shape.product() > 10000 ? 7 : 1;
        for (int mix = 0; mix < 8; mix += step) {
            SCOPED_TRACE(shape.to_string() + ", mix " + std::to_string(mix));
            const Tensor<int> a = block(shape, mix & 1, 3).tensor;
            const Tensor<float> b = block(shape, mix & 2, 10.0f).tensor;
            const Block<float> room = block(shape, mix & 4, 20.0f);
            Tensor<float> out = room.tensor;
            unary_op(Affine(), a, out);
            expect_each(out, 7, 2);
            binary_op(Weigh2(), a, b, out);
            expect_each(out, 11, 2.5f);
            trinary_inplace_op(Weigh3(), a, b, out);
            expect_each(out, 37.5f, 7.25f);
            binary_inplace_op(Weigh2(), a, out);
            expect_each(out, 24.75f, 5.625f);
            room.expect_beside(kPoison);
        }
    }
}

TEST_P(FrameTest, TakesFurtherTurnsBeyondTheCapOfBlocks) {
    const int count = 40960 * 128 + 1;
    const Tensor<int> in = block(Dim(1, count), false, 0).tensor;
    Tensor<float> out(Dim(count), device());
    unary_op(Affine(), in, out);  // shapes (1, count) and (count) are equal
    expect_each(out, 1, 2);
}

TEST_P(FrameTest, EmptyTensorsAreLeftAlone) {
    g_sync_flag = true;  // a refused launch would abort
    for (const Dim& size : {Dim(0, 4), Dim(4, 0)}) {
        Tensor<float> whole(Dim(5, 6), device());
        Tensor<float> dense(whole.get_ptr(), size, device());
        Tensor<float> pitched(std::make_shared<Buffer>(64, device()), size, 6);
        for (Tensor<float> out : {dense, pitched}) {
            binary_inplace_op(func::add(1, 1), out, out);
            vorn_fill(out, 1.0f);
        }
        EXPECT_EQ(values_of(whole), Values(30, 0.0f));
    }
    g_sync_flag = false;
}

TEST_P(FrameTest, TensorsWithoutAxesAreLeftAlone) {
    g_sync_flag = true;
    const Tensor<float> in(device());
    for (Tensor<float> out : {Tensor<float>(device()), Tensor<float>(Dim(), device())}) {
        unary_op(func::square(), in, out);
        binary_inplace_op(func::add(1, 1), in, out);
        trinary_inplace_op(func::elem_mul(1, 0), in, in, out);
        vorn_fill(out, 1.0f);
        vorn_fill(out, 0.0f);
        EXPECT_EQ(out.get_dim(), 0u);
    }
    g_sync_flag = false;
}

TEST_P(FrameTest, FillsEveryTypeAndNothingBesideAView) {
    for_each_type([this](auto zero) {
        using T = decltype(zero);
        const auto expect_fills = [](Tensor<T> t) {
            const auto all = [&](T value) { return std::vector<T>(t.count(), value); };
            t.set_element(T(9));
            EXPECT_EQ(values_of(t), all(9));
            t.set_element(T(0));
            EXPECT_EQ(values_of(t), all(0));
            t.ones();
            EXPECT_EQ(values_of(t), all(1));
            t.zero();
            EXPECT_EQ(values_of(t), all(0));
        };
        const Block<T> room = block(Dim(4, 3), true, T(5));
        expect_fills(room.tensor);
        room.expect_beside(T(kPoison));
        for (Device place : {device(), on_gpu() ? GPU : CPU_PINNED}) {
            const Tensor<T> fresh(Dim(2, 3), place);
            EXPECT_EQ(values_of(fresh), std::vector<T>(6, T(0)));
            expect_fills(fresh);
        }
    });
    // A negative zero is equal to 0: dense memory gets the byte fill, a view the value.
    Tensor<float> whole(Dim(2, 20), device());
    whole.ones();
    whole.set_element(-0.0f);
    expect_same_bits(values_of(whole), Values(40, 0.0f));
    Tensor<float> view = whole.range_col(1, 19);
    view.set_element(-0.0f);
    expect_same_bits(values_of(view), Values(36, -0.0f));
}

INSTANTIATE_TEST_SUITE_P(Places, FrameTest, kDensePlaces, name_of_place);

// Notes the launch that runs it.
struct GridProbe {
    float* out;
    __device__ void operator()(index_t i) {
        if (i == 0) {
            out[0] = gridDim.x;
            out[1] = gridDim.y;
            out[2] = blockDim.x;
        }
    }
    __device__ void operator()(index_t row, index_t col) { (*this)(row + col); }
    template <int N>
    __device__ bool is_packed() const {
        return false;
    }
    template <int N>
    __device__ void run_pack(index_t) {}
};

using LaunchTest = GpuTest;

TEST_F(LaunchTest, GridsAreCappedAt40960Blocks) {
    const struct {
        index_t rows, cols;  // no rows: a flat loop
        float grid_x, grid_y;
    } cases[] = {{0, 1, 1, 1},           {0, 128, 1, 1},         {0, 129, 2, 1},
                 {0, 5242880, 40960, 1}, {0, 5242881, 40960, 1}, {3, 128, 1, 3},
                 {3, 129, 2, 3},         {40961, 10, 1, 40960},  {20481, 129, 2, 20480},
                 {1281, 8192, 32, 1280}};
    Tensor<float> out(Dim(3), GPU);
    for (const auto& c : cases) {
        const GridProbe probe{out.get_ptr()};
        c.rows == 0 ? gpu::iterate(probe, c.cols) : gpu::iterate(probe, c.rows, c.cols);
        EXPECT_EQ(values_of(out), (Values{c.grid_x, c.grid_y, 128})) << c.rows << " x " << c.cols;
    }
}

TEST(ViewTest, AddressesElementsLikeTheTensor) {
    const Tensor<float> whole = dense(Dim(2, 3, 4, 5), counting<float>(120), CPU);
    const Tensor<float> block = whole.get_block(Dim(0, 0, 0, 1), Dim(2, 3, 4, 4));
    const Tensor4DView<float, false> view4(block);
    const MatrixView<float, false> view2(block);
    EXPECT_EQ(view4(1, 2, 3, 2), 118);
    EXPECT_EQ(&view4(1, 0, 2, 1), block.index(Dim(1, 0, 2, 1)));
    EXPECT_EQ(view2(23, 2), 118);
    EXPECT_EQ(view2(23 * 3 + 2), 118);

    const Tensor4DView<float, false> vector(Tensor<float>(whole.get_ptr(), Dim(7), CPU));
    EXPECT_EQ(vector.n * vector.c * vector.h, 1);
    EXPECT_EQ(vector(0, 0, 0, 6), 6);
}

using FrameFailureTest = FailureTest;

TEST_F(FrameFailureTest, TestsSizesThenDevices) {
    const Tensor<int> near_int(Dim(3, 4)), far_int = far_of<int>(Dim(3, 4));
    const std::string in1_size = same_size("in1"), in2_size = same_size("in2");
    const std::string in1_device = same_device("in1"), in2_device = same_device("in2");
    expect_failures({
        {same_size("in"), [&] { unary_op(Affine(), ints, far); }},
        {same_device("in"), [&] { unary_op(Affine(), far_int, out); }},
        {in1_size, [&] { binary_op(Weigh2(), ints, small, far); }},
        {in2_size, [&] { binary_op(Weigh2(), far_int, far_small, out); }},
        {in1_device, [&] { binary_op(Weigh2(), far_int, far, out); }},
        {in2_device, [&] { binary_op(Weigh2(), near_int, far, out); }},
        {in1_size, [&] { trinary_inplace_op(Weigh3(), ints, small, far); }},
        {in2_size, [&] { trinary_inplace_op(Weigh3(), far_int, far_small, out); }},
        {in1_device, [&] { trinary_inplace_op(Weigh3(), far_int, far, out); }},
        {in2_device, [&] { trinary_inplace_op(Weigh3(), near_int, far, out); }},
        {in1_size, [&] { binary_inplace_op(Weigh2(), ints, far); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
