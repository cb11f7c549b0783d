#ifndef GPUSIM_TESTS_GATE_H_
#define GPUSIM_TESTS_GATE_H_

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

/// Holds a stream until the gate is opened, which it does by itself after some time, so that a test
/// that waits for what stands before the gate fails and doesn't hang.
class Gate {
public:
    using Clock = std::chrono::steady_clock;

    explicit Gate(cudaStream_t stream, Clock::duration at_most = std::chrono::seconds(60))
        : end_(Clock::now() + at_most) {
        EXPECT_EQ(cudaLaunchHostFunc(stream, &Gate::wait, this), cudaSuccess);
    }
    /// The stream must be past the gate before the gate goes.
    ~Gate() {
        open();
        cudaDeviceSynchronize();
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    void open() { open_ = true; }
    bool holds() const { return !open_; }

private:
    static void wait(void* self) {
        Gate& gate = *static_cast<Gate*>(self);
        while (gate.holds() && Clock::now() < gate.end_) {
            std::this_thread::yield();
        }
        gate.open();
    }
    const Clock::time_point end_;
    std::atomic<bool> open_{false};
};

#endif  // GPUSIM_TESTS_GATE_H_
