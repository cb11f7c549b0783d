#include "features.h"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <utility>

#include "audio.h"
#include "common/error.h"

namespace speech {

namespace {

// About the energy that the rounding to 16 bits leaves in one band of a silent recording.
constexpr float kEnergyFloor = 1e-8f;

double mel(double frequency) {
    return 1127.0 * std::log1p(frequency / 700.0);
}

int analysis_frames(std::int64_t samples, const FeatureOptions& options) {
    if (samples < options.window) {
        return 0;
    }
    return static_cast<int>(1 + (samples - options.window) / options.step);
}

void subtract_column_means(FrameMatrix* frames) {
    std::vector<double> sum(frames->columns, 0.0);
    for (int t = 0; t < frames->rows; ++t) {
        const float* in = frames->row(t);
        for (int c = 0; c < frames->columns; ++c) {
            sum[c] += in[c];
        }
    }
    for (int t = 0; t < frames->rows; ++t) {
        float* out = frames->row(t);
        for (int c = 0; c < frames->columns; ++c) {
            out[c] -= static_cast<float>(sum[c] / frames->rows);
        }
    }
}

}  // namespace

void validate(const FeatureOptions& o) {
    const auto require = [](bool good, const char* what) {
        if (!good) {
            throw common::Error(std::string("feature options: ") + what);
        }
    };
    require(o.sample_rate >= 1000 && o.sample_rate <= 192000,
            "the sample rate must be 1000 to 192000");
    require(o.window >= 16 && o.window <= 1 << 16, "the window must be 16 to 65536 samples");
    require(o.step >= 1 && o.step <= 1 << 16, "the step must be 1 to 65536 samples");
    require(o.preemphasis >= 0 && o.preemphasis <= 1, "the pre-emphasis must be 0 to 1");
    require(o.bands >= 1 && o.bands <= 256, "there must be 1 to 256 bands");
    require(o.low_frequency >= 0 && o.low_frequency < o.high_frequency &&
                o.high_frequency <= 0.5f * static_cast<float>(o.sample_rate),
            "the bands must lie between 0 and half the sample rate");
    require(o.delta_order >= 0 && o.delta_order <= 2, "the delta order must be 0, 1 or 2");
    require(o.delta_window >= 1 && o.delta_window <= 32, "the delta window must be 1 to 32");
    require(o.stack >= 1 && o.stack <= 32, "1 to 32 frames can be stacked");
    require(o.stride >= 1 && o.stride <= 32, "the stride must be 1 to 32");
}

int row_count(std::int64_t samples, const FeatureOptions& options) {
    return (analysis_frames(samples, options) + options.stride - 1) / options.stride;
}

int fft_size(const FeatureOptions& options) {
    int size = 1;
    while (size < options.window) {
        size *= 2;
    }
    return size;
}

FrameMatrix mel_filters(const FeatureOptions& options) {
    const int size = fft_size(options);
    FrameMatrix filters(options.bands, size / 2 + 1);
    const double low = mel(options.low_frequency);
    const double spacing = (mel(options.high_frequency) - low) / (options.bands + 1);
    for (int bin = 0; bin < filters.columns; ++bin) {
        // Position on the mel scale in units of the spacing: band b peaks at b + 1.
        const double frequency = static_cast<double>(bin) * options.sample_rate / size;
        const double position = (mel(frequency) - low) / spacing;
        for (int band = 0; band < options.bands; ++band) {
            const double weight = 1.0 - std::abs(position - (band + 1));
            filters.row(band)[bin] = static_cast<float>(std::max(0.0, weight));
        }
    }
    return filters;
}

FrameMatrix deltas(const FrameMatrix& frames, int window) {
    FrameMatrix result(frames.rows, frames.columns);
    float squares = 0;
    for (int n = 1; n <= window; ++n) {
        squares += static_cast<float>(n * n);
    }
    for (int t = 0; t < frames.rows; ++t) {
        float* out = result.row(t);
        for (int n = 1; n <= window; ++n) {
            const float* after = frames.row(std::min(t + n, frames.rows - 1));
            const float* before = frames.row(std::max(t - n, 0));
            const float weight = static_cast<float>(n) / (2 * squares);
            for (int c = 0; c < frames.columns; ++c) {
                out[c] += weight * (after[c] - before[c]);
            }
        }
    }
    return result;
}

FrameMatrix stack_frames(const FrameMatrix& frames, int stack, int stride) {
    FrameMatrix result((frames.rows + stride - 1) / stride, frames.columns * stack);
    const int lead = (stack - stride) / 2;
    for (int r = 0; r < result.rows; ++r) {
        float* out = result.row(r);
        for (int s = 0; s < stack; ++s) {
            const int t = std::clamp(r * stride + s - lead, 0, frames.rows - 1);
            out = std::copy_n(frames.row(t), frames.columns, out);
        }
    }
    return result;
}

struct FeatureExtractor::Impl {
    struct Filter {
        int first_bin;
        std::vector<float> weights;
    };

    explicit Impl(const FeatureOptions& feature_options)
        : options(feature_options),
          size(fft_size(options)),
          input(fftwf_alloc_real(size)),
          spectrum(fftwf_alloc_complex(size / 2 + 1)),
          // An estimated plan is the same in every run; a measured one is not.
          plan(fftwf_plan_dft_r2c_1d(size, input, spectrum, FFTW_ESTIMATE)),
          window(options.window),
          power(size / 2 + 1) {
        std::fill_n(input, size, 0.0f);
        const double turn = 2 * M_PI / (options.window - 1);
        for (int i = 0; i < options.window; ++i) {
            window[i] = static_cast<float>(0.54 - 0.46 * std::cos(turn * i));
        }
        const FrameMatrix dense = mel_filters(options);
        for (int band = 0; band < dense.rows; ++band) {
            const float* begin = dense.row(band);
            const float* end = begin + dense.columns;
            const auto positive = [](float w) { return w > 0; };
            const float* first = std::find_if(begin, end, positive);
            const float* last = std::find_if_not(first, end, positive);
            filters.push_back({static_cast<int>(first - begin), {first, last}});
        }
    }

