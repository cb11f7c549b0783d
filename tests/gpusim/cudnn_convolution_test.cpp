#include <algorithm>
#include <functional>
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
                if (x.contains(h, v)) {
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

class CudnnConvolutionTest : public CudnnTest {
protected:
    cudnnStatus_t forward(const Problem& p, int algo = 0, const Scalars& s = {1, 0},
                          void* space = nullptr, size_t size = 0) {
        return cudnnConvolutionForward(handle_, &s.alpha, p.x.desc, p.x.get(), p.filter, p.w.get(),
                                       p.conv, cudnnConvolutionFwdAlgo_t(algo), space, size,
                                       &s.beta, p.y->desc, p.y->get());
    }
    cudnnStatus_t filter(const Problem& p, int algo = 0, const Scalars& s = {1, 0},
                         void* space = nullptr, size_t size = 0) {
        return cudnnConvolutionBackwardFilter(
            handle_, &s.alpha, p.x.desc, p.x.get(), p.y->desc, p.y->get(), p.conv,
            cudnnConvolutionBwdFilterAlgo_t(algo), space, size, &s.beta, p.filter, p.w.get());
    }
    cudnnStatus_t data(const Problem& p, int algo = 0, const Scalars& s = {1, 0},
                       void* space = nullptr, size_t size = 0) {
        return cudnnConvolutionBackwardData(handle_, &s.alpha, p.filter, p.w.get(), p.y->desc,
                                            p.y->get(), p.conv, cudnnConvolutionBwdDataAlgo_t(algo),
                                            space, size, &s.beta, p.x.desc, p.x.get());
    }
};

TEST_F(CudnnConvolutionTest, WorkedByHand) {
    Problem p({{1, 1, 3, 3}, {1, 1, 2, 2}});
    p.x.write({1, 2, 3, 4, 5, 6, 7, 8, 9});
    p.w.write({1, 10, 100, 1000});
    EXPECT_DNN(forward(p));
    EXPECT_EQ(p.y->read()[0], 1 + 20 + 400 + 5000);
    EXPECT_EQ(p.y->read()[3], 5 + 60 + 800 + 9000);
    EXPECT_DNN(cudnnSetConvolution2dDescriptor(p.conv, 0, 0, 1, 1, 1, 1, CUDNN_CONVOLUTION, F));
    EXPECT_DNN(forward(p));
    EXPECT_EQ(p.y->read()[0], 1000 + 200 + 40 + 5);
}

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
                {
                    Problem p(settings, layout);
                    std::vector<double> y(p.y->values.size());
                    p.for_terms([&](int i, int j, int k) {
                        y[k] += double{p.x.values[i]} * p.w.values[j];
                    });
                    p.y->make_old(s);
                    EXPECT_DNN(forward(p, 0, s));
                    p.y->expect(s, [&](auto... at) { return y[p.y->offset(at...)]; });
                }
                {
                    Problem p(settings, layout);
                    std::vector<double> dw(p.w.values.size());
                    p.for_terms([&](int i, int j, int k) {
                        dw[j] += double{p.x.values[i]} * p.y->values[k];
                    });
                    p.w.make_old(s);
                    EXPECT_DNN(filter(p, 0, s));
                    p.w.expect(s, [&](auto... at) { return dw[p.w.offset(at...)]; });
                }
                {
                    Problem p(settings, layout);
                    std::vector<double> dx(p.x.values.size());
                    p.for_terms([&](int i, int j, int k) {
                        dx[i] += double{p.w.values[j]} * p.y->values[k];
                    });
                    p.x.make_old(s);
                    EXPECT_DNN(data(p, 0, s));
                    p.x.expect(s, [&](auto... at) { return dx[p.x.offset(at...)]; });
                }
            }
        }
    }
}

TEST_F(CudnnConvolutionTest, RunsInTheStreamOnWhatTheCallWasGiven) {
    auto p = std::make_unique<Problem>(Settings{{2, 3, 6, 7}, {4, 3, 3, 3}});
    EXPECT_DNN(forward(*p));
    const auto expected = p->y->read();
    p->y->make_old({1, 0});
    Scalars s{1, 0};
    Gate gate(stream_);
    EXPECT_DNN(forward(*p, 0, s));
    s = {99, 99};
    EXPECT_DNN(cudnnSetConvolution2dDescriptor(p->conv, 0, 0, 2, 2, 1, 1, CUDNN_CONVOLUTION, F));
    EXPECT_EQ(cudaStreamQuery(stream_), cudaErrorNotReady);
    EXPECT_TRUE(std::isnan(p->y->device.read()[0]));
    gate.open();
    EXPECT_EQ(p->y->read(), expected);
}

