#include <cfloat>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

/// Files by hand: every field little-endian, byte by byte.
class Bytes {
public:
    Bytes& u32(uint32_t value) { return put(value, 4); }
    Bytes& u64(uint64_t value) { return put(value, 8); }
    Bytes& i32(int value) { return u32(static_cast<uint32_t>(value)); }
    template <typename T>
    Bytes& elements(const std::vector<T>& values) {
        for (T value : values) {
            uint32_t bits;
            memcpy(&bits, &value, 4);
            u32(bits);
        }
        return *this;
    }
    operator std::string() const { return _data; }

private:
    Bytes& put(uint64_t value, int width) {
        for (int i = 0; i < width; ++i) {
            _data += static_cast<char>(value >> (8 * i));
        }
        return *this;
    }

    std::string _data;
};

// One file per process, because each test, and each death test in it, is a process of its own.
std::string path() {
    return ::testing::TempDir() + "vorn_io_ops_test_" + std::to_string(getpid());
}

std::string file_content() {
    std::ifstream in(path(), std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    remove(path().c_str());
    return content.str();
}

/// What `write` leaves in a binary file, and in a text file.
std::string binary(const std::function<void(std::ofstream&)>& write) {
    std::ofstream out(path(), std::ios::binary);
    write(out);
    out.close();
    return file_content();
}
std::string text(const std::function<void(FILE*)>& write) {
    FILE* f = fopen(path().c_str(), "w");
    write(f);
    fclose(f);
    return file_content();
}

template <typename F>
void from_binary(const std::string& content, F read) {
    std::ofstream(path(), std::ios::binary) << content;
    std::ifstream in(path(), std::ios::binary);
    remove(path().c_str());  // before a read that may not return
    read(in);
}

template <typename F>
void from_text(const std::string& content, F read) {
    FILE* f = tmpfile();
    fwrite(content.data(), 1, content.size(), f);
    rewind(f);
    read(f);
    fclose(f);
}

template <typename T>
std::vector<T> ramp(int count) {
    std::vector<T> values(count);
    for (int i = 0; i < count; ++i) {
        values[i] = static_cast<T>(1.25 * i - 3);
    }
    return values;
}

const std::vector<Dim> kShapes = {Dim(5),          Dim(2, 3),    Dim(2, 1, 3),
                                  Dim(2, 2, 1, 2), Dim(3, 0, 2), Dim(2, 1, 2, 1, 2)};

class IoTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, IoTest, kAllPlaces, name_of_place);

// Pitched matrices are refused on the host only.
class BinaryMatrixTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, BinaryMatrixTest,
                         ::testing::Values(Place::kHost, Place::kGpu, Place::kGpuPitched),
                         name_of_place);

template <typename T>
Bytes plain_file(const Dim& shape, const std::vector<T>& values) {
    Bytes bytes;
    bytes.i32(shape.get_axis());
    for (int extent : shape) {
        bytes.i32(extent);
    }
    return bytes.elements(values);
}

template <typename T>
void expect_plain(const Tensor<T>& tensor, const std::vector<T>& values) {
    const std::string expected = plain_file(tensor.get_size(), values);
    EXPECT_EQ(binary([&](std::ofstream& out) { tensor.write(out); }), expected);
    Tensor<T> back(tensor.get_device());
    from_binary(expected + "tail", [&](std::ifstream& in) {
        back.read(in, 4);
        EXPECT_EQ(in.get(), 't') << "nothing behind the elements is taken";
    });
    EXPECT_EQ(back.get_size().to_string(), tensor.get_size().to_string());
    EXPECT_EQ(values_of(back), values);
}

TEST_P(IoTest, PlainBinary) {
    for (const Dim& shape : kShapes) {
        const auto floats = ramp<float>(shape.product());
        if (GetParam() != Place::kHostPitched) {
            expect_plain(make(shape, floats), floats);
        }
        const auto ints = ramp<int>(shape.product());
        expect_plain(make(shape, ints), ints);
    }
    EXPECT_EQ(binary([&](std::ofstream& out) { Tensor<float>(device()).write(out); }),
              std::string(4, '\0'));
    // Rows 1 and 2 of a matrix: a view that is contiguous but doesn't begin its buffer.
    if (!pitched()) {
        const Tensor<float> view = make(Dim(4, 2), ramp<float>(8)).slice(1, 3);
        expect_plain(view, {-0.5f, 0.75f, 2, 3.25f});
    }
}

