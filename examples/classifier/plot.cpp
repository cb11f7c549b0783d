#include "classifier/plot.h"

#include <algorithm>
#include <iomanip>
#include <sstream>

#include "common/gnuplot.h"
#include "digit_images/frame.h"

namespace classifier {

namespace {

using digit_images::kFrameSide;

// The mistakes lie on a grid, each with room for its label above it.
constexpr int kAcross = 12;
constexpr int kGap = 6;
constexpr int kLabelHeight = 9;
constexpr int kCellWidth = kFrameSide + kGap;
constexpr int kCellHeight = kFrameSide + kLabelHeight;
constexpr int kWidth = kAcross * kCellWidth - kGap;
constexpr int kHeight = kMistakesShown / kAcross * kCellHeight;
constexpr int kPaper = 0;  // drawn white, and strokes dark

int left_of(int i) {
    return i % kAcross * kCellWidth;
}

int top_of(int i) {
    return i / kAcross * kCellHeight + kLabelHeight;
}

void write_mosaic(std::ostream& out, const std::vector<Mistake>& mistakes) {
    std::vector<int> pixels(kWidth * kHeight, kPaper);
    for (std::size_t i = 0; i < mistakes.size(); ++i) {
        const int left = left_of(static_cast<int>(i)), top = top_of(static_cast<int>(i));
        for (int r = 0; r < kFrameSide; ++r) {
            std::copy_n(mistakes[i].image + r * kFrameSide, kFrameSide,
                        pixels.begin() + (top + r) * kWidth + left);
        }
    }
    out << "$mosaic << END\n";
    for (int r = 0; r < kHeight; ++r) {
        for (int c = 0; c < kWidth; ++c) {
            out << pixels[r * kWidth + c] << (c + 1 == kWidth ? '\n' : ' ');
        }
    }
    out << "END\n";
}

void write_mistakes(std::ostream& out, const std::vector<Mistake>& mistakes) {
    const std::string title = mistakes.empty() ? "No mistake on the test set"
                                               : "The worst mistakes on the test set: said / read";
    out << "unset border\nunset tics\nunset grid\nunset xlabel\nunset ylabel\nunset key\n"
        << "unset colorbox\nset origin 0, 0\nset size ratio -1 1, 0.5\nset tmargin 3\nset bmargin "
           "1\n"
        << "set title " << common::gnuplot_string(title) << " font ',15'\n"
        << "set palette defined (0 '#ffffff', 255 '" << common::kInk << "')\nset cbrange [0:255]\n"
        << "set xrange [-0.5:" << kWidth - 0.5 << "]\nset yrange [" << kHeight - 0.5 << ":-0.5]\n";
    for (std::size_t i = 0; i < mistakes.size(); ++i) {
        const int left = left_of(static_cast<int>(i)), top = top_of(static_cast<int>(i));
        out << "set object rectangle from " << left - 0.5 << ", " << top - 0.5 << " to "
            << left + kFrameSide - 0.5 << ", " << top + kFrameSide - 0.5
            << " front fillstyle empty border lc rgb '" << common::kFaint << "'\n"
            << "set label '" << mistakes[i].said << " / " << mistakes[i].read << "' at "
            << left + (kFrameSide - 1) / 2.0 << ", " << top - 3.5
            << " center front font ',12' textcolor '" << common::kRed << "'\n";
    }
    out << "plot $mosaic matrix with image pixels\n";
}

}  // namespace

std::string picture_script(const std::filesystem::path& png,
                           const std::vector<common::EpochPoint>& epochs,
                           const std::vector<Mistake>& mistakes) {
    std::ostringstream out;
    out << std::setprecision(6);
    write_mosaic(out, mistakes);
    common::write_picture_head(out, png);
    common::write_curves(out, "Learning to read written digits", "error rate", epochs);
    write_mistakes(out, mistakes);
    out << "unset multiplot\n";
    return out.str();
}

}  // namespace classifier
