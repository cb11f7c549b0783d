#include "dataset.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstddef>
#include <exception>
#include <iostream>
#include <mutex>
#include <thread>

#include "digits.h"

namespace speech {

namespace {

FrameMatrix extract(const Utterance& utterance, FeatureExtractor* extractor) {
    if (row_count(utterance, extractor->options()) == 0) {
        return FrameMatrix(0, extractor->options().columns());
    }
    return extractor->extract_file(utterance.file);
}

}  // namespace

int row_count(const Utterance& utterance, const FeatureOptions& options) {
    const AudioInfo& audio = utterance.audio;
    const double samples = static_cast<double>(audio.samples) * options.sample_rate / audio.rate;
    return row_count(std::llround(samples), options);
}

std::string shortage(const Utterance& utterance, const FeatureOptions& options) {
    const int rows = row_count(utterance, options);
    const int needed = frames_needed(utterance.labels);
    if (rows >= needed) {
        return "";
    }
    return utterance.file.string() + ": " + std::to_string(rows) + " frames cannot carry " +
           std::to_string(utterance.labels.size()) + " digits, which need " +
           std::to_string(needed);
}

std::vector<Utterance> drop_short(const std::vector<Utterance>& utterances,
                                  const FeatureOptions& options, bool warn) {
    std::vector<Utterance> kept;
    for (const Utterance& utterance : utterances) {
        const std::string why = shortage(utterance, options);
        if (why.empty()) {
            kept.push_back(utterance);
        } else if (warn) {
            std::cerr << "warning: " << why << "; skipped\n";
        }
    }
    return kept;
}

std::vector<Sample> extract_all(const std::vector<Utterance>& utterances,
                                const FeatureOptions& options) {
    std::vector<Sample> samples(utterances.size());
    std::vector<std::exception_ptr> failures(utterances.size());
    std::atomic<std::size_t> next{0};
    std::mutex planning;  // FFTW makes its plans one at a time
    const auto work = [&] {
        std::unique_lock<std::mutex> lock(planning);
        FeatureExtractor extractor(options);
        lock.unlock();
        for (std::size_t i = next++; i < utterances.size(); i = next++) {
            try {
                samples[i] = {utterances[i].file.string(), utterances[i].labels,
                              extract(utterances[i], &extractor)};
            } catch (...) {
                failures[i] = std::current_exception();
            }
        }
        lock.lock();  // and unmakes them so: the extractor goes first
    };
    std::vector<std::thread> threads;
    for (unsigned i = 0; i < std::max(1u, std::thread::hardware_concurrency()); ++i) {
        threads.emplace_back(work);
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    for (const std::exception_ptr& failure : failures) {
        if (failure) {
            std::rethrow_exception(failure);
        }
    }
    return samples;
}

std::vector<const FrameMatrix*> features_of(const std::vector<Sample>& samples) {
    std::vector<const FrameMatrix*> features;
    for (const Sample& sample : samples) {
        features.push_back(&sample.features);
    }
    return features;
}

}  // namespace speech
