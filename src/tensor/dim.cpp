#include "vorn/tensor/dim.h"

#include <cstdint>
#include <limits>
#include <ostream>
#include <sstream>

namespace vorn {

Dim::Dim(const std::vector<int>& _dims) : dimension(0) {
    CHECK_LE(static_cast<int>(_dims.size()), kMaxDim);
    std::copy(_dims.begin(), _dims.end(), dims);
    dimension = static_cast<int>(_dims.size());
}

Dim::Dim(const Dim& size, index_t stride, index_t idx) : dimension(0) {
    CHECK(idx <= static_cast<index_t>(std::numeric_limits<int>::max()));
    dimension = size.dimension;
    CHECK_GT(dimension, 0);
    dims[dimension - 1] = static_cast<int>(idx % stride);
    idx /= stride;
    for (int i = dimension - 2; i >= 0; --i) {
        dims[i] = static_cast<int>(idx % size.dims[i]);
        idx /= size.dims[i];
    }
}

void Dim::check_axis_index(int axis_idx) const {
    const int num_axis = dimension;
    CHECK(axis_idx >= -num_axis && axis_idx < num_axis) << "error axis index.";
}

bool Dim::operator==(const Dim& o) const {
    if (dimension == o.dimension) {
        return std::equal(begin(), end(), o.begin());
    }
    const int min_axis = std::min(dimension, o.dimension);
    return std::equal(end() - min_axis, end(), o.end() - min_axis) && product() == o.product();
}

std::string Dim::to_string() const {
    std::ostringstream os;
    os << *this;
    return os.str();
}

void Dim::clear() {
    dimension = 0;
    std::fill(dims, dims + kMaxDim, 0);
}

int Dim::product_check() const {
    int64_t product_long = 1;
    bool overflow = false;
    for (int extent : *this) {
        overflow = __builtin_mul_overflow(product_long, int64_t{extent}, &product_long) || overflow;
    }
    // A product that left 64 bits and came back small is overlarge too. One that came back as 0
    // by way of an empty axis is not.
    const bool overlarge = overflow && std::find(begin(), end(), 0) == end();
    const index_t ret = overlarge ? ~index_t{0} : static_cast<index_t>(product_long);
    CHECK(ret <= static_cast<index_t>(std::numeric_limits<int>::max()))
        << "Dim size error " << to_string() << " product_long " << product_long;
    return static_cast<int>(ret);
}

// Products wrap in 32 bits as they are told to; unsigned arithmetic makes that defined.
static int wrapping_product(const int* begin, const int* end) {
    unsigned result = 1;
    for (; begin != end; ++begin) {
        result *= static_cast<unsigned>(*begin);
    }
    return static_cast<int>(result);
}

int Dim::product() const {
    return dimension == 0 ? 0 : wrapping_product(begin(), end());
}

int Dim::height() const {
    return dimension == 0 ? 1 : wrapping_product(begin(), end() - 1);
}

std::ostream& operator<<(std::ostream& os, const Dim& d) {
    if (d.dimension == 0) {
        return os << "Dim [null]";
    }
    os << "Dim [" << d.dims[0];
    for (int i = 1; i < d.dimension; ++i) {
        os << ", " << d.dims[i];
    }
    return os << "]";
}

int linearize(const Dim& a, const Dim& b) {
    CHECK_EQ(a.get_axis(), b.get_axis());
    int position = 0;
    for (int i = 0; i < a.dimension; ++i) {
        position += a.dims[i] * b.dims[i];
    }
    return position;
}

Dim contiguous_strides(const Dim& size, index_t _stride) {
    Dim strides;
    strides.dimension = size.dimension;
    int step = static_cast<int>(_stride);
    for (int i = size.dimension - 1; i >= 0; --i) {
        if (i == size.dimension - 1) {
            strides.dims[i] = 1;
        } else {
            strides.dims[i] = size.dims[i] == 1 ? 0 : step;
            step *= size.dims[i];
        }
    }
    return strides;
}

size_t offset(const Dim& coor, const Dim& size, const index_t stride) {
    return linearize(coor, contiguous_strides(size, stride));
}

Dim make_zero_dim(size_t axis) {
    return Dim(std::vector<int>(axis, 0));
}

}  // namespace vorn
