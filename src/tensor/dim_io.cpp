#include <fstream>

#include "vorn/tensor/dim.h"

namespace vorn {

template <typename Field>
static void write_fields(std::ofstream& out, const Field* fields, size_t count) {
    out.write(reinterpret_cast<const char*>(fields), count * sizeof(Field));
}

template <typename Field>
static void read_fields(std::ifstream& in, Field* fields, size_t count) {
    in.read(reinterpret_cast<char*>(fields), count * sizeof(Field));
}

// ---- Text

void Dim::write(FILE* f) const {
    for (int extent : *this) {
        fprintf(f, "%d ", extent);
    }
    fprintf(f, "\n");
}

void Dim::read(FILE* f) {
    clear();
    char line[256];
    if (fgets(line, sizeof(line), f) == nullptr) {
        return;
    }
    int extent, length;
    for (const char* pos = line; sscanf(pos, "%d%n", &extent, &length) == 1; pos += length) {
        ++dimension;
        CHECK_LE(dimension, kMaxDim)
            << "Invalid dimension : " << dimension << ". Max supported dimension : " << kMaxDim;
        dims[dimension - 1] = extent;
    }
}

// ---- Plain binary

void Dim::write(std::ofstream& out) const {
    write_fields(out, &dimension, 1);
    write_fields(out, dims, dimension);
}

void Dim::read(std::ifstream& in, size_t byte_size) {
    if (byte_size == 0) {
        byte_size = sizeof(int);
    }
    CHECK_EQ(byte_size, sizeof(int)) << "Unsupport model size";
    clear();
    read_fields(in, &dimension, 1);
    CHECK_GT(dimension, 0) << "Invalid dim axis " << dimension;
    CHECK_LE(dimension, kMaxDim) << "Invalid dim axis " << dimension;
    read_fields(in, dims, dimension);
}

// ---- hfnn

void Dim::write_hfnn(std::ofstream& out) const {
    CHECK_EQ(2, get_axis());
    const size_t sizes[2] = {static_cast<size_t>(dims[0]), static_cast<size_t>(dims[1])};
    write_fields(out, sizes, 2);
}

void Dim::read_hfnn(std::ifstream& in, size_t byte_size) {
    if (byte_size == 0) {
        byte_size = sizeof(size_t);
    }
    CHECK(byte_size == sizeof(size_t) || byte_size == sizeof(int)) << "Unsupport model size";
    clear();
    if (byte_size == sizeof(size_t)) {
        size_t sizes[2] = {};
        read_fields(in, sizes, 2);
        dims[0] = static_cast<int>(sizes[0]);
        dims[1] = static_cast<int>(sizes[1]);
    } else {
        read_fields(in, dims, 2);
    }
    dimension = 2;
}

// ---- Score

void Dim::write_score(std::ofstream& out) const {
    CHECK_EQ(2, get_axis());
    write_score(out, dims[0]);
}

void Dim::write_score(std::ofstream& out, int frame_len) const {
    CHECK_EQ(2, get_axis());
    const int head[5] = {0, 0, 0, frame_len, dims[1]};
    write_fields(out, head, 5);
}

}  // namespace vorn
