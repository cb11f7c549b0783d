#include <gtest/gtest.h>

#include <vector>

#include "device_test.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace {

using test::expect_close;
using test::expect_failures;
using test::random_values;
using test::same_device;
using test::values_of;

class AudioConvTest : public test::DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, AudioConvTest, test::kDensePlaces, test::name_of_place);

// A feature layout and the groups of filter positions on it.
struct Layout {
    int frames, context, delta, fbank, filter;
    std::vector<int> start, end;

    int temporal() const { return context * delta; }
    int width() const { return temporal() * fbank; }
    int patch() const { return temporal() * filter; }
    int positions() const {
        int sum = 0;
        for (size_t g = 0; g < start.size(); ++g) {
            sum += end[g] - start[g] + 1;
        }
        return sum;
    }
    Dim features() const { return Dim(frames, width()); }
    Dim patches() const { return Dim(frames * positions(), patch()); }

    /// Calls f(row, column of the patch matrix, frame, feature column) for every patch element.
    template <typename F>
    void for_each_element(F f) const {
        int row = 0;
        for (size_t g = 0; g < start.size(); ++g) {
            for (int n = 0; n < frames; ++n) {
                for (int c = start[g]; c <= end[g]; ++c, ++row) {
                    for (int tap = 0; tap < filter; ++tap) {
                        for (int t = 0; t < temporal(); ++t) {
                            f(row, tap * temporal() + t, n, t * fbank + c + tap);
                        }
                    }
                }
            }
        }
    }
};

// One group, touching, overlapping, with gaps, a filter of one tap; sizes beyond a tile of 32.
const Layout kLayouts[] = {
    {3, 2, 3, 10, 4, {0}, {6}},
    {5, 1, 2, 12, 3, {0, 4}, {3, 9}},
    {33, 3, 1, 9, 2, {1, 3}, {4, 7}},
    {2, 1, 1, 20, 5, {2, 9}, {4, 10}},
    {40, 2, 2, 8, 1, {0, 5}, {3, 7}},
    {1, 11, 3, 40, 8, {0, 10, 20}, {15, 24, 32}},
    {1300, 11, 3, 40, 3, {0, 11}, {10, 37}},  // patches beyond the host's caches, of odd width
};

// Patches are copies; errors sum onto the features that the patches read: the host adds to the
// output, a GPU replaces it.
TEST_P(AudioConvTest, PatchesAreCopiesAndErrorsSumOntoFeatures) {
    for (const Layout& layout : kLayouts) {
        const std::vector<float> features = random_values(layout.features().product(), 1),
                                 errors = random_values(layout.patches().product(), 2),
                                 old(features.size(), 3);
        std::vector<float> patches(errors.size());
        std::vector<double> sums(features.size(), on_gpu() ? 0 : old[0]);
        layout.for_each_element([&](int row, int column, int frame, int feature) {
            const int patch = row * layout.patch() + column;
            patches[patch] = features[frame * layout.width() + feature];
            sums[frame * layout.width() + feature] += errors[patch];
        });
        const Tensor<int> start = make(layout.start), end = make(layout.end);
        Tensor<float> out = poisoned(layout.patches()), back = make(layout.features(), old);
        out.expand_feat(make(layout.features(), features), layout.fbank, layout.delta, 0,
                        layout.filter, start, end);
        EXPECT_EQ(values_of(out), patches);
        back.shrink_errors(make(layout.patches(), errors), layout.fbank, layout.delta, 0,
                           layout.filter, start, end);
        expect_close(values_of(back), sums, 1e-5, 1e-5);
    }
}

TEST_P(AudioConvTest, BiasIsAddedPerBlockAndItsGradientSummed) {
    for (int batch : {1, 3, 66}) {
        const int rows = 66, columns = 33, block = rows / batch;
        const std::vector<float> bias = random_values(batch * columns, 5);
        const std::vector<float> x = random_values(rows * columns, 6);
        std::vector<double> sums(x.begin(), x.end()), gradient(bias.size());
        for (int r = 0; r < rows; ++r) {
            for (int c = 0; c < columns; ++c) {
                sums[r * columns + c] += 2.0 * bias[r / block * columns + c];
                gradient[r / block * columns + c] += x[r * columns + c];
            }
        }
        Tensor<float> out = make(Dim(rows, columns), x);
        const Tensor<float> bias_rows = make(Dim(batch, columns), bias);
        out.audio_conv_batch_bias(bias_rows, batch);
        out.audio_conv_batch_bias(bias_rows, batch);  // it always adds
        expect_close(values_of(out), sums, 1e-6, 1e-6);

        Tensor<float> dbias = poisoned(Dim(batch, columns));
        dbias.audio_conv_batch_bias_bp(make(Dim(rows, columns), x), batch);
        expect_close(values_of(dbias), gradient, 1e-5, 1e-5);
    }
}

