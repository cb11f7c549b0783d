#include <algorithm>
#include <cfloat>
#include <tuple>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

class RoiPoolingTest : public DeviceTest {
protected:
    Tensor<float> records(const Values& rois) {
        return make(Dim(static_cast<int>(rois.size() / 5), 5, 1, 1), rois);
    }
};
INSTANTIATE_TEST_SUITE_P(Places, RoiPoolingTest, kDensePlaces, name_of_place);

struct Range {
    int begin, end;

    bool has(int x) const { return begin <= x && x < end; }
    bool operator!=(const Range& o) const { return begin != o.begin || end != o.end; }
};

Range clipped(double begin, double end, int extent) {
    const auto clip = [&](double x) {
        return static_cast<int>(std::min<double>(std::max(x, 0.0), extent));
    };
    return {clip(begin), clip(end)};
}

/// The one rounding of a step that is exact in double, as all steps below are.
double single(double x) {
    return static_cast<float>(x);
}

/// One axis of ROI pooling: whole cells start, ..., end.
struct WholeCells {
    int start, end;
    double bin_size;

    WholeCells(float first, float last, float scale, int bins)
        : start(std::lround(single(1.0 * first * scale))),
          end(std::lround(single(1.0 * last * scale))),
          bin_size(single(1.0 * std::max(end - start + 1, 1) / bins)) {}
    Range cells_of(int bin, int extent) const {
        return clipped(start + std::floor(single(bin * bin_size)),
                       start + std::ceil(single((bin + 1) * bin_size)), extent);
    }
    Range bins_of(int cell, int bins) const {
        return clipped(std::floor(single((cell - start) / bin_size)),
                       std::ceil(single((cell - start + 1) / bin_size)), bins);
    }
};

/// One axis of position-sensitive pooling: edges between cells.
Range touched_cells(float first, float last, float scale, int bins, int bin, int extent,
                    bool fused) {
    const double start = single(std::lround(first) * 1.0 * scale),
                 end = single((std::lround(last) + 1.0) * scale),
                 bin_size = single(std::max<double>(single(end - start), 0.1f) / bins);
    const auto edge = [&](int b) {
        return fused ? single(b * bin_size + start) : single(single(b * bin_size) + start);
    };
    return clipped(std::floor(edge(bin)), std::ceil(edge(bin + 1)), extent);
}

/// Regions in, across and outside a map of height x width, some of them reversed, with coordinates
/// in halves of a cell.
Values random_rois(int count, int images, int height, int width, float scale, unsigned seed) {
    std::mt19937 random(seed);
    const auto coordinate = [&](int extent) {
        return (static_cast<int>(random() % (2 * extent + 16)) - 8) / (2 * scale);
    };
    Values rois;
    for (int n = 0; n < count; ++n) {
        Values roi = {random() % images + 0.75f, coordinate(width), coordinate(height),
                      coordinate(width), coordinate(height)};
        if (n % 8 != 0) {
            std::tie(roi[1], roi[3]) = std::minmax({roi[1], roi[3]});
            std::tie(roi[2], roi[4]) = std::minmax({roi[2], roi[4]});
        }
        rois.insert(rois.end(), roi.begin(), roi.end());
    }
    return rois;
}

struct Shape {
    int height, width, bins_h, bins_w;
    float scale;
};
const std::vector<Shape> kShapes = {
    {9, 13, 7, 7, 1}, {31, 34, 11, 22, 0.0625f}, {6, 5, 2, 3, 0.3f}, {4, 40, 1, 1, 1}};

