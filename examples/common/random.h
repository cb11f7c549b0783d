#ifndef COMMON_RANDOM_H_
#define COMMON_RANDOM_H_

#include <cstddef>
#include <random>
#include <utility>
#include <vector>

namespace common {

using Random = std::mt19937_64;

/// Evenly distributed in [0, 1), the same on every platform.
inline double uniform(Random* random) {
    return static_cast<double>((*random)() >> 11) * 0x1p-53;
}

/// Puts the items into a random order, the same on every platform.
template <typename T>
void shuffle(std::vector<T>* items, Random* random) {
    for (std::size_t i = items->size(); i > 1; --i) {
        std::swap((*items)[i - 1], (*items)[static_cast<std::size_t>(uniform(random) * i)]);
    }
}

}  // namespace common

#endif  // COMMON_RANDOM_H_
