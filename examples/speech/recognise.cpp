#include <iostream>
#include <vector>

#include "commands.h"
#include "common/compute_device.h"
#include "digits.h"
#include "model_file.h"
#include "recogniser.h"

namespace speech {

int run_recognise(const RecogniseOptions& options) {
    const common::ComputeDevice compute(options.device, common::ThreadContext::kWithGpu);
    common::Team team(common::Team::default_size(compute.device()));
    const Model model = load_model(options.model, compute.device(), &team);
    FeatureExtractor extractor(model.features);
    for (const std::filesystem::path& file : options.files) {
        Sample sample;
        sample.features = extractor.extract_file(file);
        model.normaliser.apply(&sample.features);
        const std::vector<Sample> samples = {sample};
        const std::vector<int> labels = recognise(model.network.get(), samples).front();
        std::cout << file.string() << '\t' << to_transcript(labels) << std::endl;
    }
    return 0;
}

}  // namespace speech
