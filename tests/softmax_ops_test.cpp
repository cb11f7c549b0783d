#include "vorn/ops/softmax_ops.h"

#include <numeric>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

// f(o, k) for each fold over the channels.
template <typename F>
void for_each_fold(const Extents& e, F f) {
    for (int o = 0; o < e.outer; ++o) {
        for (int k = 0; k < e.inner; ++k) {
            f(o, k);
        }
    }
}

template <typename T>
Doubles softmax_of(const std::vector<T>& x, const Extents& e) {
    Doubles y(x.size());
    for_each_fold(e, [&](int o, int k) {
        double max = -kInf, sum = 0;
        for (int c = 0; c < e.channel; ++c) {
            max = std::fmax(max, x[e.at(o, c, k)]);
        }
        for (int c = 0; c < e.channel; ++c) {
            sum += y[e.at(o, c, k)] = std::exp(x[e.at(o, c, k)] - max);
        }
        for (int c = 0; c < e.channel; ++c) {
            y[e.at(o, c, k)] /= sum;
        }
    });
    return y;
}

class SoftmaxTest : public DeviceTest {
protected:
    // By the form for matrices where it applies; the same into `in` itself.
    Values softmax(const Values& x, const Extents& e) {
        TensorF in = make(e.dim(), x), out = poisoned(e.dim());
        for (TensorF* y : {&out, &in}) {
            e.inner == 1 ? y->softmax(in) : y->softmax(in, e.outer, e.channel, e.inner);
        }
        expect_close(values_of(in), widen(values_of(out)), 0);
        return values_of(out);
    }

    void expect_softmax(const Values& x, const Extents& e) {
        SCOPED_TRACE(e.dim().to_string());
        expect_close(softmax(x, e), softmax_of(x, e), 1e-5, 5e-45);
    }
};
INSTANTIATE_TEST_SUITE_P(Places, SoftmaxTest, kDensePlaces, name_of_place);

// Both sides of the blocks of both kernels, and of the host's groups of rows, runs and chunks.
TEST_P(SoftmaxTest, MatchesTheFormula) {
    const Extents table[] = {{1, 2, 1},    {7, 255, 1},  {8, 511, 1},  {9, 512, 1},
                             {17, 513, 1}, {2, 1025, 1}, {2, 2049, 1}, {3, 2, 2},
                             {2, 33, 2},   {2, 70, 7},   {2, 3, 63},   {2, 3, 65},
                             {3, 21, 127}, {1, 4, 128},  {2, 5, 129},  {1, 3, 513}};
    for (const Extents& e : table) {
        expect_softmax(random_values(e.count(), e.channel, -10, 10), e);
    }
}

// Rows that end in NaN, zeros or numbers below the normal ones stand beside others, as rows and as
// positions, narrow and wide.
TEST_P(SoftmaxTest, ExtremesStayInTheirRow) {
    const std::vector<Values> heads = {
        {1000, 1001}, {-1000, -1001}, {3e38f, -3e38f}, {0, -0.0f},    {-kInf, 5, -kInf},  {-kInf},
        {kNan, 1},    {1, kNan},      {kInf, 1},       {0, -88, -95}, {0, -103, -104.5f},
    };
    const int channel = 43, rows = static_cast<int>(heads.size());
    for (const Extents& e :
         {Extents{rows, channel, 1}, {2, channel, rows}, {1, channel, 7 * rows}}) {
        Values x(e.count());
        for_each_fold(e, [&](int o, int k) {
            const Values& head = heads[(e.inner == 1 ? o : k) % rows];
            for (size_t c = 0; c < channel; ++c) {
                x[e.at(o, channel - 1 - c, k)] = head[std::min(c, head.size() - 1)];
            }
        });
        expect_softmax(x, e);
    }
}

// Each term is less than half an ulp of the first, and lost when added to it; together they are
// not. Only the row kernel of the GPU sums in another order.
TEST_P(SoftmaxTest, SumsInAscendingOrder) {
    for (const Extents& e : {Extents{9, 4000, 1}, {1, 4000, 3}, {1, 4000, 70}}) {
        Values x(e.count(), -17.4f);
        for_each_fold(e, [&](int o, int k) { x[e.at(o, 0, k)] = 0; });
        const Values y = softmax(x, e);
        const bool is_tree = on_gpu() && e.inner == 1;
        const double first = is_tree ? softmax_of(x, e)[0] : 1;
        for_each_fold(e, [&](int o, int k) {
            EXPECT_NEAR(y[e.at(o, 0, k)], first, is_tree ? 1e-6 : 0) << o << " " << k;
        });
    }
}

