#include "vorn/ops/vec_ops.h"

#include <cfloat>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

// One operation with weights. The mul forms use alpha0 only.
struct VecOp {
    const char* name;
    bool of_rows;   // the vector lies along a row
    bool diagonal;  // the matrix is square and the vector as long as its sides
    void (TensorF::*add)(const TensorF&, const TensorF&, DType, DType, DType);
    void (TensorF::*mul)(const TensorF&, const TensorF&, DType, DType);

    void run(TensorF& out, const TensorF& mat, const TensorF& vec, float alpha0, float alpha1,
             float beta) const {
        add ? (out.*add)(mat, vec, alpha0, alpha1, beta) : (out.*mul)(mat, vec, alpha0, beta);
    }
};

const VecOp kOps[] = {
    {"row_add_vec", true, false, &TensorF::row_add_vec, nullptr},
    {"col_add_vec", false, false, &TensorF::col_add_vec, nullptr},
    {"row_mul_vec", true, false, nullptr, &TensorF::row_mul_vec},
    {"col_mul_vec", false, false, nullptr, &TensorF::col_mul_vec},
    {"diag_add_vec", true, true, &TensorF::diag_add_vec, nullptr},
    {"diag_mul_vec", true, true, nullptr, &TensorF::diag_mul_vec},
};

class VecOpsTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, VecOpsTest, kAllPlaces, name_of_place);

// Both sides of a block of columns; sides of one; into another tensor, and in place. The old output
// is read even if beta is 0. The vector's shape is not tested, or may be of two axes.
TEST_P(VecOpsTest, MatchesTheFormula) {
    const float alpha0 = 1.25f, alpha1 = -0.75f;
    const int sizes[][2] = {{3, 1023}, {3, 1024}, {3, 1025}, {33, 33}, {1, 7}, {7, 1}, {1, 1}};
    for (const VecOp& op : kOps) {
        for (int k = 0; k < 14; ++k) {
            const float beta = k < 7 ? 0.5f : 0;
            const int n = sizes[k % 7][1], m = op.diagonal ? n : sizes[k % 7][0];
            const Values x = random_values(m * n, 1), v = random_values(op.of_rows ? n : m, 2);
            Values old = random_values(m * n, 3);
            old[0] = kNan;
            const TensorF vec = make(v), mat = make(Dim(m, n), x);
            const int length = static_cast<int>(v.size());
            const Dim shape = op.add || op.diagonal ? Dim(length, 1) : Dim(1, length);
            TensorF out = make(Dim(m, n), old), in_place = make(Dim(m, n), x);
            op.run(out, mat, vec.get_with_shape(shape), alpha0, alpha1, beta);
            op.run(in_place, in_place, vec, alpha0, alpha1, beta);

            Doubles expected(m * n), expected_in_place(m * n);
            for (int e = 0; e < m * n; ++e) {
                const int i = e / n, j = e % n;
                const double first = double(alpha0) * x[e], w = v[op.of_rows ? j : i];
                const double term = op.diagonal && i != j ? first
                                    : op.add              ? first + double(alpha1) * w
                                                          : first * w;
                expected[e] = term + double(beta) * old[e];
                expected_in_place[e] = term + double(beta) * x[e];
            }
            SCOPED_TRACE(op.name + std::string(" of ") + mat.get_size().to_string());
            expect_close(values_of(out), expected, 1e-6, 1e-6);
            expect_close(values_of(in_place), expected_in_place, 1e-6, 1e-6);
        }
    }
}

// (1 + 2^-12) squared is 1 + 2^-11 + 2^-24, and a rounded product loses the last term: it shows
// which products a GPU fuses into their sum, and that the host rounds each.
TEST_P(VecOpsTest, GpuFusesAndHostRoundsInTheirOrders) {
    const float a = 1 + std::ldexp(1.0f, -12), minus_square = -(1 + std::ldexp(1.0f, -11));
    const struct {
        int op;
        float mat, vec, old, alpha0, alpha1, beta;
    } cases[] = {
        {0, a, 1, 0, a, minus_square, 0},  // alpha0 * mat is fused, alpha1 * vec is not
        {1, a, 1, 0, a, minus_square, 0}, {0, minus_square, 0, a, 1, 0, a},  // so is beta * out
        {1, minus_square, 0, a, 1, 0, a}, {2, a, a, minus_square, 1, 0, 1},
        {3, a, a, minus_square, 1, 0, 1}, {4, minus_square, a, 0, 1, a, 0},
        {4, minus_square, 0, a, 1, 0, a}, {5, a, a, minus_square, 1, 0, 1},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(kOps[c.op].name);
        TensorF out = make<float>(Dim(1, 1), {c.old});
        kOps[c.op].run(out, make<float>(Dim(1, 1), {c.mat}), make<float>(Dim(1), {c.vec}), c.alpha0,
                       c.alpha1, c.beta);
        expect_same_bits(values_of(out), {on_gpu() ? std::ldexp(1.0f, -24) : 0.0f});
    }
}

