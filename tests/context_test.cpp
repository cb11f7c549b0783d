#include "vorn/context/context.h"

#include <thread>
#include <vector>

#include "device_test.h"
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
        {"Check notnull: t_ctx ", [] { seed_thread_context(1); }},
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

void launch_failing_kernel() {
    int* value = nullptr;
    cudaMalloc(reinterpret_cast<void**>(&value), sizeof(int));
    cudaMemset(value, 0, sizeof(int));
    gpu::launch<KeFailingAssertion>(1, 1, value);
    VORN_KERNEL_TAIL();
}

void launch_empty_grid() {
    gpu::launch<KeFailingAssertion>(0, 1, static_cast<int*>(nullptr));
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
    expect_stop_at_launch(launch_empty_grid, "9", "invalid configuration argument");
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
    launch_empty_grid();
    EXPECT_EQ(cudaGetLastError(), cudaErrorInvalidConfiguration);
}

TEST_F(KernelTailTest, SynchronizeStopsOnAFailure) {
    synchronize();
    EXPECT_DEATH(launch_failing_kernel();
                 synchronize(),
                 literal("Check failed: 0 == (cudaStreamSynchronize(default_stream)) device-side "
                         "assert triggered\n"));
}

}  // namespace
}  // namespace test
}  // namespace vorn
