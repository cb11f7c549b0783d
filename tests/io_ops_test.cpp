#include <cfloat>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "device_test.h"
#include "memory_file.h"

namespace vorn {
namespace test {
namespace {

/// Fields by hand: little-endian, byte by byte.
std::string fields(const std::vector<int64_t>& values, int width = 4) {
    std::string bytes;
    for (int64_t value : values) {
        for (int i = 0; i < width; ++i) {
            bytes += static_cast<char>(value >> (8 * i));
        }
    }
    return bytes;
}
template <typename T>
std::string elements(const std::vector<T>& values) {
    return std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(T));
}
template <typename T>
std::string plain_file(const Dim& shape, const std::vector<T>& values) {
    return fields({shape.get_axis()}) + fields({shape.begin(), shape.end()}) + elements(values);
}

/// What `write` leaves in a binary file, and in a text file.
std::string binary(const std::function<void(std::ofstream&)>& write) {
    MemoryFile<std::ofstream> out;
    write(out);
    return out.content();
}
std::string text(const std::function<void(FILE*)>& write) {
    char* memory = nullptr;
    size_t length = 0;
    FILE* f = open_memstream(&memory, &length);
    write(f);
    fclose(f);
    const std::string content(memory, length);
    free(memory);
    return content;
}

/// Runs `read` on a text file and returns the character at which it ends.
template <typename F>
int from_text(const std::string& content, F read) {
    FILE* f = tmpfile();
    fwrite(content.data(), 1, content.size(), f);
    rewind(f);
    read(f);
    const int next = getc(f);
    fclose(f);
    return next;
}

void read_plain(Tensor<float>& tensor, const std::string& content, index_t byte_size = 0) {
    MemoryFile<std::ifstream> in(content);
    tensor.read(in, byte_size);
}
void read_hfnn(Tensor<float>& tensor, const std::string& content, index_t byte_size = 0) {
    MemoryFile<std::ifstream> in(content);
    tensor.read_hfnn(in, byte_size);
}
template <typename T>
int read_text(Tensor<T>& tensor, const std::string& content) {
    return from_text(content, [&](FILE* f) { tensor.read(f); });
}

template <typename T>
std::vector<T> ramp(int count) {
    std::vector<T> values(count);
    for (int i = 0; i < count; ++i) {
        values[i] = static_cast<T>(1.25 * i - 3);
    }
    return values;
}

class IoTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, IoTest, kAllPlaces, name_of_place);

template <typename T>
void expect_plain(const Tensor<T>& tensor, const std::vector<T>& values) {
    const std::string expected = plain_file(tensor.get_size(), values);
    EXPECT_EQ(binary([&](std::ofstream& out) { tensor.write(out); }), expected);
    Tensor<T> back(tensor.get_device());
    MemoryFile<std::ifstream> in(expected + "tail");
    back.read(in, 4);
    EXPECT_EQ(in.get(), 't') << "nothing behind the elements is taken";
    EXPECT_EQ(back.get_size().to_string(), tensor.get_size().to_string());
    EXPECT_EQ(values_of(back), values);
}

TEST_P(IoTest, PlainBinaryAndBracketTextOfEveryRank) {
    const std::pair<Dim, std::string> cases[] = {
        {Dim(5), "5 \n[0 - 4]\t-3 -1 0 0 2 \n"},
        {Dim(2, 3), "2 3 \n[0, 0 - 2]\t-3 -1 0 \n[1, 0 - 2]\t0 2 3 \n"},
        {Dim(3, 0, 2), "3 0 2 \n"},
        {Dim(2, 2, 1, 2),
         "2 2 1 2 \n[0, 0, 0, 0 - 1]\t-3 -1 \n[0, 1, 0, 0 - 1]\t0 0 \n"
         "[1, 0, 0, 0 - 1]\t2 3 \n[1, 1, 0, 0 - 1]\t4 5 \n"},
        {Dim(2, 1, 2, 1, 2),
         "2 1 2 1 2 \n[0, 0, 0, 0, 0 - 1]\t-3 -1 \n[0, 0, 1, 0, 0 - 1]\t0 0 \n"
         "[1, 0, 0, 0, 0 - 1]\t2 3 \n[1, 0, 1, 0, 0 - 1]\t4 5 \n"}};
    for (const auto& [shape, expected] : cases) {
        const auto ints = ramp<int>(shape.product());
        const Tensor<int> tensor = make(shape, ints);
        expect_plain(tensor, ints);
        EXPECT_EQ(text([&](FILE* f) { tensor.write(f); }), expected);
        Tensor<int> back(device());
        read_text(back, expected);
        EXPECT_EQ(back.get_size().to_string(), shape.to_string());
        EXPECT_EQ(values_of(back), ints);

        const auto floats = random_values(shape.product(), 1, -1000, 1000);
        const Tensor<float> float_tensor = make(shape, floats);
        if (GetParam() != Place::kHostPitched) {
            expect_plain(float_tensor, floats);
        }
        Tensor<float> float_back(device());
        read_text(float_back, text([&](FILE* f) { float_tensor.write(f); }));
        expect_close(values_of(float_back), widen(floats), 6e-8, 5e-7);
    }
    EXPECT_EQ(binary([&](std::ofstream& out) { Tensor<float>(device()).write(out); }), fields({0}));
    // Rows 1 and 2 of a matrix: a view that is contiguous but doesn't begin its buffer.
    if (!pitched()) {
        const Tensor<float> view = make(Dim(4, 2), ramp<float>(8)).slice(1, 3);
        expect_plain(view, {-0.5f, 0.75f, 2, 3.25f});
    }
    EXPECT_EQ(text([&](FILE* f) { Tensor<int>(Dim(2, 0), device()).write(f); }),
              "2 0 \n[0, 0 - -1]\t\n[1, 0 - -1]\t\n");
    // Some columns of three axes.
    const Tensor<float> whole = make(Dim(2, 2, 3), ramp<float>(12));
    EXPECT_EQ(text([&](FILE* f) { whole.get_block(Dim(0, 0, 1), Dim(2, 2, 3)).write(f); }),
              "2 2 2 \n[0, 0, 0 - 1]\t -1.750000  -0.500000 \n"
              "[0, 1, 0 - 1]\t  2.000000   3.250000 \n[1, 0, 0 - 1]\t  5.750000   7.000000 \n"
              "[1, 1, 0 - 1]\t  9.500000  10.750000 \n");
}

TEST_P(IoTest, HfnnAndScore) {
    if (GetParam() == Place::kHostPitched) {
        return;  // refused, as the failures tell
    }
    const auto values = ramp<float>(12);
    const Tensor<float> matrix = make(Dim(6, 2), values);
    const std::string wide = fields({6, 2}, 8) + elements(values);
    const std::string narrow = fields({6, 2}) + elements(values);
    EXPECT_EQ(binary([&](std::ofstream& out) { matrix.write_hfnn(out); }), wide);
    EXPECT_EQ(binary([&](std::ofstream& out) { matrix.write_score(out); }),
              fields({0, 0, 0}) + narrow);
    // Three sequences of two frames.
    const auto sequence = [&](int index, int len) {
        return binary([&](std::ofstream& out) { matrix.write_score(out, index, 3, len); });
    };
    EXPECT_EQ(sequence(1, 2), fields({0, 0, 0, 2, 2}) + elements(Values{-0.5f, 0.75f, 7, 8.25f}));
    EXPECT_EQ(sequence(2, 1), fields({0, 0, 0, 1, 2}) + elements(Values{2, 3.25f}));
    EXPECT_EQ(sequence(0, 0), fields({0, 0, 0, 0, 2}));
    EXPECT_EQ(sequence(-1, 0), fields({0, 0, 0, 0, 2}));  // nothing is read

    // Sizes are cut to 32 bits.
    const std::string cut = fields({6 | 7ll << 32, 2}, 8) + elements(values);
    const std::pair<std::string, index_t> cases[] = {{wide, 0}, {wide, 8}, {narrow, 4}, {cut, 8}};
    for (const auto& [content, byte_size] : cases) {
        Tensor<float> back(device());
        read_hfnn(back, content, byte_size);
        EXPECT_EQ(back.get_size().to_string(), "Dim [6, 2]");
        EXPECT_EQ(values_of(back), values);
    }
}

TEST_P(IoTest, TextForms) {
    const Tensor<float> matrix = make(Dim(2, 3), Values{1, -2, 0.5f, 1234567, 0, 3});
    const std::string rows[] = {"  1.000000  -2.000000   0.500000 ",
                                "1234567.000000   0.000000   3.000000 "};
    const std::string bracket = "2 3 \n[0, 0 - 2]\t" + rows[0] + "\n[1, 0 - 2]\t" + rows[1] + "\n";
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f, -1); }), bracket);
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f, 4); }), "2 3 \n" + rows[0] + "1234567.000000 ");
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f, 50); }), "2 3 \n" + rows[0] + rows[1]);
    EXPECT_EQ(text([&](FILE* f) { matrix.write_diff(f, 2, 1); }),
              "2 3 \n         0              1.0\n         1             -2.0\n");
    // By name.
    const std::string path = ::testing::TempDir() + "vorn_io_ops_test_" + std::to_string(getpid());
    const auto content = [&] {
        std::ostringstream all;
        all << std::ifstream(path).rdbuf();
        return all.str();
    };
    matrix.write(path.c_str());
    EXPECT_EQ(content(), bracket);
    Tensor<float> back(device());
    back.read(path.c_str());
    EXPECT_EQ(values_of(back), values_of(matrix));
    matrix.write_diff(path.c_str(), -3, 3);
    EXPECT_EQ(content(),
              "2 3 \n         0            1.000\n         1           -2.000\n"
              "         2            0.500\n         3      1234567.000\n"
              "         4            0.000\n         5            3.000\n");
    remove(path.c_str());
    const Tensor<int> ints = make(Dim(2), std::vector<int>{-2, 16777217});
    EXPECT_EQ(text([&](FILE* f) { ints.write_diff(f, 3, 0); }),
              "2 \n         0               -2\n         1         16777216\n")
        << "by way of float";
}

