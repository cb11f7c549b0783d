#ifndef GPUSIM_TESTS_GATE_H_
#define GPUSIM_TESTS_GATE_H_

#include <cuda_runtime.h>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

/// Lets other threads go ahead for a while, which is counted in turns and not in time.
inline void let_others_run(int turns = 10000) {
    for (int i = 0; i < turns; ++i) {
        std::this_thread::yield();
    }
}

/// Holds a stream until the gate is opened, which it does by itself after so many looks, so that a
/// test that waits for what stands before the gate fails and doesn't hang.
class Gate {
public:
    explicit Gate(cudaStream_t stream, long looks = 100'000'000) : looks_(looks) {
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
        for (long i = 0; gate.holds() && i < gate.looks_; ++i) {
            std::this_thread::yield();
        }
        gate.open();
    }
    const long looks_;
    std::atomic<bool> open_{false};
};

#endif  // GPUSIM_TESTS_GATE_H_
