#include <algorithm>
#include <memory>
#include <string>

#include "cudnn_fixture.h"

namespace {

constexpr auto F = CUDNN_DATA_FLOAT;

struct Settings {
    Extents x, w;
    std::array<int, 2> pad = {0, 0}, stride = {1, 1}, dilation = {1, 1};
    cudnnConvolutionMode_t mode = CUDNN_CROSS_CORRELATION;
};

/// The descriptors and tensors of a convolution; y has the extents that cuDNN gives.
struct Problem {
    explicit Problem(const Settings& s, Layout layout = kPacked)
        : settings(s), x(s.x, 1, layout), w(s.w, 2) {
        EXPECT_DNN(cudnnCreateFilterDescriptor(&filter));
        EXPECT_DNN(cudnnSetFilter4dDescriptor(filter, F, CUDNN_TENSOR_NCHW, s.w[0], s.w[1], s.w[2],
                                              s.w[3]));
        EXPECT_DNN(cudnnCreateConvolutionDescriptor(&conv));
        EXPECT_DNN(cudnnSetConvolution2dDescriptor(conv, s.pad[0], s.pad[1], s.stride[0],
                                                   s.stride[1], s.dilation[0], s.dilation[1],
                                                   s.mode, F));
        Extents e;
        EXPECT_DNN(cudnnGetConvolution2dForwardOutputDim(conv, x.desc, filter, &e[0], &e[1], &e[2],
                                                         &e[3]));
        y = std::make_unique<TestTensor>(e, 3, layout);
    }
    ~Problem() {
        EXPECT_DNN(cudnnDestroyFilterDescriptor(filter));
        EXPECT_DNN(cudnnDestroyConvolutionDescriptor(conv));
    }

    /// Calls term(at of x, at of w, at of y) for each product of the definition.
    template <class Term>
    void for_terms(Term term) const {
        const Settings& s = settings;
        for_all(y->extent, [&](int n, int k, int oh, int ow) {
            for_all({1, s.w[1], s.w[2], s.w[3]}, [&](int, int c, int r, int q) {
                const int h = oh * s.stride[0] - s.pad[0] + r * s.dilation[0];
                const int v = ow * s.stride[1] - s.pad[1] + q * s.dilation[1];
                const bool flip = s.mode == CUDNN_CONVOLUTION;
                if (h >= 0 && h < s.x[2] && v >= 0 && v < s.x[3]) {
                    term(x.offset(n, c, h, v),
                         flip ? w.offset(k, c, s.w[2] - 1 - r, s.w[3] - 1 - q)
                              : w.offset(k, c, r, q),
                         y->offset(n, k, oh, ow));
                }
            });
        });
    }

