#include <fcntl.h>
#include <nanobind/stl/optional.h>
#include <nanobind/stl/string.h>
#include <unistd.h>
#include <ext/stdio_filebuf.h>

#include <cerrno>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>

#include "tensor_class.h"

/// Files and printing. Streams of the library are binary files in Python, and its FILEs text files;
/// both are told from each other as the members are.
namespace vorn {
namespace python {

namespace {

[[noreturn]] void throw_os_error() {
    PyErr_SetFromErrno(PyExc_OSError);
    throw nb::python_error();
}

/// A Python file while the library works on its descriptor: the position goes over and comes back.
class SharedFile {
public:
    explicit SharedFile(nb::handle file) : _file(file) {
        if (!nb::cast<bool>(file.attr("seekable")())) {
            throw nb::value_error("the file is not seekable");
        }
        if (nb::cast<bool>(file.attr("writable")())) {
            file.attr("flush")();
        }
        const int descriptor = nb::cast<int>(file.attr("fileno")());
        if (lseek(descriptor, nb::cast<off_t>(file.attr("tell")()), SEEK_SET) < 0 ||
            (_descriptor = dup(descriptor)) < 0) {
            throw_os_error();
        }
    }
    ~SharedFile() { close(_descriptor); }
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;

    /// Another descriptor of the file, which the caller closes.
    int descriptor() const {
        const int descriptor = dup(_descriptor);
        if (descriptor < 0) {
            throw_os_error();
        }
        return descriptor;
    }
    void go_on_at(off_t position) { _file.attr("seek")(position); }
    off_t position() const { return lseek(_descriptor, 0, SEEK_CUR); }

private:
    nb::handle _file;
    int _descriptor;
};

bool is_text(nb::handle file) {
    return nb::isinstance(file, nb::module_::import_("io").attr("TextIOBase"));
}

void check_is_binary(nb::handle file) {
    if (is_text(file)) {
        throw nb::type_error("the binary forms go into files that are open in binary mode");
    }
}

/// Calls write(std::ofstream&) on a file that is open in binary mode.
template <typename F>
void write_binary(nb::handle file, F write) {
    check_is_binary(file);
    SharedFile shared(file);
    {
        const Computing computing;
        const WritingEarly writing_early;
        __gnu_cxx::stdio_filebuf<char> buffer(shared.descriptor(),
                                              std::ios::out | std::ios::binary);
        std::ofstream stream;
        stream.std::ios::rdbuf(&buffer);
        write(stream);
        stream.flush();
        if (!stream) {
            const nb::gil_scoped_acquire gil;
            throw_os_error();
        }
    }
    shared.go_on_at(shared.position());
}

/// Calls read(std::ifstream&) on a file that is open in binary mode.
template <typename F>
void read_binary(nb::handle file, F read) {
    check_is_binary(file);
    SharedFile shared(file);
    off_t position;
    {
        const Computing computing;
        const WritingEarly writing_early;
        __gnu_cxx::stdio_filebuf<char> buffer(shared.descriptor(), std::ios::in | std::ios::binary);
        std::ifstream stream;
        stream.std::ios::rdbuf(&buffer);
        read(stream);
        stream.clear();  // of the end of the file
        position = stream.tellg();
    }
    shared.go_on_at(position);
}

/// Calls use(FILE*) on a file that is open in text mode.
template <typename F>
void use_text(nb::handle file, const char* mode, F use) {
    SharedFile shared(file);
    off_t position;
    {
        const Computing computing;
        const WritingEarly writing_early;
        const std::unique_ptr<FILE, int (*)(FILE*)> stream(fdopen(shared.descriptor(), mode),
                                                           fclose);
        use(stream.get());
        if (fflush(stream.get()) != 0) {
            const nb::gil_scoped_acquire gil;
            throw_os_error();
        }
        position = ftello(stream.get());
    }
    shared.go_on_at(position);
}

/// What is printed on standard output goes there after what Python has printed.
template <typename F>
void print_in_order(F print) {
    nb::module_::import_("sys").attr("stdout").attr("flush")();
    const Computing computing;
    print();
    std::cout.flush();
}

template <typename T>
void bind_writers(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    using In = const Self&;
    tensor
        .member(
            "write",
            [](In t, const char* filename, int count) {
                const WritingEarly writing_early;
                t.write(filename, count);
            },
            "filename"_a, "count"_a = 0)
        .query(
            "write",
            [](In t, nb::object out) {
                if (is_text(out)) {
                    use_text(out, "w", [&](FILE* f) { t.write(f); });
                } else {
                    write_binary(out, [&](std::ofstream& stream) { t.write(stream); });
                }
            },
            "out"_a)
        .query(
            "write",
            [](In t, nb::object f, int count) {
                use_text(f, "w", [&](FILE* file) { t.write(file, count); });
            },
            "f"_a, "count"_a = 0)
        .member(
            "write_diff",
            [](In t, const char* filename, int count, int fixed) {
                const WritingEarly writing_early;
                t.write_diff(filename, count, fixed);
            },
            "filename"_a, "count"_a = 0, "fixed"_a = 6)
        .query(
            "write_diff",
            [](In t, nb::object f, int count, int fixed) {
                use_text(f, "w", [&](FILE* file) { t.write_diff(file, count, fixed); });
            },
            "f"_a, "count"_a = 0, "fixed"_a = 6);
}

template <typename T>
void bind_readers(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    tensor
        .member(
            "read",
            [](Self& t, const char* filename) {
                const WritingEarly writing_early;
                t.read(filename);
            },
            "filename"_a)
        .query(
            "read",
            [](Self& t, nb::object in, index_t byte_size) {
                if (is_text(in)) {
                    use_text(in, "r", [&](FILE* file) { t.read(file); });
                } else {
                    read_binary(in, [&](std::ifstream& stream) { t.read(stream, byte_size); });
                }
            },
            "in_"_a, "byte_size"_a = 0)
        .query(
            "read",
            [](Self& t, nb::object f) { use_text(f, "r", [&](FILE* file) { t.read(file); }); },
            "f"_a);
}

template <typename T>
void bind_printing(TensorClass<T>& tensor) {
    using Self = Tensor<T>;
    using In = const Self&;
    tensor
        .query(
            "show",
            [](In t, const char* name, int count) { print_in_order([&] { t.show(name, count); }); },
            "name"_a, "count"_a = 0)
        .query(
            "show",
            [](In t, const char* name, const Dim& start, const Dim& stop) {
                print_in_order([&] { t.show(name, start, stop); });
            },
            "name"_a, "start"_a, "stop"_a)
        .query(
            "show",
            [](In t, const char* name, int w1, int w2) {
                print_in_order([&] { t.show(name, w1, w2); });
            },
            "name"_a, "w1"_a, "w2"_a)
        .query(
            "show",
            [](In t, const char* name, int h1, int w1, int h2, int w2) {
                print_in_order([&] { t.show(name, h1, w1, h2, w2); });
            },
            "name"_a, "h1"_a, "w1"_a, "h2"_a, "w2"_a)
        .query(
            "show",
            [](In t, const char* name, int c1, int h1, int w1, int c2, int h2, int w2) {
                print_in_order([&] { t.show(name, c1, h1, w1, c2, h2, w2); });
            },
            "name"_a, "c1"_a, "h1"_a, "w1"_a, "c2"_a, "h2"_a, "w2"_a)
        .query(
            "show",
            [](In t, const char* name, int n1, int c1, int h1, int w1, int n2, int c2, int h2,
               int w2) { print_in_order([&] { t.show(name, n1, c1, h1, w1, n2, c2, h2, w2); }); },
            "name"_a, "n1"_a, "c1"_a, "h1"_a, "w1"_a, "n2"_a, "c2"_a, "h2"_a, "w2"_a)
        .member(
            "check", [](In t, In ref, std::optional<std::string>, index_t) { return t.check(ref); },
            "ref"_a, "filename"_a = nb::none(), "index"_a = 0);
}

void bind_matrix_files(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    using In = const Self&;
    tensor
        .query(
            "write_hfnn",
            [](In t, nb::object out) {
                write_binary(out, [&](std::ofstream& stream) { t.write_hfnn(stream); });
            },
            "out"_a)
        .query(
            "read_hfnn",
            [](Self& t, nb::object in, index_t byte_size) {
                read_binary(in, [&](std::ifstream& stream) { t.read_hfnn(stream, byte_size); });
            },
            "in_"_a, "byte_size"_a = 0)
        .query(
            "write_score",
            [](In t, nb::object out) {
                write_binary(out, [&](std::ofstream& stream) { t.write_score(stream); });
            },
            "out"_a)
        .query(
            "write_score",
            [](In t, nb::object out, int batch_idx, int batch_size, int frame_len) {
                write_binary(out, [&](std::ofstream& stream) {
                    t.write_score(stream, batch_idx, batch_size, frame_len);
                });
            },
            "out"_a, "batch_idx"_a, "batch_size"_a, "frame_len"_a);
}

}  // namespace

template <typename T>
void bind_files(TensorClass<T>& tensor) {
    bind_writers(tensor);
    bind_readers(tensor);
    bind_printing(tensor);
    if constexpr (std::is_same<T, float>::value) {
        bind_matrix_files(tensor);
    }
}

template void bind_files(TensorClass<float>&);
template void bind_files(TensorClass<int>&);

}  // namespace python
}  // namespace vorn
