#ifndef VISION_BATCH_H_
#define VISION_BATCH_H_

#include <vector>

#include "vision/page.h"
#include "vorn/vorn.h"

namespace vision {

/// Pages of one size, the windows to look through, and what these show, on the network's device.
struct Batch {
    vorn::Tensor<float> pages;    ///< (N, 1, H, W)
    vorn::Tensor<float> windows;  ///< (R, 5, 1, 1)
    vorn::Tensor<float> labels;   ///< class indices, of each window; empty where they are unknown

    explicit Batch(vorn::Device device) : pages(device), windows(device), labels(device) {}
    int size() const { return static_cast<int>(windows.get_n()); }
};

/// Fills a batch page by page.
class BatchMaker {
public:
    explicit BatchMaker(vorn::Device device) : _batch(device) {}

    /// A page without windows, of the size of the others.
    void add_page(const Page& page);
    /// A window on the latest page.
    void add_window(const Box& box, int label);
    int windows() const { return static_cast<int>(_labels.size()); }
    /// The batch of all that was added since the last one; good until the next call.
    const Batch& finish();

private:
    int _rows = 0, _columns = 0, _pages = 0;
    std::vector<float> _values, _windows, _labels;
    Batch _batch;
};

}  // namespace vision

#endif  // VISION_BATCH_H_
