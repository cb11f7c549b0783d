#include "vorn/ops/math_ops.h"

#include "floor.h"
#include "random_tensor.h"

namespace vorn {
namespace bench {
namespace {

const int kMega = 1 << 20;

// Operands with values that no function has a short way for, and an output. A pitched matrix takes
// some of the columns of its memory.
struct Operands {
    explicit Operands(const Dim& size, int pitch = 0)
        : a(make(size, pitch, 1)), b(make(size, pitch, 2)), out(make(size, pitch, 3)) {}

    static Tensor<float> make(const Dim& size, int pitch, unsigned seed) {
        const Dim whole_size = pitch ? Dim(size[0], pitch) : size;
        const Tensor<float> whole = random_tensor(whole_size, 0.1f, 5, seed);
        return pitch ? whole.range_col(0, size[1]) : whole;
    }

    Tensor<float> a, b, out;
};

// `streams` counts the operands that a call must at least read or write.
template <typename F>
void run(benchmark::State& state, int streams, F call) {
    Operands t(Dim(static_cast<int>(state.range(0)) * kMega));
    against_copy(state, 4.0 * streams * t.out.get_element_count(), [&] { call(t); });
}

template <typename F>
void run_pitched(benchmark::State& state, int streams, F call) {
    Operands t(Dim(4096, 1000), static_cast<int>(state.range(0)));
    against_copy(state, 4.0 * streams * t.out.get_element_count(), [&] { call(t); });
}

// The rule in a loop that stays scalar, beside which the frame's loops stand.
template <typename F>
void run_scalar(benchmark::State& state, int streams, F element) {
    run(state, streams, [&](Operands& t) {
        const float *a = t.a.get_ptr(), *b = t.b.get_ptr();
        float* out = t.out.get_ptr();
        for (index_t i = 0, n = t.out.count(); i < n; ++i) {
            out[i] = element(a[i], b[i], out[i]);
            asm volatile("");
        }
    });
}

#define VORN_ELEMENTS(name, streams, call)              \
    void name(benchmark::State& state) {                \
        run(state, streams, [](Operands& t) { call; }); \
    }                                                   \
    BENCHMARK(name)->Arg(1)->Arg(16)->ArgName("M")->Unit(benchmark::kMicrosecond)

#define VORN_SCALAR(name, streams, rule, call)                      \
    void name(benchmark::State& state) {                            \
        const rule f;                                               \
        run_scalar(state, streams, [f](float a, float b, float c) { \
            (void)a, (void)b, (void)c;                              \
            return call;                                            \
        });                                                         \
    }                                                               \
    BENCHMARK(name)->Arg(1)->ArgName("M")->Unit(benchmark::kMicrosecond)

// The width is 1000 in both; a pitch of 1000 is contiguous.
#define VORN_PITCHED(name, streams, call)                       \
    void name(benchmark::State& state) {                        \
        run_pitched(state, streams, [](Operands& t) { call; }); \
    }                                                           \
    BENCHMARK(name)->Arg(1000)->Arg(1024)->ArgName("pitch")->Unit(benchmark::kMicrosecond)

VORN_ELEMENTS(Copy, 2, t.out.copy_from(t.a));
VORN_ELEMENTS(Fill0, 1, t.out.zero());
VORN_ELEMENTS(Fill1, 1, t.out.ones());
VORN_ELEMENTS(Add, 3, t.out.add(t.a, t.b));
VORN_ELEMENTS(AddWeighted, 3, t.out.add(t.a, t.b, 2, 3));
VORN_ELEMENTS(AddBlended, 3, t.out.elem_add(t.a, t.b, 2, 3, 0.5f));
VORN_ELEMENTS(AddInto, 3, t.out.elem_add(t.out, t.b, 0.5f, 0.5f));
VORN_ELEMENTS(AddConstant, 2, t.out.add(1e-6f));
VORN_ELEMENTS(Scale, 2, t.out.mul(0.999f));
VORN_ELEMENTS(Mul, 3, t.out.elem_mul(t.a, t.b));
VORN_ELEMENTS(Div, 3, t.out.elem_div(t.a, t.b));
VORN_ELEMENTS(Reciprocal, 2, t.out.reciprocal(t.a));
VORN_ELEMENTS(Square, 2, t.out.square(t.a));
VORN_ELEMENTS(Sqrt, 2, t.out.sqrt(t.a));
VORN_ELEMENTS(Limit, 2, t.out.limit(t.a, 1, 4));
VORN_ELEMENTS(Log, 2, t.out.log(t.a));
VORN_SCALAR(LogScalar, 2, func::log, f(a));
VORN_ELEMENTS(Pow, 2, t.out.pow(t.a, 1.7f));
VORN_ELEMENTS(Relu, 2, t.out.relu(t.a));
VORN_ELEMENTS(Tanh, 2, t.out.tanh(t.a));
VORN_ELEMENTS(TanhInPlace, 2, t.out.tanh());
VORN_SCALAR(TanhScalar, 2, func::tanh, f(a, c));
VORN_ELEMENTS(Sigmoid, 2, t.out.sigmoid(t.a));
VORN_ELEMENTS(SigmoidInPlace, 2, t.out.sigmoid());
VORN_SCALAR(SigmoidScalar, 2, func::sigmoid, f(a, c));
VORN_ELEMENTS(ReluBackward, 3, t.out.relu_bp(t.a, t.b));
VORN_ELEMENTS(TanhBackward, 3, t.out.tanh_bp(t.a, t.b));
VORN_ELEMENTS(SigmoidBackward, 3, t.out.sigmoid_bp(t.a, t.b));
VORN_SCALAR(SigmoidBackwardScalar, 3, func::sigmoid_bp, f(a, b, c));

VORN_PITCHED(Fill1Rows, 1, t.out.ones());
VORN_PITCHED(AddRows, 3, t.out.add(t.a, t.b));
VORN_PITCHED(ScaleRows, 2, t.out.mul(0.999f));
VORN_PITCHED(ReluRows, 2, t.out.relu(t.a));
VORN_PITCHED(TanhRows, 2, t.out.tanh(t.a));
VORN_PITCHED(SigmoidRows, 2, t.out.sigmoid(t.a));
VORN_PITCHED(SigmoidBackwardRows, 3, t.out.sigmoid_bp(t.a, t.b));

#undef VORN_ELEMENTS
#undef VORN_SCALAR
#undef VORN_PITCHED

}  // namespace
}  // namespace bench
}  // namespace vorn
