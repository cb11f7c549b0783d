// The operations of convolution, and the queries for their algorithms.
#include "cudnn_convolution.h"

#include <algorithm>
#include <chrono>
#include <cstring>

using gpusim::StreamPtr;
using gpusim::cudnn::Algorithm;
using gpusim::cudnn::Blend;
using gpusim::cudnn::ConvolutionData;
using gpusim::cudnn::ConvolutionProblem;
using gpusim::cudnn::enqueue;
using gpusim::cudnn::find_algorithm;
using gpusim::cudnn::kLibrary;
using gpusim::cudnn::Operand;
using gpusim::cudnn::Pass;

namespace {

/// The descriptors of one call, whatever its order of arguments.
struct Descriptors {
    cudnnConvolutionDescriptor_t conv;
    cudnnTensorDescriptor_t x;
    cudnnFilterDescriptor_t w;
    cudnnTensorDescriptor_t y;

    cudnnStatus_t read(ConvolutionProblem* p) const {
        gpusim::cudnn::Extents y_extent;
        if (!gpusim::cudnn::read(conv, &p->conv) || !gpusim::cudnn::read(x, &p->x) ||
            !gpusim::cudnn::read(w, &p->w) || !gpusim::cudnn::read(y, &p->y) ||
            !output_extents(p->conv, p->x, p->w, &y_extent) || y_extent != p->y.extent ||
            p->x.type != p->w.tensor.type || p->x.type != p->y.type) {
            return CUDNN_STATUS_BAD_PARAM;
        }
        return p->conv.compute_type == CUDNN_DATA_FLOAT && p->w.format == CUDNN_TENSOR_NCHW &&
                       p->x.type == CUDNN_DATA_FLOAT
                   ? CUDNN_STATUS_SUCCESS
                   : CUDNN_STATUS_NOT_SUPPORTED;
    }
};

/// The scalars and the work space of a call.
struct Settings {
    const void* alpha;
    const void* beta;
    void* work_space;
    size_t work_space_size;
};

/// Which of the tensors are written is the pass's; the interface has the others const.
ConvolutionData floats(const void* x, const void* w, const void* y) {
    const auto cast = [](const void* p) { return static_cast<float*>(const_cast<void*>(p)); };
    return {cast(x), cast(w), cast(y)};
}

/// What a device leaves in a work space is of no use to the next operation.
constexpr int kClobbered = 0xff;

cudnnStatus_t run(const char* function, cudnnHandle_t handle, Pass pass,
                  const Descriptors& descriptors, int algorithm_index, const Settings& settings,
                  const ConvolutionData& data) {
    if (handle == nullptr || settings.alpha == nullptr || settings.beta == nullptr) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    ConvolutionProblem p;
    const cudnnStatus_t status = descriptors.read(&p);
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
    const Algorithm algorithm = find_algorithm(pass, p, algorithm_index);
    if (algorithm.status != CUDNN_STATUS_SUCCESS) {
        return algorithm.status;
    }
    if (settings.work_space_size < algorithm.memory) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const Operand x(pass == Pass::kBackwardData ? "dx" : "x", data.x, p.x);
    const Operand w(pass == Pass::kBackwardFilter ? "dw" : "w", data.w, p.w.tensor);
    const Operand y(pass == Pass::kForward ? "y" : "dy", data.y, p.y);
    const Operand space("the work space", settings.work_space, algorithm.memory);
    const Blend blend(settings.alpha, settings.beta);
    const auto work = [=] {
        if (space.size != 0) {
            std::memset(const_cast<void*>(space.data), kClobbered, space.size);
        }
        convolve(pass, p, blend, data);
    };
    switch (pass) {
        case Pass::kForward:
            return enqueue(function, handle, {x, w}, {y, space}, work);
        case Pass::kBackwardFilter:
            return enqueue(function, handle, {x, y}, {w, space}, work);
        default:
            return enqueue(function, handle, {w, y}, {x, space}, work);
    }
}

/// Reads what a query for an algorithm is about.
cudnnStatus_t read_query(cudnnHandle_t handle, const Descriptors& descriptors,
                         ConvolutionProblem* problem) {
    return handle == nullptr ? CUDNN_STATUS_BAD_PARAM : descriptors.read(problem);
}

cudnnStatus_t work_space_size(cudnnHandle_t handle, Pass pass, const Descriptors& descriptors,
                              int algorithm_index, size_t* size) {
    ConvolutionProblem problem;
    const cudnnStatus_t status = read_query(handle, descriptors, &problem);
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
    if (size == nullptr) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    const Algorithm algorithm = find_algorithm(pass, problem, algorithm_index);
    if (algorithm.status == CUDNN_STATUS_SUCCESS) {
        *size = algorithm.memory;
    }
    return algorithm.status;
}

/// Memory of a trial, in the order of its stream.
class TrialBlock {
public:
    TrialBlock(const StreamPtr& stream, size_t size)
        : stream_(stream),
          data_(size == 0 ? nullptr : gpusim::allocate_in_stream(size, stream)),
          missing_(size != 0 && data_ == nullptr) {}
    ~TrialBlock() {
        if (data_ != nullptr) {
            gpusim::free_in_stream(data_, stream_);
        }
    }
    TrialBlock(const TrialBlock&) = delete;
    TrialBlock& operator=(const TrialBlock&) = delete;