// The pooled matrix by its definition. Groups with leftovers, and smaller than the pool.
TEST_P(AudioConvTest, PoolingInsideGroups) {
    const std::vector<std::vector<int>> groupings = {{6}, {5, 4}, {3, 1, 7}, {2, 2, 9, 1}};
    for (const std::vector<int>& sizes : groupings) {
        for (int pool : {1, 2, 3, 4, 5}) {
            const int frames = 35, filters = 19;
            int rows = 0, length = 0;
            for (int size : sizes) {
                rows += size * frames;
                length += size / pool;
            }
            std::vector<float> in = random_values(rows * filters, 7, -3, 3);
            for (float& value : in) {
                value = std::floor(value);  // ties go to the lowest position
            }
            const int width = filters * length;
            std::vector<float> expected(frames * width), error = random_values(frames * width, 8);
            std::vector<int> winners(frames * width);
            std::vector<float> back(in.size(), 10);
            for (int i = 0; i < frames; ++i) {
                for (int f = 0; f < filters; ++f) {
                    int position = 0, base = 0;
                    for (int size : sizes) {
                        for (int p = 0; p < size / pool; ++p, ++position) {
                            const int row = base + i * size + p * pool;
                            const int j = i * width + f * length + position;
                            int best = 0;
                            for (int t = 1; t < pool; ++t) {
                                if (in[(row + t) * filters + f] > in[(row + best) * filters + f]) {
                                    best = t;
                                }
                            }
                            const int winner = (row + best) * filters + f;
                            winners[j] = best;
                            expected[j] = 2 * in[winner] + 0.5f * -12345;
                            back[winner] = 2 * error[j] + 0.5f * 10;
                        }
                        base += size * frames;
                    }
                }
            }
            const int filter_num = filters * static_cast<int>(sizes.size());
            Tensor<float> out = poisoned(Dim(frames, width));
            Tensor<int> idx = poisoned<int>(Dim(frames, width));
            out.max_pooling(make(Dim(rows, filters), in), make(sizes), filter_num, pool, idx, 2,
                            0.5);
            EXPECT_EQ(values_of(out), expected);
            EXPECT_EQ(values_of(idx), winners);
            Tensor<float> dx = make(Dim(rows, filters), std::vector<float>(in.size(), 10));
            dx.max_pooling_bp(make(Dim(frames, width), error), make(sizes), filter_num, pool, idx,
                              2, 0.5);
            expect_close(values_of(dx), test::widen(back), 1e-6);
        }
    }
}

using AudioConvFailureTest = test::GpuTest;

TEST_F(AudioConvFailureTest, Texts) {
    Tensor<float> h(Dim(2, 2), CPU), d(Dim(2, 2), GPU);
    Tensor<int> hi(Dim(1), CPU), di(Dim(1), GPU);
    expect_failures({
        {same_device("conv_start"), [&] { h.expand_feat(d, 1, 1, 0, 1, di, di); }},
        {same_device("conv_end"), [&] { h.expand_feat(d, 1, 1, 0, 1, hi, di); }},
        {same_device("feat"), [&] { h.expand_feat(d, 1, 1, 0, 1, hi, hi); }},
        {same_device("conv_start"), [&] { d.shrink_errors(h, 1, 1, 0, 1, hi, hi); }},
        {same_device("conv_end"), [&] { d.shrink_errors(h, 1, 1, 0, 1, di, hi); }},
        {same_device("expand"), [&] { d.shrink_errors(h, 1, 1, 0, 1, di, di); }},
        {same_device("conv_size"), [&] { h.max_pooling(d, di, 1, 1, di); }},
        {same_device("max_idx"), [&] { h.max_pooling(d, hi, 1, 1, di); }},
        {same_device("in"), [&] { h.max_pooling(d, hi, 1, 1, hi); }},
        {same_device("conv_size"), [&] { d.max_pooling_bp(h, hi, 1, 1, hi); }},
        {same_device("max_idx"), [&] { d.max_pooling_bp(h, di, 1, 1, hi); }},
        {same_device("in"), [&] { d.max_pooling_bp(h, di, 1, 1, di); }},
        {"Check failed: bias.get_h() == static_cast<index_t>(batch) ",
         [&] { h.audio_conv_batch_bias(h, 1); }},
        {"Check failed: dbias.get_h() == static_cast<index_t>(batch) ",
         [&] { h.audio_conv_batch_bias_bp(h, 1); }},
    });
}

}  // namespace
}  // namespace vorn
