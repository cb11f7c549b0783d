#include <algorithm>
#include <map>
#include <sstream>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

using F = Tensor<float>;
using Values = std::vector<float>;
using Doubles = std::vector<double>;

const float kNan = std::nanf("");

double sigmoid(double x) {
    return 1 / (1 + std::exp(-std::max(x, -64.0)));
}

/// An element-wise operation. `kinds` says how each operand lies, `out` last: d dense, s strided,
/// v a vector along the columns.
struct StepOp {
    const char *name, *kinds;
    void (*run)(F& out, const std::vector<F>& x, float alpha, float beta);
    double (*formula)(const Doubles& x, double old, double alpha, double beta);
};

const StepOp kOps[] = {
    {"ld_mul_diag_mat_sigmoid", "dvsd",
     [](F& out, const std::vector<F>& x, float alpha, float beta) {
         out.ld_mul_diag_mat_sigmoid(x[0], x[1], x[2], alpha, beta);
     },
     [](const Doubles& x, double, double alpha, double beta) {
         return sigmoid(alpha * x[0] * x[1] + beta * x[2]);
     }},
    {"elem_mul_add", "ddddd",
     [](F& out, const std::vector<F>& x, float, float) {
         out.elem_mul_add(x[0], x[1], x[2], x[3]);
     },
     [](const Doubles& x, double, double, double) { return x[0] * x[1] + x[2] * x[3]; }},
    {"elem_mul_tanh", "dddd",
     [](F& out, const std::vector<F>& x, float, float) { out.elem_mul_tanh(x[0], x[1], x[2]); },
     [](const Doubles& x, double, double, double) { return x[0] * std::tanh(x[2]); }},
    {"ld_sigmoid_bprop", "sss",
     [](F& out, const std::vector<F>& x, float alpha, float beta) {
         out.ld_sigmoid_bprop(x[0], x[1], alpha, beta);
     },
     [](const Doubles& x, double old, double alpha, double beta) {
         return alpha * x[0] * x[1] * (1 - x[1]) + beta * old;
     }},
    {"ld_sigmoid_backprop", "ddds",
     [](F& out, const std::vector<F>& x, float, float) {
         out.ld_sigmoid_backprop(x[0], x[1], x[2]);
     },
     [](const Doubles& x, double, double, double) { return x[0] * x[1] * x[2] * (1 - x[2]); }},
    {"ld_cell_cur_error", "dsdsvdd",
     [](F& out, const std::vector<F>& x, float, float) {
         out.ld_cell_cur_error(x[0], x[1], x[2], x[3], x[4], x[5]);
     },
     [](const Doubles& x, double, double, double) {
         return x[0] * x[1] * (1 - x[2] * x[2]) + x[3] * x[4] + x[5];
     }},
    {"ld_cell_back_error", "ddsvsvd",
     [](F& out, const std::vector<F>& x, float, float) {
         out.ld_cell_back_error(x[0], x[1], x[2], x[3], x[4], x[5]);
     },
     [](const Doubles& x, double, double, double) {
         return x[0] * x[1] + x[2] * x[3] + x[4] * x[5];
     }},
    {"ld_tanh_backprop", "ddds",
     [](F& out, const std::vector<F>& x, float, float) { out.ld_tanh_backprop(x[0], x[1], x[2]); },
     [](const Doubles& x, double, double, double) { return x[0] * x[1] * (1 - x[2] * x[2]); }},
};

class RnnStepTest : public DeviceTest {
protected:
    /// Columns from `first` on of a matrix of `pitch` columns, whose other columns must stay.
    F strided(int height, int width, int pitch, int first, const Values& values) {
        F whole(Dim(height, pitch), device());
        whole.set_element(kBeside);
        F view = whole.range_col(first, first + width);
        view.copy_from(F(const_cast<float*>(values.data()), Dim(height, width), CPU));
        _wholes.push_back({whole, first, width});
        return view;
    }
    void TearDown() override {
        for (const Whole& w : _wholes) {
            const Values all = values_of(w.whole);
            const int pitch = static_cast<int>(w.whole.get_w());
            for (int k = 0; k < static_cast<int>(all.size()); ++k) {
                const int col = k % pitch;
                ASSERT_TRUE((col >= w.first && col < w.first + w.width) || all[k] == kBeside);
            }
        }
    }

private:
    static constexpr float kBeside = 777;
    struct Whole {
        F whole;
        int first, width;
    };
    std::vector<Whole> _wholes;
};
INSTANTIATE_TEST_SUITE_P(Places, RnnStepTest, kDensePlaces, name_of_place);

