#ifndef GPUSIM_GPUSIM_RUNTIME_API_H_
#define GPUSIM_GPUSIM_RUNTIME_API_H_

/// Host side of the runtime: device, memory, streams and events.
///
/// Every function records a failure as the calling thread's last error. A fault on the device (a
/// failed assertion, a broken barrier) is sticky: from then on every call returns it, until
/// cudaDeviceReset().

#include <cstddef>

#include "gpusim/error.h"
#include "gpusim/vector_types.h"

#define CUDART_VERSION 13000

typedef struct CUstream_st* cudaStream_t;
typedef struct CUevent_st* cudaEvent_t;
typedef struct CUmemPoolHandle_st* cudaMemPool_t;
typedef void (*cudaHostFn_t)(void* user_data);

enum cudaMemcpyKind {
    cudaMemcpyHostToHost = 0,
    cudaMemcpyHostToDevice = 1,
    cudaMemcpyDeviceToHost = 2,
    cudaMemcpyDeviceToDevice = 3,
    cudaMemcpyDefault = 4
};

enum cudaMemoryType {
    cudaMemoryTypeUnregistered = 0,
    cudaMemoryTypeHost = 1,
    cudaMemoryTypeDevice = 2
};

struct cudaPointerAttributes {
    cudaMemoryType type;
    int device;
    void* devicePointer;
    void* hostPointer;
};

enum cudaDeviceAttr {
    cudaDevAttrMaxThreadsPerBlock = 1,
    cudaDevAttrMaxBlockDimX = 2,
    cudaDevAttrMaxBlockDimY = 3,
    cudaDevAttrMaxBlockDimZ = 4,
    cudaDevAttrMaxGridDimX = 5,
    cudaDevAttrMaxGridDimY = 6,
    cudaDevAttrMaxGridDimZ = 7,
    cudaDevAttrMaxSharedMemoryPerBlock = 8,
    cudaDevAttrWarpSize = 10,
    cudaDevAttrMultiProcessorCount = 16,
    cudaDevAttrComputeCapabilityMajor = 75,
    cudaDevAttrComputeCapabilityMinor = 76,
    cudaDevAttrMemoryPoolsSupported = 115
};

struct cudaDeviceProp {
    char name[256];
    size_t totalGlobalMem;
    size_t sharedMemPerBlock;
    int warpSize;
    int maxThreadsPerBlock;
    int maxThreadsDim[3];
    int maxGridSize[3];
    int major;
    int minor;
    int multiProcessorCount;
    int memoryPoolsSupported;
};

enum cudaMemPoolAttr { cudaMemPoolAttrReleaseThreshold = 4 };

#define cudaHostRegisterDefault 0x00
#define cudaStreamDefault 0x00
#define cudaStreamNonBlocking 0x01
#define cudaStreamLegacy ((cudaStream_t)0x1)
#define cudaEventDefault 0x00
#define cudaEventDisableTiming 0x02
#define cudaEventWaitDefault 0x00

