#include "vorn/context/context.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "device_test.h"
#include "gpusim/gate.h"
#include "vorn/gpu/kernel_util.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

// At namespace scope, because a kernel can not stand in an unnamed one everywhere.
__global__ void KeFailingAssertion(int* value) {
    assert(*value == 1);
}

namespace test {
namespace {

TEST(ContextTest, SetUpAndTearDown) {
    EXPECT_EQ(t_ctx, nullptr);
    for (int turn = 0; turn < 2; ++turn) {
        ThreadContextScope context;
        ASSERT_NE(t_ctx, nullptr);
        EXPECT_TRUE(t_ctx->is_init);
        EXPECT_NE(t_ctx->c_gen, nullptr);
        EXPECT_FALSE(g_sync_flag);
        if (has_gpu()) {
            EXPECT_EQ(t_ctx->device, 0);
            EXPECT_NE(default_stream, nullptr);
            EXPECT_NE(cudaEventQuery(t_ctx->event), cudaErrorNotReady);
        }
    }
    EXPECT_EQ(t_ctx, nullptr);
    EXPECT_EQ(default_stream, nullptr);
    release_thread_context();  // without one: nothing
}

TEST(ContextTest, SeedRestartsTheHostGenerator) {
    ThreadContextScope context;
    seed_thread_context(5);
    (*t_ctx->c_gen)();
    seed_thread_context(5);
    EXPECT_EQ((*t_ctx->c_gen)(), rng_t(5)());
}

class ThreadsTest : public GpuTest {};
class KernelTailTest : public GpuTest {};

TEST(ContextTest, FailureTexts) {
    expect_failures({
        {"Check failed: nullptr == t_ctx thread context inited before",
         [] {
             init_thread_context();
             init_thread_context();
         }},
        {not_null("t_ctx"), [] { seed_thread_context(1); }},
    });
}

// Each thread has a stream, a flag and a context of its own, and works beside the others.
TEST_F(ThreadsTest, WorkAtOnce) {
    ThreadContext* const outside = t_ctx;
    std::vector<Values> results(4);
    std::vector<std::thread> threads;
    for (size_t id = 0; id < results.size(); ++id) {
        threads.emplace_back([&, id] {
            ThreadContextScope context;
            EXPECT_NE(t_ctx, outside);
            g_sync_flag = id % 2 == 0;
            Tensor<float> t(Dim(30, 40), GPU);
            for (int round = 0; round < 20; ++round) {
                t.set_element(static_cast<float>(id * 100 + round));
                Tensor<float> copy(t, GPU);  // a stream-ordered temporary
                t.copy_from(copy);
            }
            results[id] = values_of(t);
        });
    }
    for (size_t id = 0; id < results.size(); ++id) {
        threads[id].join();
        EXPECT_EQ(results[id], Values(1200, static_cast<float>(id * 100 + 19)));
    }
    EXPECT_EQ(t_ctx, outside);
    EXPECT_FALSE(g_sync_flag);
}

/// A thread with a context that does what it is given, one after the other.
class Worker {
public:
    Worker() {
        run([] { init_thread_context(); });
    }
    ~Worker() { end(); }

    void run(const std::function<void()>& work) {
        std::unique_lock<std::mutex> lock(_mutex);
        _work = work;
        _change.notify_all();
        _change.wait(lock, [this] { return _work == nullptr; });
    }
    void end() {
        if (_thread.joinable()) {
            run([this] {
                release_thread_context();
                _is_ended = true;
            });
            _thread.join();
        }
    }

private:
    void loop() {
        std::unique_lock<std::mutex> lock(_mutex);
        while (!_is_ended) {
            _change.wait(lock, [this] { return _work != nullptr; });
            _work();  // the giver waits, and needs the lock for that only
            _work = nullptr;
            _change.notify_all();
        }
    }

