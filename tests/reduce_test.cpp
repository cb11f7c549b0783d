#include <cfloat>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

struct Fold {
    const char* name;
    void (TensorF::*rows)(const TensorF&, DType, DType);
    void (TensorF::*columns)(const TensorF&, DType, DType);
    float start;
    float (*rule)(float, float);
};

const Fold kFolds[] = {
    {"sum", &TensorF::row_sum, &TensorF::col_sum, 0, [](float a, float b) { return a + b; }},
    {"max", &TensorF::row_max, &TensorF::col_max, -FLT_MAX,
     [](float a, float b) { return a > b ? a : b; }},
    {"min", &TensorF::row_min, &TensorF::col_min, FLT_MAX,
     [](float a, float b) { return a < b ? a : b; }},
};

// Every `leaves`-th element into a leaf, then halves of the leaves: the order of a GPU. With one
// leaf it is that of the host, each element in turn.
float folded(const Fold& fold, const float* p, size_t count, size_t step, size_t leaves) {
    std::vector<float> leaf(leaves, fold.start);
    for (size_t i = 0; i < count; ++i) {
        leaf[i % leaves] = fold.rule(leaf[i % leaves], p[i * step]);
    }
    for (size_t half = leaves / 2; half > 0; half /= 2) {
        for (size_t i = 0; i < half; ++i) {
            leaf[i] = fold.rule(leaf[i], leaf[i + half]);
        }
    }
    return leaf[0];
}

// Random values, of which about `specials` in a hundred are NaN, zeros and infinities; the rest is
// then of one sign, so that zeros of both signs are extremes.
Values mixed_values(size_t count, unsigned seed, int specials) {
    const float special[] = {kNan, 0.0f, -0.0f, kInf, -kInf, -FLT_MAX};
    const float low = specials > 0 && seed % 2 == 0 ? 0 : -1,
                high = specials > 0 && low < 0 ? 0 : 1;
    Values values = random_values(count, seed, low, high);
    std::mt19937 engine(seed + 1);
    for (float& value : values) {
        if (static_cast<int>(engine() % 100) < specials) {
            value = special[engine() % 6];
        }
    }
    return values;
}

// The bits of a NaN that an addition makes are the machine's own.
void expect_same_but_for_nans(Values actual, Values expected) {
    for (Values* values : {&actual, &expected}) {
        for (float& value : *values) {
            value = std::isnan(value) ? kNan : value;
        }
    }
    expect_same_bits(actual, expected);
}

class ReduceTest : public DeviceTest {
protected:
    void expect_folds(int rows, int columns, int specials) {
        const unsigned seed = 100 * rows + columns;
        const Values values = mixed_values(rows * columns, seed, specials);
        const TensorF in = make(Dim(rows, columns), values);
        for (const Fold& fold : kFolds) {
            for (bool of_rows : {true, false}) {
                const int count = of_rows ? rows : columns, length = of_rows ? columns : rows;
                const Dim shapes[] = {Dim(count), Dim(1, count), Dim(count, 1), Dim()};
                const int leaves = on_gpu() ? of_rows ? 128 : 32 : 1;
                // What is kept of an old 0 is -0, to which a zero adds its sign.
                const Values old = specials ? Values(count, 0) : random_values(count, seed + 2);
                Values expected;
                for (int k = 0; k < count; ++k) {
                    const float* p = values.data() + (of_rows ? k * columns : k);
                    const float value = folded(fold, p, length, of_rows ? 1 : columns, leaves);
                    expected.push_back(blend(0.7f, value, -0.3f, old[k]));
                }
                const TensorF memory = make(old);
                TensorF out(memory.get_ptr(), shapes[seed % 4], device());
                (out.*(of_rows ? fold.rows : fold.columns))(in, 0.7f, -0.3f);
                SCOPED_TRACE(::testing::Message()
                             << fold.name << (of_rows ? " of rows, " : " of columns, ") << rows
                             << " x " << columns);
                expect_same_but_for_nans(values_of(memory), expected);
            }
        }
    }
};
INSTANTIATE_TEST_SUITE_P(, ReduceTest, kAllPlaces, name_of_place);

// Few rows, 16 short ones and 16 long ones go their own ways on the host, with every kind of rest.
TEST_P(ReduceTest, RowsAndColumnsFoldInTheToldOrder) {
    std::vector<int> columns = {127, 128, 129, 255, 256, 257, 513, 1030};
    std::vector<int> rows = {1, 5, 7, 8, 9, 15, 16, 17, 24, 25, 33};
    if (on_gpu()) {
        columns = {1, 3, 31, 32, 33, 127, 128, 129, 513};
        rows = {1, 32, 33, 65};
    } else {
        for (int n = 1; n <= 40; ++n) {
            columns.push_back(n);
        }
    }
    for (int m : rows) {
        for (int n : columns) {
            expect_folds(m, n, 0);
            expect_folds(m, n, 20);
        }
    }
    expect_folds(11, 2053, 5);  // more columns than the host takes in one strip
}

