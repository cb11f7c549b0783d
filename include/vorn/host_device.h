#ifndef VORN_HOST_DEVICE_H_
#define VORN_HOST_DEVICE_H_

/// Marks a rule that runs on both sides, where a compiler of kernels reads it.
#ifdef __CUDACC__
#define VORN_HD __host__ __device__
#else
#define VORN_HD
#endif

#endif  // VORN_HOST_DEVICE_H_
