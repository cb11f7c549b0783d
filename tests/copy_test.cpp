#include "device_test.h"
#include "vorn/ops/ops.h"

namespace vorn {
namespace test {

class CopyTest : public DeviceTest {
protected:
    /// Copies between tensors of each pitch and expects the rows, and nothing else, to arrive.
    template <typename T>
    void copy_all_pitches(Device source, Device target) {
        const Dim five(5), row(1, 5), matrix(4, 6), image(2, 3, 4, 5), most(3, 1, 2, 2, 7);
        const std::pair<Dim, Dim> shapes[] = {{Dim(1), Dim(1)}, {five, row},    {row, five},
                                              {matrix, matrix}, {image, image}, {most, most}};
        for (const auto& [from_shape, to_shape] : shapes) {
            for (int pitches = 0; pitches < 4; ++pitches) {
                SCOPED_TRACE(::testing::Message() << from_shape << " pitches " << pitches);
                Block<T> from(from_shape, source, pitches & 1 ? 3 : 0);
                Block<T> to(to_shape, target, pitches & 2 ? 4 : 0);
                const std::vector<T> values = counting<T>(from.count(), 3, 3);
                std::vector<T> expected = counting<T>(to.count(), -7, -7);
                from.write(values);
                to.write(expected);
                for (int row = 0; row < to_shape.height(); ++row) {
                    for (int col = 0; col < to_shape[-1]; ++col) {
                        expected[to.place(row, col)] = values[from.place(row, col)];
                    }
                }
                pitches & 1 ? from.tensor.copy_to(to.tensor) : to.tensor.copy_from(from.tensor);
                EXPECT_EQ(to.read(), expected);
                EXPECT_EQ(from.read(), values);

                const Tensor<T> dense(from.tensor, target);
                EXPECT_TRUE(dense.is_contiguous());
                EXPECT_EQ(dense.get_device(), target);
                EXPECT_EQ(values_of(dense), values_of(to.tensor));
            }
        }
    }

