#ifndef SPEECH_REFERENCE_H_
#define SPEECH_REFERENCE_H_

#include <cmath>
#include <map>
#include <string>
#include <vector>

/// The LSTM network and its CTC loss in double, straight from their definitions, one utterance at
/// a time and with a sum over every path.
namespace reference {

using Row = std::vector<double>;
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

inline std::vector<Row> lstm(const std::vector<Row>& in, const Values& p, const std::string& name) {
    const auto value = [&](const char* part) { return p.at(name + "." + part); };
    const auto gate = [](double x) { return 1 / (1 + std::exp(-x)); };
    const Row peep_i = value("peep_i"), peep_f = value("peep_f"), peep_o = value("peep_o");
    const Row bias = value("bias");
    const int cells = static_cast<int>(peep_i.size());
    Row c(cells, 0.0), m(cells, 0.0);
    std::vector<Row> out;
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

inline std::vector<Row> posteriors(std::vector<Row> frames, const Values& p, int layers) {
    for (int l = 1; l <= layers; ++l) {
        frames = lstm(frames, p, "lstm" + std::to_string(l));
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
inline double ctc_loss(const std::vector<Row>& posteriors, const std::vector<int>& labels) {
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