// Both sides of the blocks and caps of the kernels, and of what the host does at a time. Sums are
// ascending; the host's go on from what is there. The host takes the steps part by part, except
// where `out` is an input; then, as on a GPU, the product overwrites it before it is read again.
TEST_P(SoftmaxTest, BackwardMatchesThePlainLoop) {
    const Extents table[] = {{1, 2, 1},   {7, 3, 1},     {8, 4, 1},     {50, 1000, 1}, {9, 513, 1},
                             {3, 511, 1}, {40, 1025, 1}, {40961, 2, 1}, {2, 5, 2},     {2, 9, 11},
                             {9, 100, 6}, {3, 90, 5},    {1, 30, 63},   {2, 3, 127},   {2, 3, 129},
                             {1, 2, 600}, {3, 11, 1100}, {20481, 2, 3}};
    for (const Extents& e : table) {
        SCOPED_TRACE(e.dim().to_string());
        const Values y = random_values(e.count(), 9), g = random_values(e.count(), 10);
        const Values old = random_values(e.items(), 11);
        Values product(e.count()), gradient(e.count()), of_product(e.count()), sums;
        for_each_fold(e, [&](int o, int k) {
            float sum = on_gpu() ? 0 : old[o * e.inner + k];
            for (int c = 0; c < e.channel; ++c) {
                const int i = e.at(o, c, k);
                sum += product[i] = y[i] * g[i];
            }
            for (int c = 0; c < e.channel; ++c) {
                const int i = e.at(o, c, k);
                gradient[i] = y[i] * (g[i] - sum);
                of_product[i] = y[i] * (product[i] - sum);
            }
            sums.push_back(sum);
        });
        const TensorF output = make(e.dim(), y);
        TensorF out = poisoned(e.dim()), error = make(e.dim(), g), in_place = make(e.dim(), g);
        TensorF all_sums[] = {make(old), make(old), make(old)};
        vorn_stat_channel_sum(make(e.dim(), product), all_sums[0], e.outer, e.channel, e.inner);
        e.inner == 1
            ? out.softmax_bp_normal(output, error, all_sums[1])
            : out.softmax_bp_normal(output, error, all_sums[1], e.outer, e.channel, e.inner);
        in_place.softmax_bp_normal(output, in_place, all_sums[2], e.outer, e.channel, e.inner);
        for (const TensorF& actual : all_sums) {
            expect_same_bits(values_of(actual), sums);
        }
        expect_same_bits(values_of(out), gradient);
        expect_same_bits(values_of(in_place), of_product);
    }
}

TEST_P(SoftmaxTest, BackwardIsTheGradient) {
    for (const Extents& e : {Extents{3, 5, 1}, {2, 4, 3}, {1, 3, 66}}) {
        SCOPED_TRACE(e.dim().to_string());
        const Values w = random_values(e.count(), 12), in = random_values(e.count(), 13);
        TensorF gradient = poisoned(e.dim()), sums(Dim(e.items()), device());
        gradient.softmax_bp_normal(make(e.dim(), softmax(in, e)), make(e.dim(), w), sums, e.outer,
                                   e.channel, e.inner);
        Doubles x = widen(in);
        const auto loss = [&] {
            const Doubles y = softmax_of(x, e);
            return std::inner_product(y.begin(), y.end(), w.begin(), 0.0);
        };
        expect_gradient(loss, x, values_of(gradient), 1e-5);
    }
}

TEST_P(SoftmaxTest, EmptyTensorsHoldNothing) {
    const TensorF element = make(Values{5});
    float* const somewhere = element.get_ptr();
    TensorF none(somewhere, Dim(0, 4), device()), sums(somewhere, Dim(0, 1), device());
    TensorF no_channel(somewhere, Dim(3, 0), device());
    none.softmax(none);
    none.softmax(none, 2, 4, 0);
    none.softmax_bp_normal(none, none, sums);
    none.softmax_bp_normal(none, none, sums, 2, 4, 0);
    no_channel.softmax(no_channel);
    if (on_gpu()) {
        EXPECT_EQ(cudaPeekAtLastError(), cudaSuccess);
    }
    EXPECT_EQ(values_of(element), Values{5});
}

