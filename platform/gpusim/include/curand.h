#ifndef GPUSIM_CURAND_H_
#define GPUSIM_CURAND_H_

/// Random numbers on the device.
///
/// Pseudo-random generators of type DEFAULT and PHILOX4_32_10 are Philox4x32-10 (see
/// gpusim/philox.h) with the seed as key: output number i since the start, counted by the offset,
/// comes from word i % 4 of the block with counter i / 4. Other types are refused.

#include "cuda_runtime.h"

typedef struct curandGenerator_st* curandGenerator_t;

typedef enum : int {
    CURAND_STATUS_SUCCESS = 0,
    CURAND_STATUS_VERSION_MISMATCH = 100,
    CURAND_STATUS_NOT_INITIALIZED = 101,
    CURAND_STATUS_ALLOCATION_FAILED = 102,
    CURAND_STATUS_TYPE_ERROR = 103,
    CURAND_STATUS_OUT_OF_RANGE = 104,
    CURAND_STATUS_LENGTH_NOT_MULTIPLE = 105,
    CURAND_STATUS_DOUBLE_PRECISION_REQUIRED = 106,
    CURAND_STATUS_LAUNCH_FAILURE = 201,
    CURAND_STATUS_PREEXISTING_FAILURE = 202,
    CURAND_STATUS_INITIALIZATION_FAILED = 203,
    CURAND_STATUS_ARCH_MISMATCH = 204,
    CURAND_STATUS_INTERNAL_ERROR = 999
} curandStatus_t;

typedef enum {
    CURAND_RNG_PSEUDO_DEFAULT = 100,
    CURAND_RNG_PSEUDO_XORWOW = 101,
    CURAND_RNG_PSEUDO_PHILOX4_32_10 = 161
} curandRngType_t;

extern "C" {

curandStatus_t curandCreateGenerator(curandGenerator_t* generator, curandRngType_t type);
curandStatus_t curandDestroyGenerator(curandGenerator_t generator);
curandStatus_t curandSetStream(curandGenerator_t generator, cudaStream_t stream);
/// Starts the sequence of `seed` at its beginning.
curandStatus_t curandSetPseudoRandomGeneratorSeed(curandGenerator_t generator,
                                                  unsigned long long seed);
curandStatus_t curandSetGeneratorOffset(curandGenerator_t generator, unsigned long long offset);
/// `count` draws from (0, 1]: (w + 1/2) 2^-32 of each word w, rounded to float.
curandStatus_t curandGenerateUniform(curandGenerator_t generator, float* output, size_t count);
/// `count` normal draws, two from each two words by Box and Muller; `count` has to be even.
curandStatus_t curandGenerateNormal(curandGenerator_t generator, float* output, size_t count,
                                    float mean, float stddev);

}  // extern "C"

#endif  // GPUSIM_CURAND_H_