// Both sides of the blocks of 128 and 256 threads. Each strided operand is a gate block of a matrix
// with a pitch of its own. In place, the output is the first operand.
TEST_P(RnnStepTest, MatchesTheFormula) {
    const float alpha = 1.25f, beta = -0.5f;
    const int sizes[][2] = {{1, 1}, {3, 127}, {2, 129}, {3, 255}, {2, 256}, {3, 257}};
    for (const StepOp& op : kOps) {
        const std::string kinds = op.kinds;
        const int last = static_cast<int>(kinds.size()) - 1;
        for (int variant = 0; variant < 12; ++variant) {
            const int height = sizes[variant / 2][0], width = sizes[variant / 2][1];
            const bool in_place = variant % 2;
            if (in_place && kinds[0] != kinds[last]) {
                continue;
            }
            SCOPED_TRACE(::testing::Message() << op.name << ", width " << width << in_place);
            std::vector<Values> values;
            std::vector<F> x;
            for (int k = 0; k <= last; ++k) {
                const bool is_vector = kinds[k] == 'v';
                values.push_back(random_values(is_vector ? width : height * width, k + 1, -2, 2));
                x.push_back(is_vector ? make(Dim(width), values[k])
                            : kinds[k] == 's'
                                ? strided(height, width, 4 * width + k, k % 4 * width, values[k])
                                : make(Dim(height, width), values[k]));
            }
            F out = x[in_place ? 0 : last];
            op.run(out, x, alpha, beta);
            Doubles expected;
            for (int pos = 0; pos < height * width; ++pos) {
                Doubles at;
                for (int k = 0; k < last; ++k) {
                    at.push_back(values[k][kinds[k] == 'v' ? pos % width : pos]);
                }
                expected.push_back(op.formula(at, values[in_place ? 0 : last][pos], alpha, beta));
            }
            expect_close(values_of(out), expected, 2e-6, 2e-6);
            if (op.name == std::string("elem_mul_tanh")) {
                Doubles h;
                for (float c : values[2]) {
                    h.push_back(std::tanh(static_cast<double>(c)));
                }
                expect_close(values_of(x[1]), h, 1e-6);
            }
        }
    }
}

TEST_P(RnnStepTest, ScalarsAndGuard) {
    const F x = make<float>(Dim(1, 3), {5, 5, 5});
    F out = make<float>(Dim(1, 3), {kNan, 1, 2});
    out.ld_mul_diag_mat_sigmoid(x, x, make<float>(Dim(1, 3), {-100, 100, 0}), 0, 1);
    expect_close(values_of(out), {sigmoid(-64), 1, 0.5}, 1e-6);
    out = make<float>(Dim(1, 3), {kNan, 1, 2});
    out.ld_sigmoid_bprop(x, x);
    expect_close(values_of(out), {kNan, -100, -100}, 0);
}

