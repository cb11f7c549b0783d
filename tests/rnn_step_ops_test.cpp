#include <algorithm>
#include <map>
#include <numeric>
#include <sstream>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

using Operands = std::vector<TensorF>;

const float kAlpha = 1.25f, kBeta = -0.5f;

double sigmoid(double x) {
    return 1 / (1 + std::exp(-std::max(x, -64.0)));
}

/// An operator, whose operands stand in the order of `names`, the output last. `kinds` says how
/// each lies: d dense, s strided, v a vector along the columns. `tests` are those of its dispatcher
/// in order, as `test:operand:operand`; the first one is made wrong, or the second where a `!`
/// follows. The formulas take an element of each operand, the old output among them.
struct StepOp {
    const char *names, *kinds, *tests;
    void (*run)(Operands& x);
    double (*formula)(const Doubles& x);
};

const StepOp kOps[] = {
    {"in w bak out", "dvsd",
     "dim:in dim:bak le:w con:in con:w con:out dev:w:out dev:bak:out dev:in:out",
     [](Operands& x) { x[3].ld_mul_diag_mat_sigmoid(x[0], x[1], x[2], kAlpha, kBeta); },
     [](const Doubles& x) { return sigmoid(kAlpha * x[0] * x[1] + kBeta * x[2]); }},
    {"a b c d out", "ddddd", "con:a con:b con:c con:d dev:c:out dev:d:out dev:b:out dev:a:out",
     [](Operands& x) { x[4].elem_mul_add(x[0], x[1], x[2], x[3]); },
     [](const Doubles& x) { return x[0] * x[1] + x[2] * x[3]; }},
    {"a b c out", "dddd",
     "con:a con:b con:c con:out dim:a dim:b dim:c dim:out dev:b:out dev:c:out dev:a:out size:out:a",
     [](Operands& x) { x[3].elem_mul_tanh(x[0], x[1], x[2]); },
     [](const Doubles& x) { return x[0] * std::tanh(x[2]); }},
    // The same, with its second output last; without names and tests, which stand above.
    {"", "dddd", "", [](Operands& x) { x[1].elem_mul_tanh(x[0], x[3], x[2]); },
     [](const Doubles& x) { return std::tanh(x[2]); }},
    {"b c out", "sss", "size:b:out dev:b:out dev:c:out",
     [](Operands& x) { x[2].ld_sigmoid_bprop(x[0], x[1], kAlpha, kBeta); },
     [](const Doubles& x) { return kAlpha * x[0] * x[1] * (1 - x[1]) + kBeta * x[2]; }},
    {"a b c out", "ddds", "dev:b:out dev:c:out dev:a:out dim:a dim:b dim:c dim:out",
     [](Operands& x) { x[3].ld_sigmoid_backprop(x[0], x[1], x[2]); },
     [](const Doubles& x) { return x[0] * x[1] * x[2] * (1 - x[2]); }},
    {"m_err o hc o_err w_oc ebc out", "dsdsvdd",
     "dim:m_err dim:o dim:hc dim:o_err dim:ebc dim:out le:w_oc dev:hc:w_oc dev:o_err:w_oc "
     "dev:o:w_oc dev:m_err:w_oc dev:w_oc:out:! dev:ebc:out con:out con:m_err con:hc con:w_oc",
     [](Operands& x) { x[6].ld_cell_cur_error(x[0], x[1], x[2], x[3], x[4], x[5]); },
     [](const Doubles& x) { return x[0] * x[1] * (1 - x[2] * x[2]) + x[3] * x[4] + x[5]; }},
    {"c_err f f_err w_fc i_err w_ic out", "ddsvsvd",
     "dev:f_err:i_err dev:w_fc:i_err dev:f:i_err dev:c_err:i_err dev:c_err:out:! dev:w_ic:out "
     "dim:c_err dim:f dim:f_err dim:i_err con:out con:c_err con:f con:w_fc con:w_ic",
     [](Operands& x) { x[6].ld_cell_back_error(x[0], x[1], x[2], x[3], x[4], x[5]); },
     [](const Doubles& x) { return x[0] * x[1] + x[2] * x[3] + x[4] * x[5]; }},
    {"a b c out", "ddds", "dev:b:out dev:c:out dev:a:out con:a con:b con:c",
     [](Operands& x) { x[3].ld_tanh_backprop(x[0], x[1], x[2]); },
     [](const Doubles& x) { return x[0] * x[1] * (1 - x[2] * x[2]); }},
};

