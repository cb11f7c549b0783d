// What cuDNN documents of its algorithms: the problems that each can do, and its work space.
#include <algorithm>
#include <vector>

#include "cudnn_convolution.h"

namespace gpusim::cudnn {

namespace {

/// The ways of convolving, in the order in which the heuristic prefers them.
enum class Method {
    kWinograd,
    kWinogradNonfused,
    kIndexedGemm,   // gathers through a table of offsets
    kImplicitGemm,  // gathers on the fly
    kTiledFft,
    kFft,
    kExplicitGemm,  // on a matrix of all windows
    kNone           // an enumerator without an implementation
};

struct Entry {
    Method method;
    cudnnDeterminism_t determinism;
};

// In the order of the enumerators.
constexpr Entry kForward[] = {
    {Method::kImplicitGemm, CUDNN_DETERMINISTIC}, {Method::kIndexedGemm, CUDNN_DETERMINISTIC},
    {Method::kExplicitGemm, CUDNN_DETERMINISTIC}, {Method::kNone, CUDNN_DETERMINISTIC},
    {Method::kFft, CUDNN_DETERMINISTIC},          {Method::kTiledFft, CUDNN_DETERMINISTIC},
    {Method::kWinograd, CUDNN_DETERMINISTIC},     {Method::kWinogradNonfused, CUDNN_DETERMINISTIC},
};
constexpr Entry kBackwardFilter[] = {
    {Method::kImplicitGemm, CUDNN_NON_DETERMINISTIC},
    {Method::kIndexedGemm, CUDNN_DETERMINISTIC},
    {Method::kFft, CUDNN_DETERMINISTIC},
    {Method::kExplicitGemm, CUDNN_NON_DETERMINISTIC},
    {Method::kNone, CUDNN_DETERMINISTIC},
    {Method::kWinogradNonfused, CUDNN_DETERMINISTIC},
    {Method::kTiledFft, CUDNN_DETERMINISTIC},
};
constexpr Entry kBackwardData[] = {
    {Method::kImplicitGemm, CUDNN_NON_DETERMINISTIC},
    {Method::kIndexedGemm, CUDNN_DETERMINISTIC},
    {Method::kFft, CUDNN_DETERMINISTIC},
    {Method::kTiledFft, CUDNN_DETERMINISTIC},
    {Method::kWinograd, CUDNN_DETERMINISTIC},
    {Method::kWinogradNonfused, CUDNN_DETERMINISTIC},
};
static_assert(std::size(kForward) == algorithm_count(Pass::kForward));
static_assert(std::size(kBackwardFilter) == algorithm_count(Pass::kBackwardFilter));
static_assert(std::size(kBackwardData) == algorithm_count(Pass::kBackwardData));

const Entry& entry(Pass pass, int index) {
    return pass == Pass::kForward          ? kForward[index]
           : pass == Pass::kBackwardFilter ? kBackwardFilter[index]
                                           : kBackwardData[index];
}

bool all(const Pair& pair, int value) {
    return pair[0] == value && pair[1] == value;
}

bool rows_packed(const Tensor& t) {
    return t.stride[kW] == 1 && (t.extent[kH] == 1 || t.stride[kH] == t.extent[kW]);
}

/// A transform of the whole image, in both directions, takes this many points at most.
constexpr int kFftLimit = 256;
constexpr int kFftTile = 32;

bool supports_fft(const ConvolutionProblem& p) {
    const Tensor& w = p.w.tensor;
    return rows_packed(p.x) && rows_packed(p.y) && w.extent[kH] > p.conv.pad[0] &&
           w.extent[kW] > p.conv.pad[1];
}

bool supports(Method method, const ConvolutionProblem& p) {
    const int r = p.w.tensor.extent[kH], s = p.w.tensor.extent[kW];
    const bool dense = all(p.conv.dilation, 1);
    const bool unit = dense && all(p.conv.stride, 1);
    switch (method) {
        case Method::kWinograd:
            return unit && r == 3 && s == 3;
        case Method::kWinogradNonfused:
            return unit && r == s && (r == 3 || r == 5);
        case Method::kIndexedGemm:
        case Method::kImplicitGemm:
            return true;
        case Method::kTiledFft:
            return unit && supports_fft(p) && r <= kFftTile && s <= kFftTile;
        case Method::kFft:
            return unit && supports_fft(p) && p.x.extent[kH] + 2 * p.conv.pad[0] <= kFftLimit &&
                   p.x.extent[kW] + 2 * p.conv.pad[1] <= kFftLimit;
        case Method::kExplicitGemm:
            return dense;
        case Method::kNone:
            return false;
    }
    return false;
}

size_t power_of_two(int least) {
    size_t value = 1;
    while (value < static_cast<size_t>(least)) {
        value *= 2;
    }
    return value;
}

size_t tiles(int extent, int tile) {
    return static_cast<size_t>((extent + tile - 1) / tile);
}

/// Floats that the method keeps between its steps. The amounts are those of the textbook form of
/// each method, not cuDNN's own.
size_t work_space_floats(Method method, const ConvolutionProblem& p) {
    const auto [k, c, r, s] = p.w.tensor.extent;
    const auto [n, y_c, y_h, y_w] = p.y.extent;
    const size_t filters = static_cast<size_t>(k) * c;
    const size_t images = static_cast<size_t>(n) * (c + y_c);
    switch (method) {
        case Method::kWinograd:
            return filters * 16;  // the filters, transformed for tiles of 2 x 2 outputs
        case Method::kWinogradNonfused: {
            const size_t points = static_cast<size_t>(r + 3) * (s + 3);  // tiles of 4 x 4 outputs
            return points * (filters + images * tiles(y_h, 4) * tiles(y_w, 4));
        }
        case Method::kIndexedGemm:
            return static_cast<size_t>(c) * r * s;
        case Method::kTiledFft: {
            const size_t points = kFftTile * (kFftTile / 2 + 1) * 2;  // complex, of real input
            return points * (filters + images * tiles(y_h, kFftTile) * tiles(y_w, kFftTile));
        }
        case Method::kFft: {
            const size_t h = power_of_two(p.x.extent[kH] + 2 * p.conv.pad[0]);
            const size_t w = power_of_two(p.x.extent[kW] + 2 * p.conv.pad[1]);
            return h * (w / 2 + 1) * 2 * (filters + images);
        }
        case Method::kExplicitGemm:
            return static_cast<size_t>(c) * r * s * y_h * y_w;
        case Method::kImplicitGemm:
        case Method::kNone:
            return 0;
    }
    return 0;
}

}  // namespace

Algorithm find_algorithm(Pass pass, const ConvolutionProblem& problem, int index) {
    Algorithm algorithm{index, CUDNN_STATUS_BAD_PARAM, -1, 0, CUDNN_NON_DETERMINISTIC};
    if (index < 0 || index >= algorithm_count(pass)) {
        return algorithm;
    }
    const auto [method, determinism] = entry(pass, index);
    algorithm.determinism = determinism;
    algorithm.status = CUDNN_STATUS_NOT_SUPPORTED;
    if (supports(method, problem)) {
        algorithm.status = CUDNN_STATUS_SUCCESS;
        algorithm.memory = work_space_floats(method, problem) * sizeof(float);
    }
    return algorithm;
}

std::vector<Algorithm> rank_algorithms(Pass pass, const ConvolutionProblem& problem) {
    std::vector<Algorithm> algorithms;
    for (int i = 0; i < algorithm_count(pass); ++i) {
        algorithms.push_back(find_algorithm(pass, problem, i));
    }
    std::stable_sort(algorithms.begin(), algorithms.end(),
                     [&](const Algorithm& a, const Algorithm& b) {
                         return std::pair(a.status, entry(pass, a.index).method) <
                                std::pair(b.status, entry(pass, b.index).method);
                     });
    return algorithms;
}

}  // namespace gpusim::cudnn
