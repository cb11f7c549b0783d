#include <cfloat>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

using Rule = float (*)(float, float);
using Fold = void (Tensor<float>::*)(const Tensor<float>&, DType, DType);

struct FoldCase {
    const char* name;
    Fold rows, columns;
    float start;
    Rule rule;
    bool adds;
};

const FoldCase kFolds[] = {
    {"sum", &Tensor<float>::row_sum, &Tensor<float>::col_sum, 0,
     [](float a, float b) { return a + b; }, true},
    {"max", &Tensor<float>::row_max, &Tensor<float>::col_max, -FLT_MAX,
     [](float a, float b) { return a > b ? a : b; }, false},
    {"min", &Tensor<float>::row_min, &Tensor<float>::col_min, FLT_MAX,
     [](float a, float b) { return a < b ? a : b; }, false},
};

// The order of the host: each element in turn.
float ascending(const FoldCase& c, const float* p, size_t count, size_t step) {
    volatile float value = c.start;
    for (size_t i = 0; i < count; ++i) {
        value = c.rule(value, p[i * step]);
    }
    return value;
}

// The order of a GPU: every `leaves`-th element into a leaf, then halves of the leaves.
float tree(const FoldCase& c, const float* p, size_t count, size_t step, size_t leaves) {
    std::vector<float> leaf(leaves, c.start);
    for (size_t i = 0; i < count; ++i) {
        leaf[i % leaves] = c.rule(leaf[i % leaves], p[i * step]);
    }
    for (size_t half = leaves / 2; half > 0; half /= 2) {
        for (size_t i = 0; i < half; ++i) {
            leaf[i] = c.rule(leaf[i], leaf[i + half]);
        }
    }
    return leaf[0];
}

// Random values, of which about `specials` in a hundred are NaN, zeros and infinities.
std::vector<float> mixed_values(size_t count, unsigned seed, int specials) {
    const float special[] = {kNan, 0.0f, -0.0f, kInf, -kInf, -FLT_MAX};
    std::vector<float> values = random_values(count, seed);
    std::mt19937 engine(seed + 1);
    for (float& value : values) {
        if (static_cast<int>(engine() % 100) < specials) {
            value = special[engine() % 6];
        }
    }
    return values;
}

// The bits of a NaN that an addition makes are the machine's own.
void merge_nans(std::vector<float>& values) {
    for (float& value : values) {
        value = std::isnan(value) ? kNan : value;
    }
}

class ReduceTest : public DeviceTest {
protected:
    float blend(float alpha, float value, float beta, float old) const {
        return on_gpu() ? std::fma(alpha, value, beta * old) : alpha * value + beta * old;
    }

    void expect_folds(int rows, int columns, unsigned seed, int specials) {
        const std::vector<float> values = mixed_values(rows * columns, seed, specials);
        const Tensor<float> in = make(Dim(rows, columns), values);
        for (const FoldCase& c : kFolds) {
            for (bool of_rows : {true, false}) {
                const int count = of_rows ? rows : columns, length = of_rows ? columns : rows;
                const std::vector<float> old = random_values(count, seed + 2);
                std::vector<float> expected(count);
                for (int k = 0; k < count; ++k) {
                    const float* p = values.data() + (of_rows ? k * columns : k);
                    const int step = of_rows ? 1 : columns;
                    const float value = on_gpu() ? tree(c, p, length, step, of_rows ? 128 : 32)
                                                 : ascending(c, p, length, step);
                    expected[k] = blend(0.7f, value, -0.3f, old[k]);
                }
                Tensor<float> out = make(Dim(count), old);
                (out.*(of_rows ? c.rows : c.columns))(in, 0.7f, -0.3f);
                std::vector<float> actual = values_of(out);
                merge_nans(expected);
                merge_nans(actual);
                SCOPED_TRACE(::testing::Message()
                             << c.name << (of_rows ? " of rows, " : " of columns, ") << rows
                             << " x " << columns);
                expect_same_bits(actual, expected);
            }
        }
    }
};
INSTANTIATE_TEST_SUITE_P(, ReduceTest, kAllPlaces, name_of_place);

