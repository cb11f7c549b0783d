#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include "common/compute_device.h"
#include "digit_images/data.h"
#include "vision/finder.h"
#include "vision/trainer.h"
#include "vision/windows.h"
using namespace vision;
static double evaluate(Network* net, const digit_images::ImageSet& set) {
    BatchMaker maker(net->device());
    common::CrossEntropy obj(net->device());
    int correct = 0;
    for (int b = 0; b < set.count(); b += 256) {
        for (int i = b; i < std::min(b + 256, set.count()); ++i) {
            const Page p = page_of_image(set.image(i), set.labels[i]);
            maker.add_page(p);
            maker.add_window(p.digits[0].box, set.labels[i]);
        }
        const Batch& batch = maker.finish();
        obj.compute(net->forward(batch.pages, batch.windows, common::Pass::kInference),
                    batch.labels);
        correct += obj.correct();
    }
    return correct / double(set.count());
}
int main(int argc, char** argv) {
    const int epochs = atoi(argv[1]);
    const common::ComputeDevice c("cpu", common::ThreadContext::kAlways);
    digit_images::DataOptions d;
    const digit_images::Data data = digit_images::load_data(d);
    NetworkShape shape;
    shape.classes = 11;
    if (argc > 2)
        shape.filters = atoi(argv[2]);
    Network net(shape, vorn::CPU);
    Trainer trainer(&net, &data.train,
                    {epochs, argc > 3 ? atoi(argv[3]) : 16, argc > 4 ? atof(argv[4]) : 2e-3, 1});
    for (int e = 0; e < epochs; ++e) {
        auto t = std::chrono::steady_clock::now();
        auto c0 = clock();
        int seen = 0;
        auto s = trainer.run_epoch([&](const TrainingState& st) {
            if (getenv("QUICK") && ++seen > 40)
                return false;
            return true;
        });
        double sec = std::chrono::duration<double>(std::chrono::steady_clock::now() - t).count();
        printf("epoch %d loss %.4f acc %.4f windows %d test %.4f  %.1f s cpu %.1f\n", e + 1, s.loss,
               s.accuracy(), s.windows, evaluate(&net, data.test), sec,
               double(clock() - c0) / CLOCKS_PER_SEC);
        Finder finder(&net);
        Score score;
        Score proposals;
        for (const Page& p : make_pages(data.test, 100, 5)) {
            add_to_score(finder.find(p), p.digits, &score);
            std::vector<Detection> all;
            for (const PlacedDigit& d : p.digits)
                for (const Box& b : candidate_boxes(p))
                    if (overlap(b, d.box) >= 0.5) {
                        all.push_back({b, d.digit, 1});
                        break;
                    }
            proposals.digits += p.digits.size();
            proposals.found += all.size();
        }
        printf("   find: %d of %d = %.4f, false %d; proposed %d\n", score.found, score.digits,
               score.share(), score.false_boxes, proposals.found);
        fflush(stdout);
    }
}