/// One family of algorithms, whatever its types are called.
template <class Record>
struct Family {
    int count;
    std::function<cudnnStatus_t(const Problem&, int, void*, size_t)> run;
    std::function<cudnnStatus_t(const Problem&, int, size_t*)> work_space;
    std::function<cudnnStatus_t(const Problem&, int, int*, Record*)> rank, find;
    std::function<TestTensor&(Problem&)> output;
};

/// Holds the queries of a family against its runs. `supported` says which algorithms the problem
/// has, by their enumerators.
template <class Record>
void check_family(const Family<Record>& family, Problem& p, const std::string& supported) {
    SCOPED_TRACE(supported);
    std::vector<Record> ranked(family.count + 1), found(family.count + 1);
    int returned = 0;
    EXPECT_DNN(family.rank(p, family.count + 1, &returned, ranked.data()));
    ASSERT_EQ(returned, family.count);
    ranked.resize(family.count);
    EXPECT_TRUE(std::is_sorted(ranked.begin(), ranked.end(),
                               [](auto& a, auto& b) { return a.status < b.status; }));
    const std::vector<float> old = family.output(p).values;
    std::vector<float> expected;
    for (const Record& r : ranked) {
        const bool runs = supported.find(std::to_string(r.algo)) != std::string::npos;
        EXPECT_EQ(r.status, runs ? CUDNN_STATUS_SUCCESS : CUDNN_STATUS_NOT_SUPPORTED) << r.algo;
        EXPECT_EQ(r.time, -1);
        EXPECT_EQ(r.mathType, CUDNN_FMA_MATH);
        size_t size = 0;
        EXPECT_EQ(family.work_space(p, r.algo, &size), r.status);
        EXPECT_EQ(size, r.memory);
        DeviceArray<char> space(size + 1);
        family.output(p).write(old);
        EXPECT_EQ(family.run(p, r.algo, space.get(), size), r.status);
        const auto actual = family.output(p).read();
        if (expected.empty()) {
            expected = actual;
        }
        EXPECT_EQ(actual, runs ? expected : old);
        if (size != 0) {
            EXPECT_BAD_PARAM(family.run(p, r.algo, space.get(), size - 1));
            EXPECT_BAD_PARAM(family.run(p, r.algo, nullptr, size));
        }
    }
    // Trials leave the tensors alone, and give the same list but for its order.
    family.output(p).write(old);
    EXPECT_DNN(family.find(p, family.count + 1, &returned, found.data()));
    ASSERT_EQ(returned, family.count);
    found.resize(family.count);
    EXPECT_EQ(family.output(p).read(), old);
    const auto first_failed = std::partition_point(
        found.begin(), found.end(), [](auto& r) { return r.status == CUDNN_STATUS_SUCCESS; });
    EXPECT_EQ(first_failed - found.begin(), static_cast<ptrdiff_t>(supported.size()));
    EXPECT_GE(found[0].time, 0);
    EXPECT_TRUE(std::is_sorted(found.begin(), first_failed,
                               [](auto& a, auto& b) { return a.time < b.time; }));
    EXPECT_TRUE(
        std::is_permutation(found.begin(), found.end(), ranked.begin(), [](auto& a, auto& b) {
            return a.algo == b.algo && a.status == b.status && a.memory == b.memory &&
                   a.determinism == b.determinism;
        }));
    EXPECT_DNN(family.find(p, 2, &returned, found.data()));
    EXPECT_EQ(returned, 2);
    for (const auto& query : {family.rank, family.find}) {
        EXPECT_BAD_PARAM(query(p, 0, &returned, found.data()));
        EXPECT_BAD_PARAM(query(p, 1, nullptr, found.data()));
        EXPECT_BAD_PARAM(query(p, 1, &returned, nullptr));
    }
    for (const int algo : {-1, family.count}) {
        size_t size = 0;
        EXPECT_BAD_PARAM(family.run(p, algo, nullptr, 0));
        EXPECT_BAD_PARAM(family.work_space(p, algo, &size));
    }
    EXPECT_BAD_PARAM(family.work_space(p, 0, nullptr));
}

