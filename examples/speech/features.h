#ifndef SPEECH_FEATURES_H_
#define SPEECH_FEATURES_H_

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <vector>

namespace speech {

/// A dense row-major matrix: frames x columns.
struct FrameMatrix {
    int rows = 0;
    int columns = 0;
    std::vector<float> values;

    FrameMatrix() = default;
    FrameMatrix(int row_count, int column_count)
        : rows(row_count),
          columns(column_count),
          values(static_cast<std::size_t>(row_count) * column_count) {}

    float* row(int r) { return values.data() + static_cast<std::size_t>(r) * columns; }
    const float* row(int r) const { return values.data() + static_cast<std::size_t>(r) * columns; }
};

/// How sound becomes frames. A model is only good for the options that it was trained with, so
/// they are stored with it.
struct FeatureOptions {
    int sample_rate = 16000;      ///< Hz; every file is brought to this rate
    int window = 400;             ///< samples in an analysis window (25 ms)
    int step = 160;               ///< samples from one window to the next (10 ms)
    float preemphasis = 0.97f;    ///< y[t] = x[t] - preemphasis * x[t - 1]
    int bands = 32;               ///< mel filters
    float low_frequency = 60;     ///< Hz, where the first filter starts
    float high_frequency = 7600;  ///< Hz, where the last filter ends
    int delta_order = 1;          ///< 0: static features only, 1: with deltas, 2: with delta-deltas
    int delta_window = 2;         ///< frames on each side that a delta looks at
    int stack = 3;                ///< analysis frames that are joined into one row
    int stride = 3;               ///< analysis frames from one row to the next
    bool subtract_mean = true;    ///< take each utterance's mean off its static features

    int channels() const { return 1 + delta_order; }
    int columns() const { return stack * channels() * bands; }
    /// Seconds from one row to the next.
    double row_seconds() const { return static_cast<double>(step) * stride / sample_rate; }
};

/// Throws Error when the options make no sense, as they may when they come from a damaged file.
void validate(const FeatureOptions& options);

/// Rows that FeatureExtractor::extract() makes of so many samples at the options' rate.
int row_count(std::int64_t samples, const FeatureOptions& options);

/// Points of the Fourier transform: the least power of two that holds a window.
int fft_size(const FeatureOptions& options);

/// The triangular mel filters: bands x (fft_size / 2 + 1). On the mel scale, 1127 ln(1 + f / 700),
/// the triangles are evenly spaced and straight-sided, and each reaches from the centre of its
/// left to that of its right neighbour, so that between the outer centres they add up to 1.
FrameMatrix mel_filters(const FeatureOptions& options);

/// Regression deltas of each column over time,
///
///     d[t] = sum(n * (c[t + n] - c[t - n]), n = 1..window) / (2 * sum(n * n, n = 1..window)),
///
/// where the first and the last frame are repeated past the ends.
FrameMatrix deltas(const FrameMatrix& frames, int window);

/// Joins frames: row r holds the frames r * stride + s - (stack - stride) / 2 for s = 0 up to
/// stack - 1, the first and last frame being repeated past the ends. ceil(rows / stride) rows.
FrameMatrix stack_frames(const FrameMatrix& frames, int stack, int stride);

/// Logarithmic mel filter banks with deltas, computed in single precision: pre-emphasis, Hamming
/// window, power spectrum, mel filters, ln(energy + 1e-8); then deltas and stacking. Stacked frame
/// s, delta channel d and band q stand in column (s * channels + d) * bands + q. The same input
/// gives the same bits. An extractor holds its work space: one per thread.
class FeatureExtractor {
public:
    explicit FeatureExtractor(const FeatureOptions& options);
    ~FeatureExtractor();
    FeatureExtractor(FeatureExtractor&&) noexcept;
    FeatureExtractor& operator=(FeatureExtractor&&) noexcept;

    const FeatureOptions& options() const;

    /// `samples` at the options' rate. A signal shorter than one window gives no rows.
    FrameMatrix extract(const std::vector<float>& samples);

    /// The features of a sound file. Throws Error when it cannot be read, is too short, or is so
    /// loud that the features are not finite.
    FrameMatrix extract_file(const std::filesystem::path& file);

private:
    struct Impl;
    std::unique_ptr<Impl> _impl;
};

/// Gathers, in double precision, what the mean and variance of each column are made of.
class FrameSums {
public:
    explicit FrameSums(int columns) : _columns(columns), _values(1 + 2 * columns) {}

    void add(const FrameMatrix& frames);

    int columns() const { return _columns; }
    double count() const { return _values[0]; }
    double sum(int column) const { return _values[1 + column]; }
    double squares(int column) const { return _values[1 + _columns + column]; }
    /// All of them, to be added up with those of other frames.
    std::vector<double>& values() { return _values; }

private:
    int _columns;
    std::vector<double> _values;
};

/// Corpus-wide mean and variance normalisation: out[t][c] = (in[t][c] - mean[c]) *
/// inverse_deviation[c]. The statistics are those of all frames of the training set, so that a
/// single utterance, even a short one, is treated as in training; they are stored with the model.
class Normaliser {
public:
    Normaliser() = default;
    Normaliser(std::vector<float> mean, std::vector<float> inverse_deviation);

    /// Of the frames in the sums. A column that does not vary is only shifted.
    static Normaliser fit(const FrameSums& sums);

    void apply(FrameMatrix* frames) const;

    int columns() const { return static_cast<int>(_mean.size()); }
    const std::vector<float>& mean() const { return _mean; }
    const std::vector<float>& inverse_deviation() const { return _inverse_deviation; }

private:
    std::vector<float> _mean;
    std::vector<float> _inverse_deviation;
};

}  // namespace speech

#endif  // SPEECH_FEATURES_H_