// Two steps forward and back, as pieces and by the fused operators.
TEST_P(RnnStepTest, ComposesToTheFusedStep) {
    const int height = 3, width = 37;
    const Dim cells(height, width), gates(height, 4 * width);
    const auto zeros = [&](const Dim& size) { return F(size, device()); };
    const auto block = [&](const F& wide, int k) {
        return wide.range_col(k * width, (k + 1) * width);
    };
    enum { kI, kF, kO, kG };
    F w[3];
    for (int k = kI; k <= kO; ++k) {
        w[k] = make(Dim(width), random_values(width, 70 + k));
    }
    struct Step {
        F x, m_err, c_pre, c, i, f, g, o, h, m, e, err;
    };
    const auto state = [&](int t, const F& c_pre) {
        return Step{make(gates, random_values(4 * height * width, 80 + t, -2, 2)),
                    make(cells, random_values(height * width, 90 + t)),
                    c_pre,
                    zeros(cells),
                    zeros(cells),
                    zeros(cells),
                    zeros(cells),
                    zeros(cells),
                    zeros(cells),
                    zeros(cells),
                    zeros(cells),
                    zeros(gates)};
    };
    const auto expect_same = [](const F& piece, const F& fused) {
        const Values expected = values_of(fused);
        expect_close(values_of(piece), Doubles(expected.begin(), expected.end()), 2e-6, 1e-6);
    };

    std::vector<Step> fused, pieces;
    F c_start = make(cells, random_values(height * width, 60));
    for (int t = 0; t < 2; ++t) {
        fused.push_back(state(t, t ? fused[0].c : c_start));
        Step& a = fused[t];
        a.m.lstm_op(a.x, w[kI], w[kF], w[kO], a.c_pre, a.c, a.i, a.f, a.g, a.o, a.h, 0, 0);

        pieces.push_back(state(t, t ? pieces[0].c : c_start));
        Step& b = pieces[t];
        b.i.ld_mul_diag_mat_sigmoid(b.c_pre, w[kI], block(b.x, kI));
        b.f.ld_mul_diag_mat_sigmoid(b.c_pre, w[kF], block(b.x, kF));
        b.g.ld_tanh(block(b.x, kG));
        b.c.elem_mul_add(b.i, b.g, b.f, b.c_pre);
        b.o.ld_mul_diag_mat_sigmoid(b.c, w[kO], block(b.x, kO));
        b.m.elem_mul_tanh(b.o, b.h, b.c);
        expect_same(b.c, a.c);
        expect_same(b.m, a.m);
        expect_same(b.h, a.h);
    }

    F c_err = zeros(cells), ebc = zeros(cells);
    for (int t = 1; t >= 0; --t) {
        Step &a = fused[t], &b = pieces[t];
        a.err.lstm_bp_op(a.i, a.f, a.g, a.o, w[kO], a.m_err, a.h, a.c_pre, c_err, a.e);

        F i_err = block(b.err, kI), f_err = block(b.err, kF), o_err = block(b.err, kO),
          g_err = block(b.err, kG);
        o_err.ld_sigmoid_backprop(b.m_err, b.h, b.o);
        b.e.ld_cell_cur_error(b.m_err, b.o, b.h, o_err, w[kO], ebc);
        g_err.ld_tanh_backprop(b.i, b.e, b.g);
        f_err.ld_sigmoid_backprop(b.e, b.c_pre, b.f);
        i_err.ld_sigmoid_backprop(b.e, b.g, b.i);
        ebc.ld_cell_back_error(b.e, b.f, f_err, w[kF], i_err, w[kI]);
        expect_same(b.e, a.e);
        expect_same(b.err, a.err);

        // The fused path leaves the way to the step before to its caller.
        Values next = values_of(a.e);
        const Values err = values_of(a.err), f = values_of(a.f), w_i = values_of(w[kI]),
                     w_f = values_of(w[kF]);
        for (int k = 0; k < height * width; ++k) {
            const int j = k % width, row = k / width * 4 * width;
            next[k] = next[k] * f[k] + err[row + j] * w_i[j] + err[row + width + j] * w_f[j];
        }
        c_err = make(cells, next);
        expect_same(ebc, c_err);
    }
}

// Both sides of the tile, of the host's stripes and of the choice of kernel. The host and the wide
// kernel sum each column in row order, which fixes their bits.
TEST_P(RnnStepTest, DiagMatDiff) {
    for (int width : {1, 31, 33, 1023, 1025, 8191, 8192}) {
        for (int height : {1, 33, 70}) {
            SCOPED_TRACE(::testing::Message() << height << " x " << width);
            const Values a = random_values(height * width, 1), b = random_values(height * width, 2),
                         old = random_values(width, 3);
            Doubles expected;
            Values ordered;
            for (int c = 0; c < width; ++c) {
                double sum = 0;
                float running = 0;
                for (int k = c; k < height * width; k += width) {
                    sum += static_cast<double>(a[k]) * b[k];
                    const volatile float product = a[k] * b[k];
                    running = on_gpu() ? std::fma(a[k], b[k], running) : running + product;
                }
                expected.push_back(1.5 * sum - 0.5 * old[c]);
                ordered.push_back(running);
            }
            const F mat_a = strided(height, width, width + 3, 2, a),
                    mat_b = strided(height, width, 2 * width, width, b);
            F out = make(Dim(width), old);
            out.diag_mat_diff(mat_a, mat_b, 1.5f, -0.5f);
            expect_close(values_of(out), expected, 1e-6, 1e-5);
            if (!on_gpu() || width >= 8192) {
                out.zero();
                out.diag_mat_diff(mat_a, mat_b);
                expect_same_bits(values_of(out), ordered);
            }
        }
    }
}

