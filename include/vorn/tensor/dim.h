#ifndef VORN_TENSOR_DIM_H_
#define VORN_TENSOR_DIM_H_

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iosfwd>
#include <string>
#include <type_traits>
#include <vector>

#include "vorn/base.h"
#include "vorn/logging.h"

namespace vorn {

/// Up to five `int` axes, outermost first: a shape, a coordinate, or a list of per-axis strides.
///
/// Memory order is row-major. Counted from the end, the axes are width, height, channels and
/// batch, so an image tensor is `n, c, h, w` and a matrix `h, w`. Wherever an axis index is taken,
/// a negative one counts from the end: -1 is width. An index outside [-axes, axes) aborts with
/// "error axis index.".
struct Dim {
    static constexpr int kMaxDim = 5;

    int dims[kMaxDim];  ///< Extents; entries at and beyond `dimension` have no meaning.
    int dimension;      ///< Axes in use, 0 to kMaxDim.

    Dim() : dimension(0) {}

    /// One axis per argument, each an integer narrowed to int. More than kMaxDim abort.
    template <typename Head, typename... Tail,
              typename = std::enable_if_t<std::is_integral<Head>::value>>
    Dim(Head head, Tail... tail) : dimension(0) {
        init_dim(head, tail...);
    }

    /// One axis per entry. More than kMaxDim abort.
    Dim(const std::vector<int>& _dims);

    /// The coordinate of linear position `idx` in a layout of shape `size` with `stride` elements
    /// from row to row: the inverse of `offset`. Aborts unless `idx` fits an int and `size` has
    /// axes.
    Dim(const Dim& size, index_t stride, index_t idx);

    /// The same for a dense layout.
    Dim(const Dim& size, index_t idx) : Dim(size, static_cast<index_t>(size[-1]), idx) {}

    /// Appends axes.
    template <typename Head, typename... Tail>
    void init_dim(Head head, Tail... tail) {
        init_dim(head);
        init_dim(tail...);
    }
    template <typename Head>
    void init_dim(Head head) {
        CHECK_LT(dimension, kMaxDim);
        dims[dimension++] = static_cast<int>(head);
    }

    int* begin() { return dims; }
    int* end() { return dims + dimension; }
    const int* begin() const { return dims; }
    const int* end() const { return dims + dimension; }

    int get_size() const { return dimension; }
    int get_size(int idx) const { return (*this)[idx]; }
    int get_axis() const { return dimension; }

    int& operator[](int idx) { return dims[canonical_axis_index(idx)]; }
    int operator[](int idx) const { return dims[canonical_axis_index(idx)]; }

    int canonical_axis_index(int axis_idx) const {
        const int num_axis = dimension;
        if (__builtin_expect(axis_idx < -num_axis || axis_idx >= num_axis, false)) {
            check_axis_index(axis_idx);
        }
        return axis_idx < 0 ? axis_idx + num_axis : axis_idx;
    }

    /// Equal up to leading axes of extent 1: Dim(1, 1, 5) == Dim(5), but Dim(2, 5) != Dim(5).
    bool operator==(const Dim& o) const;
    bool operator!=(const Dim& o) const { return !(*this == o); }

    std::string to_string() const;

    /// No axes, and all extents 0.
    void clear();

    /// The product of the axes; aborts unless it lies in [0, 2^31). 1 without axes.
    int product_check() const;

    /// The product of the axes in 32 bits, untested. 0 without axes.
    int product() const;

    /// The product of all axes but the last; 1 for a single axis, and without axes.
    int height() const;

    /// The shape's part of a tensor file, as the Tensor members of the same name tell. hfnn and
    /// score records abort unless there are 2 axes. Axes that a truncated stream doesn't hold
    /// read as 0.
    void write(FILE* f) const;
    void write(std::ofstream& out) const;
    void write_hfnn(std::ofstream& out) const;
    void write_score(std::ofstream& out) const;
    void write_score(std::ofstream& out, int frame_len) const;
    void read(FILE* f);
    void read(std::ifstream& in, size_t byte_size);
    void read_hfnn(std::ifstream& in, size_t byte_size);

private:
    /// Aborts for an index outside [-axes, axes). Apart, so that an access inlines to a comparison.
    void check_axis_index(int axis_idx) const;
};

/// "Dim [3, 4]", or "Dim [null]" without axes.
std::ostream& operator<<(std::ostream& os, const Dim& d);

inline int product(const Dim& a) {
    return a.product();
}

/// d[N] for N of -1 to -4, or 1 where `d` has fewer axes.
template <int N>
int get_reverse(const Dim& d) {
    static_assert(N <= -1 && N >= -4, "width, height, channels or batch");
    return d.get_axis() >= -N ? d[N] : 1;
}

/// The sum of a[i] * b[i]. Aborts unless both have the same number of axes.
int linearize(const Dim& a, const Dim& b);

/// Element strides of a tensor of shape `size` with row pitch `_stride`. An axis of extent 1 has
/// stride 0.
Dim contiguous_strides(const Dim& size, index_t _stride);

/// Position of coordinate `coor` in a tensor of shape `size` with row pitch `stride`, in elements.
size_t offset(const Dim& coor, const Dim& size, const index_t stride);

/// f applied axis by axis. Aborts unless both have the same number of axes.
template <typename F>
Dim dim_binary_op(const Dim& a, const Dim& b, F f) {
    CHECK_EQ(a.get_axis(), b.get_axis());
    std::vector<int> result(a.get_axis());
    std::transform(a.begin(), a.end(), b.begin(), result.begin(), f);
    return Dim(result);
}

inline Dim dim_minus(const Dim& a, const Dim& b) {
    return dim_binary_op(a, b, std::minus<int>());
}
inline Dim operator-(const Dim& a, const Dim& b) {
    return dim_minus(a, b);
}

/// `axis` axes, all 0.
Dim make_zero_dim(size_t axis);

}  // namespace vorn

#endif  // VORN_TENSOR_DIM_H_
