#include "vorn/context/context.h"

#include <cublas_v2.h>
#include <cuda_runtime.h>
#include <cudnn.h>
#include <curand.h>

#include <atomic>
#include <cstdlib>

#include "vorn/context/lifetime.h"
#include "vorn/logging.h"
#include "vorn/util/gpu_util.h"

namespace vorn {

__thread ThreadContext* t_ctx = nullptr;
__thread cudaStream_t default_stream = nullptr;
__thread bool g_sync_flag = false;

bool has_gpu() {
    static const bool found = [] {
        int count = 0;
        const bool works = cudaGetDeviceCount(&count) == cudaSuccess && count > 0;
        cudaGetLastError();  // a missing driver must not stay the last error
        return works;
    }();
    return found;
}

static std::atomic<bool> exiting{false};

void watch_for_exit() {
    static const int registered = std::atexit([] { exiting = true; });
    (void)registered;
}

bool is_exiting() {
    return exiting;
}

static void destroy_stream(cudaStream_t stream) {
    if (!is_exiting()) {
        CHECK_CALL(cudaStreamDestroy(stream));
    }
}

std::shared_ptr<CUstream_st> share_default_stream() {
    if (t_ctx != nullptr && default_stream != nullptr &&
        t_ctx->owned_stream.get() == default_stream) {
        return t_ctx->owned_stream;
    }
    // A stream that others own.
    const std::shared_ptr<void> nobody;
    return {nobody, default_stream != nullptr ? default_stream : cudaStreamLegacy};
}

// Freed blocks stay in the pool, so that temporaries cost no call to the driver.
static void keep_pool_memory(int device) {
    int supported = 0;
    CHECK_CALL(cudaDeviceGetAttribute(&supported, cudaDevAttrMemoryPoolsSupported, device));
    if (!supported) {
        return;
    }
    cudaMemPool_t pool = nullptr;
    unsigned long long threshold = ~0ull;
    CHECK_CALL(cudaDeviceGetDefaultMemPool(&pool, device));
    CHECK_CALL(cudaMemPoolSetAttribute(pool, cudaMemPoolAttrReleaseThreshold, &threshold));
}

static void init_gpu(ThreadContext& ctx, int device) {
    CHECK_CALL(cudaSetDevice(device));
    ctx.device = device;
    keep_pool_memory(device);
    for (cudaStream_t& stream : ctx.stream) {
        CHECK_CALL(cudaStreamCreate(&stream));
    }
    default_stream = ctx.stream[NUMBER_OF_GLOBAL_STREAM];
    ctx.owned_stream.reset(default_stream, destroy_stream);
    CHECK_CALL(cublasCreate(&ctx.handle));
    CHECK_CALL(cublasSetStream(ctx.handle, default_stream));
    CHECK_CALL(cublasSetMathMode(ctx.handle, CUBLAS_PEDANTIC_MATH));
    CHECK_CALL(cudnnCreate(&ctx.cudnn_handle));
    CHECK_CALL(cudnnSetStream(ctx.cudnn_handle, default_stream));
    CHECK_CALL(curandCreateGenerator(&ctx.g_gen, CURAND_RNG_PSEUDO_DEFAULT));
    CHECK_CALL(curandSetStream(ctx.g_gen, default_stream));
    CHECK_CALL(cudaMalloc(reinterpret_cast<void**>(&ctx.gpu_mem), GPU_MEM_SIZE));
    CHECK_CALL(cudaMallocHost(reinterpret_cast<void**>(&ctx.cpu_mem), GPU_MEM_SIZE));
    CHECK_CALL(cudaEventCreateWithFlags(&ctx.event, cudaEventDisableTiming));
    watch_for_exit();
}

static void release_gpu(ThreadContext& ctx) {
    CHECK_CALL(cudaStreamSynchronize(default_stream));
    CHECK_CALL(cudaEventDestroy(ctx.event));
    CHECK_CALL(cudaFreeHost(ctx.cpu_mem));
    CHECK_CALL(cudaFree(ctx.gpu_mem));
    CHECK_CALL(curandDestroyGenerator(ctx.g_gen));
    CHECK_CALL(cudnnDestroy(ctx.cudnn_handle));
    CHECK_CALL(cublasDestroy(ctx.handle));
    for (cudaStream_t stream : ctx.stream) {
        if (stream != ctx.owned_stream.get()) {
            destroy_stream(stream);
        }
    }
    ctx.owned_stream.reset();
    default_stream = nullptr;
}

void init_thread_context(int device) {
    CHECK(nullptr == t_ctx) << "thread context inited before";
    t_ctx = new ThreadContext();
    t_ctx->device = -1;
    t_ctx->mtx = new std::mutex();
    t_ctx->c_gen = new rng_t();
    if (has_gpu()) {
        init_gpu(*t_ctx, device);
    }
    t_ctx->is_init = true;
}

void release_thread_context() {
    if (nullptr == t_ctx || is_exiting()) {
        return;
    }
    if (t_ctx->device >= 0) {
        release_gpu(*t_ctx);
    }
    delete t_ctx->c_gen;
    delete t_ctx->mtx;
    delete t_ctx;
    t_ctx = nullptr;
}

void synchronize() {
    if (has_gpu()) {
        CHECK_CALL(cudaStreamSynchronize(default_stream));
    }
}

void seed_thread_context(unsigned long long seed) {
    CHECK_NOTNULL(t_ctx);
    t_ctx->c_gen->seed(static_cast<rng_t::result_type>(seed));
    if (t_ctx->device >= 0) {
        CHECK_CALL(curandSetPseudoRandomGeneratorSeed(t_ctx->g_gen, seed));
        CHECK_CALL(curandSetGeneratorOffset(t_ctx->g_gen, 0));
    }
}

}  // namespace vorn
