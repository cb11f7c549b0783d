#include "vorn/ops/math_ops.h"
#include "vorn/tensor/tensor.h"

namespace vorn {

// ---- Arithmetic

template <typename T>
void Tensor<T>::add(T val) {
    vorn_add(*this, val);
}

template <typename T>
void Tensor<T>::add(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    elem_add(in1, in2, alpha, beta, 0);
}

template <typename T>
void Tensor<T>::elem_add(const Tensor& in1, const Tensor& in2, DType alpha0, DType alpha1,
                         DType beta) {
    vorn_add(in1, in2, *this, alpha0, alpha1, beta);
}

template <typename T>
void Tensor<T>::mul(T val) {
    vorn_mul(*this, val);
}

template <typename T>
void Tensor<T>::elem_mul(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    vorn_elem_mul(in1, in2, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::div(T val) {
    vorn_div(*this, val);
}

template <typename T>
void Tensor<T>::elem_div(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    vorn_elem_div(in1, in2, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::dot_div(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    vorn_dot_div(in1, in2, *this, alpha, beta);
}

// ---- Functions of one operand

template <typename T>
void Tensor<T>::reciprocal() {
    reciprocal(*this);
}

template <typename T>
void Tensor<T>::reciprocal(const Tensor& in) {
    vorn_reciprocal(in, *this);
}

template <typename T>
void Tensor<T>::log() {
    log(*this);
}

template <typename T>
void Tensor<T>::log(const Tensor& in) {
    vorn_log(in, *this);
}

template <typename T>
void Tensor<T>::pow(DType p) {
    pow(*this, p);
}

template <typename T>
void Tensor<T>::pow(const Tensor& in, DType p) {
    vorn_pow(in, *this, p);
}

template <typename T>
void Tensor<T>::square() {
    square(*this);
}

template <typename T>
void Tensor<T>::square(const Tensor& in) {
    vorn_square(in, *this);
}

template <typename T>
void Tensor<T>::sqrt() {
    sqrt(*this);
}

template <typename T>
void Tensor<T>::sqrt(const Tensor& in) {
    vorn_sqrt(in, *this);
}

template <typename T>
void Tensor<T>::limit(DType lo, DType hi) {
    limit(*this, lo, hi);
}

template <typename T>
void Tensor<T>::limit(const Tensor& in, DType lo, DType hi) {
    vorn_limit(in, lo, hi, *this);
}

// ---- Activations

template <typename T>
void Tensor<T>::tanh() {
    tanh(*this, 1, 0);
}

template <typename T>
void Tensor<T>::tanh(const Tensor& in, DType alpha, DType beta) {
    vorn_active(ACTIVATION_TANH, in, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::ld_tanh(const Tensor& in, DType alpha, DType beta) {
    tanh(in, alpha, beta);
}

template <typename T>
void Tensor<T>::relu() {
    relu(*this, 1, 0);
}

template <typename T>
void Tensor<T>::relu(const Tensor& in, DType alpha, DType beta) {
    vorn_active(ACTIVATION_RELU, in, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::sigmoid() {
    sigmoid(*this, 1, 0);
}

template <typename T>
void Tensor<T>::sigmoid(const Tensor& in, DType alpha, DType beta) {
    vorn_active(ACTIVATION_SIGMOID, in, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::tanh_bp(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    vorn_active_bp(ACTIVATION_TANH, in1, in2, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::relu_bp(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    vorn_active_bp(ACTIVATION_RELU, in1, in2, *this, alpha, beta);
}

template <typename T>
void Tensor<T>::sigmoid_bp(const Tensor& in1, const Tensor& in2, DType alpha, DType beta) {
    vorn_active_bp(ACTIVATION_SIGMOID, in1, in2, *this, alpha, beta);
}

// ---- Instantiations

#define FOR_FLOAT_AND_INT(T)         \
    template void Tensor<T>::add(T); \
    template void Tensor<T>::mul(T); \
    template void Tensor<T>::elem_add(const Tensor<T>&, const Tensor<T>&, DType, DType, DType);

FOR_FLOAT_AND_INT(float)
FOR_FLOAT_AND_INT(int)

#define FOR_FLOAT(member, ...) template void Tensor<float>::member(__VA_ARGS__);
#define FOR_FLOAT_BLEND(member) \
    FOR_FLOAT(member, const Tensor<float>&, const Tensor<float>&, DType, DType)

FOR_FLOAT(div, float)
FOR_FLOAT_BLEND(add)
FOR_FLOAT_BLEND(elem_mul)
FOR_FLOAT_BLEND(elem_div)
FOR_FLOAT_BLEND(dot_div)

FOR_FLOAT(reciprocal)
FOR_FLOAT(reciprocal, const Tensor<float>&)
FOR_FLOAT(log)
FOR_FLOAT(log, const Tensor<float>&)
FOR_FLOAT(pow, DType)
FOR_FLOAT(pow, const Tensor<float>&, DType)
FOR_FLOAT(square)
FOR_FLOAT(square, const Tensor<float>&)
FOR_FLOAT(sqrt)
FOR_FLOAT(sqrt, const Tensor<float>&)
FOR_FLOAT(limit, DType, DType)
FOR_FLOAT(limit, const Tensor<float>&, DType, DType)

FOR_FLOAT(tanh)
FOR_FLOAT(tanh, const Tensor<float>&, DType, DType)
FOR_FLOAT(ld_tanh, const Tensor<float>&, DType, DType)
FOR_FLOAT(relu)
FOR_FLOAT(relu, const Tensor<float>&, DType, DType)
FOR_FLOAT(sigmoid)
FOR_FLOAT(sigmoid, const Tensor<float>&, DType, DType)
FOR_FLOAT_BLEND(tanh_bp)
FOR_FLOAT_BLEND(relu_bp)
FOR_FLOAT_BLEND(sigmoid_bp)

#undef FOR_FLOAT_BLEND
#undef FOR_FLOAT
#undef FOR_FLOAT_AND_INT

}  // namespace vorn
