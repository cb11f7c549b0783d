#ifndef VORN_BENCH_FLOOR_H_
#define VORN_BENCH_FLOOR_H_

#include <benchmark/benchmark.h>

#include <cstddef>

/// Floors measured in the same run as the work, so that a ratio means the same on any machine.
namespace vorn {
namespace bench {

/// Bytes read and written per second by memcpy, on a working set (source and destination
/// together) of `working_set` bytes. Measured once per size.
double copy_bandwidth(size_t working_set);

/// Single-precision operations per second of one core, from independent fused multiply-adds.
double peak_flops();

/// Seconds of one call: the fastest of several runs of a few milliseconds each.
template <typename F>
double seconds_of(F&& call);

/// Times `call` and reports the microseconds of its floor and the ratio to it. `bytes` are those
/// that it must at least read and write; they are its working set too.
template <typename F>
void against_copy(benchmark::State& state, double bytes, F&& call);

/// The same for a floor of `flops` operations.
template <typename F>
void against_flops(benchmark::State& state, double flops, F&& call);

// ---- Bodies

double now();

template <typename F>
double seconds_of(F&& call) {
    call();
    double best = 1e30;
    for (int run = 0; run < 7; ++run) {
        int calls = 0;
        const double start = now();
        double elapsed;
        do {
            call();
            ++calls;
            elapsed = now() - start;
        } while (elapsed < 5e-3);
        best = elapsed / calls < best ? elapsed / calls : best;
    }
    return best;
}

template <typename F>
void against_floor(benchmark::State& state, double floor_seconds, F&& call) {
    call();
    const double start = now();
    for (auto _ : state) {
        call();
        benchmark::ClobberMemory();
    }
    const double seconds = (now() - start) / state.iterations();
    state.counters["floor_us"] = floor_seconds * 1e6;
    state.counters["x_floor"] = seconds / floor_seconds;
}

template <typename F>
void against_copy(benchmark::State& state, double bytes, F&& call) {
    against_floor(state, bytes / copy_bandwidth(static_cast<size_t>(bytes)), call);
}

template <typename F>
void against_flops(benchmark::State& state, double flops, F&& call) {
    against_floor(state, flops / peak_flops(), call);
}

}  // namespace bench
}  // namespace vorn

#endif  // VORN_BENCH_FLOOR_H_
