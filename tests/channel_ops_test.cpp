#include "vorn/ops/channel_ops.h"

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class ChannelOpsTest : public DeviceTest {
protected:
    /// alpha * x + beta * old, rounded as the device does.
    float blend(float x, float old, float alpha, float beta) const {
        return on_gpu() ? std::fmaf(x, alpha, old * beta) : x * alpha + old * beta;
    }
};
INSTANTIATE_TEST_SUITE_P(Places, ChannelOpsTest, kDensePlaces, name_of_place);

// Every axis, with inner extents on both sides of the block, and more outer ones than the grid has.
TEST_P(ChannelOpsTest, ASliceGoesOutAndComesBack) {
    for (const Dim& size : {Dim(7), Dim(3, 4), Dim(2, 3, 4, 5), Dim(3, 2, 255), Dim(2, 3, 256),
                            Dim(2, 257, 2), Dim(40963, 2, 1), Dim(40961, 2, 3), Dim(5, 3, 1200)}) {
        const Values whole = random_values(size.product(), 3),
                     slice = random_values(whole.size(), 4);
        for (int dim = 0; dim < size.get_axis(); ++dim) {
            Dim slice_size = size;
            slice_size[dim] = 1;
            const size_t channel = size[dim],
                         inner = std::accumulate(size.begin() + dim + 1, size.end(), size_t{1},
                                                 std::multiplies<size_t>());
            const TensorF in = make(size, whole);
            const TensorF errors =
                make(slice_size, Values(slice.begin(), slice.begin() + slice_size.product()));
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
                out_bp.shrink_bp(errors, dim, index);
                out_bp.shrink_bp(errors, dim, index);  // overwrites
                EXPECT_EQ(values_of(out_bp), expected_bp);
            }
        }
    }
}

/// A concatenation in plain vectors: the place of element (n, c, k) of part i in the whole.
struct Layout {
    int num, height, width;
    std::vector<int> channels;

    int total() const { return std::accumulate(channels.begin(), channels.end(), 0); }
    Dim whole() const { return Dim(num, total(), height, width); }
    Dim part(size_t i) const { return Dim(num, channels[i], height, width); }
    size_t place(size_t i, size_t element) const {
        const size_t run = channels[i] * height * width;
        const size_t first = std::accumulate(channels.begin(), channels.begin() + i, 0);
        return (element / run * total() + first) * height * width + element % run;
    }
};

// Planes on both sides of the 512 threads of a block; an empty part takes no place.
const Layout kLayouts[] = {
    {1, 1, 1, {1}}, {3, 2, 5, {2, 1, 0, 4}}, {2, 16, 32, {1, 2}}, {2, 19, 27, {1, 1}}};

TEST_P(ChannelOpsTest, PartsAreAppended) {
    for (const Layout& layout : kLayouts) {
        const Values old = random_values(layout.whole().product(), 9);
        TensorF out = guarded(layout.whole());
        out.copy_from(old.data(), 0, old.size());
        Tensor<unsigned long> ptr(device());
        Values expected = old;
        std::vector<TensorF> parts;
        for (size_t i = 0; i < layout.channels.size(); ++i) {
            const Values values = random_values(layout.part(i).product(), 20 + i);
            for (size_t k = 0; k < values.size(); ++k) {
                float& place = expected[layout.place(i, k)];
                place = blend(values[k], place, 0.7f, -1.3f);
            }
            parts.push_back(make(layout.part(i), values));
        }
        std::vector<TensorF*> pointers;
        for (TensorF& part : parts) {
            pointers.push_back(&part);
        }
        out.channel_append(pointers, ptr, 0.7f, -1.3f);
        expect_same_bits(values_of(out), expected);
        if (on_gpu()) {  // the table of the latest call
            std::vector<unsigned long> table;
            for (const TensorF& part : parts) {
                table.push_back(reinterpret_cast<unsigned long>(part.get_ptr()));
            }
            table.push_back(0);
            for (int channels : layout.channels) {
                table.push_back(table.back() + channels);
            }
            EXPECT_EQ(values_of(ptr), table);
        }
    }
}

