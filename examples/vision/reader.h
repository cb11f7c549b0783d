#ifndef VISION_READER_H_
#define VISION_READER_H_

#include "vision/batch.h"
#include "vision/network.h"
#include "vision/page.h"

namespace vision {

/// Reads windows of pages with a trained network. Bins are coarse, and how they lie against the
/// strokes decides close cases. So it looks at a window five times, as training does at slightly
/// different ones, and takes the mean of the posteriors.
class Reader {
public:
    explicit Reader(Network* network);

    /// A page without windows, of the size of the others.
    void add_page(const Page& page) { _host.add_page(page); }
    /// A window on the latest page.
    void add_window(const Box& box);
    /// The posteriors, windows x classes, of all that was added since the last call; good until the
    /// next one.
    vorn::Tensor<float> read();

private:
    Network* _network;
    HostBatch _host;
    Batch _batch;
    vorn::Tensor<float> _look, _mean;
};

}  // namespace vision

#endif  // VISION_READER_H_
