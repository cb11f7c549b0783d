#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <numeric>

#include "device_test.h"
#include "vorn/rules/ctc_math.h"

namespace vorn {
namespace test {
namespace {

using Labels = std::vector<int>;

struct Utterance {
    Labels labels;
    int frames;
};

// The path of one class per frame with repeats merged and blanks dropped.
Labels collapse(Labels path, int blank) {
    path.erase(std::unique(path.begin(), path.end()), path.end());
    path.erase(std::remove(path.begin(), path.end(), blank), path.end());
    return path;
}

/// A batch with random log posteriors, its tables on the GPU, and the same quantities by
/// enumerating every path of `classes` symbols.
struct Batch {
    Batch(std::vector<Utterance> batch, int classes, int blank, int width)
        : utterances(std::move(batch)),
          count(static_cast<int>(utterances.size())),
          classes(classes),
          blank(blank),
          width(width) {
        for (const Utterance& utterance : utterances) {
            frames = std::max(frames, utterance.frames);
            Labels row = {blank};
            for (int label : utterance.labels) {
                row.insert(row.end(), {label, blank});
            }
            lengths.push_back(static_cast<int>(row.size()));
            frame_nums.push_back(utterance.frames);
            row.resize(width, -1);
            labels.insert(labels.end(), row.begin(), row.end());
        }
        log_prob = random_values(frames * count * classes, 1, -4, -0.1f);
        symbols = dense(Dim(count, width), labels, GPU);
        ends = dense(Dim(count), frame_nums, GPU);
    }

    TensorF table(const Values& values) const {
        return dense(Dim(frames * count, static_cast<int>(values.size()) / (frames * count)),
                     values, GPU);
    }
    Values recursion(bool forward, float fill) const {
        TensorF out = table(Values(frames * count * width, fill));
        const TensorF prob = table(log_prob);
        const Tensor<int> sizes = dense(Dim(count), lengths, GPU);
        for (int t = 0; t < frames; ++t) {
            forward ? out.compute_ctc_alpha(prob, t, symbols, ends, sizes)
                    : out.compute_ctc_beta(prob, frames - 1 - t, symbols, ends, sizes);
        }
        return values_of(out);
    }
    Values occupancy(float fill) const {
        const Values alpha = recursion(true, CTC_LOG_ZERO), beta = recursion(false, CTC_LOG_ZERO);
        // The log probability of each utterance, as a trainer reads it from the forward table.
        Values total;
        for (int n = 0; n < count; ++n) {
            const float* last = &alpha[((frame_nums[n] - 1) * count + n) * width + lengths[n] - 1];
            total.push_back(lengths[n] == 1 ? last[0] : func::ctc_log_add(last[0], last[-1]));
        }
        TensorF out = table(Values(log_prob.size(), fill));
        out.compute_ctc_err(table(alpha), table(beta), symbols, ends,
                            dense(Dim(count), total, GPU));
        return values_of(out);
    }

    /// The probability of frames [first, last) of utterance n, summed over the paths that collapse
    /// to `to` between the symbols `before` and `after`.
    double sum_paths(int n, int first, int last, const Labels& before, const Labels& after,
                     const Labels& to) const {
        double sum = 0;
        for (int code = 0; code < std::pow(classes, last - first); ++code) {
            Labels path = before;
            double log_p = 0;
            for (int t = first, rest = code; t < last; ++t, rest /= classes) {
                path.push_back(rest % classes);
                log_p += log_prob[(t * count + n) * classes + path.back()];
            }
            path.insert(path.end(), after.begin(), after.end());
            sum += collapse(path, blank) == to ? std::exp(log_p) : 0;
        }
        return sum;
    }