// Against the definition, bin by bin, bit for bit; channels on both sides of a block of the host.
TEST_P(RoiPoolingTest, MaximaAndTheirGradient) {
    constexpr float kAlpha = 0.7f, kBeta = 0.3f;
    constexpr int kImages = 3;
    for (int variant = 0; variant < 8; ++variant) {
        const Shape& s = kShapes[variant % 4];
        const int channels = variant < 4 ? 35 : 3, rois = variant < 4 ? 6 : 20;
        const int plane = s.height * s.width, grid = s.bins_h * s.bins_w;
        const Dim map_size(kImages, channels, s.height, s.width),
            grid_size(rois, channels, s.bins_h, s.bins_w);
        const Values records_of = random_rois(rois, kImages, s.height, s.width, s.scale, variant);
        Values data = random_values(map_size.product(), 1, -3, 3);
        for (float& x : data) {
            // Ties of all kinds, and what no maximum is above.
            x = std::floor(x) == 0 ? std::copysign(0.0f, x - 0.5f) : std::floor(x);
            x = x == -3 ? kNan : x == -2 ? -kInf : x;
        }
        std::fill_n(data.begin(), plane, -FLT_MAX);
        const Values old = random_values(grid_size.product(), 2),
                     diff = random_values(grid_size.product(), 3),
                     old_back = random_values(data.size(), 4);

        Values expected, gradient(data.size());
        std::vector<int> places, targets;  // maxima, and any cells for the backward form
        std::mt19937 random(5);
        for (int n = 0; n < rois; ++n) {
            const float* roi = &records_of[5 * n];
            const int image = static_cast<int>(roi[0]);
            const WholeCells y(roi[2], roi[4], s.scale, s.bins_h),
                x(roi[1], roi[3], s.scale, s.bins_w);
            for (int k = 0; k < channels * grid; ++k) {
                const int c = k / grid, ph = k / s.bins_w % s.bins_h, pw = k % s.bins_w;
                const Range rows = y.cells_of(ph, s.height), cols = x.cells_of(pw, s.width);
                const int first = (image * channels + c) * plane;
                const bool empty = rows.end <= rows.begin || cols.end <= cols.begin;
                float max = empty ? 0 : -FLT_MAX;
                int place = -1;
                for (int cell = 0; cell < plane; ++cell) {
                    if (rows.has(cell / s.width) && cols.has(cell % s.width) &&
                        data[first + cell] > max) {
                        max = data[first + cell];
                        place = cell;
                    }
                }
                expected.push_back(blend(kAlpha, max, kBeta, old[expected.size()]));
                places.push_back(place);
                const int any = static_cast<int>(random() % (plane + 4)) - 2;
                targets.push_back(random() % 4 == 0 ? any : place);
            }
        }
        const ROIPoolingDesc desc(s.bins_h, s.bins_w, s.scale);
        TensorF out = make(grid_size, old);
        Tensor<int> max_idx = poisoned<int>(grid_size);
        out.roi_pool_fwd(desc, make(map_size, data), records(records_of), max_idx, kAlpha, kBeta);
        expect_same_bits(values_of(out), expected);
        EXPECT_EQ(values_of(max_idx), places);

        // A cell gathers from the regions in order, of those that hold it, and their bins in order.
        for (int i = 0; i < map_size.product(); ++i) {
            const int cell = i % plane, c = i / plane % channels, image = i / plane / channels;
            const int h = cell / s.width, w = cell % s.width;
            for (int n = 0; n < rois; ++n) {
                const float* roi = &records_of[5 * n];
                const WholeCells y(roi[2], roi[4], s.scale, s.bins_h),
                    x(roi[1], roi[3], s.scale, s.bins_w);
                if (static_cast<int>(roi[0]) != image || h < y.start || h > y.end || w < x.start ||
                    w > x.end) {
                    continue;
                }
                const Range rows = y.bins_of(h, s.bins_h), cols = x.bins_of(w, s.bins_w);
                for (int ph = rows.begin; ph < rows.end; ++ph) {
                    for (int pw = cols.begin; pw < cols.end; ++pw) {
                        const int bin = (n * channels + c) * grid + ph * s.bins_w + pw;
                        gradient[i] += targets[bin] == cell ? diff[bin] : 0;
                    }
                }
            }
            gradient[i] = blend(kAlpha, gradient[i], kBeta, old_back[i]);
        }
        TensorF back = make(map_size, old_back);
        back.roi_pool_bp(desc, make(grid_size, diff), records(records_of), make(grid_size, targets),
                         kAlpha, kBeta);
        expect_same_bits(values_of(back), gradient);
    }
}

// Bins worked out by hand. On a map of ascending values the place of the maximum is a bin's last
// cell, on one of descending values its first.
TEST_P(RoiPoolingTest, BinsOfSingleRegions) {
    struct Case {
        Values roi;  // without the image
        int bins;    // along each axis
        std::vector<Range> rows, cols;
    };
    const Range none = {0, 0};
    const std::vector<Case> cases = {
        {{2, 3, 2, 3}, 2, {{3, 4}, {3, 4}}, {{2, 3}, {2, 3}}},   // half a cell for each bin
        {{-0.5f, 2.5f, 2.5f, 3.4f}, 1, {{3, 4}}, {{0, 4}}},      // halves go away from zero
        {{5, 5, 2, 2}, 2, {{5, 6}, {5, 6}}, {{5, 6}, {5, 6}}},   // reversed: one cell
        {{0, 1, 4, 5}, 2, {{1, 4}, {3, 6}}, {{0, 3}, {2, 5}}},   // bins overlap
        {{6, 4, 9, 7}, 2, {{4, 6}, {6, 8}}, {{6, 8}, {8, 10}}},  // reaches out of the map
        {{-9, -9, -5, -5}, 1, {none}, {none}},
        {{50, 1, 60, 2}, 1, {none}, {none}},
    };
    constexpr int kHeight = 7, kWidth = 9;
    const Dim map_size(1, 1, kHeight, kWidth);
    for (const Case& on : cases) {
        const Dim grid_size(1, 1, on.bins, on.bins);
        const Values roi = {0, on.roi[0], on.roi[1], on.roi[2], on.roi[3]};
        for (int step : {1, -1}) {
            TensorF out = make(grid_size, Values(on.bins * on.bins, 8));
            Tensor<int> max_idx = poisoned<int>(grid_size);
            const TensorF data = make(map_size, counting<float>(kHeight * kWidth, 500, step));
            const ROIPoolingDesc desc(on.bins, on.bins, 1);
            out.roi_pool_fwd(desc, data, records(roi), max_idx, 1, 0.5);
            Values expected;
            std::vector<int> places;
            for (Range rows : on.rows) {
                for (Range cols : on.cols) {
                    const int last_row = std::min(rows.end, kHeight) - 1,
                              last_col = std::min(cols.end, kWidth) - 1;
                    const bool empty = last_row < rows.begin || last_col < cols.begin;
                    const int place =
                        step > 0 ? last_row * kWidth + last_col : rows.begin * kWidth + cols.begin;
                    places.push_back(empty ? -1 : place);
                    expected.push_back(empty ? 4 : 504 + step * place);
                }
            }
            EXPECT_EQ(values_of(max_idx), places) << on.roi[0];
            EXPECT_EQ(values_of(out), expected);
        }
    }
}

