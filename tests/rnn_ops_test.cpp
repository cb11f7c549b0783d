#include <algorithm>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

double sigmoid(double x) {
    return 1 / (1 + std::exp(-std::max(x, -64.0)));
}

/// The step in double, from the formulas, on whole matrices.
struct ReferenceStep {
    Doubles i, f, g, c, o, h, m;

    ReferenceStep(size_t height, size_t width, const Doubles& x, const Values& wc_i,
                  const Values& wc_f, const Values& wc_o, const Doubles& c_pre,
                  const std::function<double(double)>& clip) {
        for (size_t k = 0; k < height * width; ++k) {
            const size_t j = k % width, row = k / width * 4 * width;
            i.push_back(sigmoid(wc_i[j] * c_pre[k] + x[row + j]));
            f.push_back(sigmoid(wc_f[j] * c_pre[k] + x[row + width + j]));
            g.push_back(std::tanh(x[row + 3 * width + j]));
            c.push_back(clip(f[k] * c_pre[k] + i[k] * g[k]));
            o.push_back(sigmoid(wc_o[j] * c[k] + x[row + 2 * width + j]));
            h.push_back(std::tanh(c[k]));
            m.push_back(o[k] * h[k]);
        }
    }
};

double no_clip(double c) {
    return c;
}

class LstmTest : public DeviceTest {
protected:
    Tensor<float> filled(const Dim& size, float value) {
        return dense(size, Values(size.product(), value), device());
    }
};

TEST_P(LstmTest, ForwardFollowsTheFormulaOnEveryPitch) {
    // Both sides of a block of 256 cells on either device and of the vector loops' ends.
    const std::pair<int, int> sizes[] = {{1, 1}, {3, 7}, {2, 255}, {2, 256}, {3, 257}, {2, 600}};
    for (const auto& [height, width] : sizes) {
        SCOPED_TRACE(width);
        const size_t cells = height * width;
        const Values x = random_values(4 * cells, 1, -4, 4), old = random_values(cells, 2, -3, 3);
        const Values wc_i = random_values(width, 3), wc_f = random_values(width, 4),
                     wc_o = random_values(width, 5);
        const ReferenceStep expected(height, width, widen(x), wc_i, wc_f, wc_o, widen(old),
                                     [](double c) { return std::min(std::max(c, -1.5), 1.0); });
        enum { kApart, kStateInPlace, kActivationsShared };
        for (int form : {kApart, kStateInPlace, kActivationsShared}) {
            const Dim size(height, width);
            // On a GPU the activations share the pitch of the output.
            int extra = 5;
            const auto output = [&] { return poisoned(size, on_gpu() ? 5 : extra++); };
            Tensor<float> m = output(), i = output(), f = output(), g = output(), o = output(),
                          h = output(), c_pre = make(size, old, 2), c_cur = poisoned(size, 3);
            if (form == kStateInPlace) {
                c_cur = c_pre;
            } else if (form == kActivationsShared) {
                i = f = g = o = h;
            }
            m.lstm_op(make(Dim(height, 4 * width), x, 1), make(Dim(width), wc_i),
                      make(Dim(width), wc_f), make(Dim(1, width), wc_o), c_pre, c_cur, i, f, g, o,
                      h, 1.0f, -1.5f);
            expect_close(values_of(c_cur), expected.c, 2e-6, 1e-6);
            expect_close(values_of(m), expected.m, 4e-6, 1e-6);
            if (form == kActivationsShared) {
                continue;
            }
            expect_close(values_of(i), expected.i, 2e-6);
            expect_close(values_of(f), expected.f, 2e-6);
            expect_close(values_of(g), expected.g, 1e-6, 1e-7);
            expect_close(values_of(o), expected.o, 2e-6);
            expect_close(values_of(h), expected.h, 2e-6, 1e-6);
        }
    }
}

