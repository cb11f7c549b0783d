// Compiles, unless REFUSED chooses a launch that must not.
#include <cuda_runtime.h>

struct Copied {
    Copied(const Copied&) {}
};
struct Bytes {
    char data[4096];
};

__global__ void take(Bytes) {}
__global__ void take_copied(Copied) {}
__global__ void take_more(Bytes, char) {}

void launch(const cudaLaunchConfig_t& config, const Bytes& bytes, const Copied& copied) {
    cudaLaunchKernelEx(&config, take, bytes);
#if REFUSED == 1
    cudaLaunchKernelEx(&config, take_copied, copied);
#elif REFUSED == 2
    cudaLaunchKernelEx(&config, take_more, bytes, 'x');
#endif
}
