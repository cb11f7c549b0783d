#include "order.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <utility>

namespace gpusim {

namespace {

Order configured_order() {
    const char* text = std::getenv("GPUSIM_ORDER");
    if (text == nullptr || std::strcmp(text, "forward") == 0) {
        return {};
    }
    constexpr char kShuffle[] = "shuffle:";
    constexpr size_t kLength = sizeof kShuffle - 1;
    if (std::strncmp(text, kShuffle, kLength) == 0) {
        char* end = nullptr;
        const uint64_t seed = std::strtoull(text + kLength, &end, 10);
        if (end != text + kLength && *end == '\0') {
            return {true, seed};
        }
    }
    // A run in another order than the one that was asked for would prove nothing.
    std::fprintf(stderr, "gpusim: GPUSIM_ORDER is forward or shuffle:SEED, not '%s'\n", text);
    std::abort();
}

template <size_t N>
void shuffle_first(unsigned count, Mixer& mixer, std::array<uint8_t, N>& values,
                   std::array<uint8_t, N>& places) {
    for (unsigned i = 0; i < count; ++i) {
        values[i] = static_cast<uint8_t>(i);
    }
    for (unsigned i = count; i > 1; --i) {
        std::swap(values[i - 1], values[mixer.below(i)]);
    }
    for (unsigned i = 0; i < count; ++i) {
        places[values[i]] = static_cast<uint8_t>(i);
    }
}

}  // namespace

const Order& Order::get() {
    static const Order order = configured_order();
    return order;
}

std::string Order::note() const {
    return shuffled ? " in GPUSIM_ORDER=shuffle:" + std::to_string(seed) : std::string();
}

uint64_t Mixer::next() {
    uint64_t z = state_ += 0x9e3779b97f4a7c15u;
    z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9u;
    z = (z ^ (z >> 27)) * 0x94d049bb133111ebu;
    return z ^ (z >> 31);
}

uint64_t Mixer::below(uint64_t bound) {
    return static_cast<uint64_t>(static_cast<unsigned __int128>(next()) * bound >> 64);
}

BlockOrder::BlockOrder(const dim3& grid, const Order& order)
    : grid_(grid), count_(uint64_t{grid.x} * grid.y * grid.z) {
    if (!order.shuffled || count_ == 1) {
        return;
    }
    Mixer mixer(order.seed);
    do {
        factor_ = 1 + mixer.below(count_ - 1);
    } while (std::gcd(factor_, count_) != 1);
    offset_ = mixer.below(count_);
}

uint3 BlockOrder::block(uint64_t place) const {
    const auto scaled = static_cast<unsigned __int128>(place) * factor_ + offset_;
    const uint64_t i = static_cast<uint64_t>(scaled % count_);
    return {static_cast<unsigned>(i % grid_.x), static_cast<unsigned>(i / grid_.x % grid_.y),
            static_cast<unsigned>(i / grid_.x / grid_.y)};
}

ThreadOrder::ThreadOrder() {
    std::iota(warps_.begin(), warps_.end(), uint8_t{0});
    std::iota(lanes_.begin(), lanes_.end(), uint8_t{0});
    warp_places_ = warps_;
    lane_places_ = lanes_;
}

void ThreadOrder::shuffle(uint64_t seed, unsigned warps) {
    Mixer mixer(seed);
    shuffle_first(warps, mixer, warps_, warp_places_);
    shuffle_first(kWarp, mixer, lanes_, lane_places_);
}

}  // namespace gpusim
