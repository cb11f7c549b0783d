#include "vorn/gpu/label_ops.h"

#include <algorithm>
#include <limits>

#include "device_test.h"
#include "gpusim/gate.h"
#include "vorn/gpu/rnn_step_ops.h"  // past label_ops.h, which has a kernel of one of its names

namespace vorn {
namespace test {
namespace {

constexpr float kIgnore = -1;
constexpr size_t kUntouched = 12345;

std::vector<int> random_mask(size_t count, unsigned seed) {
    std::mt19937 engine(seed);
    std::vector<int> mask(count);
    for (int& on : mask) {
        on = static_cast<int>(engine() % 4) - 1;  // of which only 1 is on
    }
    return mask;
}

/// What `call` writes to its argument, once the stream has passed.
template <typename Call>
size_t counted(Call call) {
    size_t count = kUntouched;
    call(&count);
    if (default_stream != nullptr) {
        cudaStreamSynchronize(default_stream);
    }
    return count;
}

class LabelOpsTest : public DeviceTest {
protected:
    /// The column of the largest score. A NaN never wins, but in column 0, where nothing beats it.
    /// Of equal scores column 0 wins, then the order of ties.
    int top_of(const float* row, int n) const {
        int top = 0;
        for (int j = 1; j < n; ++j) {
            if (row[j] > row[top] || (row[j] == row[top] && top != 0 &&
                                      order_of_ties(j, on_gpu()) < order_of_ties(top, on_gpu()))) {
                top = j;
            }
        }
        return top;
    }
    bool is_right(int index, float label, int mask) const {
        const float target = on_gpu() ? std::trunc(label) : label;
        return mask == 1 && label != kIgnore && static_cast<float>(index) == target;
    }
};
INSTANTIATE_TEST_SUITE_P(Places, LabelOpsTest, kDensePlaces, name_of_place);

TEST_P(LabelOpsTest, ValidLabelsAreCounted) {
    for (int size : {0, 1, 2, 1023, 1024, 1025, 5000}) {
        Values values = random_values(size, 7, -2, 3);
        for (float& value : values) {
            value = std::floor(value);
        }
        if (size > 2) {
            values[size / 2] = kNan;
        }
        const std::vector<int> on = random_mask(size, 8);
        size_t valid = 0, valid_and_on = 0;
        for (int i = 0; i < size; ++i) {
            valid += values[i] != kIgnore;
            valid_and_on += values[i] != kIgnore && on[i] == 1;
        }
        TensorF label = make(values);
        const Tensor<int> mask = make(on), no_mask(device());
        EXPECT_EQ(counted([&](size_t* p) { label.count_valid_label(no_mask, kIgnore, p); }), valid);
        EXPECT_EQ(counted([&](size_t* p) { label.count_valid_label(mask, kIgnore, p); }),
                  valid_and_on);
    }
}

// Scores from a small set, so that rows have ties, with widths on both sides of the block. Half of
// the labels are right; some lie past an integer, are ignored or masked.
TEST_P(LabelOpsTest, TopClassesAndRightRows) {
    for (int rows : {1, 60, 1030}) {
        for (int classes : {1, 2, 10, 33, 127, 128, 129, 300}) {
            SCOPED_TRACE(testing::Message() << rows << " x " << classes);
            Values scores = random_values(rows * classes, classes, -8, 3);
            std::vector<int> on = random_mask(rows, 5), expected_idx;
            Values expected_out, labels;
            size_t right = 0;
            for (int i = 0; i < rows; ++i) {
                float* row = &scores[i * classes];
                std::transform(row, row + classes, row, [](float x) { return std::floor(x); });
                if (i % 7 == 3) {
                    row[i % 2 == 0 ? 0 : classes / 2] = kNan;
                } else if (i % 7 == 4) {  // without a score above the lowest finite one
                    std::fill_n(row, classes, -kInf);
                    row[classes - 1] = i % 2 == 0 ? -kInf : std::numeric_limits<float>::lowest();
                }
                const int top = top_of(row, classes);
                const float label = static_cast<float>(top);
                labels.push_back(i % 9 == 2 ? kIgnore : i % 5 == 1 ? label + 0.5f : label + i % 2);
                right += is_right(top, labels[i], on[i]);
                expected_idx.push_back(top);
                expected_out.push_back(row[top]);
            }
            TensorF out = guarded(Dim(rows));
            Tensor<int> max_idx = guarded<int>(Dim(rows));
            const TensorF in = make(Dim(rows, classes), scores), label = make(labels);
            const Tensor<int> mask = make(on);
            EXPECT_EQ(counted([&](size_t* p) {
                          out.cal_classify_acu_target(in, label, mask, max_idx, kIgnore, p);
                      }),
                      right);
            EXPECT_EQ(values_of(max_idx), expected_idx);
            expect_same_bits(values_of(out), expected_out);
        }
    }
    TensorF in = make(Dim(0, 5), Values()), none = make(Values());
    Tensor<int> mask = make(std::vector<int>()), max_idx = mask;
    EXPECT_EQ(counted([&](size_t* p) {
                  none.cal_classify_acu_target(in, none, mask, max_idx, kIgnore, p);
              }),
              0u);
}

class AsyncCountTest : public GpuTest {
protected:
    void SetUp() override {
        GpuTest::SetUp();
        if (!IsSkipped() && copies_wait()) {
            GTEST_SKIP() << "this toolkit waits in a copy between host variables";
        }
        label.slice(0, 300).set_element(kIgnore);
        mask.set_element(1);
    }

