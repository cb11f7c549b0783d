#ifndef VORN_CPU_IO_OPS_H_
#define VORN_CPU_IO_OPS_H_

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <limits>

#include "vorn/cpu/iterator.h"
#include "vorn/cpu/text_block.h"
#include "vorn/tensor/tensor.h"

/// Files, printing and comparing of host tensors.
namespace vorn {
namespace cpu {

/// f(pointer, position, n) for each row of the first `limit` elements, n elements at a time; the
/// rows lie `ld()` elements apart. Extents are unsigned here, so that a shape with two negative
/// axes, which a file may bring, is one row.
template <typename T, typename F>
void for_each_row(const Tensor<T>& tensor, index_t limit, F f) {
    const index_t width = tensor.get_w();
    for (index_t row = 0, i = 0; i < limit; ++row) {
        const index_t n = std::min(width, limit - i);
        f(tensor.get_ptr() + row * tensor.ld(), i, n);
        i += n;
    }
}

/// How many elements a form with a `count` shows, where at most 0 stands for all.
template <typename T>
index_t shown_elements(const Tensor<T>& tensor, int count) {
    const index_t total_size = tensor.get_element_count();
    return count > 0 ? std::min(total_size, static_cast<index_t>(count)) : total_size;
}

// ---- Binary files

template <typename T>
void write_elements(std::ofstream& out, const T* ptr, index_t count) {
    out.write(reinterpret_cast<const char*>(ptr), count * sizeof(T));
}

/// The plain binary form.
template <typename T>
void vorn_write_tensor(const Tensor<T>& tensor, std::ofstream& out) {
    CHECK(tensor.is_contiguous());
    tensor.get_size().write(out);
    write_elements(out, tensor.get_ptr(), tensor.get_element_count());
}

template <typename T>
void vorn_write_tensor_hfnn(const Tensor<T>& tensor, std::ofstream& out) {
    CHECK(tensor.is_contiguous());
    tensor.get_size().write_hfnn(out);
    write_elements(out, tensor.get_ptr(), tensor.get_element_count());
}

template <typename T>
void vorn_write_tensor_score(const Tensor<T>& tensor, std::ofstream& out) {
    CHECK(tensor.is_contiguous());
    tensor.get_size().write_score(out);
    write_elements(out, tensor.get_ptr(), tensor.get_element_count());
}

template <typename T>
void vorn_write_tensor_score(const Tensor<T>& tensor, std::ofstream& out, int batch_idx,
                             int batch_size, int frame_len) {
    CHECK(tensor.is_contiguous());
    // Before the head is written; the test of the axes, which is made there, goes first.
    if (frame_len > 0 && tensor.get_dim() == 2) {
        CHECK_GE(batch_idx, 0);
    }
    tensor.get_size().write_score(out, frame_len);
    const index_t dimN = tensor.get_w();
    for (index_t t = 0; static_cast<int>(t) < frame_len; ++t) {
        write_elements(out, tensor.get_ptr() + (t * batch_size + batch_idx) * dimN, dimN);
    }
}

/// The elements of a dense tensor that was resized without being zeroed: those that the stream
/// doesn't hold in full become 0.
template <typename T>
void vorn_read_tensor(Tensor<T>& tensor, std::ifstream& in) {
    const index_t count = tensor.get_element_count();
    in.read(reinterpret_cast<char*>(tensor.get_ptr()), count * sizeof(T));
    const index_t read = in.gcount() / sizeof(T);
    std::fill(tensor.get_ptr() + read, tensor.get_ptr() + count, T(0));
}

// ---- Text files

inline void format_element(TextBlock& text, float value) {
    text.fixed(value, 10, 6);
    text.text(" ");
}
inline void format_element(TextBlock& text, int value) {
    text.integer(value, 0);
    text.text(" ");
}

/// The rows of a bracket text: WriteHelper<i, D> loops over axis D - 1 - i of D axes.
template <int i, int D>
struct WriteHelper {
    /// Moves `row` over the rows that it writes.
    template <typename T>
    static void write(const Tensor<T>& tensor, const Dim& start, const Dim& size, Dim& index,
                      const T*& row, TextBlock& text) {
        constexpr int axis = D - 1 - i;
        for (index[axis] = start[axis]; index[axis] < size[axis]; ++index[axis]) {
            WriteHelper<i - 1, D>::write(tensor, start, size, index, row, text);
        }
    }
};

template <int D>
struct WriteHelper<0, D> {
    template <typename T>
    static void write(const Tensor<T>& tensor, const Dim&, const Dim& size, Dim& index,
                      const T*& row, TextBlock& text) {
        text.text("[");
        for (int axis = 0; axis < D - 1; ++axis) {
            text.integer(index[axis], 0);
            text.text(", ");
        }
        text.text("0 - ");
        text.integer(size[D - 1] - 1, 0);
        text.text("]\t");
        for (int n = 0; n < size[D - 1]; ++n) {
            format_element(text, row[n]);
        }
        row += tensor.ld();
        text.text("\n");
    }
};

/// The bracket text form, or its short dump if `count` is above 0.
template <typename T>
void vorn_write_tensor(const Tensor<T>& tensor, FILE* f, int count) {
    tensor.get_size().write(f);
    TextBlock text(f);
    if (count > 0) {
        for_each_row(tensor, shown_elements(tensor, count), [&](const T* row, index_t, index_t n) {
            for (index_t i = 0; i < n; ++i) {
                format_element(text, row[i]);
            }
        });
        return;
    }
    const Dim size = tensor.get_size();
    const Dim start = make_zero_dim(size.get_axis());
    Dim index = start;
    const T* row = tensor.get_ptr();
    switch (size.get_axis()) {
        case 1:
            WriteHelper<0, 1>::write(tensor, start, size, index, row, text);
            break;
        case 2:
            WriteHelper<1, 2>::write(tensor, start, size, index, row, text);
            break;
        case 3:
            WriteHelper<2, 3>::write(tensor, start, size, index, row, text);
            break;
        case 4:
            WriteHelper<3, 4>::write(tensor, start, size, index, row, text);
            break;
        case 5:
            WriteHelper<4, 5>::write(tensor, start, size, index, row, text);
            break;
        default:
            LOG_FATAL << "Not Implemented Yet";
    }
}

template <typename T>
void vorn_write_tensor_diff(const Tensor<T>& tensor, FILE* f, int count, int fixed) {
    tensor.get_size().write(f);
    const index_t total_size = tensor.get_element_count();
    CHECK(total_size <= static_cast<index_t>(std::numeric_limits<int>::max()));
    TextBlock text(f);
    for_each_row(tensor, shown_elements(tensor, count),
                 [&](const T* row, index_t position, index_t n) {
                     for (index_t i = 0; i < n; ++i) {
                         text.integer(static_cast<int>(position + i), 10);
                         text.text(" ");
                         text.fixed(static_cast<float>(row[i]), 16, fixed);
                         text.text("\n");
                     }
                 });
}

inline int scan_element(FILE* f, float* value) {
    return fscanf(f, "%f", value);
}
inline int scan_element(FILE* f, int* value) {
    return fscanf(f, "%d", value);
}

/// Whether scan_element takes `c` from the stream, even if it fails after it.
inline bool may_start(int c, const int*) {
    return isspace(c) || isdigit(c) || c == '+' || c == '-';
}
inline bool may_start(int c, const float*) {
    const unsigned char point = *localeconv()->decimal_point;
    return may_start(c, static_cast<const int*>(nullptr)) || c == point || tolower(c) == 'i' ||
           tolower(c) == 'n';
}

/// Skips `[1, 0, 0 - 4]` and a tab, as far as it is there.
inline void skip_row_head(FILE* f, int rank) {
    (void)!fscanf(f, "\n[");
    for (int axis = 0; axis < rank - 1; ++axis) {
        (void)!fscanf(f, "%*d, ");
    }
    (void)!fscanf(f, "%*d - %*d]\t");
}

/// The rows of a bracket text, into a dense tensor. An element that fails to convert keeps its
/// value, and the text at which it failed is tried for the next one. Tries that can only fail are
/// left out: the shape may promise 2^31 elements in a file of a few bytes.
template <typename T>
void vorn_read_tensor(Tensor<T>& tensor, FILE* f) {
    const index_t width = tensor.get_w(), count = tensor.get_element_count();
    const int rank = static_cast<int>(tensor.get_dim());
    T* ptr = tensor.get_ptr();
    for (index_t i = 0, row_end; i < count; i = row_end) {
        skip_row_head(f, rank);
        for (row_end = i + std::min(width, count - i); i < row_end; ++i) {
            if (scan_element(f, ptr + i) == 1) {
                continue;
            }
            const int next = ungetc(getc(f), f);
            if (next == '[') {
                break;  // on which only a row head goes on
            }
            if (next == EOF || !may_start(next, ptr)) {
                return;
            }
        }
    }
}

// ---- Printing and comparing

/// The first `count` elements with their positions, or all with their coordinates.
template <typename T>
void vorn_print_tensor(const Tensor<T>& tensor, int count) {
    const index_t shown = shown_elements(tensor, count);
    std::cout << std::fixed;
    std::cout.precision(6);
    if (shown > 0) {
        for_each_row(tensor, shown, [&](const T* row, index_t position, index_t n) {
            for (index_t i = 0; i < n; ++i) {
                if (count > 0) {
                    std::cout << position + i;
                } else {
                    std::cout << Dim(tensor.get_size(), tensor.get_stride(), position + i);
                }
                std::cout << " " << row[i] << std::endl;
            }
        });
    }
    std::cout.unsetf(std::ios::fixed);
}

/// The rows of a rectangle: PrintHelper<i, D> loops over axis D - 1 - i of D axes.
template <int i, int D>
struct PrintHelper {
    template <typename T>
    static void print(const Tensor<T>& tensor, const Dim& start, const Dim& end, Dim& index) {
        constexpr int axis = D - 1 - i;
        for (index[axis] = start[axis]; index[axis] < end[axis]; ++index[axis]) {
            PrintHelper<i - 1, D>::print(tensor, start, end, index);
        }
    }
};

template <int D>
struct PrintHelper<0, D> {
    template <typename T>
    static void print(const Tensor<T>& tensor, const Dim& start, const Dim& end, Dim& index) {
        constexpr int axis = D - 1;
        std::cout << "[";
        for (int leading = 0; leading < axis; ++leading) {
            std::cout << index[leading] << ", ";
        }
        std::cout << start[axis] << " - " << end[axis] - 1 << "]\t";
        for (index[axis] = start[axis]; index[axis] < end[axis]; ++index[axis]) {
            std::cout << tensor[index] << " ";
        }
        std::cout << std::endl;
    }
};

template <typename T>
void vorn_print_tensor(const Tensor<T>& tensor, const Dim& start, const Dim& end) {
    CHECK_EQ(static_cast<int>(tensor.get_dim()), start.get_axis());
    CHECK_EQ(static_cast<int>(tensor.get_dim()), end.get_axis());
    const Dim size = end - start;
    for (int i = 0; i < size.get_axis(); ++i) {
        CHECK_GE(size[i], 0) << "Invalid Dim";
    }
    std::cout << std::fixed;
    std::cout.precision(6);
    Dim index = make_zero_dim(size.get_axis());
    switch (size.get_axis()) {
        case 1:
            PrintHelper<0, 1>::print(tensor, start, end, index);
            break;
        case 2:
            PrintHelper<1, 2>::print(tensor, start, end, index);
            break;
        case 3:
            PrintHelper<2, 3>::print(tensor, start, end, index);
            break;
        case 4:
            PrintHelper<3, 4>::print(tensor, start, end, index);
            break;
        case 5:
            PrintHelper<4, 5>::print(tensor, start, end, index);
            break;
        default:
            LOG_FATAL << "Not Implemented Yet";
    }
    std::cout.unsetf(std::ios::fixed);
}

/// How many of the elements, paired by position, differ by more than 1e-5.
template <typename T>
size_t vorn_check_tensor(const Tensor<T>& in1, const Tensor<T>& in2) {
    const index_t count = in1.get_element_count();
    if (count == 0) {
        return 0;
    }
    // As good as a comparison of the widened difference with the double 1e-5, and twice as fast: no
    // float lies above 1e-5f and not above 1e-5.
    const float tolerance = 1e-5f;
    const index_t width2 = in2.get_w();
    size_t differing = 0;
    // The rows of the two may have different widths: a run ends where either row does.
    for_each_row(in1, count, [&](const T* row1, index_t position, index_t n) {
        for (index_t done = 0, run; done < n; done += run) {
            const index_t row = (position + done) / width2, column = (position + done) % width2;
            run = std::min(width2 - column, n - done);
            const T* in1_p = row1 + done;
            const T* in2_p = in2.get_ptr() + row * in2.ld() + column;
            unsigned in_run = 0;
            iterate(
                [&](index_t i) {
                    const float difference =
                        static_cast<float>(in1_p[i]) - static_cast<float>(in2_p[i]);
                    in_run += std::fabs(difference) > tolerance;
                },
                run);
            differing += in_run;
        }
    });
    return differing;
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_IO_OPS_H_
