#include "curand.h"

#include <algorithm>
#include <cmath>

#include "gpusim/philox.h"
#include "library.h"

struct curandGenerator_st {
    cudaStream_t stream = nullptr;
    uint64_t seed = 0;
    uint64_t offset = 0;
};

namespace {

constexpr gpusim::Library<curandStatus_t, curandGenerator_st> kLibrary = {
    CURAND_STATUS_SUCCESS,
    CURAND_STATUS_NOT_INITIALIZED,
    CURAND_STATUS_OUT_OF_RANGE,
    CURAND_STATUS_INITIALIZATION_FAILED,
    CURAND_STATUS_PREEXISTING_FAILURE,
    CURAND_STATUS_LAUNCH_FAILURE,
};

/// Calls put(i, word) for the words first, first + 1, ... of the sequence of `seed`.
template <class Put>
void draw(uint64_t seed, uint64_t first, size_t count, Put put) {
    const std::array<uint32_t, 2> key{static_cast<uint32_t>(seed),
                                      static_cast<uint32_t>(seed >> 32)};
    for (size_t i = 0; i < count;) {
        const uint64_t position = first + i;
        const uint64_t block = position / 4;
        const auto words = gpusim::philox4x32_10(
            {static_cast<uint32_t>(block), static_cast<uint32_t>(block >> 32), 0, 0}, key);
        for (unsigned w = position % 4; w < 4 && i < count; ++w, ++i) {
            put(i, words[w]);
        }
    }
}

float to_uniform(uint32_t word) {
    constexpr double k2Pow32Inverse = 1.0 / 4294967296.0;
    return static_cast<float>((word + 0.5) * k2Pow32Inverse);
}

/// Enqueues the drawing of `count` words, each of which yields one output.
template <class Work>
curandStatus_t generate(const char* function, curandGenerator_t generator, float* output,
                        size_t count, Work work) {
    if (generator == nullptr) {
        return CURAND_STATUS_NOT_INITIALIZED;
    }
    if (!gpusim::check_operand(function, "output", output, count * sizeof(float))) {
        return kLibrary.failed;
    }
    if (count == 0) {
        return kLibrary.success;
    }
    const curandStatus_t status = kLibrary.enqueue(
        generator, false,
        [=, seed = generator->seed, first = generator->offset] { work(seed, first); });
    if (status == kLibrary.success) {
        generator->offset += count;
    }
    return status;
}

}  // namespace

curandStatus_t curandCreateGenerator(curandGenerator_t* generator, curandRngType_t type) {
    if (generator != nullptr && type != CURAND_RNG_PSEUDO_DEFAULT &&
        type != CURAND_RNG_PSEUDO_PHILOX4_32_10) {
        return CURAND_STATUS_TYPE_ERROR;
    }
    return kLibrary.create(generator);
}

curandStatus_t curandDestroyGenerator(curandGenerator_t generator) {
    return kLibrary.destroy(generator);
}

curandStatus_t curandSetStream(curandGenerator_t generator, cudaStream_t stream) {
    return kLibrary.set_stream(generator, stream);
}

curandStatus_t curandSetPseudoRandomGeneratorSeed(curandGenerator_t generator,
                                                  unsigned long long seed) {
    if (generator == nullptr) {
        return CURAND_STATUS_NOT_INITIALIZED;
    }
    generator->seed = seed;
    generator->offset = 0;
    return CURAND_STATUS_SUCCESS;
}

curandStatus_t curandSetGeneratorOffset(curandGenerator_t generator, unsigned long long offset) {
    if (generator == nullptr) {
        return CURAND_STATUS_NOT_INITIALIZED;
    }
    generator->offset = offset;
    return CURAND_STATUS_SUCCESS;
}

curandStatus_t curandGenerateUniform(curandGenerator_t generator, float* output, size_t count) {
    return generate(__func__, generator, output, count, [=](uint64_t seed, uint64_t first) {
        draw(seed, first, count, [&](size_t i, uint32_t word) { output[i] = to_uniform(word); });
    });
}

curandStatus_t curandGenerateNormal(curandGenerator_t generator, float* output, size_t count,
                                    float mean, float stddev) {
    if (generator != nullptr && count % 2 != 0) {
        return CURAND_STATUS_LENGTH_NOT_MULTIPLE;
    }
    return generate(__func__, generator, output, count, [=](uint64_t seed, uint64_t first) {
        constexpr double kTwoPi = 6.283185307179586;
        float radius = 0;
        draw(seed, first, count, [&](size_t i, uint32_t word) {
            if (i % 2 == 0) {
                radius = std::sqrt(-2.0f * std::log(to_uniform(word)));
                return;
            }
            const float angle = static_cast<float>(kTwoPi * to_uniform(word));
            output[i - 1] = mean + stddev * radius * std::cos(angle);
            output[i] = mean + stddev * radius * std::sin(angle);
        });
    });
}
