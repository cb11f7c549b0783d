#ifndef SPEECH_LSTM_LAYER_H_
#define SPEECH_LSTM_LAYER_H_

#include <string>
#include <vector>

#include "common/parameter.h"
#include "vorn/vorn.h"

namespace speech {

/// A layer of LSTM cells with peepholes that reads a time-major batch from its first frame to its
/// last. Gate blocks stand in the order input, forget, output, cell input.
class LstmLayer {
public:
    LstmLayer(const std::string& name, int inputs, int cells, vorn::Device device);

    void initialise(common::Random* random);

    /// The outputs of all frames, rows x cells, for `batch` interleaved utterances. They are good
    /// until the next call.
    const vorn::Tensor<float>& forward(const vorn::Tensor<float>& in, int batch);

    /// Sets the gradients after a forward() of `in`. `error` is the gradient of the loss with
    /// respect to the outputs, zero at padding; the part that comes back through time is added to
    /// it.
    void backward(const vorn::Tensor<float>& in, vorn::Tensor<float>& error);

    /// After backward(): computes the gradient with respect to the inputs.
    vorn::Tensor<float>& compute_input_error();
    const vorn::Tensor<float>& input_error() const { return _in_error; }

    std::vector<common::Parameter*> parameters() {
        return {&_input_weight, &_recurrent_weight, &_bias, &_peep_i, &_peep_f, &_peep_o};
    }

private:
    void resize(int rows, int batch);
    vorn::Tensor<float> frame(const vorn::Tensor<float>& rows, int t) const;
    void set_peephole_gradient(common::Parameter* peephole, int gate,
                               const vorn::Tensor<float>& cells);

    int _cells;
    common::Parameter _input_weight;      ///< inputs x 4 cells
    common::Parameter _recurrent_weight;  ///< cells x 4 cells
    common::Parameter _bias;              ///< 4 cells
    common::Parameter _peep_i, _peep_f, _peep_o;

    // Of the latest batch, all frames. _cell and _output start with a frame of zeros, so that row
    // block t of them is what enters frame t.
    int _batch = 0;
    int _frames = 0;
    vorn::Tensor<float> _gates, _i, _f, _g, _o, _tanh_cell, _cell, _output;
    vorn::Tensor<float> _result;  ///< _output without the zeros

    vorn::Tensor<float> _recurrent_transposed;
    vorn::Tensor<float> _gate_error, _cell_error, _next_error, _product, _in_error;
};

}  // namespace speech

#endif  // SPEECH_LSTM_LAYER_H_
