#include <iostream>
#include <vector>

#include "commands.h"
#include "common/compute_device.h"
#include "corpus.h"
#include "digits.h"
#include "model_file.h"
#include "recogniser.h"
#include "report.h"

namespace speech {

namespace {

constexpr int kWorstShown = 5;

std::string words_or_nothing(const std::vector<int>& labels) {
    return labels.empty() ? "nothing" : to_transcript(labels);
}

}  // namespace

int run_test(const TestOptions& options) {
    const common::ComputeDevice compute(options.device, common::ThreadContext::kWithGpu);
    common::Team team(common::Team::default_size(compute.device()));
    const Model model = load_model(options.model, compute.device(), &team);
    std::vector<Sample> samples =
        extract_all(read_list(options.corpus / "test.tsv"), model.features);
    for (Sample& sample : samples) {
        model.normaliser.apply(&sample.features);
    }
    const Scorer scorer = score(model.network.get(), samples);
    for (const UtteranceScore& worst : scorer.worst(kWorstShown)) {
        std::cout << worst.name << ": " << worst.counts.errors()
                  << " wrong\n  said: " << to_transcript(worst.reference)
                  << "\n  read: " << words_or_nothing(worst.hypothesis) << '\n';
    }
    std::cout << scorer.wrong_utterances() << " of " << scorer.utterances()
              << " utterances have an error\n"
              << format_counts(scorer.total()) << '\n';
    return 0;
}

}  // namespace speech
