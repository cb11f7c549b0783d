#include <algorithm>
#include <cfloat>

#include "device_test.h"
#include "vorn/ops/ctc_math.h"

namespace vorn {
namespace test {
namespace {

using Labels = std::vector<int>;

struct Utterance {
    Labels labels;
    int frames;
};

// The path of one class per frame with repeats merged and blanks dropped.
Labels collapse(const Labels& path, int blank) {
    Labels labels;
    for (size_t t = 0; t < path.size(); ++t) {
        if (path[t] != blank && (t == 0 || path[t] != path[t - 1])) {
            labels.push_back(path[t]);
        }
    }
    return labels;
}

/// A batch with random log posteriors, its tables on the GPU, and the same quantities by
/// enumerating every path of `classes` symbols.
struct Batch {
    Batch(std::vector<Utterance> batch, int classes, int blank, int label_width)
        : utterances(std::move(batch)),
          count(static_cast<int>(utterances.size())),
          classes(classes),
          blank(blank),
          width(label_width) {
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
        exact = widen(log_prob);
    }

    Dim table() const { return Dim(frames * count, width); }

    Values recursion(bool forward, float fill) const {
        Tensor<float> out = dense(table(), Values(table().product(), fill), GPU);
        const Tensor<float> prob = dense(Dim(frames * count, classes), log_prob, GPU);
        const Tensor<int> symbols = dense(Dim(count, width), labels, GPU),
                          ends = dense(Dim(count), frame_nums, GPU),
                          sizes = dense(Dim(count), lengths, GPU);
        for (int t = 0; t < frames; ++t) {
            forward ? out.compute_ctc_alpha(prob, t, symbols, ends, sizes)
                    : out.compute_ctc_beta(prob, frames - 1 - t, symbols, ends, sizes);
        }
        return values_of(out);
    }
    /// The log probability of each utterance, as a trainer reads it from the forward table.
    Values total(const Values& alpha) const {
        Values total;
        for (int n = 0; n < count; ++n) {
            const float* last = &alpha[((frame_nums[n] - 1) * count + n) * width + lengths[n] - 1];
            total.push_back(lengths[n] == 1 ? last[0] : func::ctc_log_add(last[0], last[-1]));
        }
        return total;
    }
    Values occupancy(float fill) const {
        const Values alpha = recursion(true, CTC_LOG_ZERO), beta = recursion(false, CTC_LOG_ZERO);
        const Dim size(frames * count, classes);
        Tensor<float> out = dense(size, Values(size.product(), fill), GPU);
        out.compute_ctc_err(dense(table(), alpha, GPU), dense(table(), beta, GPU),
                            dense(Dim(count, width), labels, GPU),
                            dense(Dim(count), frame_nums, GPU),
                            dense(Dim(count), total(alpha), GPU));
        return values_of(out);
    }

    /// The probability of frames [first, last) of utterance n, summed over the paths for which
    /// `keep` holds.
    double sum_paths(int n, int first, int last, const std::function<bool(const Labels&)>& keep) {
        double sum = 0;
        Labels path(last - first, 0);
        for (bool more = true; more;) {
            if (keep(path)) {
                double log_p = 0;
                for (int t = first; t < last; ++t) {
                    log_p += exact[(t * count + n) * classes + path[t - first]];
                }
                sum += std::exp(log_p);
            }
            more = false;
            for (size_t i = 0; i < path.size() && !more; ++i) {
                path[i] = (path[i] + 1) % classes;
                more = path[i] != 0;
            }
        }
        return sum;
    }
    double exact_total(int n) {
        return sum_paths(n, 0, frame_nums[n], [&](const Labels& path) {
            return collapse(path, blank) == utterances[n].labels;
        });
    }
    double exact_occupancy(int n, int frame, int k) {
        return sum_paths(n, 0, frame_nums[n], [&](const Labels& path) {
            return path[frame] == k && collapse(path, blank) == utterances[n].labels;
        });
    }
    /// Paths of the first t + 1 frames that stand at position s.
    double exact_alpha(int n, int t, int s) {
        const Labels& all = utterances[n].labels;
        const Labels prefix(all.begin(), all.begin() + (s + 1) / 2);
        return sum_paths(n, 0, t + 1, [&](const Labels& path) {
            return path.back() == labels[n * width + s] && collapse(path, blank) == prefix;
        });
    }
    /// Paths of the frames behind t that go on from position s to the end.
    double exact_beta(int n, int t, int s) {
        const Labels& all = utterances[n].labels;
        const Labels suffix(all.begin() + s / 2, all.end());
        return sum_paths(n, t + 1, frame_nums[n], [&](const Labels& path) {
            Labels whole = {labels[n * width + s]};
            whole.insert(whole.end(), path.begin(), path.end());
            return collapse(whole, blank) == suffix;
        });
    }