// The block's numbers against the platform's, over blocks and for all sorts of bits.
TEST(TextNumbers, ReadAsPrintfPrintsThem) {
    Values values = {0.f,  -0.f, FLT_MAX, -FLT_MAX, FLT_MIN, 1e-45f, 0.5f,
                     2.5f, 1e6f, kInf,    -kInf,    kNan,    -kNan};
    std::mt19937 engine(7);
    while (values.size() < 3000) {
        const uint32_t bits = engine();
        float value;
        memcpy(&value, &bits, 4);
        values.push_back(value);
    }
    const Tensor<float> tensor(values.data(), Dim(30, 100), CPU);
    for (int fixed : {6, 0, 3, 64, 65, 300, -1}) {
        std::string expected = "30 100 \n";
        for (size_t i = 0; i < values.size(); ++i) {
            char line[512];
            snprintf(line, sizeof(line), "%10d %16.*f\n", static_cast<int>(i), fixed, values[i]);
            expected += line;
        }
        EXPECT_TRUE(text([&](FILE* f) { tensor.write_diff(f, 0, fixed); }) == expected) << fixed;
    }
}

// ---- Files that are cut short or malformed

TEST(TruncatedFiles, LeaveZerosBehindTheLastWholeElement) {
    const auto values = ramp<float>(6);
    const std::string shapes[] = {"Dim [0, 0]", "Dim [2, 0]", "Dim [2, 3]"};
    for (const bool is_plain : {true, false}) {
        const size_t head = is_plain ? 12 : 16;
        const std::string whole =
            is_plain ? plain_file(Dim(2, 3), values) : fields({2, 3}, 8) + elements(values);
        for (size_t length = is_plain ? 1 : 0; length < whole.size(); ++length) {
            Tensor<float> tensor(Dim(4, 4));
            tensor.set_element(kPoison);
            (is_plain ? read_plain : read_hfnn)(tensor, whole.substr(0, length), 0);
            // The low byte of a field is its value.
            const size_t fields = is_plain ? (length + 3) / 4 - 1 : (length + 7) / 8;
            ASSERT_EQ(tensor.get_size().to_string(), shapes[std::min<size_t>(fields, 2)]);
            Values expected(tensor.get_element_count());
            if (length > head) {
                std::copy_n(values.begin(), (length - head) / 4, expected.begin());
            }
            ASSERT_EQ(values_of(tensor), expected) << length << " bytes";
        }
    }
}