    const Settings settings;
    TestTensor x, w;
    std::unique_ptr<TestTensor> y;
    cudnnFilterDescriptor_t filter = nullptr;
    cudnnConvolutionDescriptor_t conv = nullptr;
};

/// The passes, by what they compute.
enum Pass { kY, kW, kX };

class CudnnConvolutionTest : public CudnnTest {
protected:
    static TestTensor& output(Problem& p, Pass pass) {
        return pass == kY ? *p.y : pass == kW ? p.w : p.x;
    }
    cudnnStatus_t run(Pass pass, const Problem& p, int algo = 0, const Scalars& s = {1, 0},
                      void* space = nullptr, size_t size = 0) {
        switch (pass) {
            case kY:
                return cudnnConvolutionForward(handle_, &s.alpha, p.x.desc, p.x.get(), p.filter,
                                               p.w.get(), p.conv, cudnnConvolutionFwdAlgo_t(algo),
                                               space, size, &s.beta, p.y->desc, p.y->get());
            case kW:
                return cudnnConvolutionBackwardFilter(handle_, &s.alpha, p.x.desc, p.x.get(),
                                                      p.y->desc, p.y->get(), p.conv,
                                                      cudnnConvolutionBwdFilterAlgo_t(algo), space,
                                                      size, &s.beta, p.filter, p.w.get());
            default:
                return cudnnConvolutionBackwardData(
                    handle_, &s.alpha, p.filter, p.w.get(), p.y->desc, p.y->get(), p.conv,
                    cudnnConvolutionBwdDataAlgo_t(algo), space, size, &s.beta, p.x.desc, p.x.get());
        }
    }
    template <class Record, class Algo, class WorkSpace, class Rank, class Find, class... D>
    void expect_queries_agree(Pass pass, Problem& p, const std::string& supported, Algo count,
                              WorkSpace work_space, Rank rank, Find find, D... descriptors);
};

TEST_F(CudnnConvolutionTest, AllPassesByDefinition) {
    const Settings cases[] = {
        {{2, 3, 6, 7}, {4, 3, 3, 3}, {1, 1}},
        {{2, 3, 6, 7}, {4, 3, 1, 1}},
        {{1, 2, 9, 8}, {3, 2, 3, 2}, {2, 0}, {2, 3}, {1, 2}},
        {{2, 1, 5, 5}, {2, 1, 2, 3}, {3, 4}, {3, 1}, {2, 1}, CUDNN_CONVOLUTION},
        {{3, 2, 4, 4}, {2, 2, 4, 4}},
        {{1, 1, 1, 6}, {1, 1, 5, 1}, {2, 2}, {4, 2}},  // some taps only meet padding
    };
    for (const Settings& settings : cases) {
        for (const Layout layout : {kPacked, kInterleaved, kGaps}) {
            for (const Scalars& s : kScalars) {
                for (const Pass pass : {kY, kW, kX}) {
                    Problem p(settings, layout);
                    TestTensor& out = output(p, pass);
                    std::vector<double> sums(out.values.size());
                    p.for_terms([&](int i, int j, int k) {
                        const double x = p.x.values[i], w = p.w.values[j], y = p.y->values[k];
                        sums[pass == kY   ? k
                             : pass == kW ? j
                                          : i] += pass == kY   ? x * w
                                                  : pass == kW ? x * y
                                                               : w * y;
                    });
                    out.make_old(s);
                    EXPECT_DNN(run(pass, p, 0, s));
                    out.expect(s, [&](auto... at) { return sums[out.offset(at...)]; });
                }
            }
        }
    }
}

TEST_F(CudnnConvolutionTest, RunsInTheStreamOnWhatTheCallWasGiven) {
    auto p = std::make_unique<Problem>(Settings{{2, 3, 6, 7}, {4, 3, 3, 3}});
    EXPECT_DNN(run(kY, *p));
    const auto expected = p->y->read();
    p->y->make_old({1, 0});
    Scalars s{1, 0};
    Gate gate(stream_);
    EXPECT_DNN(run(kY, *p, 0, s));
    s = {99, 99};
    EXPECT_DNN(cudnnSetConvolution2dDescriptor(p->conv, 0, 0, 2, 2, 1, 1, CUDNN_CONVOLUTION, F));
    EXPECT_EQ(cudaStreamQuery(stream_), cudaErrorNotReady);
    EXPECT_TRUE(std::isnan(p->y->device.read()[0]));
    gate.open();
    EXPECT_EQ(p->y->read(), expected);
}

/// Holds the queries of a pass, which take `descriptors`, against its runs. `supported` says which
/// algorithms the problem has, by their enumerators.
template <class Record, class Algo, class WorkSpace, class Rank, class Find, class... D>
void CudnnConvolutionTest::expect_queries_agree(Pass pass, Problem& p, const std::string& supported,
                                                Algo count, WorkSpace work_space, Rank rank,
                                                Find find, D... descriptors) {
    SCOPED_TRACE(supported);
    std::vector<Record> ranked(count), found(count);
    int returned = 0;
    EXPECT_DNN(rank(handle_, descriptors..., count, &returned, ranked.data()));
    ASSERT_EQ(returned, count);
    EXPECT_TRUE(std::is_sorted(ranked.begin(), ranked.end(),
                               [](auto& a, auto& b) { return a.status < b.status; }));
    TestTensor& out = output(p, pass);
    const std::vector<float> old = out.values;
    std::vector<float> expected;
    for (const Record& r : ranked) {
        const bool runs = supported.find(std::to_string(r.algo)) != std::string::npos;
        EXPECT_EQ(r.status, runs ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_NOT_SUPPORTED) << r.algo;
        size_t size = 0;
        EXPECT_EQ(work_space(handle_, descriptors..., r.algo, &size), r.status);
        EXPECT_EQ(size, r.memory);
        DeviceArray<char> space(size + 1);
        out.write(old);
        EXPECT_EQ(run(pass, p, r.algo, {1, 0}, space.get(), size), r.status);
        const auto actual = out.read();
        if (expected.empty()) {
            expected = actual;
        }
        EXPECT_EQ(actual, runs ? expected : old);
        if (size != 0) {
            EXPECT_BAD_PARAM(run(pass, p, r.algo, {1, 0}, space.get(), size - 1));
            EXPECT_BAD_PARAM(run(pass, p, r.algo, {1, 0}, nullptr, size));
        }
    }
    // Trials leave the tensors alone, and give the same list but for its order.
    out.write(old);
    EXPECT_DNN(find(handle_, descriptors..., count, &returned, found.data()));
    ASSERT_EQ(returned, count);
    EXPECT_EQ(out.read(), old);
    EXPECT_TRUE(std::is_sorted(found.begin(), found.begin() + supported.size(),
                               [](auto& a, auto& b) { return a.time < b.time; }));
    EXPECT_TRUE(
        std::is_permutation(found.begin(), found.end(), ranked.begin(), [](auto& a, auto& b) {
            return a.algo == b.algo && a.status == b.status && a.memory == b.memory &&
                   a.determinism == b.determinism;
        }));
    EXPECT_DNN(find(handle_, descriptors..., 2, &returned, found.data()));
    EXPECT_EQ(returned, 2);
    EXPECT_BAD_PARAM(run(pass, p, count));
}

TEST_F(CudnnConvolutionTest, Algorithms) {
    const struct {
        Settings settings;
        Layout layout;
        const char *forward, *filter, *data;
    } cases[] = {
        {{{2, 3, 8, 8}, {4, 3, 3, 3}, {1, 1}}, kPacked, "0124567", "012356", "012345"},
        {{{2, 3, 8, 8}, {4, 3, 5, 5}, {2, 2}}, kPacked, "012457", "012356", "01235"},
        {{{2, 3, 8, 8}, {4, 3, 3, 2}}, kPacked, "01245", "01236", "0123"},
        {{{2, 3, 8, 8}, {4, 3, 3, 3}, {1, 1}}, kInterleaved, "01267", "0135", "0145"},
        {{{2, 3, 8, 8}, {4, 3, 3, 3}, {0, 0}, {1, 2}}, kPacked, "012", "013", "01"},
        {{{2, 3, 8, 8}, {4, 3, 3, 3}, {0, 0}, {1, 1}, {2, 1}}, kPacked, "01", "01", "01"},
        {{{1, 1, 3, 260}, {1, 1, 3, 33}}, kPacked, "012", "013", "01"},
        {{{1, 1, 3, 260}, {1, 1, 3, 3}, {0, 3}}, kPacked, "01267", "0135", "0145"},
    };
    for (const auto& c : cases) {
        Problem p(c.settings, c.layout);
        EXPECT_DNN(cudnnSetConvolutionMathType(p.conv, CUDNN_FMA_MATH));
        expect_queries_agree<cudnnConvolutionFwdAlgoPerf_t>(
            kY, p, c.forward, CUDNN_CONVOLUTION_FWD_ALGO_COUNT,
            cudnnGetConvolutionForwardWorkspaceSize, cudnnGetConvolutionForwardAlgorithm_v7,
            cudnnFindConvolutionForwardAlgorithm, p.x.desc, p.filter, p.conv, p.y->desc);
        expect_queries_agree<cudnnConvolutionBwdFilterAlgoPerf_t>(
            kW, p, c.filter, CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT,
            cudnnGetConvolutionBackwardFilterWorkspaceSize,
            cudnnGetConvolutionBackwardFilterAlgorithm_v7,
            cudnnFindConvolutionBackwardFilterAlgorithm, p.x.desc, p.y->desc, p.conv, p.filter);
        expect_queries_agree<cudnnConvolutionBwdDataAlgoPerf_t>(
            kX, p, c.data, CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT,
            cudnnGetConvolutionBackwardDataWorkspaceSize,
            cudnnGetConvolutionBackwardDataAlgorithm_v7, cudnnFindConvolutionBackwardDataAlgorithm,
            p.filter, p.y->desc, p.conv, p.x.desc);
    }
}

TEST_F(CudnnConvolutionTest, Refusals) {
    Problem p({{2, 3, 6, 7}, {4, 3, 3, 3}, {1, 1}});
    const auto refused = [&](const char* what, cudnnStatus_t status) {
        SCOPED_TRACE(what);
        for (const Pass pass : {kY, kW, kX}) {
            EXPECT_EQ(run(pass, p), status);
        }
    };
    const auto set_filter = [&](cudnnDataType_t type, cudnnTensorFormat_t format, int c) {
        EXPECT_DNN(cudnnSetFilter4dDescriptor(p.filter, type, format, 4, c, 3, 3));
    };
    const auto set_conv = [&](int pad, cudnnDataType_t type) {
        EXPECT_DNN(cudnnSetConvolution2dDescriptor(p.conv, pad, pad, 1, 1, 1, 1,
                                                   CUDNN_CROSS_CORRELATION, type));
    };
    set_conv(0, F);
    refused("the extents of y", CUDNN_STATUS_BAD_PARAM);
    set_conv(1, CUDNN_DATA_DOUBLE);
    refused("the type of the computation", CUDNN_STATUS_NOT_SUPPORTED);
    set_conv(1, F);
    set_filter(F, CUDNN_TENSOR_NCHW, 2);
    refused("the channels of the filter", CUDNN_STATUS_BAD_PARAM);
    set_filter(CUDNN_DATA_HALF, CUDNN_TENSOR_NCHW, 3);
    refused("the type of the filter", CUDNN_STATUS_BAD_PARAM);
    set_filter(F, CUDNN_TENSOR_NHWC, 3);
    refused("the format of the filter", CUDNN_STATUS_NOT_SUPPORTED);
    set_filter(F, CUDNN_TENSOR_NCHW, 3);
    EXPECT_DNN(run(kY, p));
    // Trials need room for what the descriptors say: here 8 GiB each for x and y.
    for (const cudnnTensorDescriptor_t desc : {p.x.desc, p.y->desc}) {
        EXPECT_DNN(cudnnSetTensor4dDescriptor(desc, CUDNN_TENSOR_NCHW, F, 2047, 1024, 32, 32));
    }
    EXPECT_DNN(cudnnSetFilter4dDescriptor(p.filter, F, CUDNN_TENSOR_NCHW, 1024, 1024, 3, 3));
    cudnnConvolutionFwdAlgoPerf_t record;
    int returned;
    EXPECT_EQ(cudnnFindConvolutionForwardAlgorithm(handle_, p.x.desc, p.filter, p.conv, p.y->desc,
                                                   1, &returned, &record),
              CUDNN_STATUS_INTERNAL_ERROR_DEVICE_ALLOCATION_FAILED);
}

}  // namespace
