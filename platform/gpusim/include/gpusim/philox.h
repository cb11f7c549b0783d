#ifndef GPUSIM_GPUSIM_PHILOX_H_
#define GPUSIM_GPUSIM_PHILOX_H_

/// Philox4x32-10, the counter-based random generator of Salmon, Moraes, Dror and Shaw, "Parallel
/// Random Numbers: As Easy as 1, 2, 3" (SC 2011).

#include <array>
#include <cstdint>

namespace gpusim {

/// Four random words for a counter of 128 and a key of 64 bits: ten rounds of two 32 by 32 bit
/// products each, with the key raised by the golden ratio and by sqrt(3) - 1 between rounds.
inline std::array<uint32_t, 4> philox4x32_10(std::array<uint32_t, 4> counter,
                                             std::array<uint32_t, 2> key) {
    for (int round = 0; round < 10; ++round) {
        const uint64_t p0 = uint64_t{0xD2511F53u} * counter[0];
        const uint64_t p1 = uint64_t{0xCD9E8D57u} * counter[2];
        counter = {static_cast<uint32_t>(p1 >> 32) ^ counter[1] ^ key[0], static_cast<uint32_t>(p1),
                   static_cast<uint32_t>(p0 >> 32) ^ counter[3] ^ key[1],
                   static_cast<uint32_t>(p0)};
        key[0] += 0x9E3779B9u;
        key[1] += 0xBB67AE85u;
    }
    return counter;
}

}  // namespace gpusim

#endif  // GPUSIM_GPUSIM_PHILOX_H_
