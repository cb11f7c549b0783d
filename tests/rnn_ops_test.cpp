#include <algorithm>
#include <numeric>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

struct Peepholes {
    Values i, f, o;
};

Peepholes random_peepholes(int width) {
    return {random_values(width, 3), random_values(width, 4), random_values(width, 5)};
}

/// The step in double, from the formulas, on whole matrices.
struct ReferenceStep {
    Doubles i, f, g, c, o, h, m;

    ReferenceStep(
        const Doubles& x, const Peepholes& w, const Doubles& c_pre,
        const std::function<double(double)>& clip = [](double c) { return c; }) {
        const size_t width = w.i.size();
        for (size_t k = 0; k < c_pre.size(); ++k) {
            const size_t j = k % width, row = k / width * 4 * width;
            i.push_back(sigmoid_of(w.i[j] * c_pre[k] + x[row + j]));
            f.push_back(sigmoid_of(w.f[j] * c_pre[k] + x[row + width + j]));
            g.push_back(std::tanh(x[row + 3 * width + j]));
            c.push_back(clip(f[k] * c_pre[k] + i[k] * g[k]));
            o.push_back(sigmoid_of(w.o[j] * c[k] + x[row + 2 * width + j]));
            h.push_back(std::tanh(c[k]));
            m.push_back(o[k] * h[k]);
        }
    }
};

/// The matrices of a step, one value a cell.
struct Step {
    TensorF c_pre, c, i, f, g, o, h, m;

    /// Output k is make(k).
    template <typename Make>
    Step(const TensorF& c_pre, Make make) : c_pre(c_pre) {
        int k = 0;
        for (TensorF* output : {&c, &i, &f, &g, &o, &h, &m}) {
            *output = make(k++);
        }
    }
};

class LstmTest : public DeviceTest {
protected:
    /// A matrix for a backward step, which takes dense ones on a GPU and any pitch on the host.
    TensorF saved(const Dim& size, const Values& values, int right) {
        return on_gpu() ? dense(size, values, device()) : make(size, values, right);
    }
    /// A step from `c_pre`, its outputs poisoned. On the host each has a pitch of its own, on a GPU
    /// all but the state share one.
    Step step(const TensorF& c_pre) {
        return Step(c_pre, [&](int k) {
            return poisoned(c_pre.get_size(), k == 0 ? 3 : on_gpu() ? 5 : 4 + k);
        });
    }
    void forward(Step& s, const Values& x, const Peepholes& w, float max, float min) {
        const Dim size = s.m.get_size();
        s.m.lstm_op(make(Dim(size[0], 4 * size[1]), x, 1), make(w.i), make(w.f),
                    make(Dim(1, size[1]), w.o), s.c_pre, s.c, s.i, s.f, s.g, s.o, s.h, max, min);
    }
    enum Form { kApart, kStateInPlace, kActivationsShared };
    void expect_step(const Step& s, const ReferenceStep& expected, Form form = kApart) {
        expect_close(values_of(s.c), expected.c, 2e-6, 1e-6);
        expect_close(values_of(s.m), expected.m, 4e-6, 1e-6);
        if (form == kActivationsShared) {
            return;
        }
        expect_close(values_of(s.i), expected.i, 2e-6);
        expect_close(values_of(s.f), expected.f, 2e-6);
        expect_close(values_of(s.g), expected.g, 1e-6, 1e-7);
        expect_close(values_of(s.o), expected.o, 2e-6);
        expect_close(values_of(s.h), expected.h, 2e-6, 1e-6);
    }
};

INSTANTIATE_TEST_SUITE_P(Places, LstmTest, kAllPlaces, name_of_place);

TEST_P(LstmTest, ForwardFollowsTheFormulaOnEveryPitch) {
    // Both sides of a block of 256 cells on either device and of the vector loops' ends, and more
    // rows than a grid has.
    const std::pair<int, int> sizes[] = {{1, 1},   {3, 7},   {2, 255},  {2, 256},
                                         {3, 257}, {2, 600}, {40963, 2}};
    for (const auto& [height, width] : sizes) {
        SCOPED_TRACE(width);
        const Dim size(height, width);
        const Values x = random_values(4 * size.product(), 1, -4, 4),
                     old = random_values(size.product(), 2, -3, 3);
        const Peepholes w = random_peepholes(width);
        const ReferenceStep expected(widen(x), w, widen(old),
                                     [](double c) { return std::min(std::max(c, -1.5), 1.0); });
        for (Form form : {kApart, kStateInPlace, kActivationsShared}) {
            Step s = step(make(size, old, 2));
            if (form == kStateInPlace) {
                s.c = s.c_pre;
            } else if (form == kActivationsShared) {
                s.i = s.f = s.g = s.o = s.h;
            }
            forward(s, x, w, 1.0f, -1.5f);
            expect_step(s, expected, form);
        }
    }
}