    void* get() const { return data_; }
    bool missing() const { return missing_; }

private:
    const StreamPtr stream_;
    void* const data_;
    const bool missing_;
};

/// Runs the algorithm on samples, and notes the time or what went wrong.
void try_algorithm(cudnnHandle_t handle, const StreamPtr& stream, Pass pass,
                   const ConvolutionProblem& problem, const ConvolutionData& samples,
                   Algorithm* algorithm) {
    const TrialBlock space(stream, algorithm->memory);
    if (space.missing()) {
        algorithm->status = CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED;
        return;
    }
    const float one = 1, zero = 0;
    const Blend blend(&one, &zero);
    std::chrono::duration<float, std::milli> time{-1};
    algorithm->status = kLibrary.enqueue(handle, true, [&] {
        const auto start = std::chrono::steady_clock::now();
        convolve(pass, problem, blend, samples);
        time = std::chrono::steady_clock::now() - start;
    });
    algorithm->time = time.count();
}

cudnnStatus_t try_algorithms(cudnnHandle_t handle, Pass pass, const ConvolutionProblem& problem,
                             std::vector<Algorithm>* algorithms) {
    const StreamPtr stream = gpusim::Device::get().find_stream(handle->stream);
    if (stream == nullptr) {
        return CUDNN_STATUS_EXECUTION_FAILED;
    }
    const TrialBlock x(stream, problem.x.bytes()), w(stream, problem.w.tensor.bytes()),
        y(stream, problem.y.bytes());
    if (x.missing() || w.missing() || y.missing()) {
        return CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED;
    }
    const cudnnStatus_t status = kLibrary.enqueue(handle, true, [&] {
        std::memset(x.get(), 0, problem.x.bytes());
        std::memset(w.get(), 0, problem.w.tensor.bytes());
        std::memset(y.get(), 0, problem.y.bytes());
    });
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
    for (Algorithm& algorithm : *algorithms) {
        if (algorithm.status == CUDNN_STATUS_SUCCESS) {
            try_algorithm(handle, stream, pass, problem, floats(x.get(), w.get(), y.get()),
                          &algorithm);
        }
    }
    std::stable_sort(algorithms->begin(), algorithms->end(),
                     [](const Algorithm& a, const Algorithm& b) {
                         return std::pair(a.status, a.time) < std::pair(b.status, b.time);
                     });
    return CUDNN_STATUS_SUCCESS;
}

enum class Query { kHeuristic, kTrials };

/// Fills in up to `requested` records of any of the three families.
template <class Record>
cudnnStatus_t list_algorithms(Query query, cudnnHandle_t handle, Pass pass,
                              const Descriptors& descriptors, int requested, int* returned,
                              Record* results) {
    ConvolutionProblem problem;
    cudnnStatus_t status = read_query(handle, descriptors, &problem);
    if (status != CUDNN_STATUS_SUCCESS) {
        return status;
    }
    if (requested < 1 || returned == nullptr || results == nullptr) {
        return CUDNN_STATUS_BAD_PARAM;
    }
    std::vector<Algorithm> algorithms = rank_algorithms(pass, problem);
    if (query == Query::kTrials) {
        status = try_algorithms(handle, pass, problem, &algorithms);
        if (status != CUDNN_STATUS_SUCCESS) {
            return status;
        }
    }
    *returned = std::min(requested, static_cast<int>(algorithms.size()));
    for (int i = 0; i < *returned; ++i) {
        const Algorithm& a = algorithms[i];
        results[i] = {static_cast<decltype(Record::algo)>(a.index),
                      a.status,
                      a.time,
                      a.memory,
                      a.determinism,
                      problem.conv.math_type,
                      {}};
    }
    return CUDNN_STATUS_SUCCESS;
}

}  // namespace

cudnnStatus_t cudnnConvolutionForward(cudnnHandle_t handle, const void* alpha,
                                      cudnnTensorDescriptor_t x_desc, const void* x,
                                      cudnnFilterDescriptor_t w_desc, const void* w,
                                      cudnnConvolutionDescriptor_t conv_desc,
                                      cudnnConvolutionFwdAlgo_t algo, void* work_space,
                                      size_t work_space_size, const void* beta,
                                      cudnnTensorDescriptor_t y_desc, void* y) {
    return run(__func__, handle, Pass::kForward, {conv_desc, x_desc, w_desc, y_desc}, algo,
               {alpha, beta, work_space, work_space_size}, floats(x, w, y));
}

