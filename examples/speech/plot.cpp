#include "plot.h"

#include <algorithm>
#include <array>
#include <iomanip>
#include <sstream>
#include <string_view>

#include "common/gnuplot.h"
#include "digits.h"
#include "scoring.h"

namespace speech {

namespace {

// Neighbouring digits get distant hues; the blank is a quiet grey.
constexpr std::array<std::string_view, kClassCount> kColours = {
    "#9aa0a6", "#d81b60", "#1e88e5", "#f59f00", "#00897b", "#8e24aa",
    "#e64a19", "#3949ab", "#7cb342", "#00acc1", "#6d4c41", "#c2185b"};

void write_data(std::ostream& out, const UtterancePicture& utterance) {
    out << "$posteriors << END\n";
    for (int t = 0; t < utterance.posteriors.rows; ++t) {
        out << (t + 0.5) * utterance.row_seconds;
        for (int c = 0; c < kClassCount; ++c) {
            out << ' ' << utterance.posteriors.row(t)[c];
        }
        out << '\n';
    }
    out << "END\n";
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
        << "set title 'What the network hears in ' . " << common::gnuplot_string(utterance.name)
        << " font ',15' noenhanced offset 0, 1.1\n"
        << "set label " << common::gnuplot_string(said)
        << " at graph 0, graph 1.065 left font ',12'\n"
        << "set label " << common::gnuplot_string(read + (right ? "  (right)" : "  (wrong)"))
        << " at graph 1, graph 1.065 right font ',12' textcolor '"
        << (right ? common::kGreen : common::kRed) << "'\n";

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
    out << ", \\\n     0 with lines lw 2 lc rgb '" << common::kInk << "'\n";
}

}  // namespace

std::string picture_script(const std::filesystem::path& png,
                           const std::vector<common::EpochPoint>& epochs,
                           const UtterancePicture& utterance) {
    std::ostringstream out;
    out << std::setprecision(6);
    write_data(out, utterance);
    common::write_picture_head(out, png);
    common::write_curves(out, "Learning to read spoken digits", "digit error rate", epochs);
    write_posteriors(out, utterance);
    out << "unset multiplot\n";
    return out.str();
}

}  // namespace speech
