#include "vorn/ops/ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

// ---- Fills

template <typename T>
void Tensor<T>::set_element(T val) {
    vorn_fill(*this, val);
}

template <typename T>
void Tensor<T>::zero() {
    set_element(T(0));
}

template <typename T>
void Tensor<T>::ones() {
    set_element(T(1));
}

// ---- Copies

template <typename T>
void Tensor<T>::copy_from(const Tensor& src) {
    vorn_copy(src, *this);
}

template <typename T>
void Tensor<T>::copy_to(Tensor& dst) const {
    dst.copy_from(*this);
}

template <typename T>
void Tensor<T>::copy_from(const T* data, index_t start_pos, index_t num) {
    vorn_copy_from(data, *this, start_pos, num);
}

template <typename T>
void Tensor<T>::copy_from(const T* data, const Dim& start, index_t num) {
    copy_from(data, offset(start, _size, _stride), num);
}

template <typename T>
void Tensor<T>::copy_to(T* dst, index_t start_pos, index_t num) const {
    vorn_copy_to(*this, dst, start_pos, num);
}

template <typename T>
void Tensor<T>::copy_to(T* dst, const Dim& start, index_t num) const {
    copy_to(dst, offset(start, _size, _stride), num);
}

template <typename T>
void Tensor<T>::copy_row(Tensor& src, int src_row, int dst_row) {
    CHECK(get_dim() == 2);
    CHECK(get_w() >= src.get_w());
    const T* ptr = src.get_row(src_row);
    copy_from(ptr, dst_row * _stride, src.get_w());
}

// ---- Instantiations

#define FOR_ANY_TYPE(T)                                                \
    template void Tensor<T>::set_element(T);                           \
    template void Tensor<T>::zero();                                   \
    template void Tensor<T>::ones();                                   \
    template void Tensor<T>::copy_from(const Tensor<T>&);              \
    template void Tensor<T>::copy_to(Tensor<T>&) const;                \
    template void Tensor<T>::copy_from(const T*, index_t, index_t);    \
    template void Tensor<T>::copy_from(const T*, const Dim&, index_t); \
    template void Tensor<T>::copy_to(T*, index_t, index_t) const;      \
    template void Tensor<T>::copy_to(T*, const Dim&, index_t) const;

FOR_ANY_TYPE(float)
FOR_ANY_TYPE(int)
FOR_ANY_TYPE(unsigned long)
FOR_ANY_TYPE(unsigned char)
FOR_ANY_TYPE(short)

template void Tensor<float>::copy_row(Tensor<float>&, int, int);

#undef FOR_ANY_TYPE

}  // namespace vorn
