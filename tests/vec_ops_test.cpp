#include "vorn/ops/vec_ops.h"

#include <cfloat>

#include "device_test.h"

namespace vorn {
namespace test {
namespace {

// One operation with weights. The mul forms use alpha0 only.
struct VecOp {
    using Add = void (TensorF::*)(const TensorF&, const TensorF&, DType, DType, DType);
    using Mul = void (TensorF::*)(const TensorF&, const TensorF&, DType, DType);

    const char* name;
    bool of_rows;   // the vector lies along a row
    bool diagonal;  // the matrix is square and the vector as long as its sides
    Add add;
    Mul mul;

    void run(TensorF& out, const TensorF& mat, const TensorF& vec, float alpha0, float alpha1,
             float beta) const {
        if (add) {
            (out.*add)(mat, vec, alpha0, alpha1, beta);
        } else {
            (out.*mul)(mat, vec, alpha0, beta);
        }
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

// Both sides of a block of columns; sides of one; into another tensor, and in place.
TEST_P(VecOpsTest, MatchesTheFormula) {
    const float alpha0 = 1.25f, alpha1 = -0.75f, beta = 0.5f;
    const int sizes[][2] = {{3, 1023}, {3, 1024}, {3, 1025}, {33, 33}, {1, 7}, {7, 1}, {1, 1}};
    for (const VecOp& op : kOps) {
        for (const auto& size : sizes) {
            const int m = op.diagonal ? size[1] : size[0], n = size[1];
            const Values x = random_values(m * n, 1);
            const Values v = random_values(op.of_rows ? n : m, 2);
            const Values old = random_values(m * n, 3);
            const TensorF vec = make(v);
            const TensorF mat = make<float>(Dim(m, n), x);
            TensorF out = make<float>(Dim(m, n), old), in_place = make<float>(Dim(m, n), x);
            op.run(out, mat, vec, alpha0, alpha1, beta);
            op.run(in_place, in_place, vec, alpha0, alpha1, beta);

            Doubles expected(m * n), expected_in_place(m * n);
            for (int i = 0; i < m; ++i) {
                for (int j = 0; j < n; ++j) {
                    const int e = i * n + j;
                    const double first = double(alpha0) * x[e], w = v[op.of_rows ? j : i];
                    const double term = op.diagonal && i != j ? first
                                        : op.add              ? first + double(alpha1) * w
                                                              : first * w;
                    expected[e] = term + double(beta) * old[e];
                    expected_in_place[e] = term + double(beta) * x[e];
                }
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

TEST_P(VecOpsTest, OldOutputIsReadEvenIfBetaIsZero) {
    for (const VecOp& op : kOps) {
        SCOPED_TRACE(op.name);
        TensorF out = make<float>(Dim(2, 2), {kNan, 7, kInf, 8});
        op.run(out, make<float>(Dim(2, 2), {1, 2, 3, 4}), make<float>(Dim(2), {0, 0}), 1, 1, 0);
        const Values result = values_of(out);
        EXPECT_TRUE(std::isnan(result[0]) && std::isnan(result[2]));
        EXPECT_TRUE(std::isfinite(result[1]) && std::isfinite(result[3]));
    }
}

// The vector's shape: dense, whatever it is, where it is not tested.
TEST_P(VecOpsTest, VectorMayHaveAnyPermittedShape) {
    const TensorF mat = make<float>(Dim(2, 2), {1, 2, 3, 4});
    const Values v = {10, 20};
    TensorF out = make<float>(Dim(2, 2), {0, 0, 0, 0});
    TensorF column(Dim(2, 1), device());
    column.copy_from(v.data(), 0, 2);
    out.diag_add_vec(mat, column);
    expect_same_bits(values_of(out), {11, 2, 3, 24});
    out.diag_mul_vec(mat, column);
    expect_same_bits(values_of(out), {10, 2, 3, 80});
    TensorF row = column.get_with_shape(Dim(1, 2));
    out.col_mul_vec(mat, row);
    expect_same_bits(values_of(out), {10, 20, 60, 80});
    out.col_add_vec(mat, column);
    expect_same_bits(values_of(out), {11, 12, 23, 24});
}

// The GPU form knows no pitch.
class LogSubPriorTest : public DeviceTest {};
INSTANTIATE_TEST_SUITE_P(Places, LogSubPriorTest,
                         ::testing::Values(Place::kHost, Place::kHostPitched, Place::kGpu),
                         name_of_place);

TEST_P(LogSubPriorTest, MatchesTheFormula) {
    for (const int n : {1, 129, 1024, 1025}) {
        const int m = 3;
        const Values x = random_values(m * n, 4, 0, 1);
        const Values prior = random_values(n, 5, 1e-4f, 1);
        const TensorF in = make<float>(Dim(m, n), x), prior_row = make<float>(Dim(1, n), prior);
        TensorF out = poisoned(Dim(m, n)), in_place = make<float>(Dim(m, n), x);
        out.log_sub_prior(in, prior_row.is_contiguous() ? prior_row : make(prior));
        in_place.log_sub_prior(make(prior));
        Doubles expected(m * n);
        for (int e = 0; e < m * n; ++e) {
            expected[e] = std::log(double(x[e])) - std::log(double(prior[e % n]));
        }
        expect_close(values_of(out), expected, 1e-6, 4e-6);
        expect_close(values_of(in_place), expected, 1e-6, 4e-6);
    }
}

// Each value in a vector lane and in the rest behind.
TEST_P(LogSubPriorTest, FloorIsForTheMatrixOnly) {
    const float below = std::nextafter(FLT_MIN, 0.0f);
    const double half = -std::log(2.0);
    const struct {
        float x, prior;
        double expected;
    } cases[] = {
        {0, 0.5f, -125 - half},
        {-0.0f, 0.5f, -125 - half},
        {-3, 0.5f, -125 - half},
        {below, 0.5f, -125 - half},
        {-kInf, 0.5f, -125 - half},
        {1e-42f, 0.5f, -125 - half},
        {kNan, 0.5f, kNan},
        {kInf, 0.5f, kInf},
        {0.5f, 0, kInf},
        {0.5f, -1, kNan},
        {0, 0, kInf},
        {0.5f, kInf, -kInf},
        {FLT_MIN, 0.5f, std::log(double(FLT_MIN)) - half},
        {0.5f, 1e-42f, half - std::log(double(1e-42f))},
    };
    const int n = 11;
    for (const auto& c : cases) {
        TensorF out = poisoned(Dim(2, n));
        out.log_sub_prior(make<float>(Dim(2, n), Values(2 * n, c.x)),
                          make<float>(Dim(n), Values(n, c.prior)));
        SCOPED_TRACE(c.x);
        expect_close(values_of(out), Doubles(2 * n, c.expected), 1e-6);
    }
}

TEST(VecOpsDeathTest, TestsInTheirOrder) {
    float memory[9] = {};  // said to be on a GPU, because no test reads it
    TensorF out(Dim(3, 3)), wide(Dim(3, 4)), cube(Dim(1, 3, 3)), flat(Dim(9)), vec(Dim(3));
    TensorF vec4(Dim(4)), column(Dim(3, 1)), far(memory, Dim(3, 3), GPU),
        far_vec(memory, Dim(3), GPU);
    TensorF far_cube(memory, Dim(1, 3, 3), GPU), vec_cube(Dim(1, 1, 3));

    const std::string dim_a = "Check failed: a.get_dim() == 2 ";
    const std::string row_b = "Check failed: b.get_dim() <= 2 && b.get_w() == a.get_w() ";
    const std::string col_b = "Check failed: b.get_dim() <= 2 && b.get_w() == a.get_h() ";
    expect_failures({
        {dim_a, [&] { out.row_mul_vec(far_cube, vec4); }},
        {row_b, [&] { out.row_mul_vec(far, vec4); }},
        {row_b, [&] { out.row_mul_vec(out, vec_cube); }},
        {same_device("a"), [&] { out.row_mul_vec(far, far_vec); }},
        {same_device("b"), [&] { out.row_mul_vec(out, far_vec); }},
        {dim_a, [&] { out.col_mul_vec(flat, vec4); }},
        {col_b, [&] { out.col_mul_vec(far, vec4); }},
        {col_b, [&] { out.col_mul_vec(out, column); }},
        {same_device("a"), [&] { out.col_mul_vec(far, far_vec); }},
        {same_device("b"), [&] { out.col_mul_vec(out, far_vec); }},
    });

    for (const bool add : {true, false}) {
        const auto diag = [&](TensorF& o, const TensorF& m, const TensorF& d) {
            add ? o.diag_add_vec(m, d) : o.diag_mul_vec(m, d);
        };
        expect_failures({
            {same_size("mat"), [&] { diag(out, flat, far_vec); }},
            {"Check failed: (mat).get_dim() == (2) ", [&] { diag(cube, far_cube, vec4); }},
            {"Check failed: (out).get_dim() == (2) ", [&] { diag(cube, far, vec4); }},
            {"Check failed: mat.get_h() == mat.get_w() ", [&] { diag(wide, wide, far); }},
            {"Check failed: mat.get_h() == diag_mat.get_element_count() ",
             [&] { diag(out, far, vec4); }},
            {same_device("mat"), [&] { diag(out, far, far_vec); }},
            {same_device("diag_mat"), [&] { diag(out, out, far_vec); }},
        });
    }

    expect_failures({
        {same_size("in"), [&] { out.log_sub_prior(flat.get_with_shape(Dim(1, 9)), column); }},
        {"Check failed: (in).get_dim() == (2) ", [&] { cube.log_sub_prior(far_cube, column); }},
        {"Check failed: (out).get_dim() == (2) ", [&] { cube.log_sub_prior(far, column); }},
        {"Check failed: prior.get_dim() == 1 || (prior.get_dim() == 2 && prior.get_h() == 1) ",
         [&] { out.log_sub_prior(far, column); }},
        {same_device("in"), [&] { out.log_sub_prior(far, far_vec); }},
        {same_device("prior"), [&] { out.log_sub_prior(out, far_vec); }},
    });
}

}  // namespace
}  // namespace test
}  // namespace vorn