using SoftmaxFailureTest = FailureTest;

TEST_F(SoftmaxFailureTest, TestsInTheirOrder) {
    TensorF none = far_of(Dim(0, 4)), null_none(nullptr, Dim(0, 4), GPU),
            null_far(nullptr, Dim(3, 4), GPU);
    const std::string scalars = "need alpha == 1.0f && beta == 0.0f vs alpha = ";
    const std::string forward = failed("alpha == 1.0f && beta == 0.0f", "softmax " + scalars);
    const std::string backward =
        failed("alpha == 1.0f && beta == 0.0f", "softmax_bp_normal " + scalars);
    const std::string count =
        failed("out.get_element_count() == outer * channel * inner", "element size not match");
    expect_failures({
        {failed("in.get_dim() == 2"), [&] { out.softmax(flat, 2, 1); }},
        {forward + "2 beta = 0", [&] { out.softmax(in, 3, 1, 4, 2, 0); }},
        {forward + "1 beta = 0.5", [&] { out.softmax(in, 1, 0.5f); }},
        {failed("channel != 1", "softmax failed. outer = 5 channel = 1 inner = 7"),
         [&] { out.softmax(in, 5, 1, 7); }},
        {count, [&] { out.softmax(far_flat, 3, 4, 2); }},
        {same_size("in"), [&] { out.softmax(far_flat, 3, 4, 1); }},
        {same_device("in"), [&] { out.softmax(far); }},
        {not_null("in_ptr"), [&] { null_far.softmax(null_far); }},
        {not_null("out_ptr"), [&] { null_far.softmax(far); }},
        {failed("a.get_element_count() == outer * channel * inner"),
         [&] { vorn_stat_channel_sum(in, vec, 3, 3, 2); }},
        {failed("out.get_element_count() == outer * inner"),
         [&] { vorn_stat_channel_sum(in, vec, 4, 3, 1); }},
        {failed("output.get_dim() == 2"), [&] { out.softmax_bp_normal(flat, in, vec, 2, 1); }},
        {backward + "2 beta = 0", [&] { out.softmax_bp_normal(in, in, vec, 3, 1, 4, 2, 0); }},
        {backward + "1 beta = 1", [&] { out.softmax_bp_normal(in, in, vec, 1, 1); }},
        {failed("channel != 1", "softmax_bp_normal failed. outer = 5 channel = 1 inner = 7"),
         [&] { out.softmax_bp_normal(in, in, vec, 5, 1, 7); }},
        {count, [&] { out.softmax_bp_normal(in, in, vec, 2, 4, 2); }},
        {failed("softmax_sum.get_element_count() == outer * inner", "element size not match"),
         [&] { out.softmax_bp_normal(far_flat, in, far_vec, 2, 3, 2); }},
        // The product's tests of sizes and devices come before those of the gradient.
        {same_size("in1"), [&] { out.softmax_bp_normal(small, far_flat, far_vec, 3, 4, 1); }},
        {same_size("in2"), [&] { out.softmax_bp_normal(far, flat, far_vec, 3, 4, 1); }},
        {same_device("in1"), [&] { out.softmax_bp_normal(far, far, far_vec); }},
        {same_device("in2"), [&] { out.softmax_bp_normal(in, far, far_vec); }},
        {same_device("softmax_sum"), [&] { out.softmax_bp_normal(in, in, far_vec); }},
        {not_null("sum_buf_p"),
         [&] { null_none.softmax_bp_normal(null_none, null_none, null_none, 0, 4, 1); }},
        {not_null("src_grad_p"),
         [&] { null_none.softmax_bp_normal(null_none, null_none, none, 0, 4, 1); }},
        {not_null("dst_grad_p"),
         [&] { null_none.softmax_bp_normal(null_none, none, none, 0, 4, 1); }},
        {not_null("out_p"), [&] { none.softmax_bp_normal(null_none, none, none, 0, 4, 1); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