// 29 cells make 11 bins of 2.63636374 cells, rounded up: the last ends a cell beyond the region,
// and the gradient of a maximum there is lost.
TEST_P(RoiPoolingTest, LastBinBeyondTheRegion) {
    const ROIPoolingDesc desc(1, 11, 1);
    const Dim map_size(1, 1, 1, 40), grid_size(1, 1, 1, 11);
    const TensorF rois = records({0, 0, 0, 28, 0});
    TensorF out = poisoned(grid_size), back = poisoned(map_size);
    Tensor<int> max_idx = poisoned<int>(grid_size);
    out.roi_pool_fwd(desc, make(map_size, counting<float>(40, 1)), rois, max_idx);
    EXPECT_EQ(values_of(max_idx), std::vector<int>({2, 5, 7, 10, 13, 15, 18, 21, 23, 26, 29}));
    back.roi_pool_bp(desc, out, rois, max_idx);
    EXPECT_EQ(values_of(back)[26], 27);
    EXPECT_EQ(values_of(back)[29], 0);
}

// Against the definition. An edge is rounded twice on the host and once on a GPU, and a GPU takes
// grids that are no multiple of the groups. The backward form obeys the channels that it is given.
TEST_P(RoiPoolingTest, PositionSensitiveAverages) {
    struct Grid {
        int group, bins_h, bins_w;
    };
    int told_apart = 0;
    for (const Grid& g :
         std::vector<Grid>{{7, 7, 7}, {1, 1, 1}, {3, 3, 3}, {7, 14, 14}, {3, 5, 2}}) {
        if (!on_gpu() && (g.bins_h != g.group || g.bins_w != g.group)) {
            continue;
        }
        const int height = 21, width = 17, plane = height * width, depth = 2, rois = 40, images = 2;
        const int channels = depth * g.group * g.group, grid = g.bins_h * g.bins_w;
        const Dim map_size(images, channels, height, width),
            grid_size(rois, depth, g.bins_h, g.bins_w);
        for (float scale : {1.0f, 0.0625f, 0.3f}) {
            const Values regions = random_rois(rois, images, height, width, scale, 9);
            const Values data = random_values(map_size.product(), 10),
                         diff = random_values(grid_size.product(), 11);
            Values expected;
            Doubles gradient(data.size(), 5);
            std::vector<int> channel_of, any_channel;
            for (int i = 0; i < grid_size.product(); ++i) {
                const int n = i / grid / depth, d = i / grid % depth, ph = i / g.bins_w % g.bins_h,
                          pw = i % g.bins_w;
                const float* roi = &regions[5 * n];
                const auto range = [&](int axis, bool fused) {
                    return touched_cells(roi[1 + axis], roi[3 + axis], scale,
                                         axis ? g.bins_h : g.bins_w, axis ? ph : pw,
                                         axis ? height : width, fused);
                };
                const Range rows = range(1, on_gpu()), cols = range(0, on_gpu());
                told_apart += rows != range(1, !on_gpu()) || cols != range(0, !on_gpu());
                // Exact: g.group * pw / g.bins_w in whole numbers.
                const int c =
                    (d * g.group + g.group * ph / g.bins_h) * g.group + g.group * pw / g.bins_w;
                const int any = (c + n) % channels;
                const int image = static_cast<int>(roi[0]) * channels;
                const int area =
                    std::max(rows.end - rows.begin, 0) * std::max(cols.end - cols.begin, 0);
                float sum = 0;
                for (int h = rows.begin; h < rows.end; ++h) {
                    for (int w = cols.begin; w < cols.end; ++w) {
                        sum += data[(image + c) * plane + h * width + w];
                        gradient[(image + any) * plane + h * width + w] += 2.0 * diff[i] / area;
                    }
                }
                expected.push_back(area == 0 ? 0 : sum / area);
                channel_of.push_back(c);
                any_channel.push_back(any);
            }
            const PSROIPoolingDesc desc(-1, g.group, scale);
            TensorF out = poisoned(grid_size), back = make(map_size, Values(data.size(), 5));
            Tensor<int> map_channel = poisoned<int>(grid_size);
            out.psroi_pool_fwd(desc, make(map_size, data), records(regions), map_channel);
            expect_same_bits(values_of(out), expected);
            EXPECT_EQ(values_of(map_channel), channel_of);
            map_channel = make(grid_size, any_channel);
            for (int twice = 0; twice < 2; ++twice) {
                back.psroi_pool_bp(desc, make(grid_size, diff), records(regions), map_channel);
            }
            expect_close(values_of(back), gradient, 1e-5, 1e-5);
        }
    }
    EXPECT_GT(told_apart, 0);
}

