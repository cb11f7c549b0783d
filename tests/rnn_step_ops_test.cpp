#include <algorithm>
#include <map>
#include <numeric>
#include <set>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

using Operands = std::vector<TensorF>;

const float kAlpha = 1.25f, kBeta = -0.5f;

enum Fault { kAxes, kPitch, kDevice, kSize };

/// A check of a dispatcher, and the fault of an operand that fails it.
struct OperandCheck {
    std::string text;
    Fault fault;
    std::string operand;
};

OperandCheck matrix(const std::string& x) {
    return {failed("(" + x + ").get_dim() == (2)"), kAxes, x};
}
OperandCheck at_most_matrix(const std::string& x) {
    return {failed("(" + x + ".get_dim()) <= (2)"), kAxes, x};
}
OperandCheck packed(const std::string& x) {
    return {failed(x + ".is_contiguous()"), kPitch, x};
}
OperandCheck device(const std::string& x, const std::string& other = "out") {
    return {same_device(x, other), kDevice, x};
}
OperandCheck device_of_out(const std::string& x) {
    return {same_device(x, "out"), kDevice, "out"};
}
OperandCheck size(const std::string& x, const std::string& other = "out") {
    return {same_size(x, other), kSize, x};
}
template <typename... Checks>
std::vector<OperandCheck> checks(Checks... in_order) {
    return {in_order...};
}

/// An operator, whose operands stand in the order of `names`, the output last. `kinds` says how
/// each lies: d dense, s strided, v a vector along the columns. `checks` are those of its
/// dispatcher in order. The formulas take an element of each operand, the old output among them.
struct StepOp {
    std::vector<std::string> names;
    std::string kinds;
    std::vector<OperandCheck> checks;
    void (*run)(Operands& x);
    double (*formula)(const Doubles& x);
};

const std::vector<StepOp> kOps = {
    {{"in", "w", "bak", "out"},
     "dvsd",
     checks(matrix("in"), matrix("bak"), at_most_matrix("w"), packed("in"), packed("w"),
            packed("out"), device("w"), device("bak"), device("in")),
     [](Operands& x) { x[3].ld_mul_diag_mat_sigmoid(x[0], x[1], x[2], kAlpha, kBeta); },
     [](const Doubles& x) { return sigmoid_of(kAlpha * x[0] * x[1] + kBeta * x[2]); }},
    {{"a", "b", "c", "d", "out"},
     "ddddd",
     checks(packed("a"), packed("b"), packed("c"), packed("d"), device("c"), device("d"),
            device("b"), device("a")),
     [](Operands& x) { x[4].elem_mul_add(x[0], x[1], x[2], x[3]); },
     [](const Doubles& x) { return x[0] * x[1] + x[2] * x[3]; }},
    {{"a", "b", "c", "out"},
     "dddd",
     checks(packed("a"), packed("b"), packed("c"), packed("out"), matrix("a"), matrix("b"),
            matrix("c"), matrix("out"), device("b"), device("c"), device("a"), size("out", "a")),
     [](Operands& x) { x[3].elem_mul_tanh(x[0], x[1], x[2]); },
     [](const Doubles& x) { return x[0] * std::tanh(x[2]); }},
    // The same, with its second output last; without names and checks, which stand above.
    {{},
     "dddd",
     {},
     [](Operands& x) { x[1].elem_mul_tanh(x[0], x[3], x[2]); },
     [](const Doubles& x) { return std::tanh(x[2]); }},
    {{"b", "c", "out"},
     "sss",
     checks(size("b"), device("b"), device("c")),
     [](Operands& x) { x[2].ld_sigmoid_bprop(x[0], x[1], kAlpha, kBeta); },
     [](const Doubles& x) { return kAlpha * x[0] * x[1] * (1 - x[1]) + kBeta * x[2]; }},
    {{"a", "b", "c", "out"},
     "ddds",
     checks(device("b"), device("c"), device("a"), matrix("a"), matrix("b"), matrix("c"),
            matrix("out")),
     [](Operands& x) { x[3].ld_sigmoid_backprop(x[0], x[1], x[2]); },
     [](const Doubles& x) { return x[0] * x[1] * x[2] * (1 - x[2]); }},
    {{"m_err", "o", "hc", "o_err", "w_oc", "ebc", "out"},
     "dsdsvdd",
     checks(matrix("m_err"), matrix("o"), matrix("hc"), matrix("o_err"), matrix("ebc"),
            matrix("out"), at_most_matrix("w_oc"), device("hc", "w_oc"), device("o_err", "w_oc"),
            device("o", "w_oc"), device("m_err", "w_oc"), device_of_out("w_oc"), device("ebc"),
            packed("out"), packed("m_err"), packed("hc"), packed("w_oc")),
     [](Operands& x) { x[6].ld_cell_cur_error(x[0], x[1], x[2], x[3], x[4], x[5]); },
     [](const Doubles& x) { return x[0] * x[1] * (1 - x[2] * x[2]) + x[3] * x[4] + x[5]; }},
    {{"c_err", "f", "f_err", "w_fc", "i_err", "w_ic", "out"},
     "ddsvsvd",
     checks(device("f_err", "i_err"), device("w_fc", "i_err"), device("f", "i_err"),
            device("c_err", "i_err"), device_of_out("c_err"), device("w_ic"), matrix("c_err"),
            matrix("f"), matrix("f_err"), matrix("i_err"), packed("out"), packed("c_err"),
            packed("f"), packed("w_fc"), packed("w_ic")),
     [](Operands& x) { x[6].ld_cell_back_error(x[0], x[1], x[2], x[3], x[4], x[5]); },
     [](const Doubles& x) { return x[0] * x[1] + x[2] * x[3] + x[4] * x[5]; }},
    {{"a", "b", "c", "out"},
     "ddds",
     checks(device("b"), device("c"), device("a"), packed("a"), packed("b"), packed("c")),
     [](Operands& x) { x[3].ld_tanh_backprop(x[0], x[1], x[2]); },
     [](const Doubles& x) { return x[0] * x[1] * (1 - x[2] * x[2]); }},
};