TEST_P(ReduceTest, IntSumsAreExactAndBlendInFloat) {
    // Sums beyond 2^24, which float can't hold.
    const int rows = 37, columns = 45;
    std::vector<int> values(rows * columns);
    std::vector<int64_t> of_rows(rows), of_columns(columns);
    std::mt19937 engine(3);
    for (int k = 0; k < rows * columns; ++k) {
        values[k] = static_cast<int>(engine() % 4000001) - 1000000;
        of_rows[k / columns] += values[k];
        of_columns[k % columns] += values[k];
    }
    const Block<int> block(Dim(rows, columns), device(), pitched() ? 5 : 0);
    Tensor<int> in = block.tensor;
    in.copy_from(dense(in.get_size(), values, CPU));
    for (const auto& [alpha, beta] : {std::pair<float, float>{1, 0}, {0.3f, 1.5f}}) {
        for (bool by_rows : {true, false}) {
            const std::vector<int64_t>& exact = by_rows ? of_rows : of_columns;
            Tensor<int> out = poisoned<int>(Dim(static_cast<int>(exact.size())));
            by_rows ? out.row_sum(in, alpha, beta) : out.col_sum(in, alpha, beta);
            std::vector<int> expected;
            for (int64_t sum : exact) {
                const float blended = blend(alpha, static_cast<float>(sum), beta, kPoison);
                expected.push_back(static_cast<int>(blended));
            }
            EXPECT_EQ(values_of(out), expected);
        }
    }
}

TEST_P(ReduceTest, EmptyOperandsAndOldOutputs) {
    const TensorF no_columns(Dim(3, 0), device()), no_rows(Dim(0, 3), device());
    TensorF out = poisoned(Dim(3)), untouched = make(Values{5});
    out.row_max(no_columns, 1, 0);
    expect_same_bits(values_of(out), {-FLT_MAX, -FLT_MAX, -FLT_MAX});
    out.col_min(no_rows, 1, 0);
    expect_same_bits(values_of(out), {FLT_MAX, FLT_MAX, FLT_MAX});
    untouched.row_sum(no_rows, 1, 0);
    untouched.col_sum(no_columns, 1, 0);
    expect_same_bits(values_of(untouched), {5});
    // A weight of 0 doesn't hide what is not finite.
    out = make(Values{kNan, 1, kInf});
    out.collect_bias(make(Dim(2, 3), Values{1, 2, 3, 4, 5, 6}), 1, 0);
    expect_close(values_of(out), {kNan, 7, kNan}, 0);
    EXPECT_EQ(Tensor<int>(device()).sum(), 0);
    EXPECT_EQ(TensorF(device()).sum(), 0);
    EXPECT_EQ(TensorF(device()).max(), -FLT_MAX);
    if (on_gpu()) {
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
    }
}

TEST_P(ReduceTest, AllElements) {
    // Counts around the vectors of the host and the blocks of a GPU, the last above its grid.
    const int widths[] = {1, 31, 32, 33, 255, 683, 2047, 2048, 2049, 4096, 4131, 180001};
    for (int width : widths) {
        const Dim size(3, width);
        const int count = 3 * width;
        for (int kind = 0; kind < 4; ++kind) {
            Values values = mixed_values(count, width, kind == 1 ? 10 : 0);
            if (kind == 1) {
                values.back() = kNan;
            }
            if (kind >= 2) {  // zeros of both signs are the largest, then the smallest elements
                for (float& v : values) {
                    const float side = kind == 2 ? -1 : 1;
                    v = std::abs(v) < 0.4f ? std::copysign(0.0f, v) : side * std::abs(v);
                }
            }
            const TensorF in = make(size, values);
            float sum = 0, max = -FLT_MAX, min = FLT_MAX;
            double exact = 0, largest = -FLT_MAX, smallest = FLT_MAX;
            for (float x : values) {
                sum = sum + x;
                max = x > max ? x : max;
                min = min < x ? min : x;
                exact += x;
                largest = std::fmax(largest, x);
                smallest = std::fmin(smallest, x);
            }
            SCOPED_TRACE(::testing::Message() << "width " << width << ", kind " << kind);
            if (on_gpu() && in.is_contiguous()) {
                expect_close({in.sum(), in.avg()}, {exact, exact / count}, 1e-5, 1e-3);
                EXPECT_EQ(in.max(), largest);
                EXPECT_EQ(in.min(), smallest);
                expect_same_bits({in.sum()}, {in.sum()});
            } else {
                expect_same_but_for_nans({in.sum(), in.avg(), in.max(), in.min()},
                                         {sum, sum / static_cast<float>(count), max, min});
            }
        }
    }
}

// In float, each step truncated, beyond what a float holds exactly.
TEST_P(ReduceTest, SumsOfInts) {
    std::vector<int> values(5000);
    std::mt19937 engine(4);
    float sum = 0;
    for (int& value : values) {
        value = static_cast<int>(engine() % 200001) - 60000;
        sum = static_cast<float>(static_cast<int>(sum + static_cast<float>(value)));
    }
    EXPECT_EQ(make(Dim(50, 100), values).sum(), static_cast<int>(sum));
}

using ReduceFailureTest = FailureTest;

TEST_F(ReduceFailureTest, ChecksInTheirOrder) {
    const std::string matrix_in = failed("(in.get_dim()) == (2)"),
                      matrix_out = failed("(out.get_dim()) <= (2)");
    expect_failures({
        {matrix_in, [&] { vec.row_sum(cube); }},
        {matrix_in, [&] { cube.col_sum(far_cube); }},
        {matrix_in, [&] { vec.col_max(vec); }},
        {matrix_out, [&] { cube.row_sum(in); }},
        {matrix_out, [&] { cube.col_min(far); }},
        {same_device("in"), [&] { vec.row_max(far); }},
        {same_device("in"), [&] { vec.collect_bias(far); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