TEST_P(RoiPoolingTest, NoRegions) {
    const Dim none(0, 2, 3, 3), map_size(1, 2, 4, 4), wide(1, 18, 4, 4);
    TensorF out(none, device()), back = make(map_size, Values(32, 2)),
                                 sum = make(wide, Values(288, 2));
    Tensor<int> idx(none, device());
    const TensorF rois(Dim(0, 5, 1, 1), device());
    out.roi_pool_fwd(ROIPoolingDesc(3, 3, 1), back, rois, idx);
    back.roi_pool_bp(ROIPoolingDesc(3, 3, 1), out, rois, idx, 1, 0.5);
    EXPECT_EQ(values_of(back), Values(32, 1));
    out.psroi_pool_fwd(PSROIPoolingDesc(2, 3, 1), sum, rois, idx);
    sum.psroi_pool_bp(PSROIPoolingDesc(2, 3, 1), out, rois, idx);
    EXPECT_EQ(values_of(sum), Values(288, 2));
}

using RoiPoolingFailureTest = FailureTest;

TEST_F(RoiPoolingFailureTest, Texts) {
    const Dim one(1, 1, 1, 1);
    TensorF h(one), d = far_of(one), two_axes(Dim(1, 5)), rois(Dim(2, 5, 1, 1));
    Tensor<int> hi(one), di = far_of<int>(one);
    const ROIPoolingDesc roi;
    const PSROIPoolingDesc ps;
    const std::string scalars = failed("alpha == 1.0f && beta == 0.0f");
    const auto pool_image = [&](float image) {
        rois.get_ptr()[5] = image;
        h.roi_pool_fwd(roi, h, rois, hi);
    };
    expect_failures({
        {same_device("rois"), [&] { h.roi_pool_fwd(roi, d, d, di); }},
        {same_device("max_idx"), [&] { h.roi_pool_fwd(roi, d, h, di); }},
        {same_device("data"), [&] { h.roi_pool_fwd(roi, d, h, hi); }},
        {same_device("rois"), [&] { d.roi_pool_bp(roi, h, h, hi); }},
        {same_device("max_idx"), [&] { d.roi_pool_bp(roi, h, d, hi); }},
        {same_device("diff"), [&] { d.roi_pool_bp(roi, h, d, di); }},
        {same_device("rois"), [&] { h.psroi_pool_fwd(ps, d, d, di, 0.5); }},
        {same_device("map_channel"), [&] { h.psroi_pool_fwd(ps, d, h, di, 0.5); }},
        {same_device("data"), [&] { h.psroi_pool_fwd(ps, d, h, hi, 0.5); }},
        {scalars, [&] { h.psroi_pool_fwd(ps, h, h, hi, 0.5); }},
        {scalars, [&] { d.psroi_pool_fwd(ps, d, d, di, 1, 1); }},
        {same_device("rois"), [&] { d.psroi_pool_bp(ps, h, h, hi, 1, 1); }},
        {same_device("map_channel"), [&] { d.psroi_pool_bp(ps, h, d, hi, 1, 1); }},
        {same_device("diff"), [&] { d.psroi_pool_bp(ps, h, d, di, 1, 1); }},
        {scalars, [&] { h.psroi_pool_bp(ps, h, h, hi, 1, 1); }},
        {scalars, [&] { d.psroi_pool_bp(ps, d, d, di, 0.5); }},
        {failed("(roi_batch_ind) >= (0)"), [&] { pool_image(-1); }},
        {failed("(roi_batch_ind) < (batch_size)"), [&] { pool_image(1); }},
        {kBadAxis, [&] { h.roi_pool_fwd(roi, h, two_axes, hi); }},
        {kBadAxis, [&] { h.roi_pool_fwd(roi, two_axes, rois, hi); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
