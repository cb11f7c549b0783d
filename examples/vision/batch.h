#ifndef VISION_BATCH_H_
#define VISION_BATCH_H_

#include <vector>

#include "vision/page.h"
#include "vorn/vorn.h"

namespace vision {

/// Pages of one size, the windows to look through, and what these show, page by page.
struct HostBatch {
    int rows = 0, columns = 0, pages = 0;
    std::vector<float> values;   ///< of the pages
    std::vector<float> windows;  ///< rows of five, as ROI pooling takes them
    std::vector<float> labels;   ///< class indices, of each window

    /// A page without windows, of the size of the others.
    void add_page(const Page& page);
    /// A window on the latest page.
    void add_window(const Box& box, int label);
    int size() const { return static_cast<int>(labels.size()); }
};

/// The same on a device.
struct Batch {
    vorn::Tensor<float> pages;    ///< (N, 1, H, W)
    vorn::Tensor<float> windows;  ///< (R, 5, 1, 1)
    vorn::Tensor<float> labels;   ///< (R)

    explicit Batch(vorn::Device device) : pages(device), windows(device), labels(device) {}
    void set(const HostBatch& host);
};

}  // namespace vision

#endif  // VISION_BATCH_H_
