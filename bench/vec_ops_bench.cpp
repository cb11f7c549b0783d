#include <cmath>

#include "floor.h"
#include "random_tensor.h"
#include "vorn/ops/vec_ops.h"

namespace vorn {
namespace bench {
namespace {

const int kRows = 4096;

// A matrix, an output of its size, and a vector for its rows or columns. All values are positive,
// as a logarithm wants them, and small, so that repeated blends stay finite.
struct Operands {
    explicit Operands(int columns)
        : mat(random_tensor(Dim(kRows, columns), 0.1f, 1)),
          vec(random_tensor(Dim(kRows), 0.1f, 1)),
          out(random_tensor(Dim(kRows, columns), 0.1f, 1)) {}

    // A vector as long as a row.
    Tensor<float> row_vec() const { return vec.slice(0, mat.get_w()); }

    Tensor<float> mat, vec, out;
};

// The floor is one copy of the matrix. Blends read the old output too, but a copy that goes through
// the cache reads its destination as well.
template <typename F>
void run(benchmark::State& state, F call) {
    Operands t(static_cast<int>(state.range(0)));
    const Tensor<float> row_vec = t.row_vec();
    against_copy(state, 8.0 * t.out.count(), [&] { call(t, row_vec); });
}

#define VORN_VEC(name, call)                                                                \
    void name(benchmark::State& state) {                                                    \
        run(state, [](Operands& t, const Tensor<float>& row_vec) { (void)row_vec, call; }); \
    }                                                                                       \
    BENCHMARK(name)->Arg(256)->Arg(1024)->Arg(4096)->ArgName("4096x")->Unit(benchmark::kMicrosecond)

VORN_VEC(row_add_vec, t.out.row_add_vec(t.mat, row_vec, 2, 3, 0));
VORN_VEC(row_add_vec_blended, t.out.row_add_vec(t.mat, row_vec, 0.5f, 0.5f, 0.5f));
VORN_VEC(col_add_vec, t.out.col_add_vec(t.mat, t.vec, 2, 3, 0));
VORN_VEC(row_mul_vec, t.out.row_mul_vec(t.mat, row_vec, 2, 0));
VORN_VEC(col_mul_vec, t.out.col_mul_vec(t.mat, t.vec, 2, 0));
VORN_VEC(log_sub_prior, t.out.log_sub_prior(t.mat, row_vec));

void diag_add_vec(benchmark::State& state) {
    Operands t(kRows);
    against_copy(state, 8.0 * t.out.count(), [&] { t.out.diag_add_vec(t.mat, t.vec, 2, 3, 0); });
}
BENCHMARK(diag_add_vec)->Unit(benchmark::kMicrosecond);

// The loop with a call of the scalar function, beside which log_sub_prior stands.
void log_sub_prior_scalar(benchmark::State& state) {
    run(state, [](Operands& t, const Tensor<float>& row_vec) {
        const index_t n = t.mat.get_w();
        for (index_t i = 0; i < t.mat.count(); ++i) {
            const float x = t.mat.get_ptr()[i];
            const float log_x = x < 1.17549435e-38f ? -125.0f : logf(x);
            t.out.get_ptr()[i] = log_x - logf(row_vec.get_ptr()[i % n]);
            asm volatile("");
        }
    });
}
BENCHMARK(log_sub_prior_scalar)->Arg(256)->ArgName("4096x")->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
}  // namespace vorn