TEST_P(LstmTest, ClipsAndGuardsAtTheirBounds) {
    // A closed input gate and an open forget gate keep the old cell state.
    const Values x = {-100, 100, 0.25f, 3};
    const Peepholes w = {{0}, {0}, {0.5f}};
    struct {
        float max, min, old, clipped;
    } const cases[] = {
        {50, -50, 60, 50},         {50, -50, -60, -50}, {50, -50, 49, 49},    {0, 0, 60, 60},
        {7, 7, -60, -60},          {5e-7f, 0, 60, 60},  {0, 5e-7f, -60, -60}, {1e-6f, 0, 60, 60},
        {1.1e-6f, 0, 60, 1.1e-6f}, {-1, 1, 60, -1},     {-1, 1, -60, -1},     {-1, 1, 0, -1},
    };
    for (const auto& bound : cases) {
        SCOPED_TRACE(::testing::Message() << bound.max << ", " << bound.min << ": " << bound.old);
        Step s = step(make<float>(Dim(1, 1), {bound.old}, 1));
        forward(s, x, w, bound.max, bound.min);
        expect_step(s,
                    ReferenceStep(widen(x), w, {bound.old}, [&](double) { return bound.clipped; }));
    }
}

TEST_P(LstmTest, GradientThroughThreeSteps) {
    const int height = 2, width = 5, steps = 3;
    const size_t cells = height * width;
    const Dim size(height, width);
    const Peepholes w = random_peepholes(width);
    std::vector<Values> x, weight;
    for (int t = 0; t < steps; ++t) {
        x.push_back(random_values(4 * cells, 10 + t, -1.5, 1.5));
        weight.push_back(random_values(cells, 20 + t));
    }
    const Values start = random_values(cells, 30);

    // All inputs of the unrolled net: the pre-activations of each step, then the first cell state.
    // The loss is a weighted sum of the outputs of all steps.
    Doubles inputs;
    for (const Values& part : {x[0], x[1], x[2], start}) {
        inputs.insert(inputs.end(), part.begin(), part.end());
    }
    const auto loss = [&] {
        Doubles c(inputs.end() - cells, inputs.end());
        double sum = 0;
        for (int t = 0; t < steps; ++t) {
            const auto first = inputs.begin() + t * 4 * cells;
            const ReferenceStep step(Doubles(first, first + 4 * cells), w, c);
            c = step.c;
            sum = std::inner_product(step.m.begin(), step.m.end(), weight[t].begin(), sum);
        }
        return sum;
    };

    std::vector<Step> net;
    for (int t = 0; t < steps; ++t) {
        Step s(t == 0 ? saved(size, start, 1) : net.back().c,
               [&](int k) { return saved(size, Values(cells, kPoison), 2 + k); });
        forward(s, x[t], w, 0, 0);
        net.push_back(s);
    }

    std::vector<Values> gradients(steps);
    TensorF c_err = saved(size, Values(cells, 0), 9);
    for (int t = steps - 1; t >= 0; --t) {
        const Step& s = net[t];
        TensorF wx_err = poisoned(Dim(height, 4 * width), 3);
        // In place in all steps but the last.
        TensorF e = t == steps - 1 ? saved(size, Values(cells, kPoison), 2) : c_err;
        wx_err.lstm_bp_op(s.i, s.f, s.g, s.o, make(w.o), saved(size, weight[t], 1), s.h, s.c_pre,
                          c_err, e);
        gradients[t] = values_of(wx_err);
        // What reaches the cell of the step before: along the state and both early peepholes.
        Values next = values_of(e);
        const Values f = values_of(s.f);
        for (size_t k = 0; k < cells; ++k) {
            const size_t j = k % width, row = k / width * 4 * width;
            next[k] = next[k] * f[k] + gradients[t][row + j] * w.i[j] +
                      gradients[t][row + width + j] * w.f[j];
        }
        c_err.copy_from(dense(size, next, CPU));
    }
    Values gradient;
    for (const Values& part : {gradients[0], gradients[1], gradients[2], values_of(c_err)}) {
        gradient.insert(gradient.end(), part.begin(), part.end());
    }
    expect_gradient(loss, inputs, gradient, 2e-6);
}