cudnnStatus_t cudnnConvolutionBackwardFilter(cudnnHandle_t handle, const void* alpha,
                                             cudnnTensorDescriptor_t x_desc, const void* x,
                                             cudnnTensorDescriptor_t dy_desc, const void* dy,
                                             cudnnConvolutionDescriptor_t conv_desc,
                                             cudnnConvolutionBwdFilterAlgo_t algo, void* work_space,
                                             size_t work_space_size, const void* beta,
                                             cudnnFilterDescriptor_t dw_desc, void* dw) {
    return run(__func__, handle, Pass::kBackwardFilter, {conv_desc, x_desc, dw_desc, dy_desc}, algo,
               {alpha, beta, work_space, work_space_size}, floats(x, dw, dy));
}

cudnnStatus_t cudnnConvolutionBackwardData(cudnnHandle_t handle, const void* alpha,
                                           cudnnFilterDescriptor_t w_desc, const void* w,
                                           cudnnTensorDescriptor_t dy_desc, const void* dy,
                                           cudnnConvolutionDescriptor_t conv_desc,
                                           cudnnConvolutionBwdDataAlgo_t algo, void* work_space,
                                           size_t work_space_size, const void* beta,
                                           cudnnTensorDescriptor_t dx_desc, void* dx) {
    return run(__func__, handle, Pass::kBackwardData, {conv_desc, dx_desc, w_desc, dy_desc}, algo,
               {alpha, beta, work_space, work_space_size}, floats(dx, w, dy));
}

cudnnStatus_t cudnnGetConvolutionForwardWorkspaceSize(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnFilterDescriptor_t w_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t y_desc,
    cudnnConvolutionFwdAlgo_t algo, size_t* size) {
    return work_space_size(handle, Pass::kForward, {conv_desc, x_desc, w_desc, y_desc}, algo, size);
}

cudnnStatus_t cudnnGetConvolutionBackwardFilterWorkspaceSize(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnFilterDescriptor_t dw_desc,
    cudnnConvolutionBwdFilterAlgo_t algo, size_t* size) {
    return work_space_size(handle, Pass::kBackwardFilter, {conv_desc, x_desc, dw_desc, dy_desc},
                           algo, size);
}

cudnnStatus_t cudnnGetConvolutionBackwardDataWorkspaceSize(
    cudnnHandle_t handle, cudnnFilterDescriptor_t w_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t dx_desc,
    cudnnConvolutionBwdDataAlgo_t algo, size_t* size) {
    return work_space_size(handle, Pass::kBackwardData, {conv_desc, dx_desc, w_desc, dy_desc}, algo,
                           size);
}

cudnnStatus_t cudnnGetConvolutionForwardAlgorithm_v7(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnFilterDescriptor_t w_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t y_desc, int requested_count,
    int* returned_count, cudnnConvolutionFwdAlgoPerf_t* results) {
    return list_algorithms(Query::kHeuristic, handle, Pass::kForward,
                           {conv_desc, x_desc, w_desc, y_desc}, requested_count, returned_count,
                           results);
}

cudnnStatus_t cudnnGetConvolutionBackwardFilterAlgorithm_v7(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnFilterDescriptor_t dw_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdFilterAlgoPerf_t* results) {
    return list_algorithms(Query::kHeuristic, handle, Pass::kBackwardFilter,
                           {conv_desc, x_desc, dw_desc, dy_desc}, requested_count, returned_count,
                           results);
}

cudnnStatus_t cudnnGetConvolutionBackwardDataAlgorithm_v7(
    cudnnHandle_t handle, cudnnFilterDescriptor_t w_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t dx_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdDataAlgoPerf_t* results) {
    return list_algorithms(Query::kHeuristic, handle, Pass::kBackwardData,
                           {conv_desc, dx_desc, w_desc, dy_desc}, requested_count, returned_count,
                           results);
}

cudnnStatus_t cudnnFindConvolutionForwardAlgorithm(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnFilterDescriptor_t w_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t y_desc, int requested_count,
    int* returned_count, cudnnConvolutionFwdAlgoPerf_t* results) {
    return list_algorithms(Query::kTrials, handle, Pass::kForward,
                           {conv_desc, x_desc, w_desc, y_desc}, requested_count, returned_count,
                           results);
}

cudnnStatus_t cudnnFindConvolutionBackwardFilterAlgorithm(
    cudnnHandle_t handle, cudnnTensorDescriptor_t x_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnFilterDescriptor_t dw_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdFilterAlgoPerf_t* results) {
    return list_algorithms(Query::kTrials, handle, Pass::kBackwardFilter,
                           {conv_desc, x_desc, dw_desc, dy_desc}, requested_count, returned_count,
                           results);
}

cudnnStatus_t cudnnFindConvolutionBackwardDataAlgorithm(
    cudnnHandle_t handle, cudnnFilterDescriptor_t w_desc, cudnnTensorDescriptor_t dy_desc,
    cudnnConvolutionDescriptor_t conv_desc, cudnnTensorDescriptor_t dx_desc, int requested_count,
    int* returned_count, cudnnConvolutionBwdDataAlgoPerf_t* results) {
    return list_algorithms(Query::kTrials, handle, Pass::kBackwardData,
                           {conv_desc, dx_desc, w_desc, dy_desc}, requested_count, returned_count,
                           results);
}
