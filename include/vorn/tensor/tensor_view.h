#ifndef VORN_TENSOR_TENSOR_VIEW_H_
#define VORN_TENSOR_TENSOR_VIEW_H_

#include <cstdint>

#include "vorn/host_device.h"
#include "vorn/tensor/tensor.h"

/// Views that own nothing and travel by value into loops and kernels.
namespace vorn {

/// A tensor of up to four axes as `n, c, h, w`, with leading extents of 1 where it has fewer.
template <typename T, bool is_contiguous>
class Tensor4DView {
public:
    explicit Tensor4DView(const Tensor<T>& t)
        : _ptr(t.get_ptr()),
          n(get_reverse<-4>(t.get_size())),
          c(get_reverse<-3>(t.get_size())),
          h(get_reverse<-2>(t.get_size())),
          w(get_reverse<-1>(t.get_size())),
          n_s(0),
          c_s(0),
          h_s(static_cast<int>(t.ld())),
          w_s(1) {
        c_s = h_s * h;
        n_s = c_s * c;
    }

    T& operator()(int n, int c, int h, int w) const {
        return _ptr[n * n_s + c * c_s + h * h_s + w * w_s];
    }

    T* _ptr;
    int n, c, h, w;
    int n_s, c_s, h_s, w_s;
};

/// N elements that a GPU reads or writes at once.
template <typename T, int N>
struct alignas(N * sizeof(T)) Pack {
    T elements[N];
};

/// A tensor as a matrix of row() rows, for kernels. One without axes has no elements.
template <typename T, bool is_contiguous>
class MatrixView;

template <typename T>
class MatrixView<T, true> {
public:
    /// Aborts on a pitched tensor.
    explicit MatrixView(const Tensor<T>& t)
        : _ptr(t.get_ptr()), _width(get_reverse<-1>(t.get_size())) {
        CHECK(t.is_contiguous());
    }

    VORN_HD T& operator()(int row, int col) const { return _ptr[row * _width + col]; }
    VORN_HD T& operator()(int idx) const { return _ptr[idx]; }

    template <int N>
    using PackOf = Pack<T, N>;
    /// Whether the elements can be taken in packs.
    template <int N>
    VORN_HD bool is_packed() const {
        return reinterpret_cast<uintptr_t>(_ptr) % alignof(PackOf<N>) == 0;
    }
    /// The elements idx * N, ..., idx * N + N - 1.
    template <int N>
    VORN_HD PackOf<N>& pack(index_t idx) const {
        return reinterpret_cast<PackOf<N>*>(_ptr)[idx];
    }

    T* _ptr;
    size_t _width;
};

template <typename T>
class MatrixView<T, false> {
public:
    explicit MatrixView(const Tensor<T>& t)
        : _ptr(t.get_ptr()), _width(get_reverse<-1>(t.get_size())), _width_ld(t.ld()) {}

    VORN_HD T& operator()(int row, int col) const { return _ptr[row * _width_ld + col]; }
    VORN_HD T& operator()(int idx) const { return _ptr[(idx / _width) * _width_ld + idx % _width]; }

    T* _ptr;
    size_t _width;
    size_t _width_ld;
};

}  // namespace vorn

#endif  // VORN_TENSOR_TENSOR_VIEW_H_
