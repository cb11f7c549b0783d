#include <algorithm>
#include <iterator>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class AudioConvTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, AudioConvTest, kDensePlaces, name_of_place);

// A feature layout and the groups of filter positions on it.
struct Layout {
    int frames, context, delta, fbank, filter;
    std::vector<int> start, end;
};

// One group, touching, overlapping, with gaps, a filter of one tap; sizes beyond a tile of 32.
const std::vector<Layout> kLayouts = {
    {3, 2, 3, 10, 4, {0}, {6}},
    {5, 1, 2, 12, 3, {0, 4}, {3, 9}},
    {33, 3, 1, 9, 2, {1, 3}, {4, 7}},
    {2, 1, 1, 20, 5, {2, 9}, {4, 10}},
    {40, 2, 2, 8, 1, {0, 5}, {3, 7}},
    {1, 11, 3, 40, 8, {0, 10, 20}, {15, 24, 32}},
    {1300, 11, 3, 40, 3, {0, 11}, {10, 37}},  // patches beyond the host's caches, of odd width
};

// Groups in ascending order of their start, anywhere.
Layout random_layout(std::mt19937& random) {
    const auto up_to = [&](int max) { return static_cast<int>(random() % (max + 1)); };
    const int filter = 1 + up_to(6), last = 5 + up_to(20);
    Layout layout{1 + up_to(40), 1 + up_to(2), 1 + up_to(2), last + filter, filter, {}, {}};
    for (int start = up_to(last); layout.start.size() < 4 && start <= last; start += up_to(5)) {
        layout.start.push_back(start);
        layout.end.push_back(start + up_to(last - start));
    }
    return layout;
}

// Positions beyond the last frequency are the caller's fault; no memory beyond is touched.
TEST_P(AudioConvTest, ErrorsBeyondTheLastFrequencyAreCutOff) {
    const int fbank = 4, filter = 2, temporal = 3, positions = 1000;
    const Tensor<int> start = make<int>({0}), end = make<int>({positions - 1});
    const Values errors(positions * filter * temporal, 1);
    TensorF out = guarded(Dim(1, fbank * temporal));
    out.zero();
    out.shrink_errors(make(Dim(positions, filter * temporal), errors), fbank, 1, 0, filter, start,
                      end);
    EXPECT_EQ(values_of(out), (Values{1, 2, 2, 2, 1, 2, 2, 2, 1, 2, 2, 2}));
}

// Patches are copies; errors sum onto the features that the patches read: the host adds to the
// output, a GPU replaces it.
TEST_P(AudioConvTest, PatchesAreCopiesAndErrorsSumOntoFeatures) {
    std::vector<Layout> layouts = kLayouts;
    std::mt19937 random(3);
    std::generate_n(std::back_inserter(layouts), 20, [&] { return random_layout(random); });
    for (const Layout& on : layouts) {
        const int temporal = on.context * on.delta, width = temporal * on.fbank,
                  patch = temporal * on.filter;
        std::vector<int> sources;  // of the elements of all patches
        for (size_t g = 0; g < on.start.size(); ++g) {
            for (int n = 0; n < on.frames; ++n) {
                for (int c = on.start[g]; c <= on.end[g]; ++c) {
                    for (int k = 0; k < patch; ++k) {
                        const int row = n * temporal + k % temporal;
                        sources.push_back(row * on.fbank + c + k / temporal);
                    }
                }
            }
        }
        const Dim all(on.frames, width), out_size(static_cast<int>(sources.size()) / patch, patch);
        const Values features = random_values(all.product(), 1),
                     errors = random_values(sources.size(), 2), old(features.size(), 3);
        Values patches;
        Doubles sums(features.size(), on_gpu() ? 0 : 3);
        for (size_t k = 0; k < sources.size(); ++k) {
            patches.push_back(features[sources[k]]);
            sums[sources[k]] += errors[k];
        }
        const Tensor<int> start = make(on.start), end = make(on.end);
        TensorF out = poisoned(out_size), back = make(all, old);
        out.expand_feat(make(all, features), on.fbank, on.delta, 0, on.filter, start, end);
        EXPECT_EQ(values_of(out), patches);
        back.shrink_errors(make(out_size, errors), on.fbank, on.delta, 0, on.filter, start, end);
        expect_close(values_of(back), sums, 1e-5, 1e-5);
    }
}