// The last rows repeat the first ones, and so must their results.
TEST_P(LstmTest, BackwardOfMoreRowsThanAGridHas) {
    const int height = 40963, width = 2, same = 3;
    const Dim size(height, width);
    Values values = random_values(size.product(), 1);
    std::copy_n(values.begin(), same * width, values.end() - same * width);
    const TensorF x = saved(size, values, 1);
    TensorF wx_err = poisoned(Dim(height, 4 * width), 1),
            e = saved(size, Values(values.size(), kPoison), 2);
    wx_err.lstm_bp_op(x, x, x, x, make<float>({0.5f, -0.75f}), x, x, x, x, e);
    for (const TensorF& each : {e, wx_err}) {
        const Values all = values_of(each);
        EXPECT_TRUE(std::equal(all.end() - same * each.get_w(), all.end(), all.begin()));
        EXPECT_EQ(std::count(all.begin(), all.end(), kPoison), 0);
    }
}

using LstmHostTest = ContextTest;

TEST_F(LstmHostTest, NoRowsWriteNothing) {
    TensorF in(Dim(0, 8)), wc(Dim(2)), none(Dim(0, 2));
    none.lstm_op(in, wc, wc, wc, none, none, none, none, none, none, none, 1, -1);
    in.lstm_bp_op(none, none, none, none, wc, none, none, none, none, none);
}

using LstmDeathTest = ContextTest;

TEST_F(LstmDeathTest, Failures) {
    const auto forward = [](const Dim& in_size, int wc_i, int wc_f, int wc_o, const Dim& cells) {
        TensorF in(in_size), a((Dim(wc_i))), b((Dim(wc_f))), c((Dim(wc_o))), out(cells);
        out.lstm_op(in, a, b, c, out, out, out, out, out, out, out, 0, 0);
    };
    // Which of the four pointers is null.
    const auto on_gpu = [](int null) {
        float value = 0;
        const auto matrix = [&](int which, int width) {
            return TensorF(which == null ? nullptr : &value, Dim(1, width), GPU);
        };
        TensorF in = matrix(0, 4), c_pre = matrix(1, 1), c = matrix(2, 1), m = matrix(3, 1),
                w = matrix(4, 1);
        m.lstm_op(in, w, w, w, c_pre, c, w, w, w, w, w, 0, 0);
    };
    const auto backward = [](const Dim& errors) {
        TensorF cells(Dim(2, 3)), wc(Dim(3)), wx_err(errors);
        wx_err.lstm_bp_op(cells, cells, cells, cells, wc, cells, cells, cells, cells, cells);
    };
    std::vector<FailureCase> cases = {
        {failed("wc_i.get_width() == wc_f.get_width()"),
         [&] { forward(Dim(2, 12), 3, 4, 4, Dim(2, 3)); }},
        {failed("wc_i.get_width() == wc_o.get_width()"),
         [&] { forward(Dim(2, 13), 3, 3, 4, Dim(2, 3)); }},
        {failed("wx_out.get_width() == 4 * wc_i.get_width()"),
         [&] { forward(Dim(2, 13), 3, 3, 3, Dim(2, 3, 1)); }},
        {failed("2 == get_dim()"), [&] { forward(Dim(2, 12), 3, 3, 3, Dim(1, 2, 3)); }},
        {failed("2 == get_dim()"), [&] { forward(Dim(1, 2, 12), 3, 3, 3, Dim(2, 3)); }},
        {failed("2 == get_dim()"), [&] { backward(Dim(1, 2, 12)); }},
        {kBadIndex, [&] { backward(Dim(1, 12)); }},
    };
    for (int null = 0; null < 4; ++null) {
        cases.push_back({failed("false"), [=] { on_gpu(null); }});
    }
    expect_failures(cases);
}

}  // namespace
}  // namespace test
}  // namespace vorn
