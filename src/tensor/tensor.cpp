#include "vorn/tensor/tensor.h"

#include <utility>

namespace vorn {

static index_t last_axis(const Dim& size) {
    return size.get_axis() == 0 ? 0 : size[-1];
}

// ---- Construction

/// Of `size`, which is tested before anything is allocated.
template <typename T>
static size_t byte_size_of(const Dim& size) {
    size.product_check();
    return product(size) * sizeof(T);
}

template <typename T>
Tensor<T>::Tensor() : Tensor(vorn::get_device()) {}

template <typename T>
Tensor<T>::Tensor(const Device& device)
    : _stride(0), _ptr(nullptr), _device(device), _is_block(false) {}

template <typename T>
Tensor<T>::Tensor(const Dim& size, const Device& device)
    : _buffer(std::make_shared<Buffer>(byte_size_of<T>(size), device)),
      _size(size),
      _stride(last_axis(size)),
      _ptr(static_cast<T*>(_buffer->ptr())),
      _device(device),
      _is_block(false) {
    if (size.product_check() > 0) {
        zero();
    }
}

template <typename T>
Tensor<T>::Tensor(const Dim& size) : Tensor(size, vorn::get_device()) {}

template <typename T>
Tensor<T>::Tensor(std::shared_ptr<Buffer> buffer, const Dim& size, index_t stride, T* ptr)
    : _buffer(std::move(buffer)),
      _size(size),
      _stride(stride),
      _ptr(ptr),
      _device(_buffer->device()),
      _is_block(true) {
    if (product(size) != 0) {
        CHECK(_ptr >= _buffer->ptr() && _ptr < _buffer->end())
            << "Cannot create tensor outside of buffer.";
    }
}

template <typename T>
Tensor<T>::Tensor(std::shared_ptr<Buffer> buffer, const Dim& size, index_t stride)
    : Tensor(buffer, size, stride, static_cast<T*>(buffer->ptr())) {}

template <typename T>
Tensor<T>::Tensor(std::shared_ptr<Buffer> buffer, const Dim& size)
    : Tensor(std::move(buffer), size, last_axis(size)) {}

template <typename T>
Tensor<T>::Tensor(T* ptr, const Dim& size, const Device& device)
    : _size(size), _stride(last_axis(size)), _ptr(ptr), _device(device), _is_block(true) {}

template <typename T>
Tensor<T>::Tensor(const Tensor& other, const Device& device) : Tensor(other.get_size(), device) {
    copy_from(other);
}

// ---- Views

template <typename T>
Tensor<T> Tensor<T>::view(const Dim& size, index_t stride, T* ptr) const {
    if (_buffer) {
        return Tensor(_buffer, size, stride, ptr);
    }
    Tensor external(ptr, size, _device);
    external._stride = stride;
    return external;
}

template <typename T>
Tensor<T> Tensor<T>::get_with_shape(const Dim& dim) const {
    CHECK(is_contiguous()) << "memory not contiguous";
    CHECK(product(_size) == product(dim)) << "memory size not match " << _size << " vs " << dim;
    T* start = _buffer ? static_cast<T*>(_buffer->ptr()) : _ptr;
    return view(dim, last_axis(dim), start);
}

template <typename T>
Tensor<T> Tensor<T>::get_block(const Dim& start, const Dim& stop) const {
    CHECK(get_dim() == 2 || (!_is_block));
    const Dim size = stop - start;
    CHECK(size.get_axis() == _size.get_axis());
    const int sub_dim = static_cast<int>(get_dim()) - 1;
    CHECK(size[sub_dim] > 0 && size[sub_dim] <= _size[sub_dim]);
    for (int i = 1; i < sub_dim; ++i) {
        CHECK(size[i] == _size[i]);
    }
    if (size[sub_dim] == _size[sub_dim]) {
        CHECK(size[0] > 0 && size[0] <= _size[0]) << "slice invalid";
    } else {
        CHECK(sub_dim == 0 || size[0] == _size[0]) << "slice invalid";
    }
    return view(size, _stride, index(start));
}

template <typename T>
Tensor<T> Tensor<T>::slice(index_t start, index_t end) const {
    CHECK(end > start) << "end " << end << " start " << start;
    CHECK(end <= _size[0]) << "invalid param, end = " << end << " " << _size;
    Dim size = _size;
    size[0] = static_cast<int>(end - start);
    const int axes = static_cast<int>(get_dim());
    const index_t step = axes == 1 ? 1 : _stride * count(1, axes - 1);
    return view(size, _stride, _ptr + start * step);
}

template <typename T>
Tensor<T> Tensor<T>::range_row(index_t start, index_t stop, index_t step) const {
    CHECK_EQ(2, get_dim()) << "Tensor::range_row just support 2-D matrix.";
    return slice(start * step, stop * step);
}

template <typename T>
Tensor<T> Tensor<T>::range_row(index_t start, index_t stop) const {
    return range_row(start, stop, 1);
}

template <typename T>
Tensor<T> Tensor<T>::range_col(index_t start, index_t stop, index_t step) const {
    CHECK_EQ(2, get_dim()) << "Tensor::get_col just support 2-D matrix.";
    return get_block(Dim(0, start * step), Dim(get_h(), stop * step));
}

template <typename T>
Tensor<T> Tensor<T>::range_col(index_t start, index_t stop) const {
    return range_col(start, stop, 1);
}

// ---- Shape changes

template <typename T>
void Tensor<T>::reshape(const Dim& size) {
    const index_t stride = size[-1];  // a shape without axes stops here, whatever the tensor holds
    CHECK(is_contiguous()) << "memory not contiguous";
    CHECK(product(_size) == product(size)) << "memory size not match " << _size << " vs " << size;
    _stride = stride;
    _size = size;
}

template <typename T>
void Tensor<T>::reshape_like(const Tensor& other) {
    reshape(other._size);
}

template <typename T>
void Tensor<T>::resize(const Dim& size, bool is_zero) {
    size.product_check();
    CHECK(!_is_block) << "block tensor can not resize";
    _size = size;
    _stride = last_axis(size);
    const size_t new_mem_size = product(size) * sizeof(T);
    if (new_mem_size == 0) {
        _buffer.reset();
        _ptr = nullptr;
        return;
    }
    const size_t old_mem_size = _buffer ? _buffer->size() : 0;
    if (old_mem_size < new_mem_size) {
        _buffer = std::make_shared<Buffer>(new_mem_size, _device);
        _ptr = static_cast<T*>(_buffer->ptr());
    }
    if (is_zero) {
        zero();
    }
}

template <typename T>
void Tensor<T>::resize_like(const Tensor& other) {
    resize(other._size, true);
}

template <typename T>
void Tensor<T>::set_device(const Device& device) {
    CHECK(nullptr == _ptr) << "tensor inited before";
    _device = device;
}

template <typename T>
void Tensor<T>::clear() {}

template <typename T>
void Tensor<T>::clear_size() {
    _size.clear();
    _stride = 0;
}

template <typename T>
index_t Tensor<T>::count(int start_axis, int end_axis) const {
    CHECK(start_axis <= end_axis);
    CHECK(start_axis >= 0);
    index_t result = 1;
    for (int i = start_axis; i < end_axis; ++i) {
        result *= _size[i];
    }
    return result;
}

template <typename T>
index_t Tensor<T>::count(int start_axis) const {
    return count(start_axis, static_cast<int>(get_dim()));
}

// ---- Elements

template <typename T>
bool Tensor<T>::is_valid_index(const Dim& idx) const {
    if (idx.get_axis() != _size.get_axis()) {
        return false;
    }
    for (int i = 0; i < idx.get_axis(); ++i) {
        if (idx[i] < 0 || idx[i] >= _size[i]) {
            return false;
        }
    }
    return true;
}

template <typename T>
T* Tensor<T>::index(const Dim& coor) const {
    CHECK(is_valid_index(coor)) << "invalid index dim.";
    return _ptr + offset(coor, _size, _stride);
}

template <typename T>
T* Tensor<T>::get_data(const Dim& dim) const {
    return index(dim);
}

template <typename T>
T* Tensor<T>::get_row(index_t idx) const {
    CHECK(2 == get_dim());
    return index(Dim(idx, 0));
}

template <typename T>
T Tensor<T>::operator[](const Dim& idx) const {
    return Reference<T>(_device, index(idx)).get();
}

template <typename T>
Reference<T> Tensor<T>::operator[](const Dim& idx) {
    return Reference<T>(_device, index(idx));
}

template <typename T>
T Tensor<T>::get_element(const Dim& dim) const {
    return Reference<T>(_device, index(dim)).get();
}

template <typename T>
void Tensor<T>::set_element(const Dim& dim, T val) {
    Reference<T>(_device, index(dim)).set(val);
}

// ---- Instantiations

#define FOR_ANY_TYPE(T)                                                           \
    template Tensor<T>::Tensor();                                                 \
    template Tensor<T>::Tensor(const Device&);                                    \
    template Tensor<T>::Tensor(const Dim&, const Device&);                        \
    template Tensor<T>::Tensor(const Dim&);                                       \
    template Tensor<T>::Tensor(std::shared_ptr<Buffer>, const Dim&, index_t, T*); \
    template Tensor<T>::Tensor(std::shared_ptr<Buffer>, const Dim&, index_t);     \
    template Tensor<T>::Tensor(std::shared_ptr<Buffer>, const Dim&);              \
    template Tensor<T>::Tensor(T*, const Dim&, const Device&);                    \
    template Tensor<T>::Tensor(const Tensor<T>&, const Device&);

#define FOR_NUMBERS(T)                                         \
    template bool Tensor<T>::is_valid_index(const Dim&) const; \
    template T* Tensor<T>::index(const Dim&) const;            \
    template T Tensor<T>::operator[](const Dim&) const;        \
    template Reference<T> Tensor<T>::operator[](const Dim&);

FOR_ANY_TYPE(float)
FOR_ANY_TYPE(int)
FOR_ANY_TYPE(unsigned long)
FOR_ANY_TYPE(unsigned char)
FOR_ANY_TYPE(short)

template void Tensor<float>::resize(const Dim&, bool);
template void Tensor<int>::resize(const Dim&, bool);
template void Tensor<unsigned long>::resize(const Dim&, bool);

FOR_NUMBERS(float)
FOR_NUMBERS(int)

template Tensor<float> Tensor<float>::get_with_shape(const Dim&) const;
template Tensor<float> Tensor<float>::get_block(const Dim&, const Dim&) const;
template Tensor<float> Tensor<float>::slice(index_t, index_t) const;
template Tensor<float> Tensor<float>::range_row(index_t, index_t, index_t) const;
template Tensor<float> Tensor<float>::range_row(index_t, index_t) const;
template Tensor<float> Tensor<float>::range_col(index_t, index_t, index_t) const;
template Tensor<float> Tensor<float>::range_col(index_t, index_t) const;
template void Tensor<float>::reshape(const Dim&);
template void Tensor<float>::reshape_like(const Tensor<float>&);
template void Tensor<float>::resize_like(const Tensor<float>&);
template void Tensor<float>::set_device(const Device&);
template void Tensor<float>::clear();
template void Tensor<float>::clear_size();
template index_t Tensor<float>::count(int, int) const;
template index_t Tensor<float>::count(int) const;
template float* Tensor<float>::get_data(const Dim&) const;
template float* Tensor<float>::get_row(index_t) const;
template float Tensor<float>::get_element(const Dim&) const;
template void Tensor<float>::set_element(const Dim&, float);

#undef FOR_ANY_TYPE
#undef FOR_NUMBERS

}  // namespace vorn
