#ifndef SPEECH_OPTIMIZER_H_
#define SPEECH_OPTIMIZER_H_

#include <vector>

#include "parameter.h"
#include "vorn/vorn.h"

namespace speech {

/// Scales all gradients by one factor so that their joint Euclidean norm is at most `limit`.
/// Returns the norm before.
double clip_gradients(const std::vector<Parameter*>& parameters, double limit);

/// Adam (Kingma and Ba, 2015): each value moves by
///
///     -rate * mean / (sqrt(square) + epsilon),
///
/// where mean and square are the bias-corrected running means of its gradient and of the
/// gradient's square.
class Adam {
public:
    explicit Adam(const std::vector<Parameter*>& parameters);

    void step(double rate);

private:
    struct Moments {
        vorn::Tensor<float> mean, square, move;
    };
    std::vector<Parameter*> _parameters;
    std::vector<Moments> _moments;
    int _steps = 0;
};

}  // namespace speech

#endif  // SPEECH_OPTIMIZER_H_
