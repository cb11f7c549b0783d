#include "classifier/activation.h"

namespace classifier {

const vorn::Tensor<float>& Relu::forward(const vorn::Tensor<float>& in) {
    _out.resize(in.get_size());
    _out.relu(in);
    return _out;
}

const vorn::Tensor<float>& Relu::backward(const vorn::Tensor<float>& error) {
    _in_error.resize(error.get_size());
    _in_error.relu_bp(_out, error);
    return _in_error;
}

const vorn::Tensor<float>& Maxout::forward(const vorn::Tensor<float>& in) {
    const vorn::Dim size(in.get_h(), in.get_w() / kPieces);
    _out.resize(size);
    _winners.resize(size);
    _out.max_out_fwd(in, kPieces, _winners);
    return _out;
}

const vorn::Tensor<float>& Maxout::backward(const vorn::Tensor<float>& error) {
    // Resizing clears it: losing pieces get no error.
    _in_error.resize(vorn::Dim(error.get_h(), kPieces * error.get_w()));
    _in_error.max_out_bwd(error, kPieces, _winners);
    return _in_error;
}

std::unique_ptr<Activation> make_activation(const std::string& name, vorn::Device device) {
    if (name == "maxout") {
        return std::make_unique<Maxout>(device);
    }
    return std::make_unique<Relu>(device);
}

}  // namespace classifier
