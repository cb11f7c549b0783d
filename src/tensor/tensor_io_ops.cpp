#include "vorn/ops/io_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

// ---- Files

template <typename T>
void Tensor<T>::write(std::ofstream& out) const {
    vorn_write_tensor(*this, out);
}

template <typename T>
void Tensor<T>::read(std::ifstream& in, index_t byte_size) {
    vorn_read_tensor(*this, in, byte_size);
}

template <typename T>
void Tensor<T>::write_hfnn(std::ofstream& out) const {
    vorn_write_tensor_hfnn(*this, out);
}

template <typename T>
void Tensor<T>::read_hfnn(std::ifstream& in, index_t byte_size) {
    vorn_read_tensor_hfnn(*this, in, byte_size);
}

template <typename T>
void Tensor<T>::write_score(std::ofstream& out) const {
    vorn_write_tensor_score(*this, out);
}

template <typename T>
void Tensor<T>::write_score(std::ofstream& out, int batch_idx, int batch_size,
                            int frame_len) const {
    vorn_write_tensor_score(*this, out, batch_idx, batch_size, frame_len);
}

template <typename T>
void Tensor<T>::write(FILE* f, int count) const {
    vorn_write_tensor(*this, f, count);
}

template <typename T>
void Tensor<T>::write(const char* filename, int count) const {
    vorn_write_tensor(*this, filename, count);
}

template <typename T>
void Tensor<T>::read(FILE* f) {
    vorn_read_tensor(*this, f);
}

template <typename T>
void Tensor<T>::read(const char* filename) {
    vorn_read_tensor(*this, filename);
}

template <typename T>
void Tensor<T>::write_diff(FILE* f, int count, int fixed) const {
    vorn_write_tensor_diff(*this, f, count, fixed);
}

template <typename T>
void Tensor<T>::write_diff(const char* filename, int count, int fixed) const {
    vorn_write_tensor_diff(*this, filename, count, fixed);
}

// ---- Debugging

template <typename T>
void Tensor<T>::show(const char* name, int count) const {
    vorn_print_tensor(*this, name, count);
}

template <typename T>
void Tensor<T>::show(const char* name, const Dim& start, const Dim& stop) const {
    vorn_print_tensor(*this, name, start, stop);
}

template <typename T>
static void show_rectangle(const Tensor<T>& tensor, const char* name, const Dim& start,
                           const Dim& stop) {
    if (tensor.get_size().get_axis() != start.get_axis()) {
        LOG_ERROR << "invalid argument, dim " << tensor.get_size();
        return;
    }
    tensor.show(name, start, stop);
}

template <typename T>
void Tensor<T>::show(const char* name, int w1, int w2) const {
    show_rectangle(*this, name, Dim(w1), Dim(w2));
}

template <typename T>
void Tensor<T>::show(const char* name, int h1, int w1, int h2, int w2) const {
    show_rectangle(*this, name, Dim(h1, w1), Dim(h2, w2));
}

template <typename T>
void Tensor<T>::show(const char* name, int c1, int h1, int w1, int c2, int h2, int w2) const {
    show_rectangle(*this, name, Dim(c1, h1, w1), Dim(c2, h2, w2));
}

template <typename T>
void Tensor<T>::show(const char* name, int n1, int c1, int h1, int w1, int n2, int c2, int h2,
                     int w2) const {
    show_rectangle(*this, name, Dim(n1, c1, h1, w1), Dim(n2, c2, h2, w2));
}

template <typename T>
index_t Tensor<T>::check(const Tensor<T>& ref, const char* filename, index_t index) const {
    return vorn_check_tensor(*this, ref, filename, index);
}

// ---- Instantiations

#define FOR_NUMBERS(T)                                                                        \
    template void Tensor<T>::write(std::ofstream&) const;                                     \
    template void Tensor<T>::read(std::ifstream&, index_t);                                   \
    template void Tensor<T>::write(FILE*, int) const;                                         \
    template void Tensor<T>::write(const char*, int) const;                                   \
    template void Tensor<T>::read(FILE*);                                                     \
    template void Tensor<T>::read(const char*);                                               \
    template void Tensor<T>::write_diff(FILE*, int, int) const;                               \
    template void Tensor<T>::write_diff(const char*, int, int) const;                         \
    template void Tensor<T>::show(const char*, int) const;                                    \
    template void Tensor<T>::show(const char*, const Dim&, const Dim&) const;                 \
    template void Tensor<T>::show(const char*, int, int) const;                               \
    template void Tensor<T>::show(const char*, int, int, int, int) const;                     \
    template void Tensor<T>::show(const char*, int, int, int, int, int, int) const;           \
    template void Tensor<T>::show(const char*, int, int, int, int, int, int, int, int) const; \
    template index_t Tensor<T>::check(const Tensor<T>&, const char*, index_t) const;

FOR_NUMBERS(float)
FOR_NUMBERS(int)

template void Tensor<float>::write_hfnn(std::ofstream&) const;
template void Tensor<float>::read_hfnn(std::ifstream&, index_t);
template void Tensor<float>::write_score(std::ofstream&) const;
template void Tensor<float>::write_score(std::ofstream&, int, int, int) const;

#undef FOR_NUMBERS

}  // namespace vorn