    ~Impl() {
        fftwf_destroy_plan(plan);
        fftwf_free(spectrum);
        fftwf_free(input);
    }

    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    void log_mel(const float* samples, float* out) {
        for (int i = 0; i < options.window; ++i) {
            input[i] = samples[i] * window[i];
        }
        fftwf_execute(plan);
        for (std::size_t k = 0; k < power.size(); ++k) {
            power[k] = spectrum[k][0] * spectrum[k][0] + spectrum[k][1] * spectrum[k][1];
        }
        for (const Filter& filter : filters) {
            const float* in = power.data() + filter.first_bin;
            float energy = 0;
            for (std::size_t k = 0; k < filter.weights.size(); ++k) {
                energy += filter.weights[k] * in[k];
            }
            *out++ = std::log(energy + kEnergyFloor);
        }
    }

    FeatureOptions options;
    int size;
    float* input;
    fftwf_complex* spectrum;
    fftwf_plan plan;
    std::vector<float> window;
    std::vector<float> power;
    std::vector<Filter> filters;
    std::vector<float> emphasised;
};

FeatureExtractor::FeatureExtractor(const FeatureOptions& options) {
    validate(options);
    _impl = std::make_unique<Impl>(options);
}

FeatureExtractor::~FeatureExtractor() = default;
FeatureExtractor::FeatureExtractor(FeatureExtractor&&) noexcept = default;
FeatureExtractor& FeatureExtractor::operator=(FeatureExtractor&&) noexcept = default;

const FeatureOptions& FeatureExtractor::options() const {
    return _impl->options;
}

FrameMatrix FeatureExtractor::extract(const std::vector<float>& samples) {
    const FeatureOptions& options = _impl->options;
    FrameMatrix statics(analysis_frames(static_cast<std::int64_t>(samples.size()), options),
                        options.bands);
    if (statics.rows == 0) {
        return FrameMatrix(0, options.columns());
    }
    std::vector<float>& signal = _impl->emphasised;
    signal.resize(samples.size());
    // The first sample is taken to follow one like itself, so that no step is heard there.
    signal[0] = samples[0] - options.preemphasis * samples[0];
    for (std::size_t t = 1; t < samples.size(); ++t) {
        signal[t] = samples[t] - options.preemphasis * samples[t - 1];
    }
    for (int t = 0; t < statics.rows; ++t) {
        _impl->log_mel(signal.data() + static_cast<std::size_t>(t) * options.step, statics.row(t));
    }
    if (options.subtract_mean) {
        subtract_column_means(&statics);
    }

    FrameMatrix frames(statics.rows, options.channels() * options.bands);
    FrameMatrix channel = std::move(statics);
    for (int d = 0; d < options.channels(); ++d) {
        if (d > 0) {
            channel = deltas(channel, options.delta_window);
        }
        for (int t = 0; t < frames.rows; ++t) {
            std::copy_n(channel.row(t), options.bands, frames.row(t) + d * options.bands);
        }
    }
    return stack_frames(frames, options.stack, options.stride);
}

FrameMatrix FeatureExtractor::extract_file(const std::filesystem::path& file) {
    FrameMatrix frames = extract(read_audio(file, _impl->options.sample_rate));
    if (frames.rows == 0) {
        throw common::Error(file.string() + ": is shorter than one analysis window");
    }
    if (!std::all_of(frames.values.begin(), frames.values.end(),
                     [](float x) { return std::isfinite(x); })) {
        throw common::Error(file.string() + ": is too loud: its features are not finite");
    }
    return frames;
}

Normaliser::Normaliser(std::vector<float> mean, std::vector<float> inverse_deviation)
    : _mean(std::move(mean)), _inverse_deviation(std::move(inverse_deviation)) {
    if (_mean.size() != _inverse_deviation.size()) {
        throw common::Error("normaliser: the mean and the deviation differ in length");
    }
}

void FrameSums::add(const FrameMatrix& frames) {
    _values[0] += frames.rows;
    for (int t = 0; t < frames.rows; ++t) {
        const float* row = frames.row(t);
        for (int c = 0; c < _columns; ++c) {
            const double value = row[c];
            _values[1 + c] += value;
            _values[1 + _columns + c] += value * value;
        }
    }
}

Normaliser Normaliser::fit(const FrameSums& sums) {
    if (sums.count() == 0) {
        throw common::Error("normaliser: there are no frames to learn from");
    }
    Normaliser result;
    for (int c = 0; c < sums.columns(); ++c) {
        const double mean = sums.sum(c) / sums.count();
        const double variance = sums.squares(c) / sums.count() - mean * mean;
        const double deviation = std::sqrt(std::max(0.0, variance));
        result._mean.push_back(static_cast<float>(mean));
        result._inverse_deviation.push_back(deviation > 1e-6 ? static_cast<float>(1 / deviation)
                                                             : 1.0f);
    }
    return result;
}

void Normaliser::apply(FrameMatrix* frames) const {
    if (frames->columns != columns()) {
        throw common::Error("normaliser: made for " + std::to_string(columns()) + " columns, not " +
                            std::to_string(frames->columns));
    }
    for (int t = 0; t < frames->rows; ++t) {
        float* row = frames->row(t);
        for (int c = 0; c < frames->columns; ++c) {
            row[c] = (row[c] - _mean[c]) * _inverse_deviation[c];
        }
    }
}

}  // namespace speech