TEST_P(BinaryMatrixTest, HfnnAndScore) {
    const Tensor<float> matrix = make(Dim(2, 3), Values{1, -2, 0.5f, 1.5f, 0, 3});
    Bytes elements;
    for (uint32_t bits : {0x3f800000u, 0xc0000000u, 0x3f000000u, 0x3fc00000u, 0u, 0x40400000u}) {
        elements.u32(bits);
    }
    const std::string data = elements;
    const std::string wide = std::string(Bytes().u64(2).u64(3)) + data;
    EXPECT_EQ(binary([&](std::ofstream& out) { matrix.write_hfnn(out); }), wide);
    EXPECT_EQ(binary([&](std::ofstream& out) { matrix.write_score(out); }),
              std::string(Bytes().i32(0).i32(0).i32(0).i32(2).i32(3)) + data);

    const std::string narrow = std::string(Bytes().i32(2).i32(3)) + data;
    // Sizes are cut to 32 bits.
    const std::string cut = std::string(Bytes().u64(2 | 7ull << 32).u64(3)) + data;
    const std::pair<std::string, index_t> cases[] = {{wide, 0}, {wide, 8}, {narrow, 4}, {cut, 8}};
    for (const auto& [content, byte_size] : cases) {
        Tensor<float> back(device());
        const index_t width = byte_size;
        from_binary(content, [&](std::ifstream& in) { back.read_hfnn(in, width); });
        EXPECT_EQ(back.get_size().to_string(), "Dim [2, 3]");
        EXPECT_EQ(back.check(matrix), 0u);
    }
}

TEST_P(BinaryMatrixTest, ScoreOfOneSequence) {
    // Three sequences of two frames.
    const Tensor<float> matrix = make(Dim(6, 2), ramp<float>(12));
    const auto head = [](int rows) { return Bytes().i32(0).i32(0).i32(0).i32(rows).i32(2); };
    const auto written = [&](int batch_idx, int frame_len) {
        return binary(
            [&](std::ofstream& out) { matrix.write_score(out, batch_idx, 3, frame_len); });
    };
    EXPECT_EQ(written(1, 2), std::string(head(2).elements(Values{-0.5f, 0.75f, 7, 8.25f})));
    EXPECT_EQ(written(2, 1), std::string(head(1).elements(Values{2, 3.25f})));
    EXPECT_EQ(written(0, 0), std::string(head(0)));
    EXPECT_EQ(matrix.get_h(), 6u);
}

TEST_P(IoTest, TextForms) {
    const Tensor<float> matrix = make(Dim(2, 3), Values{1, -2, 0.5f, 1234567, 0, 3});
    const std::string rows[] = {"  1.000000  -2.000000   0.500000 ",
                                "1234567.000000   0.000000   3.000000 "};
    const std::string bracket = "2 3 \n[0, 0 - 2]\t" + rows[0] + "\n[1, 0 - 2]\t" + rows[1] + "\n";
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f); }), bracket);
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f, -1); }), bracket);
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f, 4); }), "2 3 \n" + rows[0] + "1234567.000000 ");
    EXPECT_EQ(text([&](FILE* f) { matrix.write(f, 50); }), "2 3 \n" + rows[0] + rows[1]);
    const std::string diff =
        "2 3 \n"
        "         0            1.000\n         1           -2.000\n         2            0.500\n"
        "         3      1234567.000\n         4            0.000\n         5            3.000\n";
    EXPECT_EQ(text([&](FILE* f) { matrix.write_diff(f, 0, 3); }), diff);
    EXPECT_EQ(text([&](FILE* f) { matrix.write_diff(f, 9, 3); }), diff);
    EXPECT_EQ(text([&](FILE* f) { matrix.write_diff(f, 2, 1); }),
              "2 3 \n         0              1.0\n         1             -2.0\n");
    matrix.write(path().c_str());
    EXPECT_EQ(file_content(), bracket);
    matrix.write_diff(path().c_str(), -3, 3);
    EXPECT_EQ(file_content(), diff);

    const Tensor<int> ints = make(Dim(2, 1, 3), std::vector<int>{1, -2, 16777217, 0, 5, -6});
    EXPECT_EQ(text([&](FILE* f) { ints.write(f); }),
              "2 1 3 \n[0, 0, 0 - 2]\t1 -2 16777217 \n[1, 0, 0 - 2]\t0 5 -6 \n");
    EXPECT_EQ(text([&](FILE* f) { ints.write_diff(f, 3, 0); }),
              "2 1 3 \n         0                1\n         1               -2\n"
              "         2         16777216\n")
        << "by way of float";
}

