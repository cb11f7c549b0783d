#include <cstdint>
#include <iomanip>
#include <iostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "corpus.h"
#include "digits.h"
#include "features.h"

namespace speech {

namespace {

constexpr int kWarningsShown = 5;

int frames_at_model_rate(const Utterance& utterance, const FeatureOptions& features) {
    return row_count(static_cast<std::int64_t>(utterance.audio.seconds() * features.sample_rate),
                     features);
}

/// At most kWarningsShown lines of one kind, then a count of the rest.
class Warnings {
public:
    explicit Warnings(std::string rest) : _rest(std::move(rest)) {}
    ~Warnings() {
        if (_count > kWarningsShown) {
            std::cerr << "warning: " << _count - kWarningsShown << " more " << _rest << '\n';
        }
    }
    Warnings(const Warnings&) = delete;
    Warnings& operator=(const Warnings&) = delete;

    void add(const std::string& text) {
        if (++_count <= kWarningsShown) {
            std::cerr << "warning: " << text << '\n';
        }
    }

private:
    std::string _rest;
    int _count = 0;
};

void summarise(const char* name, const std::vector<Utterance>& list) {
    std::size_t digits = 0;
    double seconds = 0;
    const Utterance* longest = &list.front();
    for (const Utterance& utterance : list) {
        digits += utterance.labels.size();
        seconds += utterance.audio.seconds();
        if (utterance.audio.seconds() > longest->audio.seconds()) {
            longest = &utterance;
        }
    }
    std::cout << std::fixed << name << ": " << list.size() << " utterances, " << digits
              << " digits, " << std::setprecision(2) << seconds / 3600 << " hours; longest "
              << std::setprecision(1) << longest->audio.seconds() << " s ("
              << longest->file.filename().string() << ")\n";
}

void warn_of_short(const std::vector<Utterance>& list, const FeatureOptions& features) {
    Warnings warnings("utterances with more labels than their frames can carry");
    for (const Utterance& utterance : list) {
        const int frames = frames_at_model_rate(utterance, features);
        const int needed = frames_needed(utterance.labels);
        if (frames < needed) {
            warnings.add(utterance.file.string() + ": " + std::to_string(frames) +
                         " frames cannot carry " + std::to_string(utterance.labels.size()) +
                         " digits, which need " + std::to_string(needed));
        }
    }
}

void warn_of_overlap(const Corpus& corpus) {
    std::set<std::filesystem::path> trained;
    for (const Utterance& utterance : corpus.train) {
        trained.insert(utterance.file.lexically_normal());
    }
    Warnings warnings("test files that training hears too");
    for (const Utterance& utterance : corpus.test) {
        if (trained.count(utterance.file.lexically_normal()) != 0) {
            warnings.add(utterance.file.string() + ": is in both lists");
        }
    }
}

}  // namespace

int run_corpus(const CorpusOptions& options) {
    const Corpus corpus = read_corpus(options.corpus);
    summarise("train", corpus.train);
    summarise("test", corpus.test);
    const FeatureOptions features;
    warn_of_short(corpus.train, features);
    warn_of_short(corpus.test, features);
    warn_of_overlap(corpus);
    return 0;
}

}  // namespace speech
