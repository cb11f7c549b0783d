#ifndef GPUSIM_DETAIL_CUDNN_CONVOLUTION_H_
#define GPUSIM_DETAIL_CUDNN_CONVOLUTION_H_

// Convolution of images x with filters w to outputs y, and its two backward passes.

#include <vector>

#include "cudnn_handle.h"

namespace gpusim::cudnn {

/// What a convolution is asked to do with its three tensors; a backward pass takes the gradients in
/// the places of the tensors.
enum class Pass {
    kForward,         // x and w to y
    kBackwardFilter,  // x and dy to dw
    kBackwardData     // w and dy to dx
};

struct ConvolutionProblem {
    Convolution conv;
    Tensor x;
    Filter w;
    Tensor y;
};

/// The data behind the three tensors; the pass says which of them it writes.
struct ConvolutionData {
    float* x;
    float* w;
    float* y;
};

/// Computes the pass from its definition. Each sum is formed in double precision. The forward pass
/// adds up by input channel, filter row and filter column, the pass to the data by output channel,
/// filter row and filter column, and the pass to the filter by image and output row, for each
/// output column on its own, and then over the columns.
void convolve(Pass pass, const ConvolutionProblem& problem, const Blend& blend,
              const ConvolutionData& data);

/// What an algorithm is for a problem.
struct Algorithm {
    int index;  // the enumerator of the pass
    cudnnStatus_t status;
    float time;     // milliseconds; -1 if it was not run
    size_t memory;  // bytes of work space
    cudnnDeterminism_t determinism;
};

constexpr int algorithm_count(Pass pass) {
    switch (pass) {
        case Pass::kForward:
            return CUDNN_CONVOLUTION_FWD_ALGO_COUNT;
        case Pass::kBackwardFilter:
            return CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT;
        default:
            return CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT;
    }
}

/// Status BAD_PARAM if there is no such algorithm, NOT_SUPPORTED if it can't do the problem.
Algorithm find_algorithm(Pass pass, const ConvolutionProblem& problem, int index);

/// All algorithms, those that are expected to be fast first and those not supported last.
std::vector<Algorithm> rank_algorithms(Pass pass, const ConvolutionProblem& problem);

}  // namespace gpusim::cudnn

#endif  // GPUSIM_DETAIL_CUDNN_CONVOLUTION_H_
