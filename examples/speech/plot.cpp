#include "plot.h"

#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <string_view>

#include "digits.h"
#include "output_file.h"
#include "scoring.h"

extern char** environ;

namespace speech {

namespace {

// Neighbouring digits get distant hues; the blank is a quiet grey.
constexpr std::array<std::string_view, kClassCount> kColours = {
    "#9aa0a6", "#d81b60", "#1e88e5", "#f59f00", "#00897b", "#8e24aa",
    "#e64a19", "#3949ab", "#7cb342", "#00acc1", "#6d4c41", "#c2185b"};

constexpr std::string_view kInk = "#30343a";
constexpr std::string_view kFaint = "#d3d7dc";

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

std::string gnuplot_string(std::string_view text) {
    std::string result = "'";
    for (char c : text) {
        result += c;
        if (c == '\'') {
            result += c;
        }
    }
    return result + "'";
}

void write_data(std::ostream& out, const std::vector<EpochPoint>& epochs,
                const UtterancePicture& utterance) {
    out << "$epochs << END\n";
    for (const EpochPoint& point : epochs) {
        out << point.epoch << ' ' << point.loss << ' ' << 100 * point.digit_error_rate << '\n';
    }
    out << "END\n$posteriors << END\n";
    for (int t = 0; t < utterance.posteriors.rows; ++t) {
        out << (t + 0.5) * utterance.row_seconds;
        for (int c = 0; c < kClassCount; ++c) {
            out << ' ' << utterance.posteriors.row(t)[c];
        }
        out << '\n';
    }
    out << "END\n";
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

void write_curves(std::ostream& out, const std::vector<EpochPoint>& epochs) {
    const int last = epochs.empty() ? 1 : epochs.back().epoch;
    const bool few = epochs.size() <= 60;
    const std::string losses =
        range_of(epochs, 2, [](const EpochPoint& point) { return point.loss; });
    const std::string rates = range_of(epochs, 4, [](const EpochPoint& point) {
        return std::max(100 * point.digit_error_rate, kLeastShown);
    });
    out << "set origin 0, 0.5\nset size 1, 0.5\n"
        << "set title 'Learning to read spoken digits' font ',17' offset 0, -0.2\n"
        << "set xrange [" << (epochs.empty() ? 0 : epochs.front().epoch) - 0.5 << ":" << last + 0.5
        << "]\nset logscale y\nset logscale y2\nset yrange " << losses << "\nset y2range " << rates
        << "\nset xtics 0, " << epoch_step(last) << "\nset ytics " << kTics
        << " nomirror textcolor '" << kColours[2] << "'\nset y2tics " << kTics << " textcolor '"
        << kColours[6] << "'\n"
        << "set xlabel 'epoch'\nset ylabel 'training loss' textcolor '" << kColours[2]
        << "'\nset y2label 'digit error rate (%)' textcolor '" << kColours[6] << "'\n"
        << "set border 11\nset key top right\n";
    const char* style = few ? "with linespoints pt 7 ps 0.7 lw 2.5" : "with lines lw 2.5";
    out << "plot $epochs using 1:2 " << style << " lc rgb '" << kColours[2]
        << "' title 'training loss', \\\n     $epochs using 1:($3 > " << kLeastShown
        << " ? $3 : " << kLeastShown << ") axes x1y2 " << style << " lc rgb '" << kColours[6]
        << "' title 'digit error rate on the test set'\n"
        << "unset logscale\nunset y2tics\nunset y2label\nset ytics textcolor '" << kInk
        << "'\nset ylabel textcolor '" << kInk << "'\n";
}

void write_posteriors(std::ostream& out, const UtterancePicture& utterance) {
    const FrameMatrix& posteriors = utterance.posteriors;
    const std::vector<Spike> spikes = greedy_spikes(posteriors);
    std::vector<int> recognised;
    for (const Spike& spike : spikes) {
        recognised.push_back(spike.label);
    }
    const bool right = recognised == utterance.reference;
    const std::string said = "said: " + to_transcript(utterance.reference);
    const std::string read =
        "read: " + (spikes.empty() ? std::string("nothing") : to_transcript(recognised));
    out << "set border 3\nset origin 0, 0\nset size 1, 0.5\n"
        << "set title 'What the network hears in ' . " << gnuplot_string(utterance.name)
        << " font ',15' noenhanced offset 0, 1.1\n"
        << "set label " << gnuplot_string(said) << " at graph 0, graph 1.065 left font ',12'\n"
        << "set label " << gnuplot_string(read + (right ? "  (right)" : "  (wrong)"))
        << " at graph 1, graph 1.065 right font ',12' textcolor '"
        << (right ? kColours[4] : kColours[1]) << "'\n";

    out << "set label 'dashed: blank' at graph 0.5, graph 1.065 center font ',12' textcolor '"
        << kColours[kBlank] << "'\n";

    for (const Spike& spike : spikes) {
        const double peak = posteriors.row(spike.frame)[spike.label];
        out << "set label '{/:Bold " << word_of_label(spike.label) << "}' at "
            << (spike.frame + 0.5) * utterance.row_seconds << ", " << peak + 0.065
            << " center font ',13' textcolor '" << kColours[spike.label] << "' front\n";
    }
    out << "set xrange [0:" << std::max(posteriors.rows, 1) * utterance.row_seconds
        << "]\nset yrange [0:1.15]\nset xtics autofreq\nset ytics 0, 0.25, 1 nomirror\n"
        << "set xlabel 'time (s)'\nset ylabel 'posterior'\n"
        << "set key off\nset style fill transparent solid 0.30 noborder\n"
        << "plot $posteriors using 1:2 with lines lw 1.5 dt 2 lc rgb '" << kColours[kBlank] << "'";
    for (int c = kBlank + 1; c < kClassCount; ++c) {
        const std::string column = std::to_string(c + 2);
        out << ", \\\n     $posteriors using 1:" << column << " with filledcurves y1=0 lc rgb '"
            << kColours[c] << "', $posteriors using 1:" << column << " with lines lw 2 lc rgb '"
            << kColours[c] << "'";
    }
    // Eleven curves at zero would leave the last one's colour on the axis.
    out << ", \\\n     0 with lines lw 2 lc rgb '" << kInk << "'\n";
}

}  // namespace

std::filesystem::path picture_script_file(std::filesystem::path png) {
    return png += ".gnuplot";
}

std::string picture_script(const std::filesystem::path& png, const std::vector<EpochPoint>& epochs,
                           const UtterancePicture& utterance) {
    std::ostringstream out;
    out << std::setprecision(6);
    write_data(out, epochs, utterance);
    out << "set terminal pngcairo size 1200, 900 font 'DejaVu Sans,11' background '#ffffff'\n"
        << "set output " << gnuplot_string(png.string()) << "\n"
        << "set border 3 lc rgb '" << kInk << "'\nset tics nomirror out scale 0.6\n"
        << "set grid xtics ytics lc rgb '" << kFaint << "' lw 1 dt 1\n"
        << "set lmargin 11\nset rmargin 11\nset tmargin 4.5\nset bmargin 3.8\n"
        << "set multiplot\n";
    write_curves(out, epochs);
    write_posteriors(out, utterance);
    out << "unset multiplot\n";
    return out.str();
}

bool draw_picture(const std::filesystem::path& png, const std::vector<EpochPoint>& epochs,
                  const UtterancePicture& utterance) {
    const std::filesystem::path script = picture_script_file(png);
    OutputFile output(script);
    output.stream() << picture_script(png, epochs, utterance);
    output.finish();

    std::string program = "gnuplot";
    std::string argument = script.string();
    if (argument.front() == '-') {
        argument = "./" + argument;
    }
    char* arguments[] = {program.data(), argument.data(), nullptr};
    pid_t child;
    const int error = posix_spawnp(&child, "gnuplot", nullptr, nullptr, arguments, environ);
    if (error != 0) {
        std::cerr << "warning: gnuplot is not there to draw " << png.string()
                  << "; its script is kept in " << script.string() << '\n';
        return false;
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::cerr << "warning: gnuplot failed to draw " << png.string()
                  << "; its script is kept in " << script.string() << '\n';
        return false;
    }
    return true;
}

}  // namespace speech