TEST_F(CudnnConvolutionTest, Algorithms) {
    const Family<cudnnConvolutionFwdAlgoPerf_t> forward_family = {
        CUDNN_CONVOLUTION_FWD_ALGO_COUNT,
        [&](auto& p, int algo, void* space, size_t size) {
            return forward(p, algo, {1, 0}, space, size);
        },
        [&](auto& p, int algo, size_t* size) {
            return cudnnGetConvolutionForwardWorkspaceSize(handle_, p.x.desc, p.filter, p.conv,
                                                           p.y->desc,
                                                           cudnnConvolutionFwdAlgo_t(algo), size);
        },
        [&](auto& p, int requested, int* returned, auto* records) {
            return cudnnGetConvolutionForwardAlgorithm_v7(handle_, p.x.desc, p.filter, p.conv,
                                                          p.y->desc, requested, returned, records);
        },
        [&](auto& p, int requested, int* returned, auto* records) {
            return cudnnFindConvolutionForwardAlgorithm(handle_, p.x.desc, p.filter, p.conv,
                                                        p.y->desc, requested, returned, records);
        },
        [](Problem& p) -> TestTensor& { return *p.y; }};
    const Family<cudnnConvolutionBwdFilterAlgoPerf_t> filter_family = {
        CUDNN_CONVOLUTION_BWD_FILTER_ALGO_COUNT,
        [&](auto& p, int algo, void* space, size_t size) {
            return filter(p, algo, {1, 0}, space, size);
        },
        [&](auto& p, int algo, size_t* size) {
            return cudnnGetConvolutionBackwardFilterWorkspaceSize(
                handle_, p.x.desc, p.y->desc, p.conv, p.filter,
                cudnnConvolutionBwdFilterAlgo_t(algo), size);
        },
        [&](auto& p, int requested, int* returned, auto* records) {
            return cudnnGetConvolutionBackwardFilterAlgorithm_v7(
                handle_, p.x.desc, p.y->desc, p.conv, p.filter, requested, returned, records);
        },
        [&](auto& p, int requested, int* returned, auto* records) {
            return cudnnFindConvolutionBackwardFilterAlgorithm(
                handle_, p.x.desc, p.y->desc, p.conv, p.filter, requested, returned, records);
        },
        [](Problem& p) -> TestTensor& { return p.w; }};
    const Family<cudnnConvolutionBwdDataAlgoPerf_t> data_family = {
        CUDNN_CONVOLUTION_BWD_DATA_ALGO_COUNT,
        [&](auto& p, int algo, void* space, size_t size) {
            return data(p, algo, {1, 0}, space, size);
        },
        [&](auto& p, int algo, size_t* size) {
            return cudnnGetConvolutionBackwardDataWorkspaceSize(
                handle_, p.filter, p.y->desc, p.conv, p.x.desc, cudnnConvolutionBwdDataAlgo_t(algo),
                size);
        },
        [&](auto& p, int requested, int* returned, auto* records) {
            return cudnnGetConvolutionBackwardDataAlgorithm_v7(
                handle_, p.filter, p.y->desc, p.conv, p.x.desc, requested, returned, records);
        },
        [&](auto& p, int requested, int* returned, auto* records) {
            return cudnnFindConvolutionBackwardDataAlgorithm(
                handle_, p.filter, p.y->desc, p.conv, p.x.desc, requested, returned, records);
        },
        [](Problem& p) -> TestTensor& { return p.x; }};
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
        check_family(forward_family, p, c.forward);
        check_family(filter_family, p, c.filter);
        check_family(data_family, p, c.data);
    }
}

TEST_F(CudnnConvolutionTest, Refusals) {
    Problem p({{2, 3, 6, 7}, {4, 3, 3, 3}, {1, 1}});
    const auto refused = [&](const char* what, cudnnStatus_t status) {
        SCOPED_TRACE(what);
        cudnnConvolutionFwdAlgoPerf_t record;
        int returned;
        size_t size;
        EXPECT_EQ(forward(p), status);
        EXPECT_EQ(filter(p), status);
        EXPECT_EQ(data(p), status);
        EXPECT_EQ(
            cudnnGetConvolutionForwardWorkspaceSize(handle_, p.x.desc, p.filter, p.conv, p.y->desc,
                                                    CUDNN_CONVOLUTION_FWD_ALGO_GEMM, &size),
            status);
        EXPECT_EQ(cudnnFindConvolutionForwardAlgorithm(handle_, p.x.desc, p.filter, p.conv,
                                                       p.y->desc, 1, &returned, &record),
                  status);
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
    EXPECT_DNN(forward(p));
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