// Not by elements: only its dispatcher is tested like theirs.
const StepOp kDiagMatDiff = {"a b out", "", "dev:a:out dev:b:out size:a:b dim:a dim:b",
                             [](Operands& x) { x[2].diag_mat_diff(x[0], x[1]); }, nullptr};

class RnnStepTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, RnnStepTest,
                         ::testing::Values(Place::kHostPitched, Place::kGpuPitched), name_of_place);

// Both sides of the blocks of 128 and 256 threads. Each strided operand has a pitch of its own. In
// place, the output is the first operand.
TEST_P(RnnStepTest, MatchesTheFormula) {
    const std::pair<int, int> sizes[] = {{1, 1}, {3, 127}, {2, 129}, {3, 255}, {2, 256}, {3, 257}};
    for (const StepOp& op : kOps) {
        const std::string kinds = op.kinds;
        const size_t last = kinds.size() - 1;
        for (int variant = 0; variant < 12; ++variant) {
            const auto [height, width] = sizes[variant / 2];
            const bool in_place = variant % 2;
            if (in_place && kinds[0] != kinds[last]) {
                continue;
            }
            SCOPED_TRACE(::testing::Message() << &op - kOps << ", width " << width << in_place);
            const Dim size(height, width);
            std::vector<Values> values;
            Operands x;
            for (size_t k = 0; k <= last; ++k) {
                const bool is_vector = kinds[k] == 'v';
                values.push_back(random_values(is_vector ? width : height * width, k + 1, -2, 2));
                x.push_back(is_vector         ? make(values[k])
                            : kinds[k] == 's' ? make(size, values[k], k + 1)
                                              : dense(size, values[k], device()));
            }
            if (in_place) {
                x[last] = x[0];
                values[last] = values[0];
            }
            op.run(x);
            Doubles expected;
            for (int pos = 0; pos < height * width; ++pos) {
                Doubles at;
                for (size_t k = 0; k <= last; ++k) {
                    at.push_back(values[k][kinds[k] == 'v' ? pos % width : pos]);
                }
                expected.push_back(op.formula(at));
            }
            expect_close(values_of(x[last]), expected, 2e-6, 2e-6);
        }
    }
}

TEST_P(RnnStepTest, ScalarsAndGuard) {
    const auto row = [&](const Values& values) { return dense(Dim(1, 3), values, device()); };
    const TensorF x = row({5, 5, 5});
    TensorF out = row({kNan, 1, 2});
    out.ld_mul_diag_mat_sigmoid(x, x, row({-100, 100, 0}), 0, 1);
    expect_close(values_of(out), {sigmoid(-64), 1, 0.5}, 1e-6);
    out = row({kNan, 1, 2});
    out.ld_sigmoid_bprop(x, x);
    expect_close(values_of(out), {kNan, -100, -100}, 0);
}

