#ifndef COMMON_OPTIMIZER_H_
#define COMMON_OPTIMIZER_H_

#include <cstdint>
#include <vector>

#include "common/parameter.h"
#include "vorn/vorn.h"

namespace common {

/// Scales all gradients by one factor so that their joint Euclidean norm is at most `limit`.
/// Returns the norm before.
double clip_gradients(const std::vector<Parameter*>& parameters, double limit);

/// The learning rate of update number `update`, from 0: rises to `highest` over the first hundred,
/// then falls to zero at `planned` updates on half a cosine wave.
double scheduled_rate(double highest, std::int64_t update, std::int64_t planned);

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

    /// Steps so far, and the running means: all that the next step depends on.
    int& steps() { return _steps; }
    std::vector<NamedTensor> moments();

private:
    struct Moments {
        vorn::Tensor<float> mean, square, move;
    };
    std::vector<Parameter*> _parameters;
    std::vector<Moments> _moments;
    int _steps = 0;
};

}  // namespace common

#endif  // COMMON_OPTIMIZER_H_
