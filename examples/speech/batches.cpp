#include "batches.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <numeric>

namespace speech {

namespace {

/// Batches that are cut from one sorted stretch of the shuffled utterances.
constexpr std::size_t kBatchesPerStretch = 8;

}  // namespace

std::vector<Indices> draw_batches(const std::vector<int>& lengths, int batch,
                                  common::Random* random) {
    Indices order(lengths.size());
    std::iota(order.begin(), order.end(), 0);
    common::shuffle(&order, random);
    const std::size_t size = batch;
    std::vector<Indices> batches;
    for (std::size_t begin = 0; begin < order.size(); begin += kBatchesPerStretch * size) {
        const auto first = order.begin() + begin;
        const auto last = order.begin() + std::min(begin + kBatchesPerStretch * size, order.size());
        std::stable_sort(first, last, [&](int a, int b) { return lengths[a] < lengths[b]; });
        for (auto at = first; at < last; at += std::min<std::ptrdiff_t>(size, last - at)) {
            batches.emplace_back(at, at + std::min<std::ptrdiff_t>(size, last - at));
        }
    }
    common::shuffle(&batches, random);
    return batches;
}

Indices share_of(const Indices& utterances, const std::vector<int>& lengths, int share,
                 int shares) {
    Indices positions(utterances.size());
    std::iota(positions.begin(), positions.end(), 0);
    const auto length = [&](int position) { return lengths[utterances[position]]; };
    std::stable_sort(positions.begin(), positions.end(),
                     [&](int a, int b) { return length(a) > length(b); });
    Indices dealt;
    std::vector<std::int64_t> totals(shares);
    for (const int position : positions) {
        const auto least = std::min_element(totals.begin(), totals.end()) - totals.begin();
        totals[least] += length(position);
        if (least == share) {
            dealt.push_back(position);
        }
    }
    std::sort(dealt.begin(), dealt.end());
    for (int& position : dealt) {
        position = utterances[position];
    }
    return dealt;
}

}  // namespace speech