// Two steps forward and back, as pieces and by the fused operators.
TEST_P(RnnStepTest, ComposesToTheFusedStep) {
    const int height = 3, width = 37;
    const Dim cells(height, width), gates(height, 4 * width);
    const auto zeros = [&](const Dim& size) { return TensorF(size, device()); };
    const auto filled = [&](const Dim& size, const Values& values) {
        return dense(size, values, device());
    };
    const auto block = [&](const TensorF& wide, int k) {
        return wide.range_col(k * width, (k + 1) * width);
    };
    enum { kI, kF, kO, kG };
    TensorF w[3];
    for (int k = kI; k <= kO; ++k) {
        w[k] = filled(Dim(width), random_values(width, 70 + k));
    }
    struct Step {
        TensorF x, m_err, c_pre, c, i, f, g, o, h, m, e, err;
    };
    const auto state = [&](int t, const TensorF& c_pre) {
        return Step{filled(gates, random_values(4 * height * width, 80 + t, -2, 2)),
                    filled(cells, random_values(height * width, 90 + t)),
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
    const auto expect_same = [](const TensorF& piece, const TensorF& fused) {
        const Values expected = values_of(fused);
        expect_close(values_of(piece), Doubles(expected.begin(), expected.end()), 2e-6, 1e-6);
    };

    std::vector<Step> fused, pieces;
    TensorF c_start = filled(cells, random_values(height * width, 60));
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

    TensorF c_err = zeros(cells), ebc = zeros(cells);
    for (int t = 1; t >= 0; --t) {
        Step &a = fused[t], &b = pieces[t];
        a.err.lstm_bp_op(a.i, a.f, a.g, a.o, w[kO], a.m_err, a.h, a.c_pre, c_err, a.e);

        TensorF i_err = block(b.err, kI), f_err = block(b.err, kF), o_err = block(b.err, kO),
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
        c_err = filled(cells, next);
        expect_same(ebc, c_err);
    }
}

// Both sides of the tile, of the host's stripes and of the choice of kernel. The host and the wide
// kernel sum each column in row order, the narrow one by 32 threads, which fixes their bits.
// Without rows the host leaves the output.
TEST_P(RnnStepTest, DiagMatDiff) {
    for (int width : {1, 31, 33, 1023, 1025, 8191, 8192}) {
        for (int height : {0, 1, 33, 70}) {
            SCOPED_TRACE(::testing::Message() << height << " x " << width);
            const bool is_wide = width >= 8192, leaves_out = height == 0 && !on_gpu();
            const int threads = on_gpu() && !is_wide ? 32 : 1;
            const Dim size(height, width);
            const Values a = random_values(height * width, 1), b = random_values(height * width, 2),
                         old = random_values(width, 3);
            Doubles expected;
            Values ordered;
            for (int c = 0; c < width; ++c) {
                double sum = 0;
                Values parts(threads);
                for (int row = 0, k = c; row < height; ++row, k += width) {
                    sum += static_cast<double>(a[k]) * b[k];
                    const volatile float product = a[k] * b[k];
                    float& part = parts[row % threads];
                    part = on_gpu() && is_wide ? std::fma(a[k], b[k], part) : part + product;
                }
                expected.push_back(leaves_out ? old[c] : 1.5 * sum - 0.5 * old[c]);
                ordered.push_back(std::accumulate(parts.begin(), parts.end(), 0.0f));
            }
            const TensorF mat_a = make(size, a, 1), mat_b = make(size, b, 5);
            TensorF out = make(old);
            out.diag_mat_diff(mat_a, mat_b, 1.5f, -0.5f);
            expect_close(values_of(out), expected, 1e-6, 1e-5);
            out.zero();
            out.diag_mat_diff(mat_a, mat_b);
            expect_same_bits(values_of(out), ordered);
        }
    }
}

TEST_P(RnnStepTest, MaskReverse) {
    struct {
        int batch, frames, width;
    } const cases[] = {{3, 5, 1}, {3, 5, 255}, {3, 5, 257}, {41, 1001, 2}};  // and a full grid
    for (const auto& [batch, frames, width] : cases) {
        const Dim size(batch * frames, width);
        const Values in = random_values(size.product(), width);
        Values expected(in.size());
        std::vector<int> lengths, order(frames);
        for (int b = 0; b < batch; ++b) {
            lengths.push_back(b * frames / (batch - 1));
            std::iota(order.begin(), order.end(), 0);
            std::reverse(order.begin(), order.begin() + lengths[b]);
            for (int t = 0; t < frames; ++t) {
                const float* from = &in[(order[t] * batch + b) * width];
                std::copy_n(from, width, &expected[(t * batch + b) * width]);
            }
        }
        // The host honours pitches.
        const auto matrix = [&](const Values& values, int right) {
            return on_gpu() ? dense(size, values, device()) : make(size, values, right);
        };
        TensorF out = matrix(Values(in.size(), kNan), 1);
        out.mask_reverse(matrix(in, 2), make(lengths), batch, frames);
        expect_same_bits(values_of(out), expected);
    }
}

TEST_P(RnnStepTest, CountValidLabelCountsBehindHoles) {
    const std::pair<int, int> sizes[] = {{1, 4}, {255, 3}, {257, 5}, {1025, 2}, {3, 0}};
    for (const auto& [batch, frames] : sizes) {
        std::vector<int> mask, expected(batch, 0);
        for (int k = 0; k < batch * frames; ++k) {
            const int values[] = {0, 1, 0, -7};
            mask.push_back(values[(k + k / batch) % (batch == 1 ? 2 : 4)]);
            expected[k % batch] += mask[k] ? 1 : 0;
        }
        Tensor<int> counts = poisoned<int>(Dim(batch));
        counts.count_valid_label(make(Dim(frames, batch), mask), batch, frames);
        EXPECT_EQ(values_of(counts), expected);
    }
}

std::vector<std::string> split(const std::string& text, char separator) {
    std::istringstream stream(text);
    std::vector<std::string> parts;
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

/// A matrix with these faults: 3 axes, pitched, on the other device, of another width.
TensorF with_faults(const std::string& faults) {
    const auto has = [&](const char* fault) { return faults.find(fault) != std::string::npos; };
    const int width = has("size") ? 5 : 3, pitch = width + has("con");
    const Device device = has("dev") ? GPU : CPU;
    if (has("dim") || has("le")) {
        return TensorF(Dim(1, 2, pitch), device).get_block(Dim(0, 0, 0), Dim(1, 2, width));
    }
    return TensorF(Dim(2, pitch), device).range_col(0, width);
}

using RnnStepDeathTest = GpuTest;

// Test k is the one that stops a call where it and all after it fail.
TEST_F(RnnStepDeathTest, TestsInOrder) {
    std::vector<StepOp> ops(std::begin(kOps), std::end(kOps));
    ops.push_back(kDiagMatDiff);
    std::vector<FailureCase> cases;
    for (const StepOp& op : ops) {
        const std::vector<std::string> tests = split(op.tests, ' ');
        std::map<std::string, std::string> faults;
        for (size_t k = tests.size(); k-- > 0;) {
            const std::vector<std::string> part = split(tests[k], ':');
            const std::string &kind = part[0], &of = part[1];
            faults[part.back() == "!" ? part[2] : of] += kind;
            const std::string text = kind == "dim"  ? "Check failed: (" + of + ").get_dim() == (2) "
                                     : kind == "le" ? "Check failed: (" + of + ".get_dim()) <= (2) "
                                     : kind == "con" ? "Check failed: " + of + ".is_contiguous() "
                                     : kind == "dev" ? same_device(of, part[2])
                                                     : same_size(of, part[2]);
            cases.push_back({text, [=]() mutable {
                                 Operands x;
                                 for (const std::string& name : split(op.names, ' ')) {
                                     x.push_back(with_faults(faults[name]));
                                 }
                                 op.run(x);
                             }});
        }
    }
    expect_failures(cases);
}

TEST_F(RnnStepDeathTest, BatchesOfSequences) {
    const TensorF cube(Dim(1, 2, 3)), matrix(Dim(6, 3)), five(Dim(5, 3)), on_gpu(Dim(6, 3), GPU);
    const Tensor<int> two(Dim(2)), three(Dim(3)), six(Dim(6)), gpu_two(Dim(2), GPU);
    const auto reverse = [](TensorF out, const TensorF& in, const Tensor<int>& lengths) {
        out.mask_reverse(in, lengths, 3, 2);
    };
    const auto count = [](auto out, const Tensor<int>& mask) { out.count_valid_label(mask, 3, 2); };
    const std::string a_length_each =
        "Check failed: batch_seq_len.get_element_count() == static_cast<index_t>(batch_size) ";
    expect_failures({
        {"Check failed: (in).get_dim() == (2) ", [&] { reverse(cube, cube, gpu_two); }},
        {"Check failed: (out).get_dim() == (2) ", [&] { reverse(cube, on_gpu, gpu_two); }},
        {same_device("in"), [&] { reverse(matrix, on_gpu, gpu_two); }},
        {same_device("batch_seq_len"), [&] { reverse(matrix, five, gpu_two); }},
        {a_length_each, [&] { reverse(matrix, five, two); }},
        {"Check failed: in.get_size(0) == static_cast<index_t>(batch_size * seq_len) ",
         [&] { reverse(matrix, five, three); }},
        {same_device("mask", "batch_seq_len"), [&] { count(two, gpu_two); }},
        {"Check failed: mask.get_element_count() == "
         "static_cast<index_t>(batch_size * sub_frame_len) ",
         [&] { count(two, two); }},
        {a_length_each, [&] { count(two, six); }},
        {"Not Implemented Yet", [&] { count(matrix, two); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
