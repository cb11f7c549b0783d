#ifndef VORN_CONTEXT_RESOURCE_H_
#define VORN_CONTEXT_RESOURCE_H_

#include <memory>
#include <mutex>
#include <random>

#include "vorn/base.h"

// The toolkit's handles, declared here so that no CUDA header is needed.
struct CUstream_st;
struct CUevent_st;
struct cublasContext;
struct cudnnContext;
struct curandGenerator_st;

using cudaStream_t = CUstream_st*;
using cudaEvent_t = CUevent_st*;
using cublasHandle_t = cublasContext*;
using cudnnHandle_t = cudnnContext*;
using curandGenerator_t = curandGenerator_st*;

namespace vorn {

const int NUMBER_OF_GLOBAL_STREAM = 5;
const int NUMBER_OF_THREAD_STREAM = 4;
const int GPU_MEM_SIZE = 1024;  ///< Bytes of each scratch block of a thread.

using rng_t = std::mt19937;

/// What one host thread needs for GPU work. `c_gen` is valid on a machine without a GPU too, where
/// all else is null.
struct ThreadContext {
    cudaStream_t stream[NUMBER_OF_GLOBAL_STREAM + NUMBER_OF_THREAD_STREAM];
    cublasHandle_t handle;
    cudnnHandle_t cudnn_handle;
    curandGenerator_t g_gen;
    std::mutex* mtx;    ///< For programs around the library; no operation takes it.
    DType* gpu_mem;     ///< Device scratch.
    DType* cpu_mem;     ///< Page-locked host scratch that kernels write to directly.
    cudaEvent_t event;  ///< Guards the reuse of cpu_mem.
    int device;         ///< GPU ordinal, -1 where there is none.
    rng_t* c_gen;
    bool is_init;
    std::shared_ptr<CUstream_st> owned_stream;  ///< `default_stream`, for blocks that outlive us.
};

}  // namespace vorn

#endif  // VORN_CONTEXT_RESOURCE_H_