TEST_P(ReduceTest, RowsAndColumnsFoldInTheToldOrder) {
    std::vector<int> columns = {1, 3, 31, 32, 33, 127, 128, 129, 513};
    std::vector<int> rows = {1, 32, 33, 65};
    if (!on_gpu()) {
        columns = {127, 128, 129, 513, 1030};
        for (int n = 1; n <= 40; ++n) {
            columns.push_back(n);
        }
        rows = {1, 5, 7, 8, 9, 15, 16, 17, 24, 25, 33};
    }
    for (int m : rows) {
        for (int n : columns) {
            expect_folds(m, n, 100 * m + n, 0);
            expect_folds(m, n, 100 * m + n, 20);
        }
    }
    expect_folds(11, 2053, 1, 5);  // more columns than the host takes in one strip
}

TEST_P(ReduceTest, IntSumsAreExactAndBlendInFloat) {
    // Sums beyond 2^24, which float can't hold.
    const int rows = 37, columns = 45;
    std::vector<int> values(rows * columns);
    std::mt19937 engine(3);
    for (int& value : values) {
        value = static_cast<int>(engine() % 4000001) - 1000000;
    }
    const Block<int> block(Dim(rows, columns), device(), pitched() ? 5 : 0);
    Tensor<int> in = block.tensor;
    in.copy_from(dense(in.get_size(), values, CPU));
    std::vector<int64_t> of_rows(rows), of_columns(columns);
    for (int k = 0; k < rows * columns; ++k) {
        of_rows[k / columns] += values[k];
        of_columns[k % columns] += values[k];
    }
    const std::pair<float, float> blends[] = {{1, 0}, {2, 0}, {0.3f, 1.5f}};
    for (const auto& [alpha, beta] : blends) {
        for (bool by_rows : {true, false}) {
            const std::vector<int64_t>& exact = by_rows ? of_rows : of_columns;
            Tensor<int> out = poisoned<int>(Dim(static_cast<int>(exact.size())));
            by_rows ? out.row_sum(in, alpha, beta) : out.col_sum(in, alpha, beta);
            std::vector<int> expected;
            for (int64_t sum : exact) {
                expected.push_back(
                    static_cast<int>(blend(alpha, static_cast<float>(sum), beta, kPoison)));
            }
            EXPECT_EQ(values_of(out), expected);
        }
    }
}

TEST_P(ReduceTest, EmptyInfiniteAndNanOperands) {
    Tensor<float> out = poisoned(Dim(3));
    out.row_max(Tensor<float>(Dim(3, 0), device()), 1, 0);
    expect_same_bits(values_of(out), {-FLT_MAX, -FLT_MAX, -FLT_MAX});
    out.col_min(Tensor<float>(Dim(0, 3), device()), 1, 0);
    expect_same_bits(values_of(out), {FLT_MAX, FLT_MAX, FLT_MAX});
    Tensor<float> untouched = make(Dim(1), std::vector<float>{5});
    untouched.row_sum(Tensor<float>(Dim(0, 3), device()), 1, 0);
    untouched.col_sum(Tensor<float>(Dim(3, 0), device()), 1, 0);
    EXPECT_EQ(values_of(untouched)[0], 5);

    // Of -inf only; NaN last; NaN before the last.
    const Tensor<float> in =
        make(Dim(3, 3), std::vector<float>{-kInf, -kInf, -kInf, 1, 2, kNan, 9, kNan, 4});
    out.row_max(in, 1, 0);
    const std::vector<float> maxima = values_of(out);
    EXPECT_EQ(maxima[0], -FLT_MAX);
    if (!on_gpu()) {
        EXPECT_TRUE(std::isnan(maxima[1]));
        EXPECT_EQ(maxima[2], 4);
    }
    // A weight of 0 doesn't hide a NaN in the old output.
    out = make(Dim(3), std::vector<float>{kNan, 1, kInf});
    out.collect_bias(make(Dim(2, 3), std::vector<float>{1, 2, 3, 4, 5, 6}), 1, 0);
    const std::vector<float> sums = values_of(out);
    EXPECT_TRUE(std::isnan(sums[0]));
    EXPECT_EQ(sums[1], 7);
    EXPECT_TRUE(std::isnan(sums[2]));
}