/// Reads `rows` as the text reader is told to, without leaving out a single try, and compares.
template <typename T>
void expect_same_as_every_element(const std::string& rows, const Dim& shape) {
    std::vector<T> expected(shape.product());
    const int next = from_text(rows, [&](FILE* f) {
        int ignored;
        for (size_t i = 0; i < expected.size(); ++i) {
            if (i % shape[-1] == 0) {
                (void)!fscanf(f, "\n[");
                for (int axis = 0; axis < shape.get_axis() - 1; ++axis) {
                    (void)!fscanf(f, "%d, ", &ignored);
                }
                (void)!fscanf(f, "%d - %d]\t", &ignored, &ignored);
            }
            (void)!fscanf(f, std::is_same<T, int>::value ? "%d" : "%f", &expected[i]);
        }
    });
    Tensor<T> tensor(Dim(3, 3));
    tensor.ones();
    const std::string head = shape.get_axis() == 2 ? "3 3 and more\n" : "2 2 2\n";
    EXPECT_EQ(read_text(tensor, head + rows), next) << rows;
    const std::vector<T> values = values_of(tensor);
    ASSERT_EQ(values.size(), expected.size());
    ASSERT_EQ(memcmp(values.data(), expected.data(), values.size() * sizeof(T)), 0) << rows;
}

