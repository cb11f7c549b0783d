#include "vorn/ops/channel_ops.h"

#include <functional>
#include <numeric>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class ShrinkTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, ShrinkTest, kDensePlaces, name_of_place);

// Every axis, with inner extents on both sides of the block, and more outer ones than the grid has.
TEST_P(ShrinkTest, ASliceGoesOutAndComesBack) {
    for (const Dim& size : {Dim(7), Dim(2, 3, 4, 5), Dim(3, 2, 255), Dim(2, 257, 2),
                            Dim(40963, 2, 1), Dim(5, 3, 1200)}) {
        const Values whole = random_values(size.product(), 3);
        for (int dim = 0; dim < size.get_axis(); ++dim) {
            Dim slice_size = size;
            slice_size[dim] = 1;
            const Values slice = random_values(slice_size.product(), 4);
            const TensorF in = make(size, whole), in_bp = make(slice_size, slice);
            const size_t channel = size[dim], inner = whole.size() / in.count(0, dim + 1);
            for (size_t index : {size_t{0}, channel - 1}) {
                Values expected, expected_bp(whole.size(), kPoison);
                for (size_t i = 0; i < whole.size(); ++i) {
                    if (i / inner % channel == index) {
                        expected_bp[i] = slice[expected.size()];
                        expected.push_back(whole[i]);
                    }
                }
                TensorF out = guarded(slice_size), out_bp = guarded(size);
                out.shrink(in, dim, index);
                EXPECT_EQ(values_of(out), expected);
                out_bp.shrink_bp(in_bp, dim, index);
                out_bp.shrink_bp(in_bp, dim, index);  // overwrites
                EXPECT_EQ(values_of(out_bp), expected_bp);
            }
        }
    }
}

/// A concatenation in plain vectors.
struct Layout {
    int num, height, width;
    std::vector<int> channels;

    int before(size_t i) const { return std::accumulate(&channels[0], &channels[0] + i, 0); }
    Dim whole() const { return Dim(num, before(channels.size()), height, width); }
    Dim part(size_t i) const { return Dim(num, channels[i], height, width); }
    /// The place in the whole of an element of part i.
    size_t place(size_t i, size_t element) const {
        const size_t run = channels[i] * height * width;
        return (element / run * whole()[1] + before(i)) * height * width + element % run;
    }
};

class ChannelOpsTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, ChannelOpsTest,
                         ::testing::Values(Place::kHost, Place::kHostPitched, Place::kGpu),
                         name_of_place);

// Planes on both sides of the 512 threads of a block, a part without channels, and every choice of
// filters: a part that is left out keeps its place between the others.
TEST_P(ChannelOpsTest, PartsAreAppendedAndTakenBack) {
    for (const Layout& layout : {Layout{1, 1, 1, {1}}, Layout{3, 2, 5, {2, 1, 0, 4}},
                                 Layout{2, 16, 32, {1, 2}}, Layout{2, 19, 27, {1, 1}}}) {
        const size_t parts = layout.channels.size();
        Values whole_values = random_values(layout.whole().product(), 9);
        TensorF whole = image(layout.whole(), whole_values);
        std::vector<Values> values(parts);
        std::vector<TensorF> tensors(parts);
        std::vector<TensorF*> pointers;
        for (size_t i = 0; i < parts; ++i) {
            values[i] = random_values(layout.part(i).product(), 20 + i);
            tensors[i] = image(layout.part(i), values[i]);
            pointers.push_back(&tensors[i]);
            for (size_t k = 0; k < values[i].size(); ++k) {
                float& place = whole_values[layout.place(i, k)];
                place = blend(0.7f, values[i][k], -1.3f, place);
            }
        }
        Tensor<unsigned long> ptr(device());
        whole.channel_append(pointers, ptr, 0.7f, -1.3f);
        expect_same_bits(values_of(whole), whole_values);
        for (unsigned choice = 0; choice < 1u << parts; ++choice) {
            std::vector<bool> filters;
            for (size_t i = 0; i < parts; ++i) {
                filters.push_back(choice >> i & 1);
                for (size_t k = 0; filters[i] && k < values[i].size(); ++k) {
                    values[i][k] =
                        blend(0.3f, whole_values[layout.place(i, k)], 0.9f, values[i][k]);
                }
            }
            whole.channel_append_bp(pointers, filters, ptr, 0.3f, 0.9f);
            for (size_t i = 0; i < parts; ++i) {
                expect_same_bits(values_of(tensors[i]), values[i]);
            }
        }
    }
}

