#include "vision/finder.h"

#include <algorithm>
#include <cmath>

#include "common/error.h"
#include "vision/windows.h"

namespace vision {

namespace {

constexpr double kMostOverlap = 0.3;
constexpr double kFoundOverlap = 0.5;

/// A blank row below and a blank column at the right, where they are needed.
Page with_even_sides(const Page& page) {
    Page even(page.rows + page.rows % PoolLayer::kStep,
              page.columns + page.columns % PoolLayer::kStep);
    for (int r = 0; r < page.rows; ++r) {
        std::copy_n(page.row(r), page.columns, even.row(r));
    }
    return even;
}

}  // namespace

std::vector<Detection> suppress(std::vector<Detection> detections, double most_overlap) {
    std::stable_sort(
        detections.begin(), detections.end(),
        [](const Detection& a, const Detection& b) { return a.posterior > b.posterior; });
    std::vector<Detection> kept;
    for (const Detection& detection : detections) {
        if (std::all_of(kept.begin(), kept.end(), [&](const Detection& surer) {
                return overlap(surer.box, detection.box) <= most_overlap;
            })) {
            kept.push_back(detection);
        }
    }
    return kept;
}

std::vector<Detection> Finder::find(const Page& page) {
    const std::vector<Box> candidates = candidate_boxes(page);
    if (candidates.empty()) {
        return {};
    }
    _reader.add_page(with_even_sides(page));
    for (const Box& box : candidates) {
        _reader.add_window(box);
    }
    const vorn::Tensor<float> posteriors = _reader.read();
    const auto classes = static_cast<int>(posteriors.get_w());
    std::vector<float> values(posteriors.count());
    posteriors.copy_to(values.data(), 0, values.size());

    std::vector<Detection> detections;
    const float* of_box = values.data();
    for (const Box& box : candidates) {
        const float* highest = std::max_element(of_box, of_box + classes);
        if (std::isnan(*of_box)) {
            throw common::Error("the network's posteriors are not numbers; its model is damaged");
        }
        const auto read = static_cast<int>(highest - of_box);
        if (read != kNoDigit) {
            detections.push_back({box, read, *highest});
        }
        of_box += classes;
    }
    return suppress(std::move(detections), kMostOverlap);
}

std::vector<int> match(const std::vector<Detection>& detections,
                       const std::vector<PlacedDigit>& digits) {
    std::vector<char> taken(digits.size());
    std::vector<int> matches;
    for (const Detection& detection : detections) {
        int found = -1;
        for (std::size_t i = 0; i < digits.size() && found < 0; ++i) {
            if (!taken[i] && digits[i].digit == detection.digit &&
                overlap(digits[i].box, detection.box) >= kFoundOverlap) {
                taken[i] = 1;
                found = static_cast<int>(i);
            }
        }
        matches.push_back(found);
    }
    return matches;
}

void add_to_score(const std::vector<Detection>& detections, const std::vector<PlacedDigit>& digits,
                  Score* score) {
    const std::vector<int> matches = match(detections, digits);
    const auto false_boxes = static_cast<int>(std::count(matches.begin(), matches.end(), -1));
    ++score->pages;
    score->digits += static_cast<int>(digits.size());
    score->found += static_cast<int>(matches.size()) - false_boxes;
    score->false_boxes += false_boxes;
}

}  // namespace vision
