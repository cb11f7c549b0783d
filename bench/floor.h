#ifndef VORN_BENCH_FLOOR_H_
#define VORN_BENCH_FLOOR_H_

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "vorn/tensor/buffer.h"

/// Floors measured in the same run as the work, so that a ratio means the same on any machine.
/// Work and floor take turns, and each turn is compared with its neighbour: what else the machine
/// does, and how fast it happens to run, hits both alike.
namespace vorn {
namespace bench {

struct Turns {
    double floor;  ///< Seconds of one call in the floor's fastest turn.
    double ratio;  ///< Of work to floor, in the median of neighbouring turns.
};

/// Calls `work` and `floor` in turns of a few milliseconds each.
template <typename Work, typename Floor>
Turns take_turns(Work&& work, Floor&& floor);

/// Times `work` and reports the microseconds of its floor and the ratio to it. The floor is
/// `scale` calls of `floor`.
template <typename Work, typename Floor>
void against(benchmark::State& state, Work&& work, Floor&& floor, double scale = 1);

/// A memcpy that moves `bytes`, half of them read and half written. They are those that the work
/// must at least read and write, and so its working set too.
template <typename Work>
void against_copy(benchmark::State& state, double bytes, Work&& work);

/// `flops` single-precision operations of one core, in independent fused multiply-adds.
template <typename Work>
void against_flops(benchmark::State& state, double flops, Work&& work);

// ---- Bodies

double now();

/// Seconds of one of the calls that fill a few milliseconds. The clock is read after 1, 2, 4 and
/// so on more calls, which makes its cost vanish beside calls of a few nanoseconds.
template <typename F>
double seconds_of(F&& call) {
    call();
    int calls = 0;
    const double start = now();
    double elapsed;
    do {
        for (int more = calls + 1; more > 0; --more) {
            call();
            benchmark::ClobberMemory();
        }
        calls += calls + 1;
        elapsed = now() - start;
    } while (elapsed < 2e-3);
    return elapsed / calls;
}

template <typename Work, typename Floor>
Turns take_turns(Work&& work, Floor&& floor) {
    constexpr size_t kMinTurns = 3, kMaxTurns = 75;
    constexpr double kEnough = 0.4;
    std::vector<double> ratios;
    double fastest = 1e30;
    const double start = now();
    while (ratios.size() < kMinTurns || (ratios.size() < kMaxTurns && now() - start < kEnough)) {
        const double of_work = seconds_of(work), of_floor = seconds_of(floor);
        fastest = std::min(fastest, of_floor);
        ratios.push_back(of_work / of_floor);
    }
    std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
    return {fastest, ratios[ratios.size() / 2]};
}

template <typename Work, typename Floor>
void against(benchmark::State& state, Work&& work, Floor&& floor, double scale) {
    const Turns turns = take_turns(work, floor);
    for (auto _ : state) {
        work();
        benchmark::ClobberMemory();
    }
    state.counters["floor_us"] = turns.floor * scale * 1e6;
    state.counters["x_floor"] = turns.ratio / scale;
}

/// A copy of so many bytes from one buffer to another.
class CopyFloor {
public:
    explicit CopyFloor(double bytes)
        : bytes_(static_cast<size_t>(bytes / 2)), source_(bytes_, CPU), target_(bytes_, CPU) {
        memset(source_.ptr(), 1, bytes_);
    }
    void operator()() { memcpy(target_.ptr(), source_.ptr(), bytes_); }

private:
    size_t bytes_;
    Buffer source_, target_;
};

template <typename Work>
void against_copy(benchmark::State& state, double bytes, Work&& work) {
    CopyFloor copy(bytes);
    against(state, work, copy);
}

constexpr double kFlopsOfCall = 2e6;
void multiply_add();

template <typename Work>
void against_flops(benchmark::State& state, double flops, Work&& work) {
    against(state, work, multiply_add, flops / kFlopsOfCall);
}

}  // namespace bench
}  // namespace vorn

#endif  // VORN_BENCH_FLOOR_H_