// Not by elements: only its dispatcher is tested like theirs.
const StepOp kDiagMatDiff = {
    {"a", "b", "out"},
    "",
    checks(device("a"), device("b"), size("a", "b"), matrix("a"), matrix("b")),
    [](Operands& x) { x[2].diag_mat_diff(x[0], x[1]); },
    nullptr};

class RnnStepTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, RnnStepTest,
                         ::testing::Values(Place::kHostPitched, Place::kGpuPitched), name_of_place);

// Both sides of the blocks of 128 and 256 threads. Each strided operand has a pitch of its own. In
// place, the output is the first operand.
TEST_P(RnnStepTest, MatchesTheFormula) {
    const std::pair<int, int> sizes[] = {{1, 1}, {3, 127}, {2, 129}, {3, 255}, {2, 256}, {3, 257}};
    for (const StepOp& op : kOps) {
        const std::string& kinds = op.kinds;
        const size_t last = kinds.size() - 1;
        for (int variant = 0; variant < 12; ++variant) {
            const auto [height, width] = sizes[variant / 2];
            const bool in_place = variant % 2;
            if (in_place && kinds[0] != kinds[last]) {
                continue;
            }
            SCOPED_TRACE(::testing::Message() << &op - &kOps[0] << ", width " << width << in_place);
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
    expect_close(values_of(out), {sigmoid_of(-64), 1, 0.5}, 1e-6);
    out = row({kNan, 1, 2});
    out.ld_sigmoid_bprop(x, x);
    expect_close(values_of(out), {kNan, -100, -100}, 0);
}

// A step forward and back, as pieces and by the fused operators.
TEST_P(RnnStepTest, ComposesToTheFusedStep) {
    const int height = 3, width = 37;
    const Dim cells(height, width), gates(height, 4 * width);
    unsigned seed = 60;
    const auto random = [&](const Dim& size) {
        return dense(size, random_values(size.product(), seed++, -2, 2), device());
    };
    const auto block = [&](const TensorF& wide, int k) {
        return wide.range_col(k * width, (k + 1) * width);
    };
    const auto expect_same = [](const TensorF& piece, const TensorF& fused) {
        expect_close(values_of(piece), widen(values_of(fused)), 2e-6, 1e-6);
    };
    struct Step {
        TensorF c, i, f, g, o, h, m, e, err;
    };
    const auto outputs = [&] {
        Step s;
        for (TensorF* each : {&s.c, &s.i, &s.f, &s.g, &s.o, &s.h, &s.m, &s.e}) {
            *each = TensorF(cells, device());
        }
        s.err = TensorF(gates, device());
        return s;
    };
    const TensorF x = random(gates), c_pre = random(cells), m_err = random(cells),
                  c_err = random(cells), w_i = random(Dim(width)), w_f = random(Dim(width)),
                  w_o = random(Dim(width));
    Step fused = outputs(), piece = outputs();

    fused.m.lstm_op(x, w_i, w_f, w_o, c_pre, fused.c, fused.i, fused.f, fused.g, fused.o, fused.h,
                    0, 0);
    piece.i.ld_mul_diag_mat_sigmoid(c_pre, w_i, block(x, 0));
    piece.f.ld_mul_diag_mat_sigmoid(c_pre, w_f, block(x, 1));
    piece.g.ld_tanh(block(x, 3));
    piece.c.elem_mul_add(piece.i, piece.g, piece.f, c_pre);
    piece.o.ld_mul_diag_mat_sigmoid(piece.c, w_o, block(x, 2));
    piece.m.elem_mul_tanh(piece.o, piece.h, piece.c);
    expect_same(piece.c, fused.c);
    expect_same(piece.m, fused.m);
    expect_same(piece.h, fused.h);

    fused.err.lstm_bp_op(fused.i, fused.f, fused.g, fused.o, w_o, m_err, fused.h, c_pre, c_err,
                         fused.e);
    TensorF i_err = block(piece.err, 0), f_err = block(piece.err, 1), o_err = block(piece.err, 2),
            g_err = block(piece.err, 3), ebc = dense(cells, values_of(c_err), device());
    o_err.ld_sigmoid_backprop(m_err, piece.h, piece.o);
    piece.e.ld_cell_cur_error(m_err, piece.o, piece.h, o_err, w_o, ebc);
    g_err.ld_tanh_backprop(piece.i, piece.e, piece.g);
    f_err.ld_sigmoid_backprop(piece.e, c_pre, piece.f);
    i_err.ld_sigmoid_backprop(piece.e, piece.g, piece.i);
    expect_same(piece.e, fused.e);
    expect_same(piece.err, fused.err);
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

/// A matrix with these faults.
TensorF with_faults(const std::set<Fault>& faults) {
    const int width = faults.count(kSize) ? 5 : 3, pitch = width + faults.count(kPitch);
    const Device device = faults.count(kDevice) ? GPU : CPU;
    if (faults.count(kAxes)) {
        return TensorF(Dim(1, 2, pitch), device).get_block(Dim(0, 0, 0), Dim(1, 2, width));
    }
    return TensorF(Dim(2, pitch), device).range_col(0, width);
}

using RnnStepCheckTest = GpuTest;

// Check k is the one that stops a call where it and all after it fail.
TEST_F(RnnStepCheckTest, ChecksInOrder) {
    std::vector<StepOp> ops = kOps;
    ops.push_back(kDiagMatDiff);
    std::vector<FailureCase> cases;
    for (const StepOp& op : ops) {
        std::map<std::string, std::set<Fault>> faults;
        for (auto check = op.checks.rbegin(); check != op.checks.rend(); ++check) {
            faults[check->operand].insert(check->fault);
            cases.push_back({check->text, [=]() mutable {
                                 Operands x;
                                 for (const std::string& name : op.names) {
                                     x.push_back(with_faults(faults[name]));
                                 }
                                 op.run(x);
                             }});
        }
    }
    expect_failures(cases);
}

using RnnStepFailureTest = FailureTest;

TEST_F(RnnStepFailureTest, BatchesOfSequences) {
    const TensorF matrix(Dim(6, 4)), five(Dim(5, 4));
    const Tensor<int> two(Dim(2)), six(Dim(6));
    const auto reverse = [](TensorF out, const TensorF& in, const Tensor<int>& lengths) {
        out.mask_reverse(in, lengths, 3, 2);
    };
    const auto count = [](auto out, const Tensor<int>& mask) { out.count_valid_label(mask, 3, 2); };
    const std::string a_length_each =
        failed("batch_seq_len.get_element_count() == static_cast<index_t>(batch_size)");
    expect_failures({
        {failed("(in).get_dim() == (2)"), [&] { reverse(cube, cube, far_ints); }},
        {failed("(out).get_dim() == (2)"), [&] { reverse(cube, far, far_ints); }},
        {same_device("in"), [&] { reverse(matrix, far, far_ints); }},
        {same_device("batch_seq_len"), [&] { reverse(matrix, five, far_ints); }},
        {a_length_each, [&] { reverse(matrix, five, two); }},
        {failed("in.get_size(0) == static_cast<index_t>(batch_size * seq_len)"),
         [&] { reverse(matrix, five, ints); }},
        {same_device("mask", "batch_seq_len"), [&] { count(two, far_ints); }},
        {failed("mask.get_element_count() == static_cast<index_t>(batch_size * sub_frame_len)"),
         [&] { count(two, two); }},
        {a_length_each, [&] { count(two, six); }},
        {kNotImplemented, [&] { count(matrix, two); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