TEST_P(AudioConvTest, BiasIsAddedPerBlockAndItsGradientSummed) {
    for (int batch : {1, 3, 66}) {
        const int rows = 66, columns = 33, block = rows / batch;
        const Values bias = random_values(batch * columns, 5), x = random_values(rows * columns, 6);
        Doubles sums = widen(x), gradient(bias.size());
        for (int k = 0; k < rows * columns; ++k) {
            const int of = k / columns / block * columns + k % columns;
            sums[k] += 2.0 * bias[of];
            gradient[of] += x[k];
        }
        TensorF out = make(Dim(rows, columns), x), dbias = poisoned(Dim(batch, columns));
        const TensorF bias_rows = make(Dim(batch, columns), bias);
        dbias.audio_conv_batch_bias_bp(out, batch);
        expect_close(values_of(dbias), gradient, 1e-5, 1e-5);
        out.audio_conv_batch_bias(bias_rows, batch);
        out.audio_conv_batch_bias(bias_rows, batch);  // it always adds
        expect_close(values_of(out), sums, 1e-6, 1e-6);
    }
}

// The pooled matrix by its definition. Groups with leftovers, and smaller than the pool.
TEST_P(AudioConvTest, PoolingInsideGroups) {
    const std::vector<std::vector<int>> groupings = {{6}, {5, 4}, {3, 1, 7}, {2, 2, 9, 1}};
    for (int variant = 0; variant < 20; ++variant) {
        const std::vector<int>& sizes = groupings[variant / 5];
        const int pool = 1 + variant % 5, frames = 35, filters = 19;
        int rows = 0, length = 0;
        for (int size : sizes) {
            rows += size * frames;
            length += size / pool;
        }
        const Dim in_size(rows, filters), out_size(frames, filters * length);
        Values in = random_values(in_size.product(), 7, -3, 3), back(in.size(), 10),
               expected(out_size.product()), error = random_values(expected.size(), 8);
        std::vector<int> winners(expected.size());
        for (float& value : in) {
            value = std::floor(value);  // ties go to the lowest position
        }
        int base = 0, position = 0;
        for (int size : sizes) {
            for (int i = 0; i < frames; ++i) {
                for (int k = 0; k < size / pool * filters; ++k) {
                    const int p = k / filters, f = k % filters;
                    const int first = (base + i * size + p * pool) * filters + f,
                              j = (i * filters + f) * length + position + p;
                    int winner = first;
                    for (int at = first; at < first + pool * filters; at += filters) {
                        winner = in[at] > in[winner] ? at : winner;
                    }
                    winners[j] = (winner - first) / filters;
                    expected[j] = 2 * in[winner] + 0.5f * kPoison;
                    back[winner] = 2 * error[j] + 0.5f * 10;
                }
            }
            base += size * frames;
            position += size / pool;
        }
        // The host takes the number of filters from the matrices.
        const int filter_num = on_gpu() ? filters * static_cast<int>(sizes.size()) : -1;
        TensorF out = poisoned(out_size), dx = make(in_size, Values(in.size(), 10));
        Tensor<int> idx = poisoned<int>(out_size);
        out.max_pooling(make(in_size, in), make(sizes), filter_num, pool, idx, 2, 0.5);
        EXPECT_EQ(values_of(out), expected);
        EXPECT_EQ(values_of(idx), winners);
        dx.max_pooling_bp(make(out_size, error), make(sizes), filter_num, pool, idx, 2, 0.5);
        expect_close(values_of(dx), widen(back), 1e-6);
    }
}

using AudioConvFailureTest = FailureTest;

TEST_F(AudioConvFailureTest, Texts) {
    expect_failures({
        {same_device("conv_start"), [&] { out.expand_feat(far, 1, 1, 0, 1, far_ints, far_ints); }},
        {same_device("conv_end"), [&] { out.expand_feat(far, 1, 1, 0, 1, ints, far_ints); }},
        {same_device("feat"), [&] { out.expand_feat(far, 1, 1, 0, 1, ints, ints); }},
        {same_device("conv_start"), [&] { far.shrink_errors(in, 1, 1, 0, 1, ints, ints); }},
        {same_device("conv_end"), [&] { far.shrink_errors(in, 1, 1, 0, 1, far_ints, ints); }},
        {same_device("expand"), [&] { far.shrink_errors(in, 1, 1, 0, 1, far_ints, far_ints); }},
        {same_device("conv_size"), [&] { out.max_pooling(far, far_ints, 1, 1, far_ints); }},
        {same_device("max_idx"), [&] { out.max_pooling(far, ints, 1, 1, far_ints); }},
        {same_device("in"), [&] { out.max_pooling(far, ints, 1, 1, ints); }},
        {same_device("conv_size"), [&] { far.max_pooling_bp(in, ints, 1, 1, ints); }},
        {same_device("max_idx"), [&] { far.max_pooling_bp(in, far_ints, 1, 1, ints); }},
        {same_device("in"), [&] { far.max_pooling_bp(in, far_ints, 1, 1, far_ints); }},
        {failed("bias.get_h() == static_cast<index_t>(batch)"),
         [&] { out.audio_conv_batch_bias(in, 1); }},
        {failed("dbias.get_h() == static_cast<index_t>(batch)"),
         [&] { out.audio_conv_batch_bias_bp(in, 1); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