TEST_P(LstmTest, ClipsAndGuardsAtTheirBounds) {
    // A closed input gate and an open forget gate keep the old cell state.
    struct {
        float max, min, old, clipped;
    } const cases[] = {
        {50, -50, 60, 50},         {50, -50, -60, -50}, {50, -50, 49, 49},    {0, 0, 60, 60},
        {7, 7, -60, -60},          {5e-7f, 0, 60, 60},  {0, 5e-7f, -60, -60}, {1e-6f, 0, 60, 60},
        {1.1e-6f, 0, 60, 1.1e-6f}, {-1, 1, 60, -1},     {-1, 1, -60, -1},     {-1, 1, 0, -1},
    };
    for (const auto& bound : cases) {
        SCOPED_TRACE(::testing::Message() << bound.max << ", " << bound.min << ": " << bound.old);
        const Dim size(1, 1);
        Tensor<float> m = poisoned(size, 1), c_cur = poisoned(size, 2), i = poisoned(size, 1),
                      f = poisoned(size, 1), g = poisoned(size, 1), o = poisoned(size, 1),
                      h = poisoned(size, 1);
        m.lstm_op(make<float>(Dim(1, 4), {-100, 100, 0.25f, 3}, 1), filled(Dim(1), 0),
                  filled(Dim(1), 0), filled(Dim(1), 0.5f), make<float>(size, {bound.old}, 1), c_cur,
                  i, f, g, o, h, bound.max, bound.min);
        expect_close(values_of(i), {1 / (1 + std::exp(64.0))}, 1e-6);
        expect_close(values_of(f), {1.0}, 0);
        expect_close(values_of(c_cur), {bound.clipped}, 0);
        const double gate = sigmoid(0.5 * bound.clipped + 0.25);
        expect_close(values_of(o), {gate}, 1e-6);
        expect_close(values_of(h), {std::tanh(bound.clipped)}, 1e-6);
        expect_close(values_of(m), {gate * std::tanh(bound.clipped)}, 2e-6);
    }
}