TEST_P(RnnStepTest, MaskReverse) {
    const Tensor<int> lengths = make<int>(Dim(3), {0, 3, 5});
    const int source[5][3] = {{0, 2, 4}, {1, 1, 3}, {2, 0, 2}, {3, 3, 1}, {4, 4, 0}};
    for (int width : {1, 255, 257}) {
        const Values in = random_values(15 * width, width);
        Values expected;
        for (int row = 0; row < 15; ++row) {
            const auto from = in.begin() + (source[row / 3][row % 3] * 3 + row % 3) * width;
            expected.insert(expected.end(), from, from + width);
        }
        // The host honours pitches.
        const int pitch = on_gpu() ? width : width + 3;
        F out = strided(15, width, pitch, 0, Values(15 * width, kNan));
        out.mask_reverse(strided(15, width, pitch, 0, in), lengths, 3, 5);
        expect_same_bits(values_of(out), expected);
    }

    // More rows than the grid has blocks; twice is the identity.
    const int batch = 41, frames = 1001;
    std::vector<int> lens;
    for (int b = 0; b < batch; ++b) {
        lens.push_back(b * 25 + 1);
    }
    const Values in = random_values(batch * frames * 2, 9);
    F once(Dim(batch * frames, 2), device()), twice(Dim(batch * frames, 2), device());
    once.mask_reverse(make(Dim(batch * frames, 2), in), make(Dim(batch), lens), batch, frames);
    EXPECT_EQ(values_of(once)[0], in[0]);
    EXPECT_EQ(values_of(once)[2 * 40], in[2 * (40 + batch * (lens[40] - 1))]);
    twice.mask_reverse(once, make(Dim(batch), lens), batch, frames);
    expect_same_bits(values_of(twice), in);
}

TEST_P(RnnStepTest, CountValidLabelCountsBehindHoles) {
    const std::pair<int, int> sizes[] = {{1, 4}, {255, 3}, {257, 5}, {1025, 2}, {3, 0}};
    for (const auto& [batch, frames] : sizes) {
        std::vector<int> mask, expected(batch, 0);
        for (int k = 0; k < batch * frames; ++k) {
            const int values[] = {0, 1, 0, -7};
            mask.push_back(values[(k + k / batch) % (batch == 1 ? 2 : 4)]);
        }
        for (int k = 0; k < batch * frames; ++k) {
            expected[k % batch] += mask[k] ? 1 : 0;
        }
        Tensor<int> counts = make<int>(Dim(batch), std::vector<int>(batch, -1));
        counts.count_valid_label(make<int>(Dim(frames, batch), mask), batch, frames);
        EXPECT_EQ(values_of(counts), expected);
    }
}

std::string same(const std::string& x, const std::string& y) {
    return "Check failed: is_same_devices((" + x + ").get_device(), (" + y + ").get_device()) ";
}

/// The tests of one dispatcher in order, as `test:operand,operand`; the first one is made wrong, or
/// the second where a `!` follows. Operands are numbered in the order of `names`.
struct Contract {
    const char *names, *tests;
    void (*call)(std::vector<F>& x);
};

const Contract kContracts[] = {
    {"in w bak out", "dim:in dim:bak le:w con:in con:w con:out dev:w,out dev:bak,out dev:in,out",
     [](std::vector<F>& x) { x[3].ld_mul_diag_mat_sigmoid(x[0], x[1], x[2]); }},
    {"a b c d out", "con:a con:b con:c con:d dev:c,out dev:d,out dev:b,out dev:a,out",
     [](std::vector<F>& x) { x[4].elem_mul_add(x[0], x[1], x[2], x[3]); }},
    {"a b c out",
     "con:a con:b con:c con:out dim:a dim:b dim:c dim:out dev:b,out dev:c,out dev:a,out size:out,a",
     [](std::vector<F>& x) { x[3].elem_mul_tanh(x[0], x[1], x[2]); }},
    {"b c out", "size:b,out dev:b,out dev:c,out",
     [](std::vector<F>& x) { x[2].ld_sigmoid_bprop(x[0], x[1]); }},
    {"a b c out", "dev:b,out dev:c,out dev:a,out dim:a dim:b dim:c dim:out",
     [](std::vector<F>& x) { x[3].ld_sigmoid_backprop(x[0], x[1], x[2]); }},
    {"m_err o hc o_err w_oc ebc out",
     "dim:m_err dim:o dim:hc dim:o_err dim:ebc dim:out le:w_oc dev:hc,w_oc dev:o_err,w_oc "
     "dev:o,w_oc dev:m_err,w_oc dev:w_oc,out! dev:ebc,out con:out con:m_err con:hc con:w_oc",
     [](std::vector<F>& x) { x[6].ld_cell_cur_error(x[0], x[1], x[2], x[3], x[4], x[5]); }},
    {"c_err f f_err w_fc i_err w_ic out",
     "dev:f_err,i_err dev:w_fc,i_err dev:f,i_err dev:c_err,i_err dev:c_err,out! dev:w_ic,out "
     "dim:c_err dim:f dim:f_err dim:i_err con:out con:c_err con:f con:w_fc con:w_ic",
     [](std::vector<F>& x) { x[6].ld_cell_back_error(x[0], x[1], x[2], x[3], x[4], x[5]); }},
    {"a b c out", "dev:b,out dev:c,out dev:a,out con:a con:b con:c",
     [](std::vector<F>& x) { x[3].ld_tanh_backprop(x[0], x[1], x[2]); }},
    {"a b out", "dev:a,out dev:b,out size:a,b dim:a dim:b",
     [](std::vector<F>& x) { x[2].diag_mat_diff(x[0], x[1]); }},
};

