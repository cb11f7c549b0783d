#include "tensor_class.h"

/// LSTM, connectionist temporal classification, convolution along frequency, and batch
/// normalization over frames.
namespace vorn {
namespace python {

using Self = Tensor<float>;

static void bind_lstm(TensorClass<float>& tensor) {
    tensor
        .member("lstm_op", &Self::lstm_op, "wx_out"_a, "wc_i"_a, "wc_f"_a, "wc_o"_a, "c_pre"_a,
                "c_cur"_a, "i_out"_a, "f_out"_a, "c_out"_a, "o_out"_a, "hc"_a, "max"_a, "min"_a)
        .member("lstm_bp_op", &Self::lstm_bp_op, "i_out"_a, "f_out"_a, "c_out"_a, "o_out"_a,
                "wc_o"_a, "m_err"_a, "hc"_a, "c_pre"_a, "c_err"_a, "e_cur"_a)
        .member("ld_mul_diag_mat_sigmoid", &Self::ld_mul_diag_mat_sigmoid, "in_"_a, "w"_a, "bak"_a,
                "alpha"_a = 1.0f, "beta"_a = 1.0f)
        .member("elem_mul_add", &Self::elem_mul_add, "a"_a, "b"_a, "c"_a, "d"_a)
        .member("elem_mul_tanh", &Self::elem_mul_tanh, "a"_a, "b"_a, "c"_a)
        .member("ld_sigmoid_bprop", &Self::ld_sigmoid_bprop, "b"_a, "c"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("ld_sigmoid_backprop", &Self::ld_sigmoid_backprop, "a"_a, "b"_a, "c"_a)
        .member("ld_cell_cur_error", &Self::ld_cell_cur_error, "m_err"_a, "o"_a, "hc"_a, "o_err"_a,
                "w_oc"_a, "ebc"_a)
        .member("ld_cell_back_error", &Self::ld_cell_back_error, "c_err"_a, "f"_a, "f_err"_a,
                "w_fc"_a, "i_err"_a, "w_ic"_a)
        .member("ld_tanh_backprop", &Self::ld_tanh_backprop, "a"_a, "b"_a, "c"_a)
        .member("diag_mat_diff", &Self::diag_mat_diff, "a"_a, "b"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("mask_reverse", &Self::mask_reverse, "in_"_a, "batch_seq_len"_a, "batch_size"_a,
                "seq_len"_a);
}

static void bind_ctc(TensorClass<float>& tensor) {
    tensor
        .member("compute_ctc_alpha", &Self::compute_ctc_alpha, "prob"_a, "row_idx"_a, "labels"_a,
                "frame_num_utt"_a, "label_lengths_utt"_a)
        .member("compute_ctc_beta", &Self::compute_ctc_beta, "prob"_a, "row_idx"_a, "labels"_a,
                "frame_num_utt"_a, "label_lengths_utt"_a)
        .member("compute_ctc_err", &Self::compute_ctc_err, "alpha"_a, "beta"_a, "labels"_a,
                "frame_num_utt"_a, "pzx"_a)
        .member("find_row_max_id", &Self::find_row_max_id, "max_id_vec"_a)
        .member("vec_mask", &Self::vec_mask, "in_"_a, "mask"_a);
}

static void bind_audio_convolution(TensorClass<float>& tensor) {
    tensor
        .member("expand_feat", &Self::expand_feat, "feat"_a, "fbank"_a, "delta"_a, "conv_out_dim"_a,
                "filter_size"_a, "conv_start"_a, "conv_end"_a)
        .member("shrink_errors", &Self::shrink_errors, "expand"_a, "fbank"_a, "delta"_a,
                "conv_out_dim"_a, "filter_size"_a, "conv_start"_a, "conv_end"_a)
        .member("audio_conv_batch_bias", &Self::audio_conv_batch_bias, "bias"_a, "batch"_a)
        .member("audio_conv_batch_bias_bp", &Self::audio_conv_batch_bias_bp, "dy"_a, "batch"_a)
        .member("max_pooling", &Self::max_pooling, "in_"_a, "conv_size"_a, "filter_num"_a,
                "pooling_size"_a, "max_idx"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("max_pooling_bp", &Self::max_pooling_bp, "in_"_a, "conv_size"_a, "filter_num"_a,
                "pooling_size"_a, "max_idx"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f);
}

static void bind_batch_normalization(TensorClass<float>& tensor) {
    tensor
        .member("audio_batch_norm_inf", &Self::audio_batch_norm_inf, "x"_a, "scale"_a, "bias"_a,
                "mean"_a, "var"_a, "mask"_a, "epsilon"_a)
        .member("audio_batch_norm_train", &Self::audio_batch_norm_train, "x"_a, "scale"_a, "bias"_a,
                "mask"_a, "run_mean"_a, "run_var"_a, "statis_mean"_a, "statis_var"_a,
                "saved_mean"_a, "saved_inv_std"_a, "real_frame_size"_a, "exp_avg_factor"_a,
                "statis_factor"_a, "epsilon"_a)
        .member("audio_batch_norm_bp", &Self::audio_batch_norm_bp, "x"_a, "dy"_a, "scale"_a,
                "saved_mean"_a, "saved_inv_std"_a, "mask"_a, "dscale"_a, "dbias"_a,
                "real_frame_size"_a, "exp_avg_factor"_a, "epsilon"_a);
}

void bind_sequence_members(TensorClass<float>& tensor) {
    bind_lstm(tensor);
    bind_ctc(tensor);
    bind_audio_convolution(tensor);
    bind_batch_normalization(tensor);
}

}  // namespace python
}  // namespace vorn
