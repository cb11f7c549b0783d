#ifndef SPEECH_BLSTM_LAYER_H_
#define SPEECH_BLSTM_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "common/team.h"
#include "ctc_batch.h"
#include "lstm_layer.h"
#include "vorn/vorn.h"

namespace speech {

/// Two LSTM layers side by side, one of which reads each utterance from its last frame to its
/// first. The outputs of the forward one come first in a row.
class BlstmLayer {
public:
    /// `cells` in each direction. The directions are tasks of `team`.
    BlstmLayer(const std::string& name, int inputs, int cells, vorn::Device device,
               common::Team* team);

    void initialise(common::Random* random);
    /// The outputs of all frames, rows x 2 cells; good until the next call. `lengths` are the
    /// batch's, on the layer's device.
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in, const FrameBatch& batch,
                                       const vorn::Tensor<int>& lengths);
    /// After a forward() of `in`: sets the gradients from the error at the outputs, zero at
    /// padding, and returns the error at the inputs.
    vorn::Tensor<float>& backward(const vorn::Tensor<float>& in, const FrameBatch& batch,
                                  const vorn::Tensor<int>& lengths,
                                  const vorn::Tensor<float>& error);
    std::vector<common::Parameter*> parameters();

private:
    int _cells;
    common::Team* _team;
    LstmLayer _forward;
    LstmLayer _backward;
    vorn::Tensor<float> _reversed_in, _reversed_out, _out;
    vorn::Tensor<float> _forward_error, _backward_error, _reversed_error, _in_error;
};

}  // namespace speech

#endif  // SPEECH_BLSTM_LAYER_H_