TEST_P(ReduceTest, OutputsOfAnyShapeUpToTwoAxes) {
    const Tensor<float> in = make(Dim(40, 35), random_values(40 * 35, 8));
    Tensor<float> vector(Dim(40), device()), row(Dim(1, 40), device()),
        column(Dim(40, 1), device());
    Tensor<float> none(Dim(40), device());
    none.clear_size();
    for (Tensor<float>* out : {&vector, &row, &column, &none}) {
        out->row_sum(in, 1, 0);
    }
    Tensor<float> again(none.get_ptr(), Dim(40), device());
    for (Tensor<float>* out : {&row, &column, &again}) {
        expect_same_bits(values_of(*out), values_of(vector));
    }
    column.col_sum(in, 1, 0);
    row.col_sum(in, 1, 0);
    expect_same_bits(values_of(column), values_of(row));
}

TEST_P(ReduceTest, AllElements) {
    // Counts around the vectors of the host and the blocks of a GPU, the last above its grid.
    const int widths[] = {1, 31, 32, 33, 255, 2047, 2048, 2049, 4096, 4131, 180001};
    for (int width : widths) {
        const Dim size(3, width);
        const int count = 3 * width;
        for (int kind = 0; kind < 4; ++kind) {
            std::vector<float> values = mixed_values(count, width, kind == 1 ? 10 : 0);
            if (kind >= 2) {  // zeros of both signs are the largest, then the smallest elements
                for (float& v : values) {
                    const float side = kind == 2 ? -1 : 1;
                    v = std::abs(v) < 0.4f ? std::copysign(0.0f, v) : side * std::abs(v);
                }
            }
            const Tensor<float> in = make(size, values);
            volatile float sum = 0, max = -FLT_MAX, min = FLT_MAX;
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
                std::vector<float> actual{in.sum(), in.avg(), in.max(), in.min()};
                std::vector<float> expected{sum, sum / static_cast<float>(count), max, min};
                merge_nans(actual);
                merge_nans(expected);
                expect_same_bits(actual, expected);
            }
        }
    }
}

TEST_P(ReduceTest, SumsOfInts) {
    EXPECT_EQ(make(Dim(3), std::vector<int>{16777216, 1, 1}).sum(), 16777216);
    std::vector<int> values(5000);
    std::mt19937 engine(4);
    float sum = 0;
    for (int& value : values) {
        value = static_cast<int>(engine() % 200001) - 60000;  // leaves the exact range on the way
        sum = static_cast<float>(static_cast<int>(sum + static_cast<float>(value)));
    }
    EXPECT_EQ(make(Dim(50, 100), values).sum(), static_cast<int>(sum));
    EXPECT_EQ(make(Dim(4), std::vector<int>{-7, 3, 1000, 4}).sum(), 1000);
    EXPECT_EQ(Tensor<int>(device()).sum(), 0);
    EXPECT_EQ(Tensor<float>(device()).sum(), 0);
    EXPECT_EQ(Tensor<float>(device()).max(), -FLT_MAX);
}

using ReduceDeathTest = ContextTest;

TEST_F(ReduceDeathTest, ChecksInTheirOrder) {
    Tensor<float> matrix(Dim(2, 3)), cube(Dim(1, 2, 3)), vector(Dim(3));
    Tensor<int> ints(Dim(2, 3)), int_cube(Dim(1, 2, 3));
    // Without memory, so that the checks are tested on machines without a GPU too.
    const Tensor<float> other(nullptr, Dim(2, 3), GPU), other_cube(nullptr, Dim(1, 2, 3), GPU);
    const std::string in = "Check failed: (in.get_dim()) == (2) ";
    const std::string out = "Check failed: (out.get_dim()) <= (2) ";
    const std::string device = same_device("in");
    expect_failures({
        {in, [&] { vector.row_sum(cube); }},
        {in, [&] { cube.col_sum(other_cube); }},
        {in, [&] { vector.col_max(vector); }},
        {in, [&] { ints.row_sum(int_cube); }},
        {out, [&] { cube.row_sum(matrix); }},
        {out, [&] { cube.col_min(other); }},
        {device, [&] { vector.row_max(other); }},
        {device, [&] { vector.collect_bias(other); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