// Every choice of filters, and in particular a part that is left out between two others.
TEST_P(ChannelOpsTest, PartsWithAFilterAreTakenBack) {
    for (const Layout& layout : kLayouts) {
        const size_t parts = layout.channels.size();
        const Values whole = random_values(layout.whole().product(), 9);
        TensorF src = make(layout.whole(), whole);
        Tensor<unsigned long> ptr(device());
        for (unsigned choice = 0; choice < 1u << parts; ++choice) {
            std::vector<bool> filters;
            std::vector<TensorF> tensors;
            std::vector<TensorF*> pointers;
            std::vector<Values> expected;
            for (size_t i = 0; i < parts; ++i) {
                filters.push_back(choice >> i & 1);
                expected.push_back(random_values(layout.part(i).product(), 30 + i));
                tensors.push_back(guarded(layout.part(i)));
                tensors[i].copy_from(expected[i].data(), 0, expected[i].size());
                for (size_t k = 0; filters[i] && k < expected[i].size(); ++k) {
                    float& value = expected[i][k];
                    value = blend(whole[layout.place(i, k)], value, 0.7f, -1.3f);
                }
            }
            for (TensorF& tensor : tensors) {
                pointers.push_back(&tensor);
            }
            src.channel_append_bp(pointers, filters, ptr, 0.7f, -1.3f);
            for (size_t i = 0; i < parts; ++i) {
                expect_same_bits(values_of(tensors[i]), expected[i]);
            }
        }
    }
}

// A view of some columns of wider images, between guard columns.
struct Columns {
    explicit Columns(const Dim& size, Device device)
        : wide(Dim(size[0], size[1], size[2], size[3] + 5), device) {
        wide.set_element(777);
        view = wide.get_block(Dim(0, 0, 0, 2), Dim(size[0], size[1], size[2], size[3] + 2));
    }
    void expect_guards() {
        view.set_element(777);
        EXPECT_EQ(values_of(wide), Values(wide.count(), 777));
    }
    TensorF wide, view;
};

TEST(ChannelPitchTest, PitchedPartsGiveTheSameOnTheHost) {
    const Layout layout = kLayouts[1];
    const Dim size = layout.part(0), whole_size = Dim(3, 4, 2, 5);
    const Values a = random_values(size.product(), 1), b = random_values(size.product(), 2);
    const Values old = random_values(whole_size.product(), 3);
    for (int pitched = 1; pitched < 8; ++pitched) {  // which of the three tensors are
        Columns columns[] = {Columns(size, CPU), Columns(size, CPU), Columns(whole_size, CPU)};
        TensorF tensors[] = {dense(size, a, CPU), dense(size, b, CPU), dense(whole_size, old, CPU)};
        for (int i = 0; i < 3; ++i) {
            if (pitched >> i & 1) {
                columns[i].view.copy_from(tensors[i]);
                tensors[i] = columns[i].view;
            }
        }
        TensorF first = dense(size, a, CPU), second = dense(size, b, CPU);
        TensorF whole = dense(whole_size, old, CPU);
        Tensor<unsigned long> ptr(CPU);
        whole.channel_append({&first, &second}, ptr, 2, 0.3f);
        tensors[2].channel_append({&tensors[0], &tensors[1]}, ptr, 2, 0.3f);
        EXPECT_EQ(values_of(tensors[2]), values_of(whole));
        whole.channel_append_bp({&first, &second}, {true, true}, ptr, 0.9f, 3);
        tensors[2].channel_append_bp({&tensors[0], &tensors[1]}, {true, true}, ptr, 0.9f, 3);
        EXPECT_EQ(values_of(tensors[0]), values_of(first));
        EXPECT_EQ(values_of(tensors[1]), values_of(second));
        for (int i = 0; i < 3; ++i) {
            columns[i].expect_guards();
        }
    }
}

TEST_P(ChannelOpsTest, NothingToDo) {
    const Values values = random_values(2 * 3 * 2 * 2, 5);
    TensorF whole = make(Dim(2, 3, 2, 2), values), none(Dim(0, 3, 2, 2), device());
    Columns part(Dim(2, 1, 2, 2), device());
    Tensor<unsigned long> ptr(device());
    g_sync_flag = true;  // an empty grid would be refused
    whole.channel_append_bp({&part.view, &whole}, {false, false}, ptr, 1, 0);
    whole.channel_append_bp({}, {}, ptr, 1, 0);
    EXPECT_EQ(ptr.get_dim(), 0u);
    whole.channel_append({}, ptr, 1, 0);
    none.channel_append({&none}, ptr, 1, 0);
    none.channel_append_bp({&none}, {true}, ptr, 1, 0);
    g_sync_flag = false;
    part.expect_guards();
    EXPECT_EQ(values_of(whole), values);
}

