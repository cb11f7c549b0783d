#include <iomanip>
#include <iostream>

#include "common/error.h"
#include "common/format.h"
#include "common/gnuplot.h"
#include "common/output_file.h"
#include "vision/commands.h"
#include "vision/finder.h"
#include "vision/model_file.h"
#include "vision/page_file.h"
#include "vision/plot.h"

namespace vision {

namespace {

/// Before the search and not after it.
void check_picture(const FindOptions& options) {
    if (options.picture.empty()) {
        return;
    }
    for (const auto& file : {options.picture, common::picture_script_file(options.picture)}) {
        const common::OutputFile probe(file);
        for (const auto& input : {options.page, options.model}) {
            std::error_code ignored;
            if (std::filesystem::equivalent(file, input, ignored)) {
                throw common::Error(file.string() + ": is read, and cannot be the picture");
            }
        }
    }
}

void draw(const FindOptions& options, const Page& page, const std::vector<Detection>& detections) {
    if (!options.picture.empty() &&
        common::draw_picture(options.picture, page_script(options.picture, page, detections))) {
        std::cout << "picture: " << options.picture.string() << '\n';
    }
}

void find_on_file(const FindOptions& options, Finder* finder) {
    const Page page = read_page(options.page);
    const std::vector<Detection> detections = finder->find(page);
    std::cout << "digit   left    top  width height  posterior\n" << std::fixed;
    for (const Detection& found : detections) {
        std::cout << std::setw(5) << found.digit;
        for (const int number :
             {found.box.left, found.box.top, found.box.width(), found.box.height()}) {
            std::cout << std::setw(7) << number;
        }
        std::cout << std::setw(11) << std::setprecision(4) << found.posterior << '\n';
    }
    draw(options, page, detections);
}

void find_on_made_pages(const FindOptions& options, Finder* finder) {
    const digit_images::ImageSet images = digit_images::load_test_data(options.data);
    Score score;
    Page first;
    std::vector<Detection> on_first;
    PageSeries pages(&images, options.data.seed);
    while (score.pages < options.pages) {
        const Page page = pages.next();
        const std::vector<Detection> detections = finder->find(page);
        if (score.pages == 0) {
            first = page;
            on_first = detections;
        }
        add_to_score(detections, page.digits, &score);
    }
    draw(options, first, on_first);
    std::cout << score.pages << " pages: " << score.found << " of " << score.digits
              << " digits found and read, " << common::format_percent(score.share()) << "; "
              << score.false_boxes << " false boxes\n";
}

}  // namespace

int run_find(const FindOptions& options) {
    const common::ComputeDevice compute = open_device(options.device);
    check_picture(options);
    Network network = load_model(options.model, compute.device());
    Finder finder(&network);
    options.page.empty() ? find_on_made_pages(options, &finder) : find_on_file(options, &finder);
    return 0;
}

}  // namespace vision
