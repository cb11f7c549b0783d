#include "common/optimizer.h"

#include <algorithm>
#include <cmath>

namespace common {

namespace {

constexpr double kMeanDecay = 0.9;
constexpr double kSquareDecay = 0.99;
constexpr double kEpsilon = 1e-8;
constexpr std::int64_t kWarmUpUpdates = 100;

}  // namespace

double clip_gradients(const std::vector<Parameter*>& parameters, double limit) {
    double squares = 0;
    for (const Parameter* parameter : parameters) {
        const double norm = parameter->gradient.norm2();
        squares += norm * norm;
    }
    const double norm = std::sqrt(squares);
    if (norm > limit) {
        for (Parameter* parameter : parameters) {
            parameter->gradient.mul(static_cast<float>(limit / norm));
        }
    }
    return norm;
}

double scheduled_rate(double highest, std::int64_t update, std::int64_t planned) {
    const double warm_up = std::min(1.0, static_cast<double>(update + 1) / kWarmUpUpdates);
    const double done = static_cast<double>(update) / static_cast<double>(planned);
    return highest * warm_up * 0.5 * (1 + std::cos(M_PI * std::min(done, 1.0)));
}

Adam::Adam(const std::vector<Parameter*>& parameters) : _parameters(parameters) {
    for (const Parameter* parameter : parameters) {
        const vorn::Tensor<float>& value = parameter->value;
        const vorn::Tensor<float> like(value.get_size(), value.get_device());
        _moments.push_back({vorn::Tensor<float>(like, value.get_device()),
                            vorn::Tensor<float>(like, value.get_device()), like});
    }
}

std::vector<NamedTensor> Adam::moments() {
    std::vector<NamedTensor> all;
    for (std::size_t i = 0; i < _parameters.size(); ++i) {
        all.push_back({_parameters[i]->name + ".mean", &_moments[i].mean});
        all.push_back({_parameters[i]->name + ".square", &_moments[i].square});
    }
    return all;
}

void Adam::step(double rate) {
    ++_steps;
    const double mean_scale = 1 / (1 - std::pow(kMeanDecay, _steps));
    const double square_scale = 1 / (1 - std::pow(kSquareDecay, _steps));
    // mean * m / (sqrt(square * s) + epsilon) = (m / sqrt(s)) * mean / (sqrt(square) + e')
    const double root = std::sqrt(square_scale);
    const float scaled_rate = static_cast<float>(rate * mean_scale / root);
    const float epsilon = static_cast<float>(kEpsilon / root);
    for (std::size_t i = 0; i < _parameters.size(); ++i) {
        const vorn::Tensor<float>& gradient = _parameters[i]->gradient;
        vorn::Tensor<float>& value = _parameters[i]->value;
        Moments& moments = _moments[i];
        moments.mean.elem_add(moments.mean, gradient, kMeanDecay, 1 - kMeanDecay, 0);
        moments.square.elem_mul(gradient, gradient, 1 - kSquareDecay, kSquareDecay);
        moments.move.sqrt(moments.square);
        moments.move.dot_div(moments.mean, moments.move, 0, epsilon);
        value.elem_add(value, moments.move, 1, -scaled_rate, 0);
    }
}

}  // namespace common
