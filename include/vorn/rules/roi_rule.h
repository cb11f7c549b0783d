#ifndef VORN_RULES_ROI_RULE_H_
#define VORN_RULES_ROI_RULE_H_

#include <cmath>

#include "vorn/host_device.h"

/// Where the bins of a region of interest lie on a feature map, written once for host and device.
/// All real numbers are in single precision, and each operation rounds.
namespace vorn {
namespace func {

/// The cells, or bins, begin, ..., end - 1 of an axis.
struct Span {
    int begin, end;

    VORN_HD int size() const { return end - begin; }
    VORN_HD bool is_empty() const { return end <= begin; }
    VORN_HD bool has(int x) const { return begin <= x && x < end; }
};

/// The part of begin, ..., end - 1 within 0, ..., extent - 1. It may be empty.
VORN_HD inline Span clipped_span(int begin, int end, int extent) {
    begin = begin < 0 ? 0 : begin;
    end = end < 0 ? 0 : end;
    return {begin > extent ? extent : begin, end > extent ? extent : end};
}

/// One axis of a region of ROI pooling: the cells start, ..., end, both included, or the cell
/// `start` alone if they are reversed. Coordinates are scaled, then rounded.
struct RoiAxis {
    int start, end;
    float bin_size;  ///< cells of one bin

    VORN_HD RoiAxis(float first, float last, float spatial_scale, int bins)
        : start(static_cast<int>(roundf(first * spatial_scale))),
          end(static_cast<int>(roundf(last * spatial_scale))) {
        const int size = end - start + 1;
        bin_size = static_cast<float>(size > 1 ? size : 1) / static_cast<float>(bins);
    }

    /// The cells of a bin. Neighbours may share one, and the last bin may reach one cell beyond
    /// `end`, where bin_size is rounded up.
    VORN_HD Span cells_of(int bin, int extent) const {
        return clipped_span(start + static_cast<int>(floorf(bin * bin_size)),
                            start + static_cast<int>(ceilf((bin + 1) * bin_size)), extent);
    }

    /// The bins in which the backward form looks for a cell.
    VORN_HD Span bins_of(int cell, int bins) const {
        if (cell < start || cell > end) {
            return {0, 0};
        }
        return clipped_span(static_cast<int>(floorf((cell - start) / bin_size)),
                            static_cast<int>(ceilf((cell - start + 1) / bin_size)), bins);
    }
};

/// One axis of a region of position-sensitive pooling, whose edges lie between cells. Coordinates
/// are rounded, then scaled. `is_fused` tells whether an edge is one fused multiply-add: it is on a
/// GPU, and bins may differ by a cell from those of the host.
template <bool is_fused>
struct PSRoiAxis {
    float start;
    float bin_size;  ///< cells of one bin

    VORN_HD PSRoiAxis(float first, float last, float spatial_scale, int bins)
        : start(roundf(first) * spatial_scale) {
        const float size = (roundf(last) + 1) * spatial_scale - start;
        bin_size = (size > 0.1f ? size : 0.1f) / bins;
    }

    /// The lower edge of a bin.
    VORN_HD float edge(int bin) const {
        return is_fused ? fmaf(static_cast<float>(bin), bin_size, start) : bin * bin_size + start;
    }

    /// The cells that a bin touches.
    VORN_HD Span cells_of(int bin, int extent) const {
        return clipped_span(static_cast<int>(floorf(edge(bin))),
                            static_cast<int>(ceilf(edge(bin + 1))), extent);
    }
};

/// A region from its record of kRoiFields floats: image, first column, first row, last column and
/// last row.
template <typename Axis>
struct Roi {
    int image;
    Axis h, w;

    VORN_HD Roi(const float* record, float spatial_scale, int pooled_height, int pooled_width)
        : image(static_cast<int>(record[0])),
          h(record[2], record[4], spatial_scale, pooled_height),
          w(record[1], record[3], spatial_scale, pooled_width) {}
};

constexpr int kRoiFields = 5;

}  // namespace func
}  // namespace vorn

#endif  // VORN_RULES_ROI_RULE_H_