std::vector<std::string> split(const std::string& text, char separator) {
    std::istringstream stream(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

/// A matrix with these faults: 3 axes, pitched, on the other device, of another width.
F with_faults(const std::string& faults) {
    const auto has = [&](const char* fault) { return faults.find(fault) != std::string::npos; };
    const int width = has("size") ? 5 : 3, pitch = width + has("con");
    const Device device = has("dev") ? GPU : CPU;
    if (has("dim") || has("le")) {
        return F(Dim(1, 2, pitch), device).get_block(Dim(0, 0, 0), Dim(1, 2, width));
    }
    return F(Dim(2, pitch), device).range_col(0, width);
}

using RnnStepDeathTest = ContextTest;

// Test k is the one that stops a call where it and all behind it fail.
TEST_F(RnnStepDeathTest, TestsInOrder) {
    if (!has_gpu()) {
        GTEST_SKIP() << "no GPU on this machine";
    }
    std::vector<FailureCase> cases;
    for (const Contract& contract : kContracts) {
        const std::vector<std::string> names = split(contract.names, ' '),
                                       tests = split(contract.tests, ' ');
        std::map<std::string, std::string> faults;
        for (size_t k = tests.size(); k-- > 0;) {
            const bool second = tests[k].back() == '!';
            const std::string kind = split(tests[k], ':')[0];
            const std::vector<std::string> of =
                split(split(tests[k].substr(0, tests[k].size() - second), ':')[1], ',');
            faults[of[second]] += kind;
            const std::string text =
                kind == "dim"   ? "Check failed: (" + of[0] + ").get_dim() == (2) "
                : kind == "le"  ? "Check failed: (" + of[0] + ".get_dim()) <= (2) "
                : kind == "con" ? "Check failed: " + of[0] + ".is_contiguous() "
                : kind == "dev"
                    ? same(of[0], of[1])
                    : "Check failed: (" + of[0] + ".get_size()) == (" + of[1] + ".get_size()) ";
            cases.push_back({text, [=] {
                                 std::vector<F> x;
                                 for (const std::string& name : names) {
                                     const auto found = faults.find(name);
                                     x.push_back(
                                         with_faults(found == faults.end() ? "" : found->second));
                                 }
                                 contract.call(x);
                             }});
        }
    }
    expect_failures(cases);
}

TEST_F(RnnStepDeathTest, BatchesOfSequences) {
    int number = 0;
    float value = 0;
    const F cube(Dim(1, 2, 3)), matrix(Dim(6, 3)), on_gpu(&value, Dim(6, 3), GPU);
    const Tensor<int> two(Dim(2)), three(Dim(3)), gpu_two(&number, Dim(2), GPU);
    const auto reverse = [](F out, const F& in, const Tensor<int>& lengths) {
        out.mask_reverse(in, lengths, 3, 2);
    };
    const auto count = [](Tensor<int> out, const Tensor<int>& mask) {
        out.count_valid_label(mask, 3, 2);
    };
    expect_failures({
        {"Check failed: (in).get_dim() == (2) ", [&] { reverse(cube, cube, gpu_two); }},
        {"Check failed: (out).get_dim() == (2) ", [&] { reverse(cube, on_gpu, gpu_two); }},
        {same("in", "out"), [&] { reverse(matrix, on_gpu, gpu_two); }},
        {same("batch_seq_len", "out"), [&] { reverse(matrix, F(Dim(5, 3)), gpu_two); }},
        {"Check failed: batch_seq_len.get_element_count() == static_cast<index_t>(batch_size) ",
         [&] { reverse(matrix, F(Dim(5, 3)), two); }},
        {"Check failed: in.get_size(0) == static_cast<index_t>(batch_size * seq_len) ",
         [&] { reverse(matrix, F(Dim(5, 3)), three); }},
        {same("mask", "batch_seq_len"), [&] { count(two, gpu_two); }},
        {"Check failed: mask.get_element_count() == "
         "static_cast<index_t>(batch_size * sub_frame_len) ",
         [&] { count(two, two); }},
        {"Check failed: batch_seq_len.get_element_count() == static_cast<index_t>(batch_size) ",
         [&] { count(two, Tensor<int>(Dim(6))); }},
        {"Not Implemented Yet", [&] { F(matrix).count_valid_label(two, 3, 2); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