    /// Runs of a dense 4 by 6 tensor, which holds 0, 1, ... before, against the same on a vector.
    template <typename T>
    void copy_runs() {
        const struct {
            Dim start;
            index_t position, count;
        } runs[] = {{Dim(0, 0), 0, 24}, {Dim(1, 0), 6, 6}, {Dim(2, 5), 17, 3}, {Dim(1, 1), 7, 0}};
        for (const auto& run : runs) {
            Block<T> block(Dim(4, 6), device(), 0);
            std::vector<T> expected = counting<T>(24);
            const std::vector<T> data = counting<T>(run.count, -5, -5);
            for (int by_dim = 0; by_dim < 2; ++by_dim) {
                block.write(counting<T>(24));
                by_dim ? block.tensor.copy_from(data.data(), run.start, run.count)
                       : block.tensor.copy_from(data.data(), run.position, run.count);
                for (index_t i = 0; i < run.count; ++i) {
                    expected[run.position + i] = data[i];
                }
                EXPECT_EQ(block.read(), expected);

                std::vector<T> out(run.count + 1, T(77)), expected_out = data;
                expected_out.push_back(T(77));
                by_dim ? block.tensor.copy_to(out.data(), run.start, run.count)
                       : block.tensor.copy_to(out.data(), run.position, run.count);
                EXPECT_EQ(out, expected_out);
            }
        }
    }
};
INSTANTIATE_TEST_SUITE_P(Places, CopyTest, kDensePlaces, name_of_place);

TEST_P(CopyTest, AllDevicesPitchesAndTypes) {
    for (Device source : {CPU, GPU, CPU_PINNED}) {
        for (Device target : {CPU, GPU, CPU_PINNED}) {
            if ((source == GPU || target == GPU) != on_gpu()) {
                continue;
            }
            SCOPED_TRACE(::testing::Message() << source << " to " << target);
            for_each_type([&](auto zero) { copy_all_pitches<decltype(zero)>(source, target); });
            Tensor<float> nothing(target);
            nothing.copy_from(Tensor<float>(source));
            EXPECT_EQ(nothing.count(), 0);
        }
    }
}

TEST_P(CopyTest, RunsOfElements) {
    for_each_type([this](auto zero) { copy_runs<decltype(zero)>(); });
}

TEST_P(CopyTest, CopyRow) {
    Block<float> from(Dim(3, 4), CPU, 2), to(Dim(2, 6), device(), 0);
    from.write(counting<float>(from.count()));
    Values expected = counting<float>(12, -1, -1);
    to.write(expected);
    to.tensor.copy_row(from.tensor, 2, 0);
    to.tensor.copy_row(from.tensor, 0, 1);
    for (int col = 0; col < 4; ++col) {
        expected[col] = static_cast<float>(from.place(2, col));
        expected[6 + col] = static_cast<float>(from.place(0, col));
    }
    EXPECT_EQ(to.read(), expected);
}

// Dense and pitched, from starts that cut a cache line, and with rows on both sides of what the
// loops take at a time. The last one goes past the caches.
TEST(FillTest, HostFills) {
    for_each_type([](auto zero) {
        using T = decltype(zero);
        const T val = std::is_same<T, unsigned long>::value ? T(1ul << 40) : T(200.5);
        const Dim large(cpu::kStreamBytes / (1029 * sizeof(T)) + 1, 1029);
        for (const Dim& size : {Dim(3, 1), Dim(5, 31), Dim(3, 129), large}) {
            for (int left : {0, 1, 3}) {
                Block<T> block(size, CPU, left);
                block.write(std::vector<T>(block.count(), T(3)));
                block.tensor.set_element(val);
                EXPECT_TRUE(values_of(block.tensor) == std::vector<T>(size.product(), val))
                    << size << " after " << left;
                block.expect_beside(T(3));
            }
        }
    });
}

TEST_P(CopyTest, Failures) {
    Tensor<float> m46(Dim(4, 6), device()), m64(Dim(6, 4), device()), vec(Dim(6), device());
    Tensor<float> block = m46.range_col(1, 4);
    Tensor<float> row4(Dim(3, 4), CPU), row7(Dim(3, 7), CPU), cube(Dim(1, 3, 4), CPU);
    Tensor<float> row3 = row4.range_col(0, 3);
    float data[24] = {};
    const std::string unequal = same_size("src", "dst"), pitched = kNotImplemented;
    expect_failures({
        {unequal, [&] { m46.copy_from(m64); }},
        {unequal, [&] { m46.copy_to(m64); }},
        {unequal, [&] { vec.copy_from(m46); }},
        {pitched, [&] { block.copy_from(data, 0, 5); }},
        {pitched, [&] { block.copy_to(data, 0, 5); }},
        {pitched, [&] { block.copy_from(data, Dim(1, 0), 5); }},
        {pitched, [&] { block.copy_to(data, Dim(1, 0), 5); }},
        {failed("get_dim() == 2"), [&] { vec.copy_row(row7, 9, 0); }},
        {failed("get_w() >= src.get_w()"), [&] { m46.copy_row(row7, 9, 0); }},
        {failed("2 == get_dim()"), [&] { m46.copy_row(cube, 9, 0); }},
        {kBadIndex, [&] { m46.copy_row(row4, 3, 0); }},
        {pitched, [&] { block.copy_row(row3, 0, 0); }},
    });
}

class MemoryCallTest : public GpuTest {};

TEST_F(MemoryCallTest, FillsRowsBetweenPitches) {
    Tensor<float> matrix(Dim(3, 4), GPU);
    matrix.ones();
    gpu::vorn_memset_2d(matrix.get_ptr(), 0, 2, 2 * sizeof(float), 4 * sizeof(float));
    EXPECT_EQ(values_of(matrix), (Values{0, 0, 1, 1, 0, 0, 1, 1, 1, 1, 1, 1}));
}

// Host memory to fill, and pitches below the width of a row.
TEST_F(MemoryCallTest, Failures) {
    const Tensor<float> dense(Dim(4, 6), GPU);
    std::vector<float> host(4 * 10);
    expect_failures({
        {failed("0 == (cudaMemset(ptr, val, byte_size))", "invalid argument"),
         [&] { gpu::vorn_memset(host.data(), 0, 4); }},
        {failed("0 == (cudaMemset2D(ptr, ld, val, dimN, dimM))", "invalid argument"),
         [&] { gpu::vorn_memset_2d(host.data(), 0, 1, 4, 4); }},
        {failed("0 == (cudaMemcpy2D(dst, dpitch_byte, src, spitch_byte, width_byte, height, kind))",
                "invalid pitch argument"),
         [&] { vorn_memcpy_2d<float>(GPU, CPU, dense.get_ptr(), 6, host.data(), 5, 6, 4); }},
    });
}

}  // namespace test
}  // namespace vorn