    static bool copies_wait() {
        size_t count;
        Gate gate(default_stream, 1'000'000);
        cudaMemcpyAsync(&count, t_ctx->cpu_mem, sizeof(count), cudaMemcpyHostToHost,
                        default_stream);
        return !gate.holds();
    }

    void count_valid(size_t* count) { label.count_valid_label(mask, kIgnore, count); }  // 600
    void count_right(size_t* count) {                                                   // 900
        out.cal_classify_acu_target(scores, zeros, mask, max_idx, kIgnore, count);
    }

    const Device device = has_gpu() ? GPU : CPU;  // without one, SetUp skips the test
    TensorF label{Dim(900), device}, zeros{Dim(900), device}, out{Dim(900), device};
    TensorF scores{Dim(900, 4), device};
    Tensor<int> mask{Dim(900), device}, max_idx{Dim(900), device};
};

TEST_F(AsyncCountTest, ACallDoesNotWaitForItsCount) {
    for (bool is_valid : {true, false}) {
        size_t count = kUntouched;
        Gate gate(default_stream);
        is_valid ? count_valid(&count) : count_right(&count);
        EXPECT_TRUE(gate.holds());
        EXPECT_EQ(count, kUntouched);
        gate.open();
        cudaStreamSynchronize(default_stream);
        EXPECT_EQ(count, is_valid ? 600u : 900u);
    }
}

// The second call waits until the first count has left the slot. That it polled for it is no
// failure, for which the tail would take the status that polling leaves behind.
TEST_F(AsyncCountTest, AnUndeliveredCountIsNotOverwritten) {
    for (bool is_valid_first : {true, false}) {
        for (bool sync : {false, true}) {
            size_t valid = kUntouched, right = kUntouched;
            Gate gate(default_stream, 30'000);  // opens while the second call waits
            is_valid_first ? count_valid(&valid) : count_right(&right);
            g_sync_flag = sync;
            is_valid_first ? count_right(&right) : count_valid(&valid);
            g_sync_flag = false;
            EXPECT_EQ(is_valid_first ? valid : right, is_valid_first ? 600u : 900u);
            cudaStreamSynchronize(default_stream);
            EXPECT_EQ(valid, 600u);
            EXPECT_EQ(right, 900u);
        }
    }
    // Other errors stay for whoever asks.
    size_t count;
    EXPECT_EQ(cudaMemset(nullptr, 0, 1), cudaErrorInvalidValue);
    count_valid(&count);
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidValue);
    cudaStreamSynchronize(default_stream);
}

using LabelOpsFailureTest = GpuTest;

TEST_F(LabelOpsFailureTest, Texts) {
    size_t count;
    for (Device device : {CPU, GPU}) {
        TensorF scores(Dim(3, 4), device), three(Dim(3), device), two(Dim(2), device);
        Tensor<int> mask(Dim(3), device), short_mask(Dim(2), device), idx(Dim(3), device);
        const auto classify = [&](const TensorF& in, const TensorF& label, const Tensor<int>& on,
                                  TensorF& out) {
            out.cal_classify_acu_target(in, label, on, idx, kIgnore, &count);
        };
        expect_failures({
            {failed("mask.get_element_count() == num", "mask, label size not match"),
             [&] { three.count_valid_label(short_mask, kIgnore, &count); }},
            // each fails the next test too
            {failed("in.get_dim() == 2"), [&] { classify(three, two, mask, two); }},
            {failed("in.get_size(0) == out.get_element_count()"),
             [&] { classify(scores, two, mask, two); }},
            {failed("in.get_size(0) == label.get_element_count()"),
             [&] { classify(scores, two, mask, three); }},
            {failed("mask.get_element_count() == label.get_element_count()"),
             [&] { classify(scores, three, short_mask, three); }},
        });
    }
    TensorF label(Dim(3), GPU);
    Tensor<int> no_mask(GPU);
    expect_failures({
        {failed("0 == (cudaMemcpyAsync((void *)count, t_ctx->cpu_mem, sizeof(size_t), "
                "cudaMemcpyHostToHost, default_stream))",
                "invalid argument"),
         [&] { label.count_valid_label(no_mask, kIgnore, nullptr); }},
        {failed("0 == (cudaEventRecord(t_ctx->event, default_stream))", "invalid resource handle"),
         [&] {
             t_ctx->event = nullptr;
             label.count_valid_label(no_mask, kIgnore, &count);
         }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
