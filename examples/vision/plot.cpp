#include "vision/plot.h"

#include <iomanip>
#include <sstream>
#include <string_view>

#include "common/gnuplot.h"

namespace vision {

namespace {

void write_box(std::ostream& out, const Box& box, std::string_view colour,
               const std::string& dashes) {
    out << "set object rectangle from " << box.left - 1.5 << ", " << box.top - 1.5 << " to "
        << box.right + 0.5 << ", " << box.bottom + 0.5 << " front fillstyle empty border lc rgb '"
        << colour << "' lw 2" << dashes << '\n';
}

}  // namespace

std::string page_script(const std::filesystem::path& png, const Page& page,
                        const std::vector<Detection>& detections) {
    std::ostringstream out;
    out << std::setprecision(3) << "$page << END\n";
    for (int r = 0; r < page.rows; ++r) {
        for (int c = 0; c < page.columns; ++c) {
            out << page.row(r)[c] << (c + 1 == page.columns ? '\n' : ' ');
        }
    }
    out << "END\n" << std::setprecision(6);
    common::write_picture_head(out, png);
    out << "unset border\nunset tics\nunset grid\nunset key\nunset colorbox\n"
        << "set lmargin 1\nset rmargin 1\nset tmargin 1\nset bmargin 1\nset size ratio -1\n"
        << "set palette defined (0 '#ffffff', 1 '" << common::kInk << "')\nset cbrange [0:1]\n"
        << "set xrange [-2.5:" << page.columns + 1.5 << "]\nset yrange [" << page.rows + 1.5
        << ":-9.5]\n";

    const bool known = !page.digits.empty();
    const std::vector<int> matches = match(detections, page.digits);
    std::vector<char> found(page.digits.size());
    for (std::size_t i = 0; i < detections.size(); ++i) {
        const bool good = matches[i] >= 0;
        if (good) {
            found[matches[i]] = 1;
        }
        const std::string_view colour = !known ? common::kBlue
                                        : good ? common::kGreen
                                               : common::kRed;
        const Box& box = detections[i].box;
        write_box(out, box, colour, "");
        out << "set label '" << detections[i].digit << "' at " << (box.left + box.right - 1) / 2.0
            << ", " << box.top - 5.5 << " center front font ',14' textcolor '" << colour << "'\n";
    }
    for (std::size_t i = 0; i < page.digits.size(); ++i) {
        if (!found[i]) {
            write_box(out, page.digits[i].box.widened(1), common::kOrange, " dt 2");
        }
    }
    out << "plot $page matrix with image pixels\nunset multiplot\n";
    return out.str();
}

}  // namespace vision
