#include <cuda_runtime.h>

#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "floor.h"
#include "vorn/context/context.h"
#include "vorn/rules/ctc_math.h"
#include "vorn/tensor/tensor.h"

namespace vorn {
namespace bench {
namespace {

template <typename T>
Tensor<T> on_gpu(std::vector<T> values, const Dim& size) {
    return Tensor<T>(Tensor<T>(values.data(), size, CPU), GPU);
}

/// Both tables and the occupancy of a batch of equally long utterances, on the GPU. The tables
/// exist on no other device: the row's label tells whether it is a real one or the simulated one,
/// whose times say nothing about a GPU's.
void ctc_forward_backward(benchmark::State& state) {
    if (!has_gpu()) {
        state.SkipWithError("no GPU on this machine");
        return;
    }
    cudaDeviceProp device;
    cudaGetDeviceProperties(&device, 0);
    state.SetLabel(std::string("device: ") + device.name);

    const int frames = static_cast<int>(state.range(0)),
              utterances = static_cast<int>(state.range(1));
    const int label_count = static_cast<int>(state.range(2)),
              classes = static_cast<int>(state.range(3));
    const int width = 2 * label_count + 1, rows = frames * utterances;
    std::mt19937 engine(1);
    std::uniform_real_distribution<float> draw(-1, 1);
    std::vector<float> posteriors(static_cast<size_t>(rows) * classes);
    for (float& value : posteriors) {
        value = draw(engine) - std::log(1.18f * classes);
    }
    std::vector<int> extended(utterances * width, 0);
    for (int k = 1; k < utterances * width; ++k) {
        extended[k] = k % width % 2 != 0 ? 1 + static_cast<int>(engine() % (classes - 1)) : 0;
    }
    const Tensor<float> prob = on_gpu(posteriors, Dim(rows, classes));
    const Tensor<int> labels = on_gpu(extended, Dim(utterances, width));
    const Tensor<int> frame_nums = on_gpu(std::vector<int>(utterances, frames), Dim(utterances));
    const Tensor<int> lengths = on_gpu(std::vector<int>(utterances, width), Dim(utterances));
    Tensor<float> alpha(Dim(rows, width), GPU), beta(Dim(rows, width), GPU);
    Tensor<float> occupancy(Dim(rows, classes), GPU), total(Dim(utterances), GPU);
    std::vector<float> last(width), totals(utterances);

    for (auto _ : state) {
        alpha.set_element(CTC_LOG_ZERO);
        beta.set_element(CTC_LOG_ZERO);
        for (int t = 0; t < frames; ++t) {
            alpha.compute_ctc_alpha(prob, t, labels, frame_nums, lengths);
        }
        for (int t = frames - 1; t >= 0; --t) {
            beta.compute_ctc_beta(prob, t, labels, frame_nums, lengths);
        }
        for (int n = 0; n < utterances; ++n) {
            alpha.copy_to(last.data(), ((frames - 1) * utterances + n) * width, width);
            totals[n] = func::ctc_log_add(last[width - 1], last[width - 2]);
        }
        total.copy_from(totals.data(), 0, utterances);
        occupancy.compute_ctc_err(alpha, beta, labels, frame_nums, total);
        cudaStreamSynchronize(default_stream);
    }
}

BENCHMARK(ctc_forward_backward)
    ->ArgNames({"frames", "utterances", "labels", "classes"})
    ->Args({150, 16, 20, 5000})
    ->Args({500, 32, 60, 100})
    ->Unit(benchmark::kMicrosecond)
    ->UseRealTime();

struct Rows {
    Tensor<float> in;
    Tensor<int> id;

    explicit Rows(const benchmark::State& state)
        : in(Dim(state.range(0), state.range(1))), id(Dim(state.range(0))) {
        std::mt19937 engine(1);
        for (index_t k = 0; k < in.count(); ++k) {
            in.get_ptr()[k] = static_cast<float>(engine());
        }
    }
    double bytes() const { return 1.0 * in.count() * sizeof(float); }
};

/// The arg-max of each row on the host.
void find_row_max_id(benchmark::State& state) {
    Rows rows(state);
    against_copy(state, rows.bytes(), [&] { rows.in.find_row_max_id(rows.id); });
}

void find_row_max_id_scalar_loop(benchmark::State& state) {
    Rows rows(state);
    against_copy(state, rows.bytes(), [&] {
        for (index_t r = 0; r < rows.in.row(); ++r) {
            const float* row = rows.in.get_row(r);
            float max = std::numeric_limits<float>::lowest();
            int best = -1;
            for (index_t j = 0; j < rows.in.col(); ++j) {
                if (row[j] > max) {
                    max = row[j];
                    best = static_cast<int>(j);
                }
            }
            rows.id.get_ptr()[r] = best;
        }
    });
}

void sizes(benchmark::internal::Benchmark* row) {
    row->ArgNames({"rows", "columns"})->Args({4096, 1024})->Args({100000, 64});
    row->Unit(benchmark::kMicrosecond);
}

BENCHMARK(find_row_max_id)->Apply(sizes);
BENCHMARK(find_row_max_id_scalar_loop)->Apply(sizes);

}  // namespace
}  // namespace bench
}  // namespace vorn