TEST_P(ChannelOpsTest, NothingToDo) {
    const Values values = random_values(2 * 3 * 2 * 2, 5);
    TensorF whole = image(Dim(2, 3, 2, 2), values), none(Dim(0, 3, 2, 2), device());
    Block<float> pitched(Dim(2, 1, 2, 2), device(), 1);
    Tensor<unsigned long> ptr(device());
    g_sync_flag = true;  // an empty grid would be refused
    whole.channel_append_bp({&pitched.tensor, &whole}, {false, false}, ptr, 1, 0);
    whole.channel_append_bp({}, {}, ptr, 1, 0);
    EXPECT_EQ(ptr.get_dim(), 0u);
    whole.channel_append({}, ptr, 1, 0);
    none.channel_append({&none}, ptr, 1, 0);
    none.channel_append_bp({&none}, {true}, ptr, 1, 0);
    g_sync_flag = false;
    EXPECT_EQ(values_of(whole), values);
}

using ChannelOpsFailureTest = GpuTest;

TEST_F(ChannelOpsFailureTest, Texts) {
    const std::string dims = failed("in.get_dim() == out.get_dim()");
    const std::string counts = failed("(dst_vec.size()) == (filters.size())");
    for (Device device : {CPU, GPU}) {
        const std::string null = device == CPU ? "Check failed: nullptr != " : "Check notnull: ";
        TensorF whole(Dim(2, 4, 3), device), slice(Dim(2, 1, 3), device);
        TensorF small(Dim(2, 1, 2), device), plane(Dim(2, 3), device), two(Dim(2, 2, 3), device);
        TensorF no_whole(nullptr, Dim(2, 4, 3), device), no_slice(nullptr, Dim(2, 1, 3), device);
        TensorF image(Dim(1, 1, 3, 4), device);
        Tensor<unsigned long> ptr(device), far(device == CPU ? GPU : CPU);
        expect_failures({
            // each fails a later test too
            {dims, [&] { plane.shrink(whole, 1, 4); }},
            {failed("in.get_size(dim) > index"), [&] { two.shrink(whole, 1, 4); }},
            {failed("out.get_size(dim) == 1u"), [&] { two.shrink(whole, 1, 3); }},
            {failed("out.get_element_count() * in.get_size(dim) == in.get_element_count()"),
             [&] { small.shrink(no_whole, 1, 3); }},
            {null + "in_ptr ", [&] { no_slice.shrink(no_whole, 1, 3); }},
            {null + "out_ptr ", [&] { no_slice.shrink(whole, 1, 3); }},
            {dims, [&] { whole.shrink_bp(plane, 1, 4); }},
            {failed("out.get_size(dim) > index"), [&] { whole.shrink_bp(two, 1, 4); }},
            {failed("in.get_size(dim) == 1u"), [&] { whole.shrink_bp(two, 1, 3); }},
            {failed("in.get_element_count() * out.get_size(dim) == out.get_element_count()"),
             [&] { no_whole.shrink_bp(small, 1, 3); }},
            {null + "in_ptr ", [&] { no_whole.shrink_bp(no_slice, 1, 3); }},
            {null + "out_ptr ", [&] { no_whole.shrink_bp(slice, 1, 3); }},
            {same_device("ptr", "dst"), [&] { image.channel_append({&image}, far, 1, 0); }},
            {same_device("ptr", "src"), [&] { image.channel_append_bp({&image}, {}, far, 1, 0); }},
            {counts + "1 vs 0", [&] { image.channel_append_bp({&image}, {}, ptr, 1, 0); }},
            {counts + "0 vs 2",
             [&] {
                 image.channel_append_bp({}, {true, true}, ptr, 1, 0);
             }},
        });
    }
    // A GPU refuses a pitch anywhere in the list, also where a filter is not set.
    const std::string pitch =
        failed("both_continue", "channel_append(gpu) just support contiguous tensor");
    TensorF whole(Dim(2, 3, 2, 2), GPU), part(Dim(2, 1, 2, 2), GPU);
    Block<float> block(Dim(2, 1, 2, 2), GPU, 1);
    Tensor<unsigned long> ptr(GPU);
    expect_failures({
        {pitch,
         [&] {
             whole.channel_append({&part, &block.tensor}, ptr, 1, 0);
         }},
        {pitch, [&] { block.tensor.channel_append({&part}, ptr, 1, 0); }},
        {pitch,
         [&] {
             whole.channel_append_bp({&part, &block.tensor}, {true, false}, ptr, 1, 0);
         }},
        {pitch, [&] { block.tensor.channel_append_bp({&part}, {true}, ptr, 1, 0); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
