#ifndef VISION_FINDER_H_
#define VISION_FINDER_H_

#include <vector>

#include "vision/network.h"
#include "vision/page.h"
#include "vision/reader.h"

namespace vision {

/// A digit that the network sees.
struct Detection {
    Box box;
    int digit = 0;
    double posterior = 0;
};

/// Greedy non-maximum suppression: the surest detections stay, surest first, and each rules out
/// those that overlap it by more than `most_overlap`.
std::vector<Detection> suppress(std::vector<Detection> detections, double most_overlap);

/// Finds digits on pages: all candidate boxes are read over the maps of the page, computed once,
/// and what is a digit stays but where a surer one overlaps.
class Finder {
public:
    explicit Finder(Network* network) : _reader(network) {}

    /// The surest first. Throws Error when the posteriors are NaN.
    std::vector<Detection> find(const Page& page);

private:
    Reader _reader;
};

/// How well digits were found.
struct Score {
    int pages = 0;
    int digits = 0;
    int found = 0;  ///< a box overlaps it by half at least and names it right
    int false_boxes = 0;

    double share() const { return digits == 0 ? 1 : static_cast<double>(found) / digits; }
};

/// The index of the digit that each detection has found, no digit twice; -1 for a false box.
std::vector<int> match(const std::vector<Detection>& detections,
                       const std::vector<PlacedDigit>& digits);

/// Adds a page to the score.
void add_to_score(const std::vector<Detection>& detections, const std::vector<PlacedDigit>& digits,
                  Score* score);

}  // namespace vision

#endif  // VISION_FINDER_H_
