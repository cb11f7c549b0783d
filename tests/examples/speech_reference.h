#ifndef SPEECH_REFERENCE_H_
#define SPEECH_REFERENCE_H_

#include <algorithm>
#include <cmath>
#include <map>
#include <string>
#include <vector>

#include "speech/conv_layer.h"

/// The networks and their CTC loss in double, straight from their definitions, one utterance at a
/// time and with a sum over every path.
namespace reference {

using Row = std::vector<double>;
using Frames = std::vector<Row>;
using Values = std::map<std::string, Row>;  // of the parameters, by name

/// in * weight, `weight` being in.size() x width.
inline Row product(const Row& in, const Row& weight, int width) {
    Row out(width, 0.0);
    for (std::size_t i = 0; i < in.size(); ++i) {
        for (int j = 0; j < width; ++j) {
            out[j] += in[i] * weight[i * width + j];
        }
    }
    return out;
}

inline Frames lstm(const Frames& in, const Values& p, const std::string& name) {
    const auto value = [&](const char* part) { return p.at(name + "." + part); };
    const auto gate = [](double x) { return 1 / (1 + std::exp(-x)); };
    const Row peep_i = value("peep_i"), peep_f = value("peep_f"), peep_o = value("peep_o");
    const Row bias = value("bias");
    const int cells = static_cast<int>(peep_i.size());
    Row c(cells, 0.0), m(cells, 0.0);
    Frames out;
    for (const Row& x : in) {
        const Row from_in = product(x, value("input_weight"), 4 * cells);
        const Row from_out = product(m, value("recurrent_weight"), 4 * cells);
        for (int j = 0; j < cells; ++j) {
            const auto sum = [&](int block) {
                const int k = block * cells + j;
                return from_in[k] + from_out[k] + bias[k];
            };
            const double i = gate(sum(0) + peep_i[j] * c[j]);
            const double f = gate(sum(1) + peep_f[j] * c[j]);
            c[j] = f * c[j] + i * std::tanh(sum(3));
            m[j] = gate(sum(2) + peep_o[j] * c[j]) * std::tanh(c[j]);
        }
        out.push_back(m);
    }
    return out;
}

/// Filter by filter the maxima over `pooling` positions, which stay within a group.
inline Row convolved(const Row& in, const speech::ConvShape& s, const Values& p) {
    const int stacked = static_cast<int>(in.size()) / s.bands;  // times channels
    const int size = (s.bands - s.filter_size + 1) / s.groups;
    Row out;
    for (int filter = 0; filter < s.filters; ++filter) {
        for (int group = 0; group < s.groups; ++group) {
            for (int start = 0; start + s.pooling <= size; start += s.pooling) {
                double most = 0;
                for (int c = group * size + start; c < group * size + start + s.pooling; ++c) {
                    double sum = p.at("conv.bias")[group * s.filters + filter];
                    for (int f = 0; f < s.filter_size; ++f) {
                        for (int t = 0; t < stacked; ++t) {
                            const int row = (group * s.filter_size + f) * stacked + t;
                            sum += in[t * s.bands + c + f] *
                                   p.at("conv.weight")[row * s.filters + filter];
                        }
                    }
                    most = std::max(most, sum);
                }
                out.push_back(most);
            }
        }
    }
    return out;
}

/// Mean and variance of each column over all frames of all utterances.
struct Moments {
    Row mean, variance;

    explicit Moments(const std::vector<Frames>& batch) {
        double count = 0;
        mean = variance = Row(batch[0][0].size(), 0.0);
        for (const Frames& frames : batch) {
            count += static_cast<double>(frames.size());
        }
        for (std::size_t c = 0; c < mean.size(); ++c) {
            each(batch, [&](const Row& row) { mean[c] += row[c] / count; });
            each(batch, [&](const Row& row) {
                variance[c] += (row[c] - mean[c]) * (row[c] - mean[c]) / count;
            });
        }
    }

    template <typename Visit>
    static void each(const std::vector<Frames>& batch, Visit visit) {
        for (const Frames& frames : batch) {
            std::for_each(frames.begin(), frames.end(), visit);
        }
    }
};

inline Row normalized(Row row, const Moments& moments, const Row& scale, const Row& bias) {
    for (std::size_t c = 0; c < row.size(); ++c) {
        const double deviation = std::sqrt(moments.variance[c] + 1e-4);
        row[c] = scale[c] * (row[c] - moments.mean[c]) / deviation + bias[c];
    }
    return row;
}

inline Frames blstm(Frames frames, const Values& p, const std::string& name) {
    Frames out = lstm(frames, p, name + ".forward");
    std::reverse(frames.begin(), frames.end());
    Frames other = lstm(frames, p, name + ".backward");
    std::reverse(other.begin(), other.end());
    for (std::size_t t = 0; t < out.size(); ++t) {
        out[t].insert(out[t].end(), other[t].begin(), other[t].end());
    }
    return out;
}

/// The convolution and its normalization.
inline void convolve(const speech::ConvShape& shape, const Values& p, std::vector<Frames>* batch) {
    for (Frames& frames : *batch) {
        for (Row& row : frames) {
            row = convolved(row, shape, p);
        }
    }
    const Moments moments(*batch);
    for (Frames& frames : *batch) {
        for (Row& row : frames) {
            row = normalized(row, moments, p.at("norm.scale"), p.at("norm.bias"));
        }
    }
}

inline Frames posteriors(Frames frames, const Values& p, int layers, bool both_directions) {
    for (int l = 1; l <= layers; ++l) {
        const std::string number = std::to_string(l);
        frames =
            both_directions ? blstm(frames, p, "blstm" + number) : lstm(frames, p, "lstm" + number);
    }
    const Row& bias = p.at("linear.bias");
    for (Row& frame : frames) {
        frame = product(frame, p.at("linear.weight"), static_cast<int>(bias.size()));
        double sum = 0;
        for (std::size_t k = 0; k < frame.size(); ++k) {
            frame[k] = std::exp(frame[k] + bias[k]);
            sum += frame[k];
        }
        for (double& y : frame) {
            y /= sum;
        }
    }
    return frames;
}

/// -log of the summed probability of all paths that become `labels` once runs are joined and
/// class 0 is dropped.
inline double ctc_loss(const Frames& posteriors, const std::vector<int>& labels) {
    const std::size_t classes = posteriors[0].size();
    std::vector<std::size_t> path(posteriors.size(), 0);
    double sum = 0;
    for (;;) {
        std::vector<int> read;
        double probability = 1;
        for (std::size_t t = 0; t < path.size(); ++t) {
            probability *= posteriors[t][path[t]];
            if (path[t] != 0 && (t == 0 || path[t] != path[t - 1])) {
                read.push_back(static_cast<int>(path[t]));
            }
        }
        sum += read == labels ? probability : 0;
        std::size_t t = 0;
        while (t < path.size() && ++path[t] == classes) {
            path[t++] = 0;
        }
        if (t == path.size()) {
            return -std::log(sum);
        }
    }
}

}  // namespace reference

#endif  // SPEECH_REFERENCE_H_