TEST_P(IoTest, BracketTextOfEveryRank) {
    const std::string expected[] = {
        "5 \n[0 - 4]\t-3 -1 0 0 2 \n",
        "2 3 \n[0, 0 - 2]\t-3 -1 0 \n[1, 0 - 2]\t0 2 3 \n",
        "2 1 3 \n[0, 0, 0 - 2]\t-3 -1 0 \n[1, 0, 0 - 2]\t0 2 3 \n",
        "2 2 1 2 \n[0, 0, 0, 0 - 1]\t-3 -1 \n[0, 1, 0, 0 - 1]\t0 0 \n"
        "[1, 0, 0, 0 - 1]\t2 3 \n[1, 1, 0, 0 - 1]\t4 5 \n",
        "3 0 2 \n",
        "2 1 2 1 2 \n[0, 0, 0, 0, 0 - 1]\t-3 -1 \n[0, 0, 1, 0, 0 - 1]\t0 0 \n"
        "[1, 0, 0, 0, 0 - 1]\t2 3 \n[1, 0, 1, 0, 0 - 1]\t4 5 \n"};
    for (size_t i = 0; i < kShapes.size(); ++i) {
        const auto values = ramp<int>(kShapes[i].product());
        EXPECT_EQ(text([&](FILE* f) { make(kShapes[i], values).write(f); }), expected[i]);
        Tensor<int> back(device());
        from_text(expected[i], [&](FILE* f) { back.read(f); });
        EXPECT_EQ(back.get_size().to_string(), kShapes[i].to_string());
        EXPECT_EQ(values_of(back), values);

        const auto floats = random_values(kShapes[i].product(), 1, -1000, 1000);
        make(kShapes[i], floats).write(path().c_str());
        Tensor<float> float_back(device());
        float_back.read(path().c_str());
        expect_close(values_of(float_back), {floats.begin(), floats.end()}, 6e-8, 5e-7);
    }
    EXPECT_EQ(text([&](FILE* f) { Tensor<int>(Dim(2, 0), device()).write(f); }),
              "2 0 \n[0, 0 - -1]\t\n[1, 0 - -1]\t\n");
    // Some columns of three axes.
    Tensor<float> whole(Dim(2, 2, 3), device());
    whole.copy_from(ramp<float>(12).data(), 0, 12);
    EXPECT_EQ(text([&](FILE* f) { whole.get_block(Dim(0, 0, 1), Dim(2, 2, 3)).write(f); }),
              "2 2 2 \n[0, 0, 0 - 1]\t -1.750000  -0.500000 \n"
              "[0, 1, 0 - 1]\t  2.000000   3.250000 \n[1, 0, 0 - 1]\t  5.750000   7.000000 \n"
              "[1, 1, 0 - 1]\t  9.500000  10.750000 \n");
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
        const std::string whole =
            is_plain ? plain_file(Dim(2, 3), values) : Bytes().u64(2).u64(3).elements(values);
        const size_t head = is_plain ? 12 : 16;
        for (size_t length = is_plain ? 1 : 0; length < whole.size(); ++length) {
            Tensor<float> tensor(Dim(4, 4));
            tensor.set_element(kPoison);
            from_binary(whole.substr(0, length), [&](std::ifstream& in) {
                is_plain ? tensor.read(in) : tensor.read_hfnn(in);
            });
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

/// The text reader as it is told, without leaving out a single try.
template <typename T>
std::vector<T> read_every_element(FILE* f, const Dim& shape) {
    std::vector<T> values(shape.product());
    int ignored;
    for (size_t i = 0; i < values.size(); ++i) {
        if (i % shape[-1] == 0) {
            (void)!fscanf(f, "\n[");
            for (int axis = 0; axis < shape.get_axis() - 1; ++axis) {
                (void)!fscanf(f, "%d, ", &ignored);
            }
            (void)!fscanf(f, "%d - %d]\t", &ignored, &ignored);
        }
        (void)!fscanf(f, std::is_same<T, int>::value ? "%d" : "%f", &values[i]);
    }
    return values;
}

template <typename T>
void expect_same_as_every_element(const std::string& rows, const Dim& shape) {
    std::vector<T> expected;
    int expected_next = 0;
    from_text(rows, [&](FILE* f) {
        expected = read_every_element<T>(f, shape);
        expected_next = getc(f);
    });
    std::ostringstream content;
    for (int extent : shape) {
        content << extent << " ";
    }
    Tensor<T> tensor;
    from_text(content.str() + "\n" + rows, [&](FILE* f) {
        tensor.read(f);
        EXPECT_EQ(getc(f), expected_next) << rows;
    });
    const std::vector<T> values = values_of(tensor);
    ASSERT_EQ(memcmp(values.data(), expected.data(), values.size() * sizeof(T)), 0) << rows;
}

TEST(MalformedText, ReadsWhatConverts) {
    const std::pair<std::string, Values> cases[] = {
        {"[0, 0 - 1]\t1 2 \n[1, 0 - 1]\t3 4 \n", {1, 2, 3, 4}},
        {"[7, 8 - 9]\t1 2 \n[-1, 0 - 0]\t3 4 \n", {1, 2, 3, 4}},
        {"[0, 0 - 1]\t1 2 \n[1, 0 - 1]\t3", {1, 2, 3, 0}},
        {"[0, 0 - 1]\t1 x \n[1, 0 - 1]\t3 4 \n", {1, 0, 0, 0}},
        {"[0, 0 - 1]\t[1, 0 - 1]\t3 4 \n", {0, 0, 3, 4}},
        {"[0, 0 - 1]\t- 2 \n[1, 0 - 1]\t3 4 \n", {0, 2, 3, 4}},
        {"", {0, 0, 0, 0}},
    };
    for (const auto& [rows, expected] : cases) {
        Tensor<float> tensor(Dim(3, 3));
        tensor.ones();
        from_text("2 2 and more\n" + rows, [&](FILE* f) { tensor.read(f); });
        EXPECT_EQ(values_of(tensor), expected) << rows;
    }

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
        from_text("64000000 \n" + std::string(rows), [&](FILE* f) { tensor.read(f); });
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
    const std::string contiguous = "Check failed: tensor.is_contiguous() ";
    const std::string matrix = "Check failed: (2) == (get_axis()) ";
    const std::string axis =
        "Check failed: axis_idx >= -num_axis && axis_idx < num_axis error axis index.";
    expect_failures({
        {contiguous, [&] { view.write(out); }},
        {contiguous, [&] { view.write_hfnn(out); }},
        {contiguous, [&] { view.write_score(out); }},
        {contiguous, [&] { view.write_score(out, 0, 2, 2); }},
        {contiguous, [&] { Tensor<float>(Dim(10)).slice(2, 5).write_hfnn(out); }},
        {matrix, [&] { empty.write_hfnn(out); }},
        {matrix, [&] { cube.write_hfnn(out); }},
        {matrix, [&] { cube.write_score(out); }},
        {matrix, [&] { cube.write_score(out, 0, 1, 1); }},
        {"Check failed: (batch_idx) < (batch_size) ", [&] { view.write_score(out, 3, 3, 9); }},
        {"Check failed: (batch_idx) >= (0) ", [&] { dense.write_score(out, -1, 0, 1); }},
        {"Check failed: tensor.get_h() % batch_size == 0 ",
         [&] { view.write_score(out, 0, 3, 9); }},
        {"Check failed: static_cast<int>(tensor.get_h() / batch_size) >= frame_len ",
         [&] { view.write_score(out, 0, 2, 3); }},
        {axis, [&] { empty.write_score(out, 0, 1, 1); }},
        {"Not Implemented Yet", [&] { empty.write(f, 0); }},
        {axis, [&] { empty.write(f, 1); }},
        {axis, [&] { empty.write_diff(f); }},
        {"Check failed: nullptr != filename ", [&] { dense.write(no_name); }},
        {"Check failed: nullptr != filename ", [&] { dense.write_diff(no_name); }},
        {"Check failed: nullptr != fp ", [&] { dense.write("/no/such/place"); }},
        {"Check failed: nullptr != fp ", [&] { dense.write_diff("/no/such/place"); }},
    });
    fclose(f);
}

TEST(Failures, OfReaders) {
    Tensor<float> tensor;
    Tensor<float> whole(Dim(2, 3));
    Tensor<float> block = whole.slice(0, 2);
    const auto plain = [](Tensor<float>& t, const std::string& content, index_t byte_size = 0) {
        from_binary(content, [&](std::ifstream& in) { t.read(in, byte_size); });
    };
    const auto hfnn = [](Tensor<float>& t, const std::string& content, index_t byte_size) {
        from_binary(content, [&](std::ifstream& in) { t.read_hfnn(in, byte_size); });
    };
    const auto bracket = [](Tensor<float>& t, const std::string& content) {
        from_text(content, [&](FILE* f) { t.read(f); });
    };
    const std::string width = "Check failed: (byte_size) == (sizeof(int)) Unsupport model size";
    const std::string block_text = "Check failed: !_is_block block tensor can not resize";
    const std::string too_big =
        "Check failed: ret <= static_cast<index_t>(std::numeric_limits<int>::max()) Dim size error "
        "Dim ";
    const auto one = [](int a) { return std::string(Bytes().i32(a)); };
    const auto two = [&](int a, int b) { return one(a) + one(b); };
    expect_failures({
        {"Check failed: (dimension) > (0) Invalid dim axis 0", [&] { plain(tensor, ""); }},
        {"Check failed: (dimension) > (0) Invalid dim axis -2", [&] { plain(tensor, two(-2, 3)); }},
        {"Check failed: (dimension) <= (kMaxDim) Invalid dim axis 6",
         [&] { plain(tensor, one(6)); }},
        {width, [&] { plain(block, "", 8); }},
        {width, [&] { plain(tensor, "", 2); }},
        {"Check failed: byte_size == sizeof(size_t) || byte_size == sizeof(int) Unsupport model "
         "size",
         [&] { hfnn(tensor, "", 2); }},
        {block_text, [&] { plain(block, plain_file(Dim(2, 3), ramp<float>(6))); }},
        {block_text, [&] { hfnn(block, two(2, 3), 4); }},
        {block_text, [&] { bracket(block, "\n"); }},
        {too_big + "[65536, 32768] product_long 2147483648",
         [&] { plain(block, two(2, 65536) + one(32768)); }},
        {too_big + "[-1, 5] product_long -5", [&] { hfnn(tensor, two(-1, 5), 4); }},
        // Products that wrap around 64 bits.
        {too_big + "[65536, 65536, 65536, 65536] product_long 0",
         [&] { bracket(tensor, "65536 65536 65536 65536\n"); }},
        {"Check failed: (dimension) <= (kMaxDim) Invalid dimension : 6. Max supported dimension : "
         "5",
         [&] { bracket(block, "1 1 1 1 1 1\n"); }},
        {"Check failed: axis_idx >= -num_axis && axis_idx < num_axis error axis index.",
         [&] { bracket(tensor, "x 3\n"); }},
        {"Check notnull: filename ", [&] { tensor.read(static_cast<const char*>(nullptr)); }},
        {"Check notnull: f ", [&] { tensor.read("/no/such/place"); }},
        // A directory can be opened, but not read.
        {"Check failed: axis_idx >= -num_axis && axis_idx < num_axis error axis index.",
         [&] { tensor.read("/"); }},
    });
    // An empty axis makes any shape small.
    plain(tensor, two(4, 1 << 30) + two(1 << 30, 1 << 30) + one(0));
    EXPECT_EQ(tensor.get_element_count(), 0u);
}

}  // namespace
}  // namespace test
}  // namespace vorn
