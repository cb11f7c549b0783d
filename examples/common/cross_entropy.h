#ifndef COMMON_CROSS_ENTROPY_H_
#define COMMON_CROSS_ENTROPY_H_

#include <cstddef>
#include <vector>

#include "vorn/vorn.h"

namespace common {

/// The loss of an item, an image say, is -log of the posterior of its class.
class CrossEntropy {
public:
    explicit CrossEntropy(vorn::Device device);

    /// Compares the posteriors of a batch, items x classes, with its labels, class indices.
    void compute(const vorn::Tensor<float>& posteriors, const vorn::Tensor<float>& labels);

    /// The gradient of the mean loss of that batch with respect to the softmax inputs,
    /// (posterior - t) / items with t = 1 at the labelled class and 0 elsewhere. Good until the
    /// next call.
    const vorn::Tensor<float>& error(const vorn::Tensor<float>& posteriors,
                                     const vorn::Tensor<float>& labels);

    // Of the latest batch, on the host:
    double mean_loss() const { return _mean_loss; }
    /// Items whose class has the highest posterior.
    int correct() const { return static_cast<int>(_correct); }
    /// The class with the highest posterior, for each item.
    const std::vector<int>& read() const { return _read; }
    /// The loss of each item.
    const std::vector<float>& losses() const { return _losses; }

private:
    vorn::Tensor<float> _log_posteriors, _loss, _highest, _error;
    vorn::Tensor<int> _mask;  ///< 1 everywhere: every item counts
    vorn::Tensor<int> _highest_class;
    std::size_t _correct = 0;
    double _mean_loss = 0;
    std::vector<int> _read;
    std::vector<float> _losses;
};

}  // namespace common

#endif  // COMMON_CROSS_ENTROPY_H_