using ChannelOpsFailureTest = GpuTest;

TEST_F(ChannelOpsFailureTest, Texts) {
    for (Device device : {CPU, GPU}) {
        const Device other = device == CPU ? GPU : CPU;
        TensorF whole(Dim(2, 4, 3), device), slice(Dim(2, 1, 3), device);
        TensorF small(Dim(2, 1, 2), device), plane(Dim(2, 3), device), two(Dim(2, 2, 3), device);
        TensorF no_whole(nullptr, Dim(2, 4, 3), device), no_slice(nullptr, Dim(2, 1, 3), device);
        const auto null = [=](const std::string& name) {
            return (device == CPU ? "Check failed: nullptr != " : "Check notnull: ") + name + " ";
        };
        const std::string dims = "Check failed: in.get_dim() == out.get_dim() ";
        TensorF images(Dim(1, 2, 3, 4), device), image(Dim(1, 1, 3, 4), device);
        Tensor<unsigned long> ptr(device), far(other);
        const std::string counts = "Check failed: (dst_vec.size()) == (filters.size()) ";
        expect_failures({
            // each of the next fails the following tests too, as far as it can
            {dims, [&] { plane.shrink(whole, 1, 4); }},
            {"Check failed: in.get_size(dim) > index ", [&] { two.shrink(whole, 1, 4); }},
            {"Check failed: out.get_size(dim) == 1u ", [&] { two.shrink(whole, 1, 3); }},
            {"Check failed: out.get_element_count() * in.get_size(dim) == in.get_element_count() ",
             [&] { small.shrink(no_whole, 1, 3); }},
            {null("in_ptr"), [&] { no_slice.shrink(no_whole, 1, 3); }},
            {null("out_ptr"), [&] { no_slice.shrink(whole, 1, 3); }},
            {kBadAxis, [&] { slice.shrink(whole, 3, 0); }},

            {dims, [&] { whole.shrink_bp(plane, 1, 4); }},
            {"Check failed: out.get_size(dim) > index ", [&] { whole.shrink_bp(two, 1, 4); }},
            {"Check failed: in.get_size(dim) == 1u ", [&] { whole.shrink_bp(two, 1, 3); }},
            {"Check failed: in.get_element_count() * out.get_size(dim) == out.get_element_count() ",
             [&] { no_whole.shrink_bp(small, 1, 3); }},
            {null("in_ptr"), [&] { no_whole.shrink_bp(no_slice, 1, 3); }},
            {null("out_ptr"), [&] { no_whole.shrink_bp(slice, 1, 3); }},

            {same_device("ptr", "dst"), [&] { images.channel_append({&image}, far, 1, 0); }},
            {same_device("ptr", "src"), [&] { images.channel_append_bp({&image}, {}, far, 1, 0); }},
            {counts + "1 vs 0", [&] { images.channel_append_bp({&image}, {}, ptr, 1, 0); }},
            {counts + "0 vs 2",
             [&] {
                 images.channel_append_bp({}, {true, false}, ptr, 1, 0);
             }},
        });
    }
    // A GPU refuses pitches anywhere in the list, also where a filter is not set.
    TensorF whole(Dim(2, 3, 2, 2), GPU), part(Dim(2, 1, 2, 2), GPU);
    Columns pitched(Dim(2, 1, 2, 2), GPU);
    Tensor<unsigned long> ptr(GPU);
    const std::string text =
        "Check failed: both_continue channel_append(gpu) just support contiguous tensor";
    expect_failures({
        {text,
         [&] {
             whole.channel_append({&part, &pitched.view}, ptr, 1, 0);
         }},
        {text, [&] { pitched.view.channel_append({&part}, ptr, 1, 0); }},
        {text,
         [&] {
             whole.channel_append_bp({&part, &pitched.view}, {true, false}, ptr, 1, 0);
         }},
        {text, [&] { pitched.view.channel_append_bp({&part}, {true}, ptr, 1, 0); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