TEST(MalformedText, ReadsWhatConverts) {
    std::mt19937 engine(11);
    const std::string pieces[] = {
        "[0, 0 - 2]\t", "[1, ", "0 - 2]\t", "1.5 ", "-2 ",    "\n", "[", "-", "+", ".",
        "1e+",          "nan ", "in",       "x",    "0x1p3 ", "- ", " ", ",", "]", "n",
        "1e5 ",         "N",    "99999",    "\r",   "2,",     "\t"};
    for (int round = 0; round < 3000; ++round) {
        std::string rows;
        for (int i = engine() % 24; i >= 0; --i) {
            rows += pieces[engine() % std::size(pieces)];
        }
        if (round % 8 == 0) {
            rows[engine() % rows.size()] = '\0';
        }
        const Dim shape = round % 2 ? Dim(3, 3) : Dim(2, 2, 2);
        expect_same_as_every_element<float>(rows, shape);
        expect_same_as_every_element<int>(rows, shape);
    }
}

// A shape that promises 64 million elements of a short file; trying each would take seconds.
TEST(MalformedText, EndsWithTheFile) {
    Tensor<int> tensor;
    for (const char* rows : {"x", "[[[", "1 n", "[0 - 1]\t5 6"}) {
        read_text(tensor, "64000000 \n" + std::string(rows));
        EXPECT_EQ(tensor.get_element_count(), 64000000u);
        EXPECT_EQ(tensor[Dim(1)], rows[0] == '[' && rows[1] == '0' ? 6 : 0);
    }
}

// ---- Failures

