#include <iomanip>
#include <iostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "commands.h"
#include "corpus.h"
#include "dataset.h"
#include "features.h"

namespace speech {

namespace {

constexpr int kWarningsShown = 5;

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
        const std::string why = shortage(utterance, features);
        if (!why.empty()) {
            warnings.add(why);
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
    // So that training and testing find no fault in a file that is not named here.
    extract_all(corpus.train, features);
    extract_all(corpus.test, features);
    return 0;
}

}  // namespace speech