TEST_P(LstmTest, GradientThroughThreeSteps) {
    const int height = 2, width = 5, steps = 3;
    const size_t cells = height * width;
    const Dim size(height, width);
    const Values wc_i = random_values(width, 3), wc_f = random_values(width, 4),
                 wc_o = random_values(width, 5);
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
            const ReferenceStep step(height, width, Doubles(first, first + 4 * cells), wc_i, wc_f,
                                     wc_o, c, no_clip);
            c = step.c;
            for (size_t k = 0; k < cells; ++k) {
                sum += weight[t][k] * step.m[k];
            }
        }
        return sum;
    };

    struct Saved {
        Tensor<float> c_pre, i, f, g, o, h;
    };
    std::vector<Saved> saved;
    // The backward kernel takes dense activations; on the host each pitch is honoured.
    const auto activation = [&](int extra) {
        return on_gpu() ? filled(size, kPoison) : poisoned(size, extra);
    };
    const Tensor<float> peephole_o = make(Dim(width), wc_o);
    Tensor<float> c = activation(1);
    c.copy_from(dense(size, start, CPU));
    for (int t = 0; t < steps; ++t) {
        Saved s = {c, activation(2), activation(3), activation(4), activation(5), activation(6)};
        Tensor<float> m = activation(7), c_next = activation(8);
        m.lstm_op(make(Dim(height, 4 * width), x[t], 2), make(Dim(width), wc_i),
                  make(Dim(width), wc_f), peephole_o, c, c_next, s.i, s.f, s.g, s.o, s.h, 0, 0);
        c = c_next;
        saved.push_back(s);
    }

    std::vector<Values> gradients(steps);
    Tensor<float> c_err = activation(9);
    c_err.zero();
    for (int t = steps - 1; t >= 0; --t) {
        const Saved& s = saved[t];
        Tensor<float> m_err = activation(1), wx_err = poisoned(Dim(height, 4 * width), 3);
        m_err.copy_from(dense(size, weight[t], CPU));
        // In place in all steps but the last.
        Tensor<float> e_cur = t == steps - 1 ? activation(2) : c_err;
        wx_err.lstm_bp_op(s.i, s.f, s.g, s.o, peephole_o, m_err, s.h, s.c_pre, c_err, e_cur);
        gradients[t] = values_of(wx_err);
        // What reaches the cell of the step before: along the state and both early peepholes.
        Values next = values_of(e_cur);
        const Values f = values_of(s.f);
        for (size_t k = 0; k < cells; ++k) {
            const size_t j = k % width, row = k / width * 4 * width;
            next[k] = next[k] * f[k] + gradients[t][row + j] * wc_i[j] +
                      gradients[t][row + width + j] * wc_f[j];
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
TEST_P(LstmTest, MoreRowsThanTheGridHas) {
    const int height = 40960 + 3, width = 2, same = 3;
    const Dim size(height, width);
    const auto values = [&](int columns, unsigned seed) {
        Values all = random_values(height * columns, seed);
        std::copy_n(all.begin(), same * columns, all.end() - same * columns);
        return all;
    };
    const auto expect_same = [&](const Tensor<float>& tensor) {
        const Values all = values_of(tensor);
        const size_t part = same * tensor.get_w();
        EXPECT_EQ(Values(all.begin(), all.begin() + part), Values(all.end() - part, all.end()));
        EXPECT_EQ(std::count(all.begin(), all.end(), kPoison), 0);
    };
    const Tensor<float> wc = make<float>(Dim(width), {0.5f, -0.75f});
    const Tensor<float> c_pre = dense(size, values(width, 2), device());
    std::vector<Tensor<float>> out;
    for (int k = 0; k < 7; ++k) {
        out.push_back(filled(size, kPoison));
    }
    out[0].lstm_op(make(Dim(height, 4 * width), values(4 * width, 1), 1), wc, wc, wc, c_pre, out[1],
                   out[2], out[3], out[4], out[5], out[6], 0, 0);
    for (const Tensor<float>& each : out) {
        expect_same(each);
    }
    Tensor<float> wx_err = poisoned(Dim(height, 4 * width), 1), e = filled(size, kPoison);
    wx_err.lstm_bp_op(out[2], out[3], out[4], out[5], wc, c_pre, out[6], c_pre, c_pre, e);
    expect_same(e);
    expect_same(wx_err);
}

INSTANTIATE_TEST_SUITE_P(Places, LstmTest, kAllPlaces, name_of_place);

using LstmHostTest = ContextTest;

TEST_F(LstmHostTest, NoRowsWriteNothing) {
    Tensor<float> in(Dim(0, 8)), wc(Dim(2)), none(Dim(0, 2));
    none.lstm_op(in, wc, wc, wc, none, none, none, none, none, none, none, 1, -1);
    in.lstm_bp_op(none, none, none, none, wc, none, none, none, none, none);
}

using LstmDeathTest = ContextTest;

TEST_F(LstmDeathTest, Failures) {
    const auto forward = [](const Dim& in_size, Dim wc_i, Dim wc_f, Dim wc_o, const Dim& cells) {
        Tensor<float> in(in_size), a(wc_i), b(wc_f), c(wc_o), out(cells);
        out.lstm_op(in, a, b, c, out, out, out, out, out, out, out, 0, 0);
    };
    // Which of the four pointers is null.
    const auto on_gpu = [](int null) {
        float x = 0;
        const auto matrix = [&](int which, int width) {
            return Tensor<float>(which == null ? nullptr : &x, Dim(1, width), GPU);
        };
        Tensor<float> in = matrix(0, 4), c_pre = matrix(1, 1), c_cur = matrix(2, 1),
                      m = matrix(3, 1), other = matrix(4, 1);
        m.lstm_op(in, other, other, other, c_pre, c_cur, other, other, other, other, other, 0, 0);
    };
    const auto backward = [](const Dim& errors) {
        Tensor<float> cells(Dim(2, 3)), wc(Dim(3)), wx_err(errors);
        wx_err.lstm_bp_op(cells, cells, cells, cells, wc, cells, cells, cells, cells, cells);
    };
    expect_failures({
        {"Check failed: wc_i.get_width() == wc_f.get_width() ",
         [&] { forward(Dim(2, 12), Dim(3), Dim(4), Dim(4), Dim(2, 3)); }},
        {"Check failed: wc_i.get_width() == wc_o.get_width() ",
         [&] { forward(Dim(2, 13), Dim(3), Dim(3), Dim(4), Dim(2, 3)); }},
        {"Check failed: wx_out.get_width() == 4 * wc_i.get_width() ",
         [&] { forward(Dim(2, 13), Dim(3), Dim(3), Dim(3), Dim(2, 3, 1)); }},
        {"Check failed: 2 == get_dim() ",
         [&] { forward(Dim(2, 12), Dim(3), Dim(3), Dim(3), Dim(1, 2, 3)); }},
        {"Check failed: 2 == get_dim() ",
         [&] { forward(Dim(1, 2, 12), Dim(3), Dim(3), Dim(3), Dim(2, 3)); }},
        {"Check failed: 2 == get_dim() ", [&] { backward(Dim(1, 2, 12)); }},
        {"Check failed: is_valid_index(coor) invalid index dim.", [&] { backward(Dim(1, 12)); }},
        {"Check failed: false ", [&] { on_gpu(0); }},
        {"Check failed: false ", [&] { on_gpu(1); }},
        {"Check failed: false ", [&] { on_gpu(2); }},
        {"Check failed: false ", [&] { on_gpu(3); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
