#ifndef VORN_OPS_IO_OPS_H_
#define VORN_OPS_IO_OPS_H_

#include <cstdio>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>

#include "vorn/cpu/io_ops.h"
#include "vorn/tensor/tensor.h"

/// Files, printing and comparing of tensors, whose forms tensor.h describes. All work is the
/// host's: a tensor that lies elsewhere is copied.
namespace vorn {

/// `tensor` itself on the host, else a dense copy there.
template <typename T>
Tensor<T> on_host(const Tensor<T>& tensor) {
    return is_cpu_device(tensor.get_device()) ? tensor : Tensor<T>(tensor, cpu_device());
}

// ---- Files

template <typename T>
void vorn_write_tensor(const Tensor<T>& tensor, std::ofstream& out) {
    cpu::vorn_write_tensor(on_host(tensor), out);
}

template <typename T>
void vorn_write_tensor_hfnn(const Tensor<T>& tensor, std::ofstream& out) {
    cpu::vorn_write_tensor_hfnn(on_host(tensor), out);
}

template <typename T>
void vorn_write_tensor_score(const Tensor<T>& tensor, std::ofstream& out) {
    cpu::vorn_write_tensor_score(on_host(tensor), out);
}

template <typename T>
void vorn_write_tensor_score(const Tensor<T>& tensor, std::ofstream& out, int batch_idx,
                             int batch_size, int frame_len) {
    CHECK_LT(batch_idx, batch_size);
    CHECK(batch_size != 0);  // the next test divides by it
    CHECK(tensor.get_h() % batch_size == 0);
    CHECK(static_cast<int>(tensor.get_h() / batch_size) >= frame_len);
    cpu::vorn_write_tensor_score(on_host(tensor), out, batch_idx, batch_size, frame_len);
}

template <typename T>
void vorn_write_tensor(const Tensor<T>& tensor, FILE* f, int count) {
    cpu::vorn_write_tensor(on_host(tensor), f, count);
}

/// A file that closes itself, also where a failed check is thrown.
using OpenFile = std::unique_ptr<FILE, int (*)(FILE*)>;

inline OpenFile open_file(const char* filename, const char* mode) {
    return OpenFile(fopen(filename, mode), fclose);
}

template <typename T>
void vorn_write_tensor(const Tensor<T>& tensor, const char* filename, int count) {
    CHECK(nullptr != filename);
    const OpenFile fp = open_file(filename, "w+");
    CHECK(nullptr != fp);
    vorn_write_tensor(tensor, fp.get(), count);
}

template <typename T>
void vorn_write_tensor_diff(const Tensor<T>& tensor, FILE* f, int count, int fixed) {
    cpu::vorn_write_tensor_diff(on_host(tensor), f, count, fixed);
}

template <typename T>
void vorn_write_tensor_diff(const Tensor<T>& tensor, const char* filename, int count, int fixed) {
    CHECK(nullptr != filename);
    const OpenFile fp = open_file(filename, "w+");
    CHECK(nullptr != fp);
    vorn_write_tensor_diff(tensor, fp.get(), count, fixed);
}

/// Resizes `tensor` and lets `read` fill it, or a host tensor of its shape.
template <typename T, typename F>
void read_resized(Tensor<T>& tensor, const Dim& size, bool is_zero, F read) {
    tensor.resize(size, is_zero);
    if (is_cpu_device(tensor.get_device())) {
        read(tensor);
    } else {
        Tensor<T> tmp(cpu_device());
        tmp.resize(size, is_zero);
        read(tmp);
        tensor.copy_from(tmp);
    }
}

template <typename T>
void vorn_read_tensor(Tensor<T>& tensor, std::ifstream& in, index_t byte_size) {
    Dim new_size;
    new_size.read(in, byte_size);
    read_resized(tensor, new_size, false,
                 [&](Tensor<T>& host) { cpu::vorn_read_tensor(host, in); });
}

template <typename T>
void vorn_read_tensor_hfnn(Tensor<T>& tensor, std::ifstream& in, index_t byte_size) {
    Dim new_size;
    new_size.read_hfnn(in, byte_size);
    read_resized(tensor, new_size, false,
                 [&](Tensor<T>& host) { cpu::vorn_read_tensor(host, in); });
}

/// Into zeros, because elements may fail to convert.
template <typename T>
void vorn_read_tensor(Tensor<T>& tensor, FILE* f) {
    Dim new_size;
    new_size.read(f);
    read_resized(tensor, new_size, true, [&](Tensor<T>& host) { cpu::vorn_read_tensor(host, f); });
}

template <typename T>
void vorn_read_tensor(Tensor<T>& tensor, const char* filename) {
    CHECK_NOTNULL(filename);
    const OpenFile f = open_file(filename, "r");
    CHECK_NOTNULL(f);
    vorn_read_tensor(tensor, f.get());
}

// ---- Printing and comparing

/// What is to be printed of `tensor`, on the host. A pitched GPU tensor is made dense on the GPU,
/// so that one dense block crosses over.
template <typename T>
Tensor<T> printable(const Tensor<T>& tensor) {
    if (!is_gpu_device(tensor.get_device())) {
        return tensor;
    }
    return Tensor<T>(tensor.is_contiguous() ? tensor : Tensor<T>(tensor, gpu_device()),
                     cpu_device());
}

template <typename T>
void vorn_print_tensor(const Tensor<T>& tensor, const std::string& name, int count) {
    std::cout << name << std::endl;
    cpu::vorn_print_tensor(printable(tensor), count);
}

template <typename T>
void vorn_print_tensor(const Tensor<T>& tensor, const std::string& name, const Dim& start,
                       const Dim& end) {
    std::cout << name << std::endl;
    cpu::vorn_print_tensor(printable(tensor), start, end);
}

/// How many elements differ. Neither `filename` nor `index` is read.
template <typename T>
size_t vorn_check_tensor(const Tensor<T>& in1, const Tensor<T>& in2, const char* filename,
                         size_t index) {
    (void)filename, (void)index;
    CHECK_EQ(in1.get_element_count(), in2.get_element_count());
    return cpu::vorn_check_tensor(on_host(in1), on_host(in2));
}

}  // namespace vorn

#endif  // VORN_OPS_IO_OPS_H_