    std::vector<Utterance> utterances;
    int count, classes, blank, width, frames = 0;
    Labels labels, frame_nums, lengths;
    Values log_prob;
    Tensor<int> symbols, ends;
};

/// Repeats, an empty sequence, one frame, sequences that just fit and that don't, all lengths in
/// one batch; more utterances and positions than one block of 16 takes.
Batch small_batch(int blank) {
    const int a = blank == 0 ? 1 : 0, b = blank == 2 ? 1 : 2;
    std::vector<Utterance> utterances = {
        {{a, b}, 5}, {{a, a}, 4}, {{}, 3},        {{b}, 1},       {{a, a}, 2}, {{b, a, b}, 5},
        {{a}, 2},    {{}, 1},     {{a, b, a}, 3}, {{a, b, b}, 3}, {{a, a}, 3}, {{b, b, b}, 5},
    };
    for (int n = 0; n < 6; ++n) {
        utterances.push_back(utterances[n]);
    }
    return Batch(utterances, 3, blank, 18);
}

class CtcTest : public GpuTest {};

TEST_F(CtcTest, TablesAndOccupancyEqualEnumerationOfAllPaths) {
    const float untouched = 123;
    const auto log_of = [&](double probability, bool is_untouched) {
        return is_untouched ? untouched : probability == 0 ? CTC_LOG_ZERO : std::log(probability);
    };
    for (int blank : {0, 2}) {
        const Batch batch = small_batch(blank);
        const Values alpha = batch.recursion(true, untouched),
                     beta = batch.recursion(false, untouched),
                     occupancy = batch.occupancy(untouched);
        for (int row = 0; row < batch.frames * batch.count; ++row) {
            const int n = row % batch.count, t = row / batch.count;
            const int frames = batch.frame_nums[n], length = batch.lengths[n];
            double parts[3] = {}, total = 0;
            for (int s = 0; s < batch.width; ++s) {
                SCOPED_TRACE(::testing::Message() << "n " << n << " t " << t << " s " << s);
                const int at = row * batch.width + s;
                if (t >= frames || s >= length) {
                    EXPECT_EQ(alpha[at], CTC_LOG_ZERO);
                    EXPECT_EQ(beta[at], CTC_LOG_ZERO);
                    continue;
                }
                const int label = batch.labels[n * batch.width + s];
                const double here = std::exp(batch.log_prob[row * batch.classes + label]);
                const auto all = batch.utterances[n].labels.begin();
                const Labels prefix(all, all + (s + 1) / 2), suffix(all + s / 2, all + length / 2);
                const double before = here * batch.sum_paths(n, 0, t, {}, {label}, prefix),
                             after = batch.sum_paths(n, t + 1, frames, {label}, {}, suffix);
                // The end is out of reach from here, and this position from the start.
                const bool no_end = t > 0 && s + 2 * (frames - 1 - t) < length - 2,
                           no_start = t < frames - 1 && s > 2 * t + 1;
                EXPECT_NEAR(alpha[at], log_of(before, no_end), 1e-5);
                EXPECT_NEAR(beta[at], log_of(after, no_start), 1e-5);
                parts[label] += before * after;
                total += before * after;
            }
            for (int k = 0; k < batch.classes; ++k) {
                const double part = parts[k] == 0 ? 0 : parts[k] / total;
                EXPECT_NEAR(occupancy[row * batch.classes + k], t < frames ? part : untouched, 1e-5)
                    << "n " << n << " t " << t << " k " << k;
            }
        }
    }
}

// Every frame of a path emits one class, so that the occupancies of a frame sum to one.
TEST_F(CtcTest, OccupanciesOfALongUtteranceSumToOne) {
    Labels labels;
    for (int u = 0; u < 20; ++u) {
        labels.push_back(1 + u * u % 39);
    }
    const Batch batch({{labels, 70}, {{1, 2}, 43}}, 40, 0, 41);
    const Values occupancy = batch.occupancy(0);
    for (int row = 0; row < 140; ++row) {
        const auto first = occupancy.begin() + row * 40;
        const bool is_inside = row / 2 < batch.frame_nums[row % 2];
        ASSERT_NEAR(std::accumulate(first, first + 40, 0.0), is_inside, 2e-4) << row;
    }
}

TEST_F(CtcTest, OccupancyAtTheEdgesOfTheLogDomain) {
    // One frame of three classes; the row of labels ends at its first -1.
    const auto occupancy = [](const Values& alpha, const Labels& labels, float total) {
        const Dim row(1, static_cast<int>(labels.size()));
        TensorF out(Dim(1, 3), GPU);
        out.compute_ctc_err(dense(row, alpha, GPU), dense(row, Values(alpha.size()), GPU),
                            dense(row, labels, GPU), dense(Dim(1), Labels{1}, GPU),
                            dense(Dim(1), Values{total}, GPU));
        return values_of(out);
    };
    const float half = std::log(0.5f), eighth = std::log(0.125f);
    expect_close(occupancy({half, eighth, eighth, 0}, {0, 1, 0, -1}, 0), {0.625, 0.125, 0}, 1e-6);
    expect_close(occupancy({half, half, half, half}, {0, -1, 1, 2}, 0), {0.5, 0, 0}, 1e-6);
    expect_close(occupancy({half, CTC_LOG_ZERO}, {0, 1}, CTC_LOG_ZERO), {FLT_MAX, 0, 0}, 0);
    expect_close(occupancy({half, -1}, {0, 1}, -100), {FLT_MAX, FLT_MAX, 0}, 0);
}

TEST(CtcMathTest, LogDomain) {
    const float zero = CTC_LOG_ZERO;
    const std::pair<float, float> equal[] = {
        {zero, -0x1.93e594p+99f},
        {CTC_LOG_INF, 0x1.93e594p+99f},
        {CTC_EXP_LIMIT, 0x1.62e43p+6f},
        {func::ctc_log_mul(zero, zero), zero},
        {func::ctc_log_sub(zero, zero), zero},
        {func::ctc_log_sub(-1, zero), CTC_LOG_INF},
        {func::ctc_safe_exp(CTC_EXP_LIMIT), FLT_MAX},
        {func::ctc_log_add(zero, zero), zero},
    };
    for (const auto& [actual, expected] : equal) {
        EXPECT_EQ(actual, expected);
    }
    EXPECT_LT(func::ctc_safe_exp(std::nextafter(CTC_EXP_LIMIT, 0.0f)), FLT_MAX);
    for (const auto& [x, y] : {std::pair<float, float>{-3, -3}, {-1, -8}, {-8, -1}, {0, -30}}) {
        EXPECT_NEAR(func::ctc_log_add(x, y), std::log(std::exp(double(x)) + std::exp(double(y))),
                    5e-7);
    }
}

// Written as one expression it takes another way to the same bits.
TEST(CtcMathTest, SumsHaveTheBitsOfTheirParts) {
    const auto of_parts = [](float x, float y) {
        const float larger = x < y ? y : x, smaller = x < y ? x : y;
        const float part = func::ctc_safe_exp(func::ctc_log_sub(smaller, larger));
        return func::ctc_log_mul(larger, cpu::log(1.0f + part));
    };
    const float infinity = std::numeric_limits<float>::infinity();
    std::vector<float> values{0.0f, -0.0f, 1, -1, -17, CTC_LOG_ZERO, CTC_LOG_INF, FLT_MAX, NAN};
    for (float value : {CTC_LOG_ZERO, CTC_EXP_LOST, infinity, FLT_MIN}) {
        values.push_back(-value);
        values.push_back(std::nextafter(value, infinity));
        values.push_back(std::nextafter(value, -infinity));
    }
    const auto expect_same = [&](float x, float y) {
        const float sum = func::ctc_log_add(x, y), expected = of_parts(x, y);
        EXPECT_TRUE(std::memcmp(&sum, &expected, sizeof sum) == 0 ||
                    (std::isnan(sum) && std::isnan(expected)))
            << x << " and " << y << ": " << sum << ", not " << expected;
    };
    for (float x : values) {
        for (float y : values) {
            expect_same(x, y);
        }
    }
    // Some of all distances from -0 to -20.
    for (std::uint32_t bits = 0x80000000u; bits < 0xc1a00000u; bits += 1009) {
        float distance;
        std::memcpy(&distance, &bits, sizeof distance);
        expect_same(distance, 0);
    }
}

class RowOpsTest : public DeviceTest {
protected:
    Labels row_max_ids(const Values& values, int rows, const Dim& ids) {
        Tensor<int> max_id = poisoned<int>(ids);
        make(Dim(rows, static_cast<int>(values.size()) / rows), values).find_row_max_id(max_id);
        return values_of(max_id);
    }
};
INSTANTIATE_TEST_SUITE_P(Places, RowOpsTest, kDensePlaces, name_of_place);

TEST_P(RowOpsTest, FindRowMaxIdBreaksTiesByItsOrder) {
    const int rows = 40;
    for (int width : {1, 2, 31, 32, 33, 127, 128, 129, 300}) {
        // Many ties, few ties, none.
        for (float levels : {2.0f, 60.0f, 1e7f}) {
            SCOPED_TRACE(::testing::Message() << width << " columns, " << levels << " levels");
            Values values = random_values(rows * width, width, -levels, 0);
            for (float& value : values) {
                value = std::floor(value);
            }
            Labels expected;
            for (int r = 0; r < rows; ++r) {
                const float* row = &values[r * width];
                auto best = std::make_pair(-row[0], order_of_ties(0, on_gpu()));
                for (int j = 1; j < width; ++j) {
                    best = std::min(best, std::make_pair(-row[j], order_of_ties(j, on_gpu())));
                }
                expected.push_back(best.second.second);
            }
            EXPECT_EQ(row_max_ids(values, rows, Dim(rows)), expected);
        }
    }
}

TEST_P(RowOpsTest, FindRowMaxIdStartsAtItsFloor) {
    const float lowest = -FLT_MAX;
    Values wide(300, lowest), last = wide;
    last[299] = 5;
    const struct {
        Values row;
        int host, gpu;
    } cases[] = {
        {{0, 1, 1}, 1, 2},
        {{lowest, -2e30f, -1e30f, -2e30f}, 2, -1},
        {{lowest, lowest}, -1, -1},
        {{-kInf, kNan}, -1, -1},
        {{kNan, -1e29f, kNan, -kInf, -1e29f}, 1, 4},
        {{kNan, 1, kInf, 2}, 2, 2},
        {{-1, -0.0f, 0.0f, -0.0f}, 1, 2},
        {wide, -1, -1},
        {last, 299, 299},
    };
    for (const auto& [row, host, gpu] : cases) {
        EXPECT_EQ(row_max_ids(row, 1, Dim(1, 1))[0], on_gpu() ? gpu : host);
    }
}

TEST_P(RowOpsTest, VecMaskAlsoInPlace) {
    const std::pair<int, int> sizes[] = {{3, 1}, {5, 255}, {4, 256}, {5, 257}, {40963, 1}};
    for (const auto& [rows, width] : sizes) {
        SCOPED_TRACE(::testing::Message() << rows << " x " << width);
        const Dim size(rows, width);
        Values values = random_values(rows * width, 1);
        values[0] = kNan;
        Values expected = values;
        Labels flags(rows);
        for (int r = 0; r < rows; ++r) {
            flags[r] = r % 4 == 2 ? 0 : r % 3 - 1;
            if (flags[r] == 0) {
                std::fill_n(&expected[r * width], width, 0.0f);
            }
        }
        TensorF in = make(size, values), out = poisoned(size);
        const Tensor<int> mask = make(flags);
        out.vec_mask(in, mask);
        expect_same_bits(values_of(out), expected);
        expect_same_bits(values_of(in), values);
        in.vec_mask(in, mask);
        expect_same_bits(values_of(in), expected);
    }
}

using CtcDeathTest = ContextTest;

// Empty tensors have a device, so that these run without a GPU. Checks after the named one fail
// in the same call where they can.
TEST_F(CtcDeathTest, TableFailures) {
    std::vector<FailureCase> failures;
    for (const bool forward : {true, false}) {
        const auto compute = forward ? &TensorF::compute_ctc_alpha : &TensorF::compute_ctc_beta;
        const auto on = [=](Device out, Device prob, Device labels, Device frames) {
            (TensorF(out).*compute)(TensorF(prob), 0, Tensor<int>(labels), Tensor<int>(frames),
                                    Tensor<int>(CPU));
        };
        const auto sizes = [=](int labels, int utterances) {
            const TensorF table(Dim(4, 3));
            const Tensor<int> n(Dim(1, utterances));
            (TensorF(table).*compute)(table, 0, Tensor<int>(Dim(1, labels)), n, n);
        };
        const std::string labels = "labels.get_element_count()", lengths = "label_lengths_utt",
                          product = "frame_num_utt.get_element_count() * out.get_w()",
                          equal = forward ? labels + " == " + product : product + " == " + labels;
        const std::vector<FailureCase> cases = {
            {same_device("labels", lengths), [=] { on(CPU, GPU, GPU, GPU); }},
            {same_device("frame_num_utt", lengths), [=] { on(CPU, GPU, CPU_PINNED, GPU); }},
            {same_device("prob", lengths), [=] { on(CPU, GPU, CPU, CPU); }},
            {same_device("out", "prob"), [=] { on(GPU, CPU, CPU, CPU); }},
            {failed(labels + " % out.get_w() == 0"), [=] { sizes(7, 1); }},
            {failed(equal), [=] { sizes(6, 1); }},
            {kNotImplemented, [=] { sizes(6, 2); }},
        };
        failures.insert(failures.end(), cases.begin(), cases.end());
    }
    expect_failures(failures);
}

TEST_F(CtcDeathTest, Failures) {
    const auto err_on = [](Device out, Device alpha, Device beta, Device labels, Device pzx) {
        TensorF(out).compute_ctc_err(TensorF(alpha), TensorF(beta), Tensor<int>(labels),
                                     Tensor<int>(CPU), TensorF(pzx));
    };
    const auto err_sizes = [](int labels, int totals) {
        const TensorF tables(Dim(4, 5));
        TensorF(Dim(4, 3)).compute_ctc_err(tables, tables, Tensor<int>(Dim(1, labels)),
                                           Tensor<int>(Dim(2)), TensorF(Dim(1, totals)));
    };
    const auto max_id = [](Device in) {
        Tensor<int> ids(Dim(2, 2));
        TensorF(in).find_row_max_id(ids);
    };
    const auto mask = [](const TensorF& in, const Tensor<int>& mask) {
        TensorF(Dim(2, 3)).vec_mask(in, mask);
    };
    expect_failures({
        {same_device("beta", "frame_num_utt"), [=] { err_on(GPU, GPU, GPU, GPU, GPU); }},
        {same_device("labels", "frame_num_utt"), [=] { err_on(GPU, GPU, CPU, GPU, CPU); }},
        {same_device("alpha", "frame_num_utt"), [=] { err_on(GPU, GPU, CPU, CPU, GPU); }},
        {same_device("out", "labels"), [=] { err_on(GPU, CPU, CPU, CPU, GPU); }},
        {same_device("pzx", "labels"), [=] { err_on(CPU, CPU, CPU, CPU, GPU); }},
        {failed("labels.get_element_count() % alpha.get_w() == 0"), [=] { err_sizes(11, 3); }},
        {failed("frame_num_utt.get_element_count() == pzx.get_element_count()"),
         [=] { err_sizes(10, 3); }},
        {kNotImplemented, [=] { err_sizes(10, 2); }},
        {same_device("in", "max_id_vec"), [=] { max_id(GPU); }},
        {failed(
             "max_id_vec.get_dim() == 1 || (max_id_vec.get_dim() == 2 && max_id_vec.get_h() == 1)"),
         [=] { max_id(CPU); }},
        {same_device("in"), [=] { mask(TensorF(GPU), Tensor<int>(GPU)); }},
        {same_device("mask"), [=] { mask(TensorF(CPU), Tensor<int>(GPU)); }},
        {same_size("in"), [=] { mask(TensorF(Dim(2, 4)), Tensor<int>(Dim(3))); }},
        {failed("mask.get_w() == out.get_h()"),
         [=] { mask(TensorF(Dim(2, 3)), Tensor<int>(Dim(3))); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