    std::mutex _mutex;
    std::condition_variable _change;
    std::function<void()> _work;
    bool _is_ended = false;
    std::thread _thread{[this] { loop(); }};
};

/// A block without a fill of zeros, which would wait for all streams.
Tensor<float> fives(const Dim& size) {
    Tensor<float> tensor(GPU);
    tensor.resize(size, false);
    tensor.set_element(5);
    return tensor;
}

class DroppedBlockTest : public GpuTest {
protected:
    const Dim _size{1000};
    Worker _other;
    std::unique_ptr<Tensor<float>> _shared;
    std::unique_ptr<Gate> _gate;

    void allocate() {
        _shared = std::make_unique<Tensor<float>>(_size, GPU);
        synchronize();
    }
    /// Queues a fill that runs once the gate is opened.
    void queue_fill() {
        _gate = std::make_unique<Gate>(default_stream);
        _shared->set_element(1);
    }
    void expect_fives(const Tensor<float>& fresh) {
        _gate->open();
        EXPECT_EQ(values_of(fresh), Values(1000, 5));
        _gate.reset();
    }
};

TEST_F(DroppedBlockTest, IsNotReusedBeforeWorkOfTheThreadThatAllocatedIt) {
    _other.run([&] { allocate(), queue_fill(); });
    _shared.reset();
    const Tensor<float> fresh = fives(_size);
    synchronize();  // waits for this thread's work only
    expect_fives(fresh);
}

TEST_F(DroppedBlockTest, IsNotReusedBeforeWorkOfTheThreadThatDropsIt) {
    _other.run([&] { allocate(); });
    queue_fill();
    _shared.reset();
    Tensor<float> fresh(GPU);
    _other.run([&] { fresh = fives(_size); });
    let_others_run();  // so that a fill could go ahead
    expect_fives(fresh);
}

TEST_F(DroppedBlockTest, MayOutliveTheThreadThatAllocatedIt) {
    Worker third;
    _other.run([&] { allocate(); });
    _other.end();
    queue_fill();
    _shared.reset();
    Tensor<float> fresh(GPU);
    third.run([&] {
        fresh = fives(_size);
        synchronize();
    });
    expect_fives(fresh);
}

// Destroyed after the GPU's runtime.
std::unique_ptr<Tensor<float>> tensor_of_the_program, pinned_tensor_of_the_program;
std::unique_ptr<ThreadContextScope> context_of_the_program;

TEST(ExitTest, WhatIsAliveThenLeavesTheGpuAlone) {
    if (!has_gpu()) {
        GTEST_SKIP() << "no GPU on this machine";
    }
    EXPECT_EXIT(
        {
            context_of_the_program = std::make_unique<ThreadContextScope>();
            tensor_of_the_program = std::make_unique<Tensor<float>>(Dim(4), GPU);
            pinned_tensor_of_the_program = std::make_unique<Tensor<float>>(Dim(4), CPU_PINNED);
            exit(0);
        },
        testing::ExitedWithCode(0), "");
}

void launch_failing_kernel() {
    int* value = nullptr;
    cudaMalloc(reinterpret_cast<void**>(&value), sizeof(int));
    cudaMemset(value, 0, sizeof(int));
    gpu::launch<KeFailingAssertion>(1, 1, value);
    VORN_KERNEL_TAIL();
}

void launch_too_many_threads() {
    gpu::launch<KeFailingAssertion>(1, 2048, static_cast<int*>(nullptr));
    VORN_KERNEL_TAIL();
}

void expect_stop_at_launch(void (*launch)(), const std::string& status, const std::string& text) {
    g_sync_flag = true;
    const std::string site = "\\[..:..:..\\] [^\n]*context_test.cpp:[0-9]+: ";
    EXPECT_DEATH(launch(), site + status + "\n\\[..:..:..\\] [^\n]*" + site +
                               literal("Check failed: 0 == (ret) " + text + "\n"));
    g_sync_flag = false;
}

TEST_F(KernelTailTest, SyncFlagStopsAtTheLaunchSite) {
    expect_stop_at_launch(launch_failing_kernel, "710", "device-side assert triggered");
    expect_stop_at_launch(launch_too_many_threads, "9", "invalid configuration argument");
}

TEST_F(KernelTailTest, WithoutTheFlagAFailureWaitsForTheNextCheckedCall) {
    EXPECT_DEATH(
        {
            launch_failing_kernel();
            std::cerr << "<went on>";
            Tensor<float>(Dim(2), GPU).get_element(Dim(0));
        },
        "<went on>[^<]*device-side assert triggered");
}

TEST_F(KernelTailTest, RefusedLaunchIsSilentWithoutTheFlag) {
    launch_too_many_threads();
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidConfiguration);
}

TEST_F(KernelTailTest, SynchronizeStopsOnAFailure) {
    synchronize();
    EXPECT_DEATH(launch_failing_kernel();
                 synchronize(),
                 literal("Check failed: 0 == (cudaStreamSynchronize(default_stream)) device-side "
                         "assert triggered\n"));
}

// No launch is refused for an output without elements: the error would stay, and the next
// tail would lay it to another launch.
TEST_F(KernelTailTest, EmptyOutputsLaunchNothing) {
    const Dim size(0, 4), wide(0, 16);
    TensorF a(size, GPU), b(size, GPU), c(size, GPU), d(size, GPU), e(size, GPU), f(size, GPU);
    TensorF g(size, GPU), h(size, GPU), out(size, GPU), gates(wide, GPU);
    const TensorF weights(Dim(4), GPU);
    Tensor<int> idx(size, GPU), none(Dim(0), GPU), ranges(Dim(1), GPU);
    // The fused LSTM steps ask for memory.
    const TensorF room(Dim(16), GPU);
    const auto at_room = [&](const Dim& shape) { return TensorF(room.get_ptr(), shape, GPU); };
    TensorF m_cur = at_room(size), c_cur = at_room(size);

    out.max_out_fwd(gates, 4, idx);
    gates.max_out_bwd(out, 4, idx, 1, 0);
    gates.col_append(a, 4);
    out.col_deappend(gates, 4);

    m_cur.lstm_op(at_room(wide), weights, weights, weights, at_room(size), c_cur, a, b, c, d, e, 50,
                  -50);
    gates.lstm_bp_op(a, b, c, d, weights, e, f, g, h, out);

    out.ld_mul_diag_mat_sigmoid(a, weights, b, 1, 1);
    out.elem_mul_add(a, b, c, d);
    out.elem_mul_tanh(a, b, c);
    out.ld_sigmoid_bprop(a, b, 1, 0);
    out.ld_sigmoid_backprop(a, b, c);
    out.ld_cell_cur_error(a, b, c, d, weights, e);
    out.ld_cell_back_error(a, b, c, weights, d, weights);
    out.ld_tanh_backprop(a, b, c);
    const TensorF no_columns(Dim(3, 0), GPU);
    TensorF(Dim(0), GPU).diag_mat_diff(no_columns, no_columns, 1, 0);
    out.mask_reverse(a, none, 0, 0);
    none.count_valid_label(none, 0, 0);

    const Tensor<int> labels(size, GPU);
    out.compute_ctc_alpha(a, 0, labels, none, none);
    out.compute_ctc_beta(a, 0, labels, none, none);
    out.compute_ctc_err(a, b, labels, none, TensorF(Dim(0), GPU));
    a.find_row_max_id(none);
    out.vec_mask(a, none);

    out.expand_feat(a, 2, 1, 0, 1, ranges, ranges);
    out.shrink_errors(a, 2, 1, 0, 1, ranges, ranges);
    out.audio_conv_batch_bias(TensorF(Dim(1, 4), GPU), 1);
    TensorF(Dim(1, 0), GPU).audio_conv_batch_bias_bp(TensorF(Dim(3, 0), GPU), 1);
    out.max_pooling(a, ranges, 4, 1, idx, 1, 0);
    out.max_pooling_bp(a, ranges, 4, 1, idx, 1, 0);

    EXPECT_STREQ(cudaGetErrorString(cudaGetLastError()), "no error");
}

}  // namespace
}  // namespace test
}  // namespace vorn
