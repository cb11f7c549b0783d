#ifndef SPEECH_REFERENCE_H_
#define SPEECH_REFERENCE_H_

#include <algorithm>
#include <map>
#include <string>
#include <valarray>
#include <vector>

#include "speech/conv_layer.h"
#include "speech/features.h"

/// The networks and their CTC loss in double, straight from their definitions, one utterance at a
/// time and with a sum over every path.
namespace reference {

using Row = std::valarray<double>;
using Frames = std::vector<Row>;
using Values = std::map<std::string, Row>;  // of the parameters, by name

inline Row to_row(const float* values, std::size_t count) {
    Row row(count);
    std::copy_n(values, count, std::begin(row));
    return row;
}

inline Frames frames_of(const speech::FrameMatrix& matrix) {
    Frames frames;
    for (int t = 0; t < matrix.rows; ++t) {
        frames.push_back(to_row(matrix.row(t), matrix.columns));
    }
    return frames;
}

/// `block` of the blocks of `width` values that `row` is made of.
inline Row part(const Row& row, std::size_t block, std::size_t width) {
    return row[std::slice(block * width, width, 1)];
}

/// in * weight, `weight` being in.size() x width.
inline Row product(const Row& in, const Row& weight, std::size_t width) {
    Row out(0.0, width);
    for (std::size_t i = 0; i < in.size(); ++i) {
        out += in[i] * part(weight, i, width);
    }
    return out;
}

inline Frames lstm(const Frames& in, const Values& p, const std::string& name) {
    const auto value = [&](const char* its) { return p.at(name + "." + its); };
    const auto gate = [](const Row& x) { return Row(1.0 / (1.0 + std::exp(-x))); };
    const std::size_t cells = value("peep_i").size();
    Row c(0.0, cells), m(0.0, cells);
    Frames out;
    for (const Row& x : in) {
        const Row sums = product(x, value("input_weight"), 4 * cells) +
                         product(m, value("recurrent_weight"), 4 * cells) + value("bias");
        const Row i = gate(part(sums, 0, cells) + value("peep_i") * c);
        const Row f = gate(part(sums, 1, cells) + value("peep_f") * c);
        c = f * c + i * std::tanh(part(sums, 3, cells));
        m = gate(part(sums, 2, cells) + value("peep_o") * c) * std::tanh(c);
        out.push_back(m);
    }
    return out;
}

inline Frames blstm(Frames frames, const Values& p, const std::string& name) {
    const Frames there = lstm(frames, p, name + ".forward");
    std::reverse(frames.begin(), frames.end());
    Frames back = lstm(frames, p, name + ".backward");
    std::reverse(back.begin(), back.end());
    for (std::size_t t = 0; t < back.size(); ++t) {
        const std::size_t cells = back[t].size();
        frames[t].resize(2 * cells);
        frames[t][std::slice(0, cells, 1)] = there[t];
        frames[t][std::slice(cells, cells, 1)] = back[t];
    }
    return frames;
}

/// Filter by filter the maxima over `pooling` positions, which stay within a group.
inline Row convolved(const Row& in, const speech::ConvShape& s, const Values& p) {
    const std::size_t bands = s.bands, size = s.filter_size;
    const std::size_t stacked = in.size() / bands;  // times channels
    const int positions = (s.bands - s.filter_size + 1) / s.groups;
    std::vector<double> out;
    for (int filter = 0; filter < s.filters; ++filter) {
        for (int group = 0; group < s.groups; ++group) {
            const Row weight = p.at("conv.weight")[std::slice(
                group * size * stacked * s.filters + filter, size * stacked, s.filters)];
            const double bias = p.at("conv.bias")[group * s.filters + filter];
            for (int start = 0; start + s.pooling <= positions; start += s.pooling) {
                double most = 0;
                for (int c = group * positions + start, i = 0; i < s.pooling; ++c, ++i) {
                    const Row patch = in[std::gslice(c, {size, stacked}, {1, bands})];
                    most = std::max(most, bias + (patch * weight).sum());
                }
                out.push_back(most);
            }
        }
    }
    return Row(out.data(), out.size());
}

/// Mean and variance of each column over all frames of all utterances.
struct Moments {
    Row mean, variance;

    explicit Moments(const std::vector<Frames>& batch) {
        Frames all;
        for (const Frames& frames : batch) {
            all.insert(all.end(), frames.begin(), frames.end());
        }
        const auto count = static_cast<double>(all.size());
        mean = variance = Row(0.0, all.front().size());
        for (const Row& row : all) {
            mean += row / count;
        }
        for (const Row& row : all) {
            variance += (row - mean) * (row - mean) / count;
        }
    }

    Row normalized(const Row& row, const Values& p) const {
        return p.at("norm.scale") * (row - mean) / std::sqrt(variance + 1e-4) + p.at("norm.bias");
    }
};

/// The convolution and its normalization.
inline void convolve(const speech::ConvShape& shape, const Values& p, std::vector<Frames>* batch) {
    const auto each_row = [batch](auto change) {
        for (Frames& frames : *batch) {
            std::transform(frames.begin(), frames.end(), frames.begin(), change);
        }
    };
    each_row([&](const Row& row) { return convolved(row, shape, p); });
    const Moments moments(*batch);
    each_row([&](const Row& row) { return moments.normalized(row, p); });
}

inline Frames posteriors(Frames frames, const Values& p, int layers, bool both_directions) {
    for (int l = 1; l <= layers; ++l) {
        const std::string number = std::to_string(l);
        frames =
            both_directions ? blstm(frames, p, "blstm" + number) : lstm(frames, p, "lstm" + number);
    }
    const Row& bias = p.at("linear.bias");
    for (Row& frame : frames) {
        frame = std::exp(product(frame, p.at("linear.weight"), bias.size()) + bias);
        frame /= frame.sum();
    }
    return frames;
}

/// The probability of all paths through the frames from `frame` on, after one that has `read` so
/// many labels and stands on class `last`, that become `labels` once runs are joined and class 0
/// is dropped.
inline double path_sum(const Frames& posteriors, const std::vector<int>& labels,
                       std::size_t frame = 0, std::size_t read = 0, int last = 0) {
    if (frame == posteriors.size()) {
        return read == labels.size() ? 1 : 0;
    }
    double sum = 0;
    for (int k = 0; k < static_cast<int>(posteriors[frame].size()); ++k) {
        const bool reads = k != 0 && k != last;
        if (!reads || (read < labels.size() && labels[read] == k)) {
            sum += posteriors[frame][k] * path_sum(posteriors, labels, frame + 1, read + reads, k);
        }
    }
    return sum;
}

}  // namespace reference

#endif  // SPEECH_REFERENCE_H_