// The GPU form knows no pitch.
class LogSubPriorTest : public DeviceTest {
protected:
    void expect_formula(const Values& x, const Values& prior) {
        const int n = static_cast<int>(prior.size());
        const Dim size(static_cast<int>(x.size()) / n, n);
        const TensorF in = make(size, x), vector = make(prior);
        TensorF out = poisoned(size), in_place = make(size, x);
        out.log_sub_prior(in, vector.get_with_shape(Dim(1, n)));
        in_place.log_sub_prior(vector);
        Doubles expected;
        for (size_t e = 0; e < x.size(); ++e) {
            const double t = x[e] < FLT_MIN ? -125 : std::log(double(x[e]));
            expected.push_back(t - std::log(double(prior[e % n])));
        }
        expect_close(values_of(out), expected, 1e-6, 4e-6);
        expect_same_bits(values_of(in_place), values_of(out));
    }
};
INSTANTIATE_TEST_SUITE_P(Places, LogSubPriorTest,
                         ::testing::Values(Place::kHost, Place::kHostPitched, Place::kGpu),
                         name_of_place);

TEST_P(LogSubPriorTest, MatchesTheFormulaWithAFloorForTheMatrixOnly) {
    for (const int n : {1, 129, 1024, 1025}) {
        expect_formula(random_values(3 * n, 4, 0, 1), random_values(n, 5, 1e-4f, 1));
    }
    // Each value in a vector lane and in the rest after it.
    const float below = std::nextafter(FLT_MIN, 0.0f);
    for (float x : {0.0f, -0.0f, -3.0f, below, FLT_MIN, 1e-42f, -kInf, kInf, kNan, 0.5f}) {
        for (float prior : {0.5f, 0.0f, -1.0f, 1e-42f, kInf}) {
            SCOPED_TRACE(::testing::Message() << x << " over " << prior);
            expect_formula(Values(22, x), Values(11, prior));
        }
    }
}

using VecOpsFailureTest = FailureTest;

TEST_F(VecOpsFailureTest, TestsInTheirOrder) {
    const TensorF vec4(Dim(4)), column(Dim(3, 1)), vec_cube(Dim(1, 1, 3));
    const std::string dim_a = failed("a.get_dim() == 2");
    const std::string row_b = failed("b.get_dim() <= 2 && b.get_w() == a.get_w()");
    const std::string col_b = failed("b.get_dim() <= 2 && b.get_w() == a.get_h()");
    expect_failures({
        {dim_a, [&] { small.row_mul_vec(far_cube, vec4); }},
        {row_b, [&] { small.row_mul_vec(far_small, vec4); }},
        {row_b, [&] { small.row_mul_vec(small, vec_cube); }},
        {same_device("a"), [&] { small.row_mul_vec(far_small, far_vec); }},
        {same_device("b"), [&] { small.row_mul_vec(small, far_vec); }},
        {dim_a, [&] { small.col_mul_vec(flat, vec4); }},
        {col_b, [&] { small.col_mul_vec(far_small, vec4); }},
        {col_b, [&] { small.col_mul_vec(small, column); }},
        {same_device("a"), [&] { small.col_mul_vec(far_small, far_vec); }},
        {same_device("b"), [&] { small.col_mul_vec(small, far_vec); }},
    });

    for (const bool add : {true, false}) {
        const auto diag = [&](TensorF& o, const TensorF& m, const TensorF& d) {
            add ? o.diag_add_vec(m, d) : o.diag_mul_vec(m, d);
        };
        expect_failures({
            {same_size("mat"), [&] { diag(small, flat, far_vec); }},
            {failed("(mat).get_dim() == (2)"), [&] { diag(cube, far_cube, vec4); }},
            {failed("(out).get_dim() == (2)"), [&] { diag(cube, far, vec4); }},
            {failed("mat.get_h() == mat.get_w()"), [&] { diag(out, out, far_small); }},
            {failed("mat.get_h() == diag_mat.get_element_count()"),
             [&] { diag(small, far_small, vec4); }},
            {same_device("mat"), [&] { diag(small, far_small, far_vec); }},
            {same_device("diag_mat"), [&] { diag(small, small, far_vec); }},
        });
    }

    expect_failures({
        {same_size("in"), [&] { small.log_sub_prior(flat, column); }},
        {failed("(in).get_dim() == (2)"), [&] { cube.log_sub_prior(far_cube, column); }},
        {failed("(out).get_dim() == (2)"), [&] { cube.log_sub_prior(far, column); }},
        {failed("prior.get_dim() == 1 || (prior.get_dim() == 2 && prior.get_h() == 1)"),
         [&] { small.log_sub_prior(far_small, column); }},
        {same_device("in"), [&] { small.log_sub_prior(far_small, far_vec); }},
        {same_device("prior"), [&] { small.log_sub_prior(small, far_vec); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