    std::vector<Utterance> utterances;
    int count, classes, blank, width, frames = 0;
    Labels labels, frame_nums, lengths;
    Values log_prob;
    Doubles exact;
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

class CtcTest : public DeviceTest {};

TEST_P(CtcTest, TablesEqualEnumerationOfAllPaths) {
    const float untouched = 123;
    const auto expect_log = [](float actual, double probability) {
        const float expected = probability == 0 ? CTC_LOG_ZERO : std::log(probability);
        EXPECT_NEAR(actual, expected, 1e-5);
    };
    for (int blank : {0, 2}) {
        Batch batch = small_batch(blank);
        const Values alpha = batch.recursion(true, untouched),
                     beta = batch.recursion(false, untouched);
        for (int n = 0; n < batch.count; ++n) {
            const int frames = batch.frame_nums[n], length = batch.lengths[n];
            for (int t = 0; t < batch.frames; ++t) {
                for (int s = 0; s < batch.width; ++s) {
                    SCOPED_TRACE(::testing::Message() << "n " << n << " t " << t << " s " << s);
                    const size_t at = (t * batch.count + n) * batch.width + s;
                    if (t >= frames || s >= length) {
                        expect_log(alpha[at], 0);
                        expect_log(beta[at], 0);
                        continue;
                    }
                    // The end is out of reach from here, and this position from the start.
                    if (t > 0 && s + 2 * (frames - 1 - t) < length - 2) {
                        EXPECT_EQ(alpha[at], untouched);
                    } else {
                        expect_log(alpha[at], batch.exact_alpha(n, t, s));
                    }
                    if (t < frames - 1 && s > 2 * t + 1) {
                        EXPECT_EQ(beta[at], untouched);
                    } else {
                        expect_log(beta[at], batch.exact_beta(n, t, s));
                    }
                }
            }
        }
    }
}

TEST_P(CtcTest, OccupancyEqualsEnumerationAndLeavesRowsBeyondTheEnd) {
    Batch batch = small_batch(0);
    const Values total = batch.total(batch.recursion(true, CTC_LOG_ZERO)),
                 occupancy = batch.occupancy(-5);
    for (int n = 0; n < batch.count; ++n) {
        const double p = batch.exact_total(n);
        if (p == 0) {
            EXPECT_EQ(total[n], CTC_LOG_ZERO) << n;
        } else {
            EXPECT_NEAR(total[n], std::log(p), 1e-5) << n;
        }
        for (int t = 0; t < batch.frames; ++t) {
            for (int k = 0; k < batch.classes; ++k) {
                SCOPED_TRACE(::testing::Message() << "n " << n << " t " << t << " k " << k);
                const float actual = occupancy[(t * batch.count + n) * batch.classes + k];
                if (t >= batch.frame_nums[n]) {
                    EXPECT_EQ(actual, -5);
                } else {
                    const double part = batch.exact_occupancy(n, t, k);
                    EXPECT_NEAR(actual, part == 0 ? 0 : part / p, 1e-5);
                }
            }
        }
    }
}

// d log p / d log_prob[t][k] is the occupancy of class k at frame t.
TEST_P(CtcTest, OccupancyIsTheGradientOfTheLogProbability) {
    Batch batch({{{1, 2}, 4}, {{1, 1}, 4}, {{}, 2}, {{2}, 1}}, 3, 0, 5);
    const Values occupancy = batch.occupancy(0);
    const auto log_probability = [&] {
        double sum = 0;
        for (int n = 0; n < batch.count; ++n) {
            sum += std::log(batch.exact_total(n));
        }
        return sum;
    };
    expect_gradient(log_probability, batch.exact, occupancy, 1e-5);
}

// Every frame of a path emits one class, so that the occupancies of a frame sum to one.
TEST_P(CtcTest, OccupanciesOfALongUtteranceSumToOne) {
    std::vector<Utterance> utterances;
    for (int n = 0; n < 3; ++n) {
        Labels labels;
        for (int u = 0; u < 20 - n; ++u) {
            labels.push_back(1 + (u * u + n) % 39);
        }
        utterances.push_back({labels, 70 - 9 * n});
    }
    Batch batch(utterances, 40, 0, 41);
    const Values occupancy = batch.occupancy(0);
    for (int row = 0; row < batch.frames * batch.count; ++row) {
        double sum = 0;
        for (int k = 0; k < batch.classes; ++k) {
            sum += occupancy[row * batch.classes + k];
        }
        const bool valid = row / batch.count < batch.frame_nums[row % batch.count];
        ASSERT_NEAR(sum, valid ? 1 : 0, 2e-4) << "row " << row;
    }
}

TEST_P(CtcTest, OccupancyAtTheEdgesOfTheLogDomain) {
    // One frame of three classes; the row of labels ends at its first -1.
    const auto occupancy = [](Values alpha, std::vector<int> labels, float total) {
        const Dim row(1, static_cast<int>(labels.size()));
        Tensor<float> out(Dim(1, 3), GPU);
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

INSTANTIATE_TEST_SUITE_P(Places, CtcTest, ::testing::Values(Place::kGpu), name_of_place);

TEST(CtcMathTest, LogDomain) {
    const auto bits = [](float value) {
        uint32_t word;
        memcpy(&word, &value, sizeof(word));
        return word;
    };
    EXPECT_EQ(bits(CTC_LOG_ZERO), 0xF149F2CAu);
    EXPECT_EQ(bits(CTC_LOG_INF), 0x7149F2CAu);
    EXPECT_EQ(bits(CTC_EXP_LIMIT), 0x42B17218u);
    EXPECT_EQ(func::ctc_log_mul(CTC_LOG_ZERO, 2), CTC_LOG_ZERO);
    EXPECT_EQ(func::ctc_log_mul(2, CTC_LOG_ZERO), CTC_LOG_ZERO);
    EXPECT_EQ(func::ctc_log_mul(2, -3), -1);
    EXPECT_EQ(func::ctc_log_sub(CTC_LOG_ZERO, CTC_LOG_ZERO), CTC_LOG_ZERO);
    EXPECT_EQ(func::ctc_log_sub(-1, CTC_LOG_ZERO), CTC_LOG_INF);
    EXPECT_EQ(func::ctc_log_sub(-1, -3), 2);
    EXPECT_EQ(func::ctc_safe_exp(CTC_LOG_ZERO), 0);
    EXPECT_EQ(func::ctc_safe_exp(std::nextafter(CTC_EXP_LIMIT, 100.0f)), FLT_MAX);
    EXPECT_EQ(func::ctc_safe_exp(CTC_EXP_LIMIT), FLT_MAX);
    EXPECT_LT(func::ctc_safe_exp(std::nextafter(CTC_EXP_LIMIT, 0.0f)), FLT_MAX);
    EXPECT_EQ(func::ctc_log_add(CTC_LOG_ZERO, CTC_LOG_ZERO), CTC_LOG_ZERO);
    EXPECT_EQ(func::ctc_log_add(CTC_LOG_ZERO, -4), -4);
    EXPECT_EQ(func::ctc_log_add(-4, CTC_LOG_ZERO), -4);
    for (const auto& [x, y] : {std::pair<float, float>{-3, -3}, {-1, -8}, {-8, -1}, {0, -30}}) {
        EXPECT_NEAR(func::ctc_log_add(x, y), std::log(std::exp(double(x)) + std::exp(double(y))),
                    5e-7);
    }
}

class RowOpsTest : public DeviceTest {
protected:
    std::vector<int> row_max_ids(const Values& values, int rows, const Dim& ids) {
        Tensor<int> max_id = poisoned<int>(ids);
        make(Dim(rows, static_cast<int>(values.size()) / rows), values).find_row_max_id(max_id);
        return values_of(max_id);
    }
    int row_max_id(const Values& row) { return row_max_ids(row, 1, Dim(1))[0]; }
};

int reversed_seven_bits(int value) {
    int reversed = 0;
    for (int bit = 0; bit < 7; ++bit) {
        reversed |= ((value >> bit) & 1) << (6 - bit);
    }
    return reversed;
}

TEST_P(RowOpsTest, FindRowMaxIdBreaksTiesByItsOrder) {
    const int rows = 40;
    for (int width : {1, 2, 31, 32, 33, 127, 128, 129, 300}) {
        SCOPED_TRACE(width);
        // Many ties, few ties, none.
        for (float levels : {2.0f, 60.0f, 1e7f}) {
            Values values = random_values(rows * width, width, -levels, 0);
            std::vector<int> expected;
            for (float& value : values) {
                value = std::floor(value);
            }
            for (int r = 0; r < rows; ++r) {
                const float* row = &values[r * width];
                const float max = *std::max_element(row, row + width);
                // Of the largest, a GPU takes the one whose thread comes first, the host the first.
                std::pair<int, int> best = {1 << 7, 0};
                for (int j = 0; j < width; ++j) {
                    if (row[j] == max) {
                        const int order = on_gpu() ? reversed_seven_bits(j % 128) : 0;
                        best = std::min(best, {order, j});
                    }
                }
                expected.push_back(best.second);
            }
            EXPECT_EQ(row_max_ids(values, rows, Dim(rows)), expected);
            EXPECT_EQ(row_max_ids(values, rows, Dim(1, rows)), expected);
        }
    }
    EXPECT_EQ(row_max_id({0, 1, 1}), on_gpu() ? 2 : 1);
}

TEST_P(RowOpsTest, FindRowMaxIdStartsAtItsFloor) {
    const float lowest = -FLT_MAX, nan = kNan, inf = kInf;
    EXPECT_EQ(row_max_id({lowest, -2e30f, -1e30f, -2e30f}), on_gpu() ? -1 : 2);
    EXPECT_EQ(row_max_id({lowest, lowest}), -1);
    EXPECT_EQ(row_max_id({-inf, nan}), -1);
    EXPECT_EQ(row_max_id({nan, -1e29f, nan, -inf, -1e29f}), on_gpu() ? 4 : 1);
    EXPECT_EQ(row_max_id({nan, 1, inf, 2}), 2);
    EXPECT_EQ(row_max_id({-1, -0.0f, 0.0f, -0.0f}), on_gpu() ? 2 : 1);
    Values wide(300, lowest);
    EXPECT_EQ(row_max_id(wide), -1);
    wide[299] = 5;
    EXPECT_EQ(row_max_id(wide), 299);
}

TEST_P(RowOpsTest, VecMaskAlsoInPlace) {
    const std::pair<int, int> sizes[] = {{3, 1}, {5, 255}, {4, 256}, {5, 257}, {40963, 1}};
    for (const auto& [rows, width] : sizes) {
        SCOPED_TRACE(::testing::Message() << rows << " x " << width);
        const Dim size(rows, width);
        Values values = random_values(rows * width, 1), expected = values;
        values[0] = expected[0] = NAN;
        std::vector<int> flags(rows);
        for (int r = 0; r < rows; ++r) {
            flags[r] = r % 4 == 2 ? 0 : r % 3 - 1;
            if (flags[r] == 0) {
                std::fill_n(&expected[r * width], width, 0.0f);
            }
        }
        Tensor<float> in = make(size, values), out = poisoned(size);
        const Tensor<int> mask = make(Dim(rows), flags);
        out.vec_mask(in, mask);
        expect_same_bits(values_of(out), expected);
        expect_same_bits(values_of(in), values);
        in.vec_mask(in, mask);
        expect_same_bits(values_of(in), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Places, RowOpsTest, kDensePlaces, name_of_place);

using CtcDeathTest = ContextTest;

// Empty tensors have a device, so that these run without a GPU. Checks behind the named one fail
// in the same call where they can.
TEST_F(CtcDeathTest, TableFailures) {
    std::vector<FailureCase> failures;
    for (const bool forward : {true, false}) {
        const auto devices = [=](Device out, Device prob, Device labels, Device frames) {
            Tensor<float> o(out), p(prob);
            const Tensor<int> l(labels), f(frames), n(CPU);
            forward ? o.compute_ctc_alpha(p, 0, l, f, n) : o.compute_ctc_beta(p, 0, l, f, n);
        };
        const auto sizes = [=](int labels, int utterances) {
            Tensor<float> o(Dim(4, 3)), p(Dim(4, 3));
            const Tensor<int> l(Dim(1, labels)), n(Dim(1, utterances));
            forward ? o.compute_ctc_alpha(p, 0, l, n, n) : o.compute_ctc_beta(p, 0, l, n, n);
        };
        const std::string labels = "labels.get_element_count()",
                          product = "frame_num_utt.get_element_count() * out.get_w()";
        const std::vector<FailureCase> cases = {
            {same_device("labels", "label_lengths_utt"), [=] { devices(CPU, GPU, GPU, GPU); }},
            {same_device("frame_num_utt", "label_lengths_utt"),
             [=] { devices(CPU, GPU, CPU_PINNED, GPU); }},
            {same_device("prob", "label_lengths_utt"), [=] { devices(CPU, GPU, CPU, CPU); }},
            {same_device("out", "prob"), [=] { devices(GPU, CPU, CPU, CPU); }},
            {"Check failed: labels.get_element_count() % out.get_w() == 0 ", [=] { sizes(7, 1); }},
            {"Check failed: " + (forward ? labels + " == " + product : product + " == " + labels) +
                 " ",
             [=] { sizes(6, 1); }},
            {"Not Implemented Yet", [=] { sizes(6, 2); }},
        };
        failures.insert(failures.end(), cases.begin(), cases.end());
    }
    expect_failures(failures);
}

TEST_F(CtcDeathTest, Failures) {
    const auto err_devices = [](Device out, Device alpha, Device beta, Device labels, Device pzx) {
        Tensor<float> o(out), a(alpha), b(beta), p(pzx);
        o.compute_ctc_err(a, b, Tensor<int>(labels), Tensor<int>(CPU), p);
    };
    const auto err_sizes = [](int labels, int totals) {
        Tensor<float> out(Dim(4, 3)), tables(Dim(4, 5)), pzx(Dim(1, totals));
        out.compute_ctc_err(tables, tables, Tensor<int>(Dim(1, labels)), Tensor<int>(Dim(2)), pzx);
    };
    const auto max_id = [](Device in, const Dim& ids) {
        Tensor<int> id(ids);
        Tensor<float>(in).find_row_max_id(id);
    };
    const auto mask = [](const Tensor<float>& in, const Tensor<int>& mask) {
        Tensor<float>(Dim(2, 3)).vec_mask(in, mask);
    };
    expect_failures({
        {same_device("beta", "frame_num_utt"), [=] { err_devices(GPU, GPU, GPU, GPU, GPU); }},
        {same_device("labels", "frame_num_utt"), [=] { err_devices(GPU, GPU, CPU, GPU, CPU); }},
        {same_device("alpha", "frame_num_utt"), [=] { err_devices(GPU, GPU, CPU, CPU, GPU); }},
        {same_device("out", "labels"), [=] { err_devices(GPU, CPU, CPU, CPU, GPU); }},
        {same_device("pzx", "labels"), [=] { err_devices(CPU, CPU, CPU, CPU, GPU); }},
        {"Check failed: labels.get_element_count() % alpha.get_w() == 0 ",
         [=] { err_sizes(11, 3); }},
        {"Check failed: frame_num_utt.get_element_count() == pzx.get_element_count() ",
         [=] { err_sizes(10, 3); }},
        {"Not Implemented Yet", [=] { err_sizes(10, 2); }},
        {same_device("in", "max_id_vec"), [=] { max_id(GPU, Dim(2, 2)); }},
        {"Check failed: max_id_vec.get_dim() == 1 || (max_id_vec.get_dim() == 2 && "
         "max_id_vec.get_h() == 1) ",
         [=] { max_id(CPU, Dim(2, 2)); }},
        {same_device("in", "out"), [=] { mask(Tensor<float>(GPU), Tensor<int>(GPU)); }},
        {same_device("mask", "out"), [=] { mask(Tensor<float>(CPU), Tensor<int>(GPU)); }},
        {same_size("in"), [=] { mask(Tensor<float>(Dim(2, 4)), Tensor<int>(Dim(3))); }},
        {"Check failed: mask.get_w() == out.get_h() ",
         [=] { mask(Tensor<float>(Dim(2, 3)), Tensor<int>(Dim(3))); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
