#include "common/curves.h"

#include <algorithm>
#include <ostream>
#include <sstream>
#include <string_view>

#include "common/gnuplot.h"

namespace common {

namespace {

// Both curves fall over two decades, and most of an error rate's life is below 5 %: a logarithmic
// axis shows all of it. No error at all stands at its foot.
constexpr double kLeastShown = 0.05;
constexpr std::string_view kTics =
    "(0.01, 0.02, 0.05, 0.1, 0.2, 0.5, 1, 2, 5, 10, 20, 50, 100, 200, 500)";

/// The least of 1, 2, 5, 10, 20, 50, ... that needs at most twelve steps.
int epoch_step(int epochs) {
    int step = 1;
    for (int i = 0; epochs > 12 * step; ++i) {
        step = i % 3 == 1 ? step / 2 * 5 : 2 * step;
    }
    return step;
}

/// The range of an axis: gnuplot's own choice, but where all values are alike, of which it would
/// warn. These lie at the middle, or lower where there is more room above.
template <typename Value>
std::string range_of(const std::vector<EpochPoint>& epochs, int room, Value value) {
    const bool vary = std::any_of(epochs.begin(), epochs.end(), [&](const EpochPoint& point) {
        return value(point) != value(epochs.front());
    });
    if (vary || epochs.empty()) {
        return "[*:*]";
    }
    std::ostringstream range;
    range << '[' << value(epochs.front()) / 2 << ':' << value(epochs.front()) * room << ']';
    return range.str();
}

}  // namespace

void write_curves(std::ostream& out, const std::string& title, const std::string& rate,
                  const std::vector<EpochPoint>& epochs) {
    out << "$epochs << END\n";
    for (const EpochPoint& point : epochs) {
        out << point.epoch << ' ' << point.loss << ' ' << 100 * point.error_rate << '\n';
    }
    out << "END\n";
    const int last = epochs.empty() ? 1 : epochs.back().epoch;
    const bool few = epochs.size() <= 60;
    const std::string losses =
        range_of(epochs, 2, [](const EpochPoint& point) { return point.loss; });
    const std::string rates = range_of(epochs, 4, [](const EpochPoint& point) {
        return std::max(100 * point.error_rate, kLeastShown);
    });
    out << "set origin 0, 0.5\nset size 1, 0.5\n"
        << "set title " << gnuplot_string(title) << " font ',17' offset 0, -0.2\n"
        << "set xrange [" << (epochs.empty() ? 0 : epochs.front().epoch) - 0.5 << ":" << last + 0.5
        << "]\nset logscale y\nset logscale y2\nset yrange " << losses << "\nset y2range " << rates
        << "\nset xtics 0, " << epoch_step(last) << "\nset ytics " << kTics
        << " nomirror textcolor '" << kBlue << "'\nset y2tics " << kTics << " textcolor '"
        << kOrange << "'\n"
        << "set xlabel 'epoch'\nset ylabel 'training loss' textcolor '" << kBlue
        << "'\nset y2label " << gnuplot_string(rate + " (%)") << " textcolor '" << kOrange << "'\n"
        << "set border 11\nset key top right\n";
    const char* style = few ? "with linespoints pt 7 ps 0.7 lw 2.5" : "with lines lw 2.5";
    out << "plot $epochs using 1:2 " << style << " lc rgb '" << kBlue
        << "' title 'training loss', \\\n     $epochs using 1:($3 > " << kLeastShown
        << " ? $3 : " << kLeastShown << ") axes x1y2 " << style << " lc rgb '" << kOrange
        << "' title " << gnuplot_string(rate + " on the test set") << "\n"
        << "unset logscale\nunset y2tics\nunset y2label\nset ytics textcolor '" << kInk
        << "'\nset ylabel textcolor '" << kInk << "'\n";
}

}  // namespace common