TEST(Failures, OfWriters) {
    ThreadContextScope context;
    std::ofstream out("/dev/null");
    FILE* f = fopen("/dev/null", "w");
    const char* no_name = nullptr;
    const Tensor<float> empty, dense(Dim(4, 3)), view = dense.range_col(0, 2), cube(Dim(2, 2, 2));
    const std::string contiguous = failed("tensor.is_contiguous()");
    const std::string matrix = failed("(2) == (get_axis())");
    const std::string length = failed("static_cast<int>(tensor.get_h() / batch_size) >= frame_len");
    const std::string name = failed("nullptr != filename");
    const std::string file = failed("nullptr != fp");
    expect_failures({
        {contiguous, [&] { view.write(out); }},
        {contiguous, [&] { view.write_hfnn(out); }},
        {contiguous, [&] { view.write_score(out); }},
        {contiguous, [&] { view.write_score(out, 0, 2, 2); }},
        {contiguous, [&] { Tensor<float>(Dim(10)).slice(2, 5).write_hfnn(out); }},
        {matrix, [&] { empty.write_hfnn(out); }},
        {matrix, [&] { cube.write_score(out); }},
        {matrix, [&] { cube.write_score(out, 0, 1, 1); }},
        {failed("(batch_idx) < (batch_size)"), [&] { view.write_score(out, 0, 0, 9); }},
        {failed("batch_size != 0"), [&] { dense.write_score(out, -1, 0, 1); }},
        {failed("(batch_idx) >= (0)"), [&] { dense.write_score(out, -1, 2, 1); }},
        {length, [&] { dense.write_score(out, -1, 2, 9); }},
        {contiguous, [&] { view.write_score(out, -1, 2, 1); }},
        {matrix, [&] { cube.write_score(out, -1, 1, 1); }},
        {failed("tensor.get_h() % batch_size == 0"), [&] { view.write_score(out, 0, 3, 9); }},
        {length, [&] { view.write_score(out, 0, 2, 3); }},
        {kBadAxis, [&] { empty.write_score(out, 0, 1, 1); }},
        {kNotImplemented, [&] { empty.write(f, 0); }},
        {kBadAxis, [&] { empty.write(f, 1); }},
        {kBadAxis, [&] { empty.write_diff(f); }},
        {name, [&] { dense.write(no_name); }},
        {name, [&] { dense.write_diff(no_name); }},
        {file, [&] { dense.write("/no/such/place"); }},
        {file, [&] { dense.write_diff("/no/such/place"); }},
    });
    fclose(f);
}

TEST(Failures, OfReaders) {
    Tensor<float> tensor, whole(Dim(2, 3)), block = whole.slice(0, 2);
    const std::string axes = failed("(dimension) > (0) Invalid dim axis");
    const std::string width = failed("(byte_size) == (sizeof(int))", "Unsupport model size");
    const std::string widths =
        failed("byte_size == sizeof(size_t) || byte_size == sizeof(int)", "Unsupport model size");
    const std::string resized = failed("!_is_block", "block tensor can not resize");
    const std::string too_many = failed("(dimension) <= (kMaxDim)", "Invalid dim");
    const char* no_name = nullptr;
    expect_failures({
        {axes + "0", [&] { read_plain(tensor, ""); }},
        {axes + "-2",
         [&] {
             read_plain(tensor, fields({-2, 3}));
         }},
        {too_many + " axis 6", [&] { read_plain(tensor, fields({6})); }},
        {width, [&] { read_plain(block, "", 8); }},
        {width, [&] { read_plain(tensor, "", 2); }},
        {widths, [&] { read_hfnn(tensor, "", 2); }},
        {resized, [&] { read_plain(block, plain_file(Dim(2, 3), ramp<float>(6))); }},
        {resized,
         [&] {
             read_hfnn(block, fields({2, 3}), 4);
         }},
        {resized, [&] { read_text(block, "\n"); }},
        {kTooLarge + "[65536, 32768] product_long 2147483648",
         [&] {
             read_plain(block, fields({2, 65536, 32768}));
         }},
        {kTooLarge + "[-1, 5] product_long -5",
         [&] {
             read_hfnn(tensor, fields({-1, 5}), 4);
         }},
        // Products that wrap around 64 bits.
        {kTooLarge + "[65536, 65536, 65536, 65536] product_long 0",
         [&] { read_text(tensor, "65536 65536 65536 65536\n"); }},
        {too_many + "ension : 6. Max supported dimension : 5",
         [&] { read_text(block, "1 1 1 1 1 1\n"); }},
        {kBadAxis, [&] { read_text(tensor, "x 3\n"); }},
        {not_null("filename"), [&] { tensor.read(no_name); }},
        {not_null("f"), [&] { tensor.read("/no/such/place"); }},
        // A directory can be opened, but not read.
        {kBadAxis, [&] { tensor.read("/"); }},
    });
    // An empty axis makes any shape small.
    read_plain(tensor, fields({4, 1 << 30, 1 << 30, 1 << 30, 0}));
    EXPECT_EQ(tensor.get_element_count(), 0u);
}

}  // namespace
}  // namespace test
}  // namespace vorn
