#include "training_set.h"

#include <algorithm>
#include <cstddef>
#include <numeric>
#include <string>

#include "common/error.h"

namespace speech {

namespace {

std::int64_t bytes_of(const FrameMatrix& frames) {
    return static_cast<std::int64_t>(sizeof(float) * frames.values.size());
}

void check_length(const Sample& sample, int expected) {
    if (sample.features.rows != expected) {
        throw common::Error(sample.name + ": has " + std::to_string(sample.features.rows) +
                            " frames, and had " + std::to_string(expected) +
                            " when the list was read");
    }
}

/// Files that are read at once.
constexpr std::size_t kReadAtOnce = 256;

}  // namespace

TrainingSet::TrainingSet(const std::vector<Sample>& samples) {
    for (const Sample& sample : samples) {
        _utterances.push_back({sample.name, sample.labels, {}});
        _lengths.push_back(sample.features.rows);
        _features.push_back(sample.features);
    }
}

TrainingSet::TrainingSet(const std::vector<Utterance>& utterances, const FeatureOptions& options,
                         std::int64_t most_bytes)
    : _utterances(utterances),
      _features(utterances.size()),
      _options(options),
      _extractor(std::make_unique<FeatureExtractor>(options)),
      _bytes_left(most_bytes) {
    for (const Utterance& utterance : utterances) {
        _lengths.push_back(row_count(utterance, options));
    }
}

std::int64_t TrainingSet::frames() const {
    return std::accumulate(_lengths.begin(), _lengths.end(), std::int64_t{0});
}

Normaliser TrainingSet::fit_normaliser(common::Ranks* ranks) {
    Indices all(size());
    std::iota(all.begin(), all.end(), 0);
    const Indices share = share_of(all, _lengths, ranks->rank(), ranks->size());
    FrameSums sums(_options.columns());
    ranks->together([&] {
        for (std::size_t begin = 0; begin < share.size(); begin += kReadAtOnce) {
            const std::size_t end = std::min(begin + kReadAtOnce, share.size());
            std::vector<Utterance> utterances;
            for (std::size_t i = begin; i < end; ++i) {
                utterances.push_back(_utterances[share[i]]);
            }
            const std::vector<Sample> samples = extract_all(utterances, _options);
            for (std::size_t i = begin; i < end; ++i) {
                check_length(samples[i - begin], _lengths[share[i]]);
                sums.add(samples[i - begin].features);
                keep(share[i], samples[i - begin].features);
            }
        }
    });
    ranks->sum(&sums.values());
    _normaliser = Normaliser::fit(sums);
    for (FrameMatrix& features : _features) {
        if (features.rows > 0) {
            _normaliser.apply(&features);
        }
    }
    return _normaliser;
}

Sample TrainingSet::read(int utterance) {
    Sample sample = {_utterances[utterance].file.string(), _utterances[utterance].labels,
                     _features[utterance]};
    if (sample.features.rows == 0) {
        sample.features = _extractor->extract_file(sample.name);
        check_length(sample, _lengths[utterance]);
        _normaliser.apply(&sample.features);
        keep(utterance, sample.features);
    }
    return sample;
}

void TrainingSet::keep(int utterance, const FrameMatrix& features) {
    if (bytes_of(features) <= _bytes_left) {
        _bytes_left -= bytes_of(features);
        _features[utterance] = features;
    }
}

}  // namespace speech