extern "C" {

// Errors.
const char* cudaGetErrorName(cudaError_t error);
const char* cudaGetErrorString(cudaError_t error);
/// The calling thread's last error, which is cleared unless it is sticky.
cudaError_t cudaGetLastError();
cudaError_t cudaPeekAtLastError();

// Device. There is one, number 0.
cudaError_t cudaGetDeviceCount(int* count);
cudaError_t cudaSetDevice(int device);
cudaError_t cudaGetDevice(int* device);
cudaError_t cudaDeviceSynchronize();
/// Waits for all work, frees all device memory, destroys all streams and clears a sticky error.
cudaError_t cudaDeviceReset();
cudaError_t cudaDeviceGetAttribute(int* value, cudaDeviceAttr attribute, int device);
cudaError_t cudaGetDeviceProperties(cudaDeviceProp* properties, int device);

// Memory. `GPUSIM_MEMORY` in the environment (bytes, or with a K, M or G after it) sets the size of
// the device's memory; 16G if it is absent.
cudaError_t cudaMalloc(void** pointer, size_t size);
cudaError_t cudaFree(void* pointer);
/// The block may be used in the order of `stream` at once, elsewhere once that is synchronised.
cudaError_t cudaMallocAsync(void** pointer, size_t size, cudaStream_t stream);
cudaError_t cudaFreeAsync(void* pointer, cudaStream_t stream);
cudaError_t cudaDeviceGetDefaultMemPool(cudaMemPool_t* pool, int device);
/// Changes nothing: the pool has no state beyond the device's memory.
cudaError_t cudaMemPoolSetAttribute(cudaMemPool_t pool, cudaMemPoolAttr attribute, void* value);
cudaError_t cudaMallocHost(void** pointer, size_t size);
cudaError_t cudaFreeHost(void* pointer);
cudaError_t cudaHostRegister(void* pointer, size_t size, unsigned flags);
cudaError_t cudaHostUnregister(void* pointer);
cudaError_t cudaPointerGetAttributes(cudaPointerAttributes* attributes, const void* pointer);
cudaError_t cudaMemGetInfo(size_t* free_bytes, size_t* total_bytes);

// Copies and fills. The asynchronous forms only enqueue, whatever kind of memory is involved: both
// blocks must live until the stream has passed the copy. The others are ordered by the null stream
// and, where host memory takes part, have ended on return.
cudaError_t cudaMemcpy(void* dst, const void* src, size_t count, cudaMemcpyKind kind);
cudaError_t cudaMemcpyAsync(void* dst, const void* src, size_t count, cudaMemcpyKind kind,
                            cudaStream_t stream = nullptr);
cudaError_t cudaMemcpy2D(void* dst, size_t dpitch, const void* src, size_t spitch, size_t width,
                         size_t height, cudaMemcpyKind kind);
cudaError_t cudaMemset(void* pointer, int value, size_t count);
cudaError_t cudaMemsetAsync(void* pointer, int value, size_t count, cudaStream_t stream = nullptr);
cudaError_t cudaMemset2D(void* pointer, size_t pitch, int value, size_t width, size_t height);

// Streams.
cudaError_t cudaStreamCreate(cudaStream_t* stream);
cudaError_t cudaStreamCreateWithFlags(cudaStream_t* stream, unsigned flags);
cudaError_t cudaStreamDestroy(cudaStream_t stream);
cudaError_t cudaStreamSynchronize(cudaStream_t stream);
cudaError_t cudaStreamQuery(cudaStream_t stream);
cudaError_t cudaStreamWaitEvent(cudaStream_t stream, cudaEvent_t event, unsigned flags = 0);
/// Calls `function` on the stream's thread; it must not call the runtime.
cudaError_t cudaLaunchHostFunc(cudaStream_t stream, cudaHostFn_t function, void* user_data);

// Events.
cudaError_t cudaEventCreate(cudaEvent_t* event);
cudaError_t cudaEventCreateWithFlags(cudaEvent_t* event, unsigned flags);
cudaError_t cudaEventRecord(cudaEvent_t event, cudaStream_t stream = nullptr);
cudaError_t cudaEventQuery(cudaEvent_t event);
cudaError_t cudaEventSynchronize(cudaEvent_t event);
cudaError_t cudaEventDestroy(cudaEvent_t event);

}  // extern "C"

template <class T>
cudaError_t cudaMalloc(T** pointer, size_t size) {
    return ::cudaMalloc(reinterpret_cast<void**>(pointer), size);
}
template <class T>
cudaError_t cudaMallocAsync(T** pointer, size_t size, cudaStream_t stream) {
    return ::cudaMallocAsync(reinterpret_cast<void**>(pointer), size, stream);
}
template <class T>
cudaError_t cudaMallocHost(T** pointer, size_t size) {
    return ::cudaMallocHost(reinterpret_cast<void**>(pointer), size);
}

#endif  // GPUSIM_GPUSIM_RUNTIME_API_H_
