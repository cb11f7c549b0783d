#include "tensor_class.h"

/// Vectors over matrices, linear algebra, softmax, and the helpers of linear layers.
namespace vorn {
namespace python {

static void bind_vectors(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    using In = const Self&;
    tensor
        .member("row_add_vec", &Self::row_add_vec, "mat"_a, "vec"_a, "alpha0"_a = 1.0f,
                "alpha1"_a = 1.0f, "beta"_a = 0.0f)
        .member("col_add_vec", &Self::col_add_vec, "mat"_a, "vec"_a, "alpha0"_a = 1.0f,
                "alpha1"_a = 1.0f, "beta"_a = 0.0f)
        .member("row_mul_vec", &Self::row_mul_vec, "mat"_a, "vec"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("col_mul_vec", &Self::col_mul_vec, "mat"_a, "vec"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("diag_add_vec", &Self::diag_add_vec, "mat"_a, "diag_mat"_a, "alpha0"_a = 1.0f,
                "alpha1"_a = 1.0f, "beta"_a = 0.0f)
        .member("diag_mul_vec", &Self::diag_mul_vec, "mat"_a, "diag_mat"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("log_sub_prior", overload<In, In>(&Self::log_sub_prior), "in_"_a, "prior"_a)
        .member("log_sub_prior", overload<In>(&Self::log_sub_prior), "prior"_a);
}

static void bind_linear_algebra(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    using In = const Self&;
    tensor
        .member("mul", overload<In, In, DType, DType>(&Self::mul), "a"_a, "b"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("mul", overload<In, bool, In, bool, DType, DType>(&Self::mul), "a"_a, "a_t"_a,
                "b"_a, "b_t"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("batch_mul", &Self::batch_mul, "a"_a, "a_t"_a, "a_stride"_a, "b"_a, "b_t"_a,
                "b_stride"_a, "c_stride"_a, "batch"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("norm2", &Self::norm2)
        .member("norm1", &Self::norm1)
        .member(
            "sgels",
            [](Self& t, Self& lhs, Tensor<unsigned long>& ws_d, Tensor<unsigned long>& ws_h) {
                const WritingEarly writing_early;  // a singular matrix is found on the way
                t.sgels(lhs, ws_d, ws_h);
            },
            "lhs"_a, "ws_d"_a, "ws_h"_a);
}

static void bind_softmax(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    using In = const Self&;
    tensor
        .member("softmax", overload<In, DType, DType>(&Self::softmax), "in_"_a, "alpha"_a = 1.0f,
                "beta"_a = 0.0f)
        .member("softmax", overload<In, index_t, index_t, index_t, DType, DType>(&Self::softmax),
                "in_"_a, "outer"_a, "channel"_a, "inner"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("softmax_bp_normal",
                overload<In, In, Self&, DType, DType>(&Self::softmax_bp_normal), "output"_a,
                "src_grad"_a, "softmax_sum"_a, "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("softmax_bp_normal",
                overload<In, In, Self&, index_t, index_t, index_t, DType, DType>(
                    &Self::softmax_bp_normal),
                "output"_a, "src_grad"_a, "softmax_sum"_a, "outer"_a, "channel"_a, "inner"_a,
                "alpha"_a = 1.0f, "beta"_a = 0.0f);
}

static void bind_linear_layers(TensorClass<float>& tensor) {
    using Self = Tensor<float>;
    tensor.member("max_out_fwd", &Self::max_out_fwd, "in_"_a, "pooling_size"_a, "idx_vec"_a)
        .member("max_out_bwd", &Self::max_out_bwd, "in_"_a, "pooling_size"_a, "idx_vec"_a,
                "alpha"_a = 1.0f, "beta"_a = 0.0f)
        .member("col_append", &Self::col_append, "in_"_a, "count"_a)
        .member("col_deappend", &Self::col_deappend, "in_"_a, "count"_a);
}

void bind_matrix_members(TensorClass<float>& tensor) {
    bind_vectors(tensor);
    bind_linear_algebra(tensor);
    bind_softmax(tensor);
    bind_linear_layers(tensor);
}

}  // namespace python
}  // namespace vorn
