#ifndef VORN_TENSOR_TENSOR_H_
#define VORN_TENSOR_TENSOR_H_

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

#include "vorn/base.h"
#include "vorn/tensor/buffer.h"
#include "vorn/tensor/device.h"
#include "vorn/tensor/dim.h"
#include "vorn/tensor/reference.h"

namespace vorn {

template <typename T>
class Tensor;

namespace gpu {
void vorn_norm1(const Tensor<float>& in, DType* res);
void vorn_norm2(const Tensor<float>& in, DType* res);
}  // namespace gpu

/// A shaped view with a row pitch on reference-counted storage that lies on the host or on a GPU.
///
/// Layout. The last axis is unit-stride; `ld()`, the pitch of the second-last axis, is counted in
/// elements and differs from the width only in a view that takes part of the last axis. Any tensor
/// reads as a matrix of `row()` rows (the product of all axes but the last) of `col()` elements.
/// Element counts and offsets stay below 2^31.
///
/// Kinds. An empty tensor has no memory; an owning one has its own Buffer; an external one wraps a
/// pointer of the caller's; a block is a view into a Buffer that others share. Copying a Tensor
/// copies no data: both look at the same memory. Only empty and owning tensors can be resized.
///
/// Operations. `*this` is the output, which no operation resizes unless it says so: the caller
/// shapes it. Inputs and output lie on the same device (CPU and CPU_PINNED count as one). Host
/// forms are done on return; GPU forms return with their kernels queued on the thread's
/// `default_stream`. Where nothing else is said, `alpha` and `beta` blend a result into the old
/// output, which is always read, even if `beta` is 0: it must then be finite. Everything that is
/// called an abort here logs a message and a stack trace and stops the process.
///
/// Element types: `float` has every member. `int` has resize, element access, `add(T)`, `mul(T)`,
/// `elem_add`, `col_sum`, `row_sum`, `sum`, `transpose`, `count_valid_label` and the file and debug
/// forms; `unsigned long` has resize; and all five (`unsigned char` and `short` too) have
/// construction, shape queries, copies and fills. Any other use does not link.
template <typename T>
class Tensor {
public:
    // ---- Construction -------------------------------------------------------------------------

    /// An empty tensor on the default device, the host.
    Tensor();
    /// An empty tensor on `device`.
    Tensor(const Device& device);
    /// An owning tensor, zero-filled. Aborts if the product of `size` is 2^31 or more.
    Tensor(const Dim& size, const Device& device);
    Tensor(const Dim& size);
    /// A block of `buffer` whose first element is `ptr`. Aborts if it has elements and `ptr` lies
    /// outside the buffer.
    Tensor(std::shared_ptr<Buffer> buffer, const Dim& size, index_t stride, T* ptr);
    Tensor(std::shared_ptr<Buffer> buffer, const Dim& size, index_t stride);
    Tensor(std::shared_ptr<Buffer> buffer, const Dim& size);
    /// An external tensor on dense memory of the caller's, which outlives it.
    Tensor(T* ptr, const Dim& size, const Device& device);
    /// A dense copy of `other` on `device`.
    Tensor(const Tensor& other, const Device& device);

    // Declared, so that there is no move, which would leave a tensor without its Buffer.
    Tensor(const Tensor&) = default;
    Tensor& operator=(const Tensor&) = default;
    ~Tensor() = default;

    // ---- Views: blocks that share this tensor's Buffer ----------------------------------------
    // A view of an external tensor is an external tensor.

    /// The memory under another shape of equal element count, from the first element of the
    /// Buffer on. Aborts unless contiguous.
    Tensor get_with_shape(const Dim& dim) const;
    /// The elements from coordinate `start` up to, not including, `stop`: a cut of the first axis
    /// or of the last, never of both, and never of a middle axis. Aborts otherwise.
    Tensor get_block(const Dim& start, const Dim& stop) const;
    /// Axis 0 cut to [start, end).
    Tensor slice(index_t start, index_t end) const;
    /// Rows [start * step, stop * step) of a matrix.
    Tensor range_row(index_t start, index_t stop, index_t step) const;
    Tensor range_row(index_t start, index_t stop) const;
    /// Columns [start * step, stop * step) of a matrix.
    Tensor range_col(index_t start, index_t stop, index_t step) const;
    Tensor range_col(index_t start, index_t stop) const;

    // ---- Shape changes; none moves data -------------------------------------------------------

    /// Another shape of equal element count. Aborts unless contiguous.
    void reshape(const Dim& size);
    void reshape_like(const Tensor& other);
    /// A new shape; allocates only where the Buffer is too small, and then drops the contents.
    /// Aborts on a block or an external tensor, and if the product of `size` is 2^31 or more.
    void resize(const Dim& size, bool is_zero = true);
    void resize_like(const Tensor& other);
    /// Aborts on a tensor with memory.
    void set_device(const Device& device);
    /// Does nothing: memory and shape stay.
    void clear();
    /// No axes; the Buffer stays, for a later resize.
    void clear_size();

    // ---- Queries ------------------------------------------------------------------------------

    /// Whether it looks into a Buffer.
    bool is_init() const { return _buffer != nullptr; }
    /// The address of the first element.
    T* get_ptr() const { return _ptr; }
    T* get_data() const { return _ptr; }
    T* get_data_python() const { return _ptr; }
    /// The shape, or one axis of it.
    const Dim& get_size() const { return _size; }
    index_t get_size(index_t i) const { return _size[static_cast<int>(i)]; }
    /// The pitch.
    index_t get_stride() const { return _stride; }
    index_t ld() const { return _stride; }
    /// One axis, counted from the last. Aborts where there is none.
    index_t get_width() const { return _size[-1]; }
    index_t get_height() const { return _size[-2]; }
    index_t get_w() const { return _size[-1]; }
    index_t get_h() const { return _size[-2]; }
    index_t get_c() const { return _size[-3]; }
    index_t get_n() const { return _size[-4]; }
    /// Of the matrix that the tensor reads as.
    index_t row() const { return _size.height(); }
    index_t col() const { return _size[-1]; }
    /// The number of axes.
    index_t get_dim() const { return _size.get_axis(); }
    /// The number of elements.
    index_t count() const { return product(_size); }
    index_t get_element_count() const { return product(_size); }
    /// The product of axes [start_axis, end_axis).
    index_t count(int start_axis, int end_axis) const;
    index_t count(int start_axis) const;
    /// Where the memory lies.
    const Device& get_device() const { return _device; }
    /// Whether rows follow each other without a gap.
    bool is_contiguous() const {
        return _size.get_axis() == 0 || _size[-1] == static_cast<int>(_stride);
    }
    /// Compares shapes only, up to leading axes of extent 1.
    bool operator==(const Tensor& other) const { return _size == other._size; }
    bool operator!=(const Tensor& other) const { return _size != other._size; }

    // ---- Elements; one on a GPU costs a copy --------------------------------------------------

    bool is_valid_index(const Dim& idx) const;
    /// The address of an element. Aborts outside the shape.
    T* index(const Dim& coor) const;
    T* get_data(const Dim& dim) const;
    T* get_row(index_t idx) const;
    /// An element. Aborts outside the shape.
    T operator[](const Dim& idx) const;
    Reference<T> operator[](const Dim& idx);
    T get_element(const Dim& dim) const;
    void set_element(const Dim& dim, T val);

    // ---- Fills --------------------------------------------------------------------------------

    void set_element(T val);
    void zero();
    void ones();

    // ---- Random fills, of contiguous tensors ---------------------------------------------------
    // Uniform and normal numbers are drawn on the host, also for a GPU tensor, which then costs a
    // copy. All abort on a pitched tensor and change nothing then.

    /// Uniform in [lo, hi]: u * (hi - lo) + lo with u = 2^-32 times a draw of the thread's Mersenne
    /// twister, so that a seed (`seed_thread_context`) gives known numbers. Rounding lets u
    /// reach 1.
    void random(DType lo = 0, DType hi = 1);
    void uniform_random();
    /// Normal, by the polar method (Marsaglia and Bray, 1964) from the process-wide `rand()`, which
    /// the caller seeds by `srand`. Aborts unless std_deviation > 0.
    void gauss_random(DType mean = 0, DType std_deviation = 1);
    /// A mask: 0 where a uniform draw lies below `mask_prob`, else 1. A GPU draws its own numbers.
    void zero_random(float mask_prob);
    /// The mask with ones at a share of `one_prob`: zero_random(1 - one_prob).
    void one_random(float one_prob);

    // ---- Copies, complete for the host on return ----------------------------------------------

    /// *this = src, across devices and pitches. Aborts unless the sizes are equal.
    void copy_from(const Tensor& src);
    void copy_to(Tensor& dst) const;
    /// Copies `num` elements between host memory and this contiguous tensor, from element
    /// `start_pos`, or from coordinate `start`, on. The range is the caller's to keep. Aborts on a
    /// pitched tensor.
    void copy_from(const T* data, index_t start_pos, index_t num);
    void copy_from(const T* data, const Dim& start, index_t num);
    void copy_to(T* dst, index_t start_pos, index_t num) const;
    void copy_to(T* dst, const Dim& start, index_t num) const;
    /// Row `src_row` of the host matrix `src` into row `dst_row` of this contiguous matrix; a
    /// shorter row leaves the rest as it was.
    void copy_row(Tensor& src, int src_row, int dst_row);

    // ---- Element rules ------------------------------------------------------------------------

    /// this += val
    void add(T val);
    /// alpha * in1 + beta * in2: here `beta` weighs the second operand.
    void add(const Tensor& in1, const Tensor& in2, DType alpha = 1, DType beta = 1);
    /// alpha0 * in1 + alpha1 * in2 + beta * old. On int tensors computed in float and truncated.
    void elem_add(const Tensor& in1, const Tensor& in2, DType alpha0 = 1, DType alpha1 = 1,
                  DType beta = 0);
    /// this *= val
    void mul(T val);
    /// alpha * in1 * in2 + beta * old
    void elem_mul(const Tensor& in1, const Tensor& in2, DType alpha = 1, DType beta = 0);
    /// this *= 1 / val. Aborts if |val| is not above 1.1920929e-07.
    void div(T val);
    /// alpha * in1 / in2 + beta * old
    void elem_div(const Tensor& in1, const Tensor& in2, DType alpha = 1, DType beta = 0);
    /// (in1 + alpha) / (in2 + beta): no blend.
    void dot_div(const Tensor& in1, const Tensor& in2, DType alpha = 0, DType beta = 0);
    /// 1 / in, without a blend, as are the rules up to `limit`.
    void reciprocal();
    void reciprocal(const Tensor& in);
    /// Natural logarithm.
    void log();
    void log(const Tensor& in);
    /// in to the power of p
    void pow(DType p);
    void pow(const Tensor& in, DType p);
    /// in * in
    void square();
    void square(const Tensor& in);
    /// Square root.
    void sqrt();
    void sqrt(const Tensor& in);
    /// `in` limited to [lo, hi].
    void limit(DType lo, DType hi);
    void limit(const Tensor& in, DType lo, DType hi);
    /// alpha * tanh(in) + beta * old
    void tanh();
    void tanh(const Tensor& in, DType alpha = 1, DType beta = 0);
    void ld_tanh(const Tensor& in, DType alpha = 1, DType beta = 0);
    /// alpha * max(in, 0) + beta * old
    void relu();
    void relu(const Tensor& in, DType alpha = 1, DType beta = 0);
    /// alpha / (1 + exp(-in)) + beta * old, with `in` limited to [-64, 64].
    void sigmoid();
    void sigmoid(const Tensor& in, DType alpha = 1, DType beta = 0);
    /// The derivative of an activation times an error: `in1` is the activation's output, `in2` the
    /// error from above. alpha * (1 - in1 in1) in2 + beta * old for tanh, alpha * in1 (1 - in1) in2
    /// + beta * old for sigmoid, alpha * [in1 > 0] in2 + beta * old for relu.
    void tanh_bp(const Tensor& in1, const Tensor& in2, DType alpha = 1, DType beta = 0);
    void relu_bp(const Tensor& in1, const Tensor& in2, DType alpha = 1, DType beta = 0);
    void sigmoid_bp(const Tensor& in1, const Tensor& in2, DType alpha = 1, DType beta = 0);

    // ---- Folds --------------------------------------------------------------------------------

    /// The fold of each column (`col_*`) or row (`row_*`) of the matrix `a`, blended into element k
    /// of this contiguous tensor: alpha * fold + beta * old. Aborts unless `a` has 2 axes and this
    /// at most 2. Maxima and minima start from the lowest and highest finite float. Host sums run
    /// in ascending order, GPU sums in a fixed tree.
    void col_sum(const Tensor& a, DType alpha = 1, DType beta = 0);
    void col_max(const Tensor& a, DType alpha = 1, DType beta = 0);
    void col_min(const Tensor& a, DType alpha = 1, DType beta = 0);
    void row_sum(const Tensor& a, DType alpha = 1, DType beta = 0);
    void row_max(const Tensor& a, DType alpha = 1, DType beta = 0);
    void row_min(const Tensor& a, DType alpha = 1, DType beta = 0);
    /// col_sum under another name.
    void collect_bias(const Tensor& in, DType alpha = 1, DType beta = 0);
    /// The fold of all elements, on the host in ascending order.
    T sum() const;
    T max() const;
    T min() const;
    T avg() const;

    // ---- Vectors broadcast over a matrix ------------------------------------------------------

    /// alpha0 * mat(i, j) + alpha1 * vec[j] + beta * old; with vec[i] for columns.
    void row_add_vec(const Tensor& mat, const Tensor& vec, DType alpha0 = 1, DType alpha1 = 1,
                     DType beta = 0);
    void col_add_vec(const Tensor& mat, const Tensor& vec, DType alpha0 = 1, DType alpha1 = 1,
                     DType beta = 0);
    /// alpha * mat(i, j) * vec[j] + beta * old; with vec[i] for columns. Aborts unless `vec` is a
    /// vector or a row of the right width.
    void row_mul_vec(const Tensor& mat, const Tensor& vec, DType alpha = 1, DType beta = 0);
    void col_mul_vec(const Tensor& mat, const Tensor& vec, DType alpha = 1, DType beta = 0);
    /// alpha0 * mat + beta * old, with alpha1 * diag_mat[i] added on the diagonal. Aborts unless
    /// `mat` is square, of the size of this, and `diag_mat` has one element per row.
    void diag_add_vec(const Tensor& mat, const Tensor& diag_mat, DType alpha0 = 1, DType alpha1 = 1,
                      DType beta = 0);
    /// alpha * mat + beta * old, with the first term times diag_mat[i] on the diagonal.
    void diag_mul_vec(const Tensor& mat, const Tensor& diag_mat, DType alpha = 1, DType beta = 0);
    /// log(in(i, j)) - log(prior[j]); the first logarithm is -125 where `in` is below the smallest
    /// normal float. On a GPU `in` and this are contiguous.
    void log_sub_prior(const Tensor& in, const Tensor& prior);
    void log_sub_prior(const Tensor& prior);

    // ---- Linear algebra -----------------------------------------------------------------------

    /// this = alpha * op(a) * op(b) + beta * this, where op transposes if its flag is set. Aborts
    /// unless all are matrices of fitting shapes.
    void mul(const Tensor& a, const Tensor& b, DType alpha = 1, DType beta = 0);
    void mul(const Tensor& a, bool a_t, const Tensor& b, bool b_t, DType alpha = 1, DType beta = 0);
    /// `batch` products: matrix i of each operand starts `i * stride` elements from the first. A
    /// matrix has the tensor's last axis as columns and stride / columns as rows. Aborts unless
    /// batch * stride is each tensor's element count.
    void batch_mul(const Tensor& a, bool a_t, int64_t a_stride, const Tensor& b, bool b_t,
                   int64_t b_stride, int64_t c_stride, int batch, DType alpha = 1, DType beta = 0);
    /// this = transpose of `tensor`, whose two axes this has exchanged.
    void transpose(const Tensor& tensor);
    /// Euclidean norm, and sum of absolute values, of all elements. Abort unless contiguous.
    T norm2() const;
    T norm1() const;
    /// Least squares min |lhs[b] x - y|: `lhs` is (batch, m, n) of full rank, overwritten; this is
    /// (batch, max(m, n)), row b holding y in its first m places on entry and x in its first n on
    /// return. `ws_d` and `ws_h` are work space, resized as needed.
    void sgels(Tensor<float>& lhs, Tensor<unsigned long>& ws_d, Tensor<unsigned long>& ws_h);

    // ---- Softmax, over the middle of three nested extents -------------------------------------

    /// exp(in - max) / sum over the channels of each (outer, inner) pair; element (o, c, k) lies at
    /// (o * channel + c) * inner + k of the contiguous operands. Without extents, over the rows of
    /// a matrix. Aborts unless alpha is 1, beta 0 and channel not 1. `in` may be this tensor.
    void softmax(const Tensor& in, index_t outer, index_t channel, index_t inner, DType alpha = 1,
                 DType beta = 0);
    void softmax(const Tensor& in, DType alpha = 1, DType beta = 0);
    /// output * (src_grad - sum over channels of output * src_grad). `softmax_sum` is work space of
    /// outer * inner elements; on the host it is added to, so the caller zeroes it.
    void softmax_bp_normal(const Tensor& output, const Tensor& src_grad, Tensor& softmax_sum,
                           index_t outer, index_t channel, index_t inner, DType alpha = 1,
                           DType beta = 0);
    void softmax_bp_normal(const Tensor& output, const Tensor& src_grad, Tensor& softmax_sum,
                           DType alpha = 1, DType beta = 0);

    // ---- Training objectives ------------------------------------------------------------------
    // All operands are dense, which nothing tests. Nothing is divided by the number of items or
    // rows: scale by `alpha`.

    /// The output of the labelled class, for each item (o, k) of an `output` read as in softmax:
    /// alpha * output(o, label, k) + beta * old where the mask is 1, else beta * old. This tensor,
    /// `label` and `mask` have an element per item. It takes no logarithm: hand it one. A label is
    /// a class index, truncated towards zero; a negative one aborts, whatever its mask, and one of
    /// `channel` or more is the caller's to avoid. Without extents, the rows of a matrix are items.
    void cross_entropy(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                       index_t outer, index_t channel, index_t inner, DType alpha = 1,
                       DType beta = 0);
    void cross_entropy(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                       DType alpha = 1, DType beta = 0);
    /// alpha * (t - output) + beta * old with t = 1 at the labelled class and 0 elsewhere, on a
    /// tensor of the size of `output`; beta * old for items whose mask is 0. With alpha = -1 that
    /// is the derivative of -log softmax with respect to the inputs of the softmax.
    void cross_entropy_bp(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                          index_t outer, index_t channel, index_t inner, DType alpha = 1,
                          DType beta = 0);
    void cross_entropy_bp(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                          DType alpha = 1, DType beta = 0);
    /// Per row: alpha / 2 * sum over j of (output(i, j) - label(i, j))^2 + beta * old where mask[i]
    /// is 1, else beta * old. This tensor and `mask` have an element per row.
    void mean_squre_error(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                          DType alpha = 1, DType beta = 0);
    /// alpha * (label - output) + beta * old in rows whose mask is 1, else beta * old: the negative
    /// of the derivative of the sum above.
    void mean_squre_error_bp(const Tensor& output, const Tensor& label, const Tensor<int>& mask,
                             DType alpha = 1, DType beta = 0);
    /// The cost of a noise mask in [0, 1], per row: alpha * sum over j of w c + beta * old where
    /// mask[i] is 1, else beta * old, with p = y_pred(i, j), t = y_true(i, j) and
    ///   w = min(p + 1, 1),  e = (sqrt(t) - sqrt(p))^2,  c = 10 e e + e - 0.01 ce,
    ///   l = log(t / (1 - t)) with t limited to [1e-6, 1 - 1e-6],
    ///   ce = max(l, 0) - p l + log(1 + exp(-|l|)).
    /// A p or t below 0 makes the row NaN. Comparing square roots of band gains is from Valin, "A
    /// hybrid DSP/deep learning approach to real-time full-band speech enhancement", MMSP 2018.
    void rnnoise(const Tensor& y_pred, const Tensor& y_true, const Tensor<int>& mask,
                 DType alpha = 1, DType beta = 0);
    /// Its derivative with respect to y_true, so what is trained goes in as y_true: alpha * d +
    /// beta * old in rows whose mask is 1, else beta * old.
    void rnnoise_bp(const Tensor& y_pred, const Tensor& y_true, const Tensor<int>& mask,
                    DType alpha = 1, DType beta = 0);
    /// Each column rounded to levels of -128 to 127 and back: level / scale with scale = 127 / max,
    /// halves away from zero. `max` is the column's largest magnitude on the host, its largest
    /// value on a GPU. Pitches are honoured; `tensor` may be this one.
    void fixed_loss(const Tensor& tensor);
    void fixed_loss();
    /// sigma2 x^2 / 2 where |x| < 1 / sigma2, else |x| - 1 / (2 sigma2), and its derivative.
    /// Element rules without a blend. After Girshick, "Fast R-CNN", ICCV 2015.
    void smooth_l1(const Tensor& obj, DType sigma2);
    void smooth_l1_bp(const Tensor& obj, DType sigma2);

    // ---- Label statistics ---------------------------------------------------------------------
    // Host forms set *count before they return. GPU forms only queue its delivery: *count is valid
    // once the thread's stream has passed it, and the variable lives until then. All operands are
    // dense; labels are class indices as floats; the mask counts as on where it is 1.

    /// *count = the number of elements of this tensor that are not `ignore_label_val`, of those
    /// with the mask on unless `mask` has no axes. Aborts unless the element counts are equal.
    void count_valid_label(const Tensor<int>& mask, DType ignore_label_val, size_t* count);
    /// Per row of the class scores `in`: max_idx = the class of the largest score, this = that
    /// score; and *count = the number of rows with the mask on whose class is the label and whose
    /// label is not `ignore_label_val`. Among equal scores the host takes the lowest class. On a
    /// GPU class c is read by thread c % 128, and that of the first thread in bit-reversed order
    /// wins: 0, then 64, 32, 96 and so on. The host compares class and label as floats, a GPU as
    /// integers. Aborts unless `in` is a matrix and the element counts fit its rows.
    void cal_classify_acu_target(const Tensor<float>& in, const Tensor<float>& label,
                                 const Tensor<int>& mask, Tensor<int>& max_idx,
                                 DType ignore_label_val, size_t* count);

    // ---- Slices of an axis, and concatenation along channels ----------------------------------

    /// This becomes index `index` of axis `dim` of `obj`, whose other axes it shares; its own axis
    /// `dim` is 1. Dense operands.
    void shrink(const Tensor& obj, size_t dim, size_t index);
    /// Index `index` of axis `dim` of this tensor becomes `obj`; all else keeps its value.
    void shrink_bp(const Tensor& obj, size_t dim, size_t index);
    /// The sources (N, C_i, H, W), one after the other along the channels of this tensor:
    /// alpha * source + beta * old. `ptr` is work space on this tensor's device, resized as needed,
    /// in which a GPU finds the sources. Pitches are honoured on the host; a GPU aborts unless all
    /// tensors are contiguous. Batch, height, width and the sum of the channels are the caller's.
    void channel_append(const std::vector<Tensor<float>*>& src_vec, Tensor<unsigned long>& ptr,
                        DType alpha = 1, DType beta = 0);
    /// Takes this concatenation apart: alpha * its channels + beta * old in each destination whose
    /// filter is set. Those without keep their place and their values.
    void channel_append_bp(const std::vector<Tensor<float>*>& dst_vec,
                           const std::vector<bool>& filters, Tensor<unsigned long>& ptr,
                           DType alpha = 1, DType beta = 0);

    // ---- Image convolution --------------------------------------------------------------------
    // Images are (N, C, H, W), missing leading axes being 1, filters (K, C, KH, KW), outputs
    // (N, K, OH, OW) with OH = (H + 2 padding_height - (dilation_h (KH - 1) + 1)) / stride_h + 1,
    // and OW likewise. A convolution is a cross-correlation: the filter is not flipped. Shapes and
    // outputs are the caller's to fit. On a GPU images carry their pitch, filters are dense, and
    // the algorithm of the operation in `conv_desc` has to be named, or it aborts: AUTO is the
    // host's only. All is dense on the host. `work_space` lies on the device of this tensor; what
    // it needs is told below. Aborts where it is too small. The host needs none for a 1 x 1 filter
    // without padding and steps. Old values are not read on a GPU if beta is 0.

    /// this(n, k, oh, ow) = alpha * sum over c, i, j of w(k, c, i, j) x(n, c, oh stride_h -
    /// padding_height + i dilation_h, ow stride_w - padding_width + j dilation_w) + beta * old,
    /// with x = 0 outside the image.
    void conv_fwd(const ConvDesc& conv_desc, const Tensor<float>& x, const Tensor<float>& w,
                  void* work_space, index_t work_space_size_byte, DType alpha = 1, DType beta = 0);
    /// On dw: the gradient with respect to the filter, summed over the batch: alpha * gradient +
    /// beta * old. The host adds to what this tensor holds, and aborts unless alpha and beta are 1.
    void conv_grad(const ConvDesc& conv_desc, const Tensor<float>& x, const Tensor<float>& dy,
                   void* work_space, index_t work_space_size_byte, DType alpha = 1, DType beta = 1);
    /// On dx: the gradient with respect to the image: alpha * gradient + beta * old. The host
    /// overwrites this tensor by the gradient and doesn't read alpha and beta.
    void conv_diff(const ConvDesc& conv_desc, const Tensor<float>& w, const Tensor<float>& dy,
                   void* work_space, index_t work_space_size_byte, DType alpha = 1, DType beta = 0);
    /// this(n, k, h, w) = alpha * bias[k] + beta * old. On a GPU `bias` is (1, K, 1, 1).
    void add_tensor(const Tensor<float>& bias, DType alpha = 1, DType beta = 1);
    /// On dbias (K elements; (1, K, 1, 1) on a GPU): alpha * sum over n, h, w of dy + beta * old.
    /// The host blends once a sample, so with beta = 0 only the last sample's sum remains: add to
    /// zeros with beta = 1.
    void conv_bias(const Tensor<float>& dy, DType alpha = 1, DType beta = 1);
    /// this(n, h, c, w) = in(n, c, h, w), dense. Aborts unless both have four fitting axes.
    void transpose_channel_height(const Tensor<float>& in);

    /// The algorithm that the GPU library would choose; AUTO on the host. The tensors only tell
    /// shapes, and so in all queries; that on which a query is called plays no part. `dw` has the
    /// filter's shape, and in the queries of conv_diff `x` has that of the image's gradient.
    ConvAlgo conv_get_fwd_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                               const Tensor<float>& w, const Tensor<float>& y, ConvAlgoPref pref,
                               index_t memory_limit_bytes);
    ConvGradAlgo conv_get_grad_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                    const Tensor<float>& dy, const Tensor<float>& dw,
                                    ConvGradAlgoPref pref, index_t memory_limit_bytes);
    ConvDiffAlgo conv_get_diff_algo(const ConvDesc& conv_desc, const Tensor<float>& x,
                                    const Tensor<float>& dy, const Tensor<float>& dw,
                                    ConvDiffAlgoPref pref, index_t memory_limit_bytes);
    /// Bytes of work space: those of `algo` on a GPU, one sample's column matrix on the host.
    index_t conv_get_fwd_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                         const Tensor<float>& w, const Tensor<float>& y,
                                         ConvAlgo algo);
    index_t conv_get_grad_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                          const Tensor<float>& dy, const Tensor<float>& dw,
                                          ConvGradAlgo algo);
    index_t conv_get_diff_work_space_size(const ConvDesc& conv_desc, const Tensor<float>& x,
                                          const Tensor<float>& dy, const Tensor<float>& dw,
                                          ConvDiffAlgo algo);
    /// Trials of all algorithms on memory of the GPU library's own, in its order, the fastest
    /// first, those that failed included; one record of AUTO on the host.
    std::vector<ConvAlgoPerf> conv_get_fwd_algo_perf(const ConvDesc& conv_desc,
                                                     const Tensor<float>& x, const Tensor<float>& w,
                                                     const Tensor<float>& y);
    std::vector<ConvGradAlgoPerf> conv_get_grad_algo_perf(const ConvDesc& conv_desc,
                                                          const Tensor<float>& x,
                                                          const Tensor<float>& dy,
                                                          const Tensor<float>& dw);
    std::vector<ConvDiffAlgoPerf> conv_get_diff_algo_perf(const ConvDesc& conv_desc,
                                                          const Tensor<float>& x,
                                                          const Tensor<float>& dy,
                                                          const Tensor<float>& dw);

    // ---- Image pooling ------------------------------------------------------------------------

    // Images are (N, C, H, W) and carry their pitch. The caller sizes outputs: the host has regions
    // for ceil((H + 2 pad_h - win_height) / stride_h) + 1 rows, and columns likewise, cut to the
    // image at their ends, and the output is at least that large; a GPU rounds down. Aborts on an
    // unknown pooling type.

    /// Each region of each channel pooled: alpha * pool(x) + beta * old. Maxima pass over NaN and
    /// start from the lowest finite float. Averages are (sum * alpha) / count. On the host both
    /// types count the padding above and left of the image, but not that below and right; on a GPU
    /// one counts all padding, the other none. A region outside the image has the average 0.
    void pool_fwd(const PoolingDesc& pooling_desc, const Tensor<float>& x, DType alpha = 1,
                  DType beta = 0);
    /// On dx: alpha * the gradient at `x` + beta * old, from the gradient `dy` at the forward
    /// output `y`. Old values are not read if beta is 0. The first of equal maxima takes the whole
    /// gradient of its region. The host doesn't read `y`.
    void pool_bp(const PoolingDesc& pooling_desc, const Tensor<float>& y, const Tensor<float>& dy,
                 const Tensor<float>& x, DType alpha = 1, DType beta = 0);

    // ---- Pooling of regions of interest -------------------------------------------------------
    // `rois` is (R, 5, 1, 1): batch index, start column, start row, end column and end row, both
    // ends included, in coordinates of the image. A region that ends before it starts is one cell
    // for maxima and a tenth of a cell for averages. Feature maps are (N, C, H, W). All is dense. A
    // batch index outside 0 ... N - 1 is the caller's to avoid.

    /// On (R, C, pooled_height, pooled_width): alpha * the maximum of each bin + beta * old.
    /// Coordinates are scaled, then rounded to whole cells, halves away from zero. Maxima pass over
    /// NaN and start from the lowest finite float; a bin outside the map has the maximum 0.
    /// `max_idx` receives the position h * W + w of each maximum, the first in row-major order
    /// among equals, or -1. The host aborts on a batch index outside the map's. After Girshick,
    /// "Fast R-CNN", ICCV 2015.
    void roi_pool_fwd(const ROIPoolingDesc& desc, const Tensor<float>& data,
                      const Tensor<float>& rois, Tensor<int>& max_idx, DType alpha = 1,
                      DType beta = 0);
    /// On the gradient at `data`: alpha * the sum of `diff` over the bins whose maximum an element
    /// was + beta * old. By rounding, a last bin may reach one cell beyond its region; a maximum
    /// there gets nothing.
    void roi_pool_bp(const ROIPoolingDesc& desc, const Tensor<float>& diff,
                     const Tensor<float>& rois, const Tensor<int>& max_idx, DType alpha = 1,
                     DType beta = 0);
    /// On (R, D, PH, PW): the average of each bin over channel (d * group_size + gh) * group_size +
    /// gw of `data`, which has D * group_size^2; (gh, gw) is the bin's place in the grid of groups.
    /// The host takes a grid of group_size^2 bins, a GPU any. Coordinates are rounded, then scaled,
    /// and a bin averages the cells that it touches; a GPU rounds a bin's edges once and the host
    /// twice, so that few bins may differ by a cell. An empty bin gives 0. `map_channel` receives
    /// the channel. Aborts unless alpha is 1 and beta 0. After Dai, Li, He and Sun, "R-FCN", NIPS
    /// 2016.
    void psroi_pool_fwd(const PSROIPoolingDesc& desc, const Tensor<float>& data,
                        const Tensor<float>& rois, Tensor<int>& map_channel, DType alpha = 1,
                        DType beta = 0);
    /// Adds the gradient at `data` to this tensor, which the caller zeroes. Aborts unless alpha is
    /// 1 and beta 0. A GPU adds in any order.
    void psroi_pool_bp(const PSROIPoolingDesc& desc, const Tensor<float>& diff,
                       const Tensor<float>& rois, Tensor<int>& map_channel, DType alpha = 1,
                       DType beta = 0);

    // ---- Batch normalization of images, on a GPU only -----------------------------------------
    // Images are (N, C, H, W). Statistics and parameters are (1, C, 1, 1) for NORM_1C11, which
    // normalizes each channel, and (1, C, H, W) for NORM_1CHW, which normalizes each activation;
    // `gamma` of another element count aborts, and so does a host tensor. `epsilon` below 1e-5, or
    // NaN, counts as 1e-5 but for the last form. Images are dense in training and in the last form
    // and carry their pitch in the others. After Ioffe and Szegedy, "Batch normalization", ICML
    // 2015.

    /// alpha * (gamma (x - mean) / sqrt(var + epsilon) + bias) + beta * old
    void image_bat_norm_forward_inf(BatNormType norm_type, DType alpha, DType beta,
                                    const Tensor<float>& x, const Tensor<float>& gamma,
                                    const Tensor<float>& bias, const Tensor<float>& mean,
                                    const Tensor<float>& var, DType epsilon);
    /// The same with the mean and variance of the batch; `mean` receives that mean and `var` its
    /// inverse standard deviation, 1 / sqrt(variance + epsilon), for the backward form. The running
    /// statistics become (1 - exp_avg_factor) * old + exp_avg_factor * (mean or unbiased variance).
    /// Two axes, (N, W), are taken as (N, 1, 1, W), with NORM_1CHW only; the other forms take them
    /// as one image, so that a view of four axes is what goes to them. Aborts unless there are 2 or
    /// 4 axes.
    void image_bat_norm_forward_train(BatNormType norm_type, DType alpha, DType beta,
                                      const Tensor<float>& x, const Tensor<float>& gamma,
                                      const Tensor<float>& bias, DType exp_avg_factor,
                                      Tensor<float>& run_mean, Tensor<float>& run_var,
                                      DType epsilon, Tensor<float>& mean, Tensor<float>& var);
    /// On dx: the gradients of the training form, which filled `mean` and `var`. The first pair of
    /// scalars blends this tensor, the second `d_gamma` and `d_bias`.
    void image_bat_norm_back(BatNormType norm_type, DType alpha_data_diff, DType beta_data_diff,
                             DType alpha_param_diff, DType beta_param_diff, const Tensor<float>& x,
                             Tensor<float>& dy, const Tensor<float>& gamma, Tensor<float>& d_gamma,
                             Tensor<float>& d_bias, DType epsilon, const Tensor<float>& mean,
                             const Tensor<float>& var);
    /// On dx: the gradient of the inference form, x * (1 / sqrt(var[c] + epsilon)) * scale[c],
    /// where `x` is the gradient at its output, (N, C, ...), and `scale` is gamma. Aborts unless
    /// NORM_1C11, and on fewer than two axes.
    void image_bat_norm_back_inf(BatNormType norm_type, const Tensor<float>& x,
                                 const Tensor<float>& var, const Tensor<float>& scale,
                                 DType epsilon);

    // ---- LSTM with peepholes, one time step for all rows of a batch ---------------------------

    /// The forward step, on m_cur (H by W). `wx_out` (H by 4W) holds the pre-activations, gate
    /// blocks in the order input, forget, output, cell input; `wc_*` the peephole weights of W
    /// cells. With G the logistic function, its argument kept above -64:
    ///   i = G(wc_i c_pre + x_i),  f = G(wc_f c_pre + x_f),  g = tanh(x_c),
    ///   c = f c_pre + i g, limited to [min, max] if they differ by more than 1e-6,
    ///   o = G(wc_o c + x_o),  m_cur = o tanh(c).
    /// Writes i, f, g, o, c and hc = tanh(c). `c_cur` may be `c_pre`. On a GPU i_out to hc share
    /// the pitch of m_cur. After Gers, Schraudolph and Schmidhuber, "Learning precise timing with
    /// LSTM recurrent networks", 2002.
    void lstm_op(const Tensor& wx_out, const Tensor& wc_i, const Tensor& wc_f, const Tensor& wc_o,
                 const Tensor& c_pre, Tensor& c_cur, Tensor& i_out, Tensor& f_out, Tensor& c_out,
                 Tensor& o_out, Tensor& hc, float max, float min);
    /// The backward step, on wx_err (H by 4W). `m_err` is the error at m_cur, `c_err` the error
    /// that reaches the cell from the next time step, next step's peepholes included:
    ///   d_o = m_err hc o (1 - o),   e_cur = m_err o (1 - hc hc) + d_o wc_o + c_err,
    ///   d_c = e_cur i (1 - g g),    d_f = e_cur c_pre f (1 - f),   d_i = e_cur g i (1 - i).
    /// Clipping passes errors unchanged. `e_cur` may be `c_err`. On a GPU all but wx_err are dense.
    void lstm_bp_op(const Tensor& i_out, const Tensor& f_out, const Tensor& c_out,
                    const Tensor& o_out, const Tensor& wc_o, const Tensor& m_err, const Tensor& hc,
                    const Tensor& c_pre, const Tensor& c_err, Tensor& e_cur);

    // ---- Connectionist temporal classification ------------------------------------------------

    /// One frame row of the forward table (rows t * N + n, L wide), on a GPU only: entry s is the
    /// log probability of all prefixes that end at position s of utterance n's extended label
    /// sequence at frame t = row_idx, the frame's own term included. `prob` holds log posteriors
    /// (T * N rows, time-major, K classes), `labels` (N by L) the sequences with blanks at even
    /// positions and -1 past their ends, `frame_num_utt` and `label_lengths_utt` (N) the frames
    /// and the extended lengths. Call it for t = 0, 1, ... on a table filled with -1e30, the log of
    /// zero. After Graves et al., "Connectionist temporal classification", ICML 2006.
    void compute_ctc_alpha(const Tensor<float>& prob, int row_idx, const Tensor<int>& labels,
                           const Tensor<int>& frame_num_utt, const Tensor<int>& label_lengths_utt);
    /// The backward table, for t = T - 1 down to 0: all suffixes from position s on, the frame's
    /// own term left out.
    void compute_ctc_beta(const Tensor<float>& prob, int row_idx, const Tensor<int>& labels,
                          const Tensor<int>& frame_num_utt, const Tensor<int>& label_lengths_utt);
    /// The share of all label paths that emit class k at frame t, in row t * N + n: the sum over
    /// positions with label k of exp(alpha + beta - pzx). `pzx` (N) is the log probability of each
    /// label sequence. Rows beyond an utterance's frames are not written: zero them before.
    void compute_ctc_err(const Tensor<float>& alpha, const Tensor<float>& beta,
                         const Tensor<int>& labels, const Tensor<int>& frame_num_utt,
                         const Tensor<float>& pzx);
    /// The column of the largest element of each dense row. Among equal maxima the host takes the
    /// lowest column, a GPU the first in the bit-reversed order of its 128 threads.
    void find_row_max_id(Tensor<int>& max_id_vec) const;
    /// Row r of `in` where mask[r] is not 0, else zeros. Dense rows; `in` may be this tensor.
    void vec_mask(const Tensor<float>& in, const Tensor<int>& mask);

    // ---- LSTM step by step, and batches of sequences of unequal length ------------------------
    // W cells; an operand called strided may be one gate block of a (rows by 4W) matrix, all others
    // are dense. Composed, these give the steps of lstm_op and lstm_bp_op without clipping.

    /// G(alpha * in * w[c] + beta * bak), with G of lstm_op; `bak` strided.
    void ld_mul_diag_mat_sigmoid(const Tensor& in, const Tensor& w, const Tensor& bak,
                                 DType alpha = 1, DType beta = 1);
    /// a * b + c * d
    void elem_mul_add(const Tensor& a, const Tensor& b, const Tensor& c, const Tensor& d);
    /// b = tanh(c) and this = a * tanh(c): `b` is a second output.
    void elem_mul_tanh(const Tensor& a, const Tensor& b, const Tensor& c);
    /// alpha * b * c * (1 - c) + beta * old; all strided.
    void ld_sigmoid_bprop(const Tensor& b, const Tensor& c, DType alpha = 1, DType beta = 0);
    /// a * b * c * (1 - c); this strided.
    void ld_sigmoid_backprop(const Tensor& a, const Tensor& b, const Tensor& c);
    /// m_err * o * (1 - hc * hc) + o_err * w_oc[c] + ebc; `o` and `o_err` strided.
    void ld_cell_cur_error(const Tensor& m_err, const Tensor& o, const Tensor& hc,
                           const Tensor& o_err, const Tensor& w_oc, const Tensor& ebc);
    /// c_err * f + f_err * w_fc[c] + i_err * w_ic[c]; `f_err` and `i_err` strided.
    void ld_cell_back_error(const Tensor& c_err, const Tensor& f, const Tensor& f_err,
                            const Tensor& w_fc, const Tensor& i_err, const Tensor& w_ic);
    /// a * b * (1 - c * c); this strided.
    void ld_tanh_backprop(const Tensor& a, const Tensor& b, const Tensor& c);
    /// this[c] = alpha * sum over rows of a * b + beta * old; `a` and `b` strided.
    void diag_mat_diff(const Tensor& a, const Tensor& b, DType alpha = 1, DType beta = 0);
    /// Each sequence reversed in time, its padding left in place: frame t of sequence b is row
    /// t * batch_size + b. `in` must not be this tensor.
    void mask_reverse(const Tensor& in, const Tensor<int>& batch_seq_len, int batch_size,
                      int seq_len);
    /// On a Tensor<int>: this[b] = the number of frames t with mask[t * batch_size + b] not 0.
    void count_valid_label(const Tensor<int>& mask, int batch_size, int sub_frame_len);

    // ---- Convolution of filter banks along frequency, in groups of filter positions -----------
    // A feature row holds context frame s, delta d and frequency q at (s * delta + d) * fbank + q.
    // Group g has the positions conv_start[g] to conv_end[g], both inclusive, and a block of rows
    // of its own: row (frame n, position c) of the group stands n * positions + c - conv_start[g]
    // rows after the group's first. Positions lie in [0, fbank - filter_size], which is the
    // caller's to keep. All matrices are dense. `conv_out_dim` is not read.

    /// The patch matrix: column f * temporal_dim + t of row (n, c) is feat(n, t * fbank + c + f).
    void expand_feat(const Tensor& feat, int fbank, int delta, int conv_out_dim, int filter_size,
                     const Tensor<int>& conv_start, const Tensor<int>& conv_end);
    /// The adjoint: patch errors summed back onto the features. The host adds to what this tensor
    /// holds, so the caller zeroes it; a GPU replaces it.
    void shrink_errors(const Tensor& expand, int fbank, int delta, int conv_out_dim,
                       int filter_size, const Tensor<int>& conv_start, const Tensor<int>& conv_end);
    /// this(r, c) += bias(k, c) for the rows r of each of `batch` equal blocks k.
    void audio_conv_batch_bias(const Tensor& bias, int batch);
    /// On dbias: this(k, c) = sum of dy(r, c) over the rows of block k.
    void audio_conv_batch_bias_bp(const Tensor& dy, int batch);
    /// alpha * max + beta * old over `pooling_size` neighbouring positions inside each group of
    /// conv_size[g]; positions left over are not pooled. One row per frame; column j is filter
    /// j / pooling_len at pooled position j % pooling_len. `max_idx` receives the winner's offset,
    /// the lowest among equals. `filter_num` counts the filters of all groups.
    void max_pooling(const Tensor& in, const Tensor<int>& conv_size, int filter_num,
                     int pooling_size, Tensor<int>& max_idx, DType alpha = 1, DType beta = 0);
    /// alpha * in + beta * old at the winners; all else keeps its value, so the caller zeroes it.
    void max_pooling_bp(const Tensor& in, const Tensor<int>& conv_size, int filter_num,
                        int pooling_size, const Tensor<int>& max_idx, DType alpha = 1,
                        DType beta = 0);

    // ---- Batch normalization over frames ------------------------------------------------------

    /// (x - mean[c]) * var[c] * scale[c] + bias[c], and zeros in rows whose mask is -1. `var` is
    /// the inverse standard deviation. `epsilon` is not read. `x` may be this tensor.
    void audio_batch_norm_inf(const Tensor& x, const Tensor& scale, const Tensor& bias,
                              const Tensor& mean, const Tensor& var, const Tensor<int>& mask,
                              DType epsilon);
    /// Training, per column c, with sums over rows weighted by the mask (1 valid, 0 padding):
    ///   m = sum(x) / real_frame_size,  v = sum((x - m)^2) / real_frame_size,
    ///   run = (1 - exp_avg_factor) * run + exp_avg_factor * (m or v),
    ///   saved_mean = run_mean,  saved_inv_std = 1 / sqrt(run_var + epsilon),
    ///   statis = statis * statis_factor + (m or v),
    ///   this = (scale * (x - run_mean) * saved_inv_std + bias) * mask.
    /// It normalizes with the running averages just updated. The host takes v as sum(x^2) /
    /// real_frame_size - m^2, which is the same where real_frame_size counts the valid rows. `x`
    /// may be this tensor.
    void audio_batch_norm_train(const Tensor& x, const Tensor& scale, const Tensor& bias,
                                const Tensor<int>& mask, Tensor& run_mean, Tensor& run_var,
                                Tensor& statis_mean, Tensor& statis_var, Tensor& saved_mean,
                                Tensor& saved_inv_std, int real_frame_size, DType exp_avg_factor,
                                DType statis_factor, DType epsilon);
    /// On dx, with h = saved_inv_std * (x - saved_mean) and sums over rows weighted by the mask:
    ///   dbias = sum(dy),  dscale = sum(h * dy),
    ///   this = scale * saved_inv_std * (dy - (h * dscale + dbias) / real_frame_size) * mask.
    /// That is the derivative of a normalization with the batch's own statistics: it is exact where
    /// exp_avg_factor was 1, and an approximation where the running averages remember more.
    /// `exp_avg_factor` and `epsilon` are not read. `dy` may be this tensor.
    void audio_batch_norm_bp(const Tensor& x, const Tensor& dy, const Tensor& scale,
                             const Tensor& saved_mean, const Tensor& saved_inv_std,
                             const Tensor<int>& mask, Tensor& dscale, Tensor& dbias,
                             int real_frame_size, DType exp_avg_factor, DType epsilon);

    // ---- Linear layer helpers, on dense matrices ----------------------------------------------

    /// The maximum of `pooling_size` neighbouring columns; `idx_vec` receives the winner's offset,
    /// the lowest among equals. After Goodfellow et al., "Maxout networks", ICML 2013.
    void max_out_fwd(const Tensor& in, int pooling_size, Tensor<int>& idx_vec);
    /// alpha * in + beta * old at the winners; all else keeps its value.
    void max_out_bwd(const Tensor& in, int pooling_size, const Tensor<int>& idx_vec,
                     DType alpha = 1, DType beta = 0);
    /// Columns [count, count + width of in) of this become `in`.
    void col_append(const Tensor& in, index_t count);
    /// This becomes columns [count, count + width of this) of `in`.
    void col_deappend(const Tensor& in, index_t count);

    // ---- Files --------------------------------------------------------------------------------
    // Elements are stored row-major, binary fields in the byte order of the host, without a magic
    // number or a type tag: the reader knows form and type. Binary writers abort on a pitched host
    // tensor; a GPU tensor is copied to the host first. Readers resize this tensor. None reports a
    // file that is truncated or malformed past its shape: what it doesn't hold reads as 0.
    // The forms that take a name open the file, and abort if they can't.

    /// Plain binary form: `int` axis count, an `int` per axis, the elements.
    void write(std::ofstream& out) const;
    /// Aborts unless `byte_size`, the width of the shape's fields, is 4, or 0 for the default.
    void read(std::ifstream& in, index_t byte_size = 0);
    /// hfnn form of a matrix: rows and columns as `size_t`, the elements.
    void write_hfnn(std::ofstream& out) const;
    /// The shape's fields are 8 bytes wide, or 4 as `byte_size` says; 0 means 8.
    void read_hfnn(std::ifstream& in, index_t byte_size = 0);
    /// Score form of a matrix: three `int` of 0, rows and columns as `int`, the elements.
    void write_score(std::ofstream& out) const;
    /// The first `frame_len` frames of sequence `batch_idx`, where row t * batch_size + b is frame
    /// t of sequence b.
    void write_score(std::ofstream& out, int batch_idx, int batch_size, int frame_len) const;
    /// Bracket text form, of 1 to 5 axes: a line with the axes, then a line per row, as in
    /// `[0, 2, 0 - 4]`, a tab and the elements with six decimals. A `count` above 0 gives the axes
    /// and the first `count` elements on one line, which can't be read back.
    void write(FILE* f, int count = 0) const;
    void write(const char* filename, int count = 0) const;
    /// Reads the bracket text form. Row heads are skipped, not compared.
    void read(FILE* f);
    void read(const char* filename);
    /// Diff form: the axes, then a line per element with its position and its value, as float,
    /// with `fixed` decimals. All elements if `count` is at most 0, else the first `count`.
    void write_diff(FILE* f, int count = 0, int fixed = 6) const;
    void write_diff(const char* filename, int count = 0, int fixed = 6) const;

    // ---- Debugging ----------------------------------------------------------------------------

    /// Prints `name` and the first `count` elements to standard output, a line each: position and
    /// value. If `count` is at most 0, all elements, with coordinates, which a pitched host view
    /// takes from the pitch. Like all of `show`, this leaves std::cout with precision 6 and
    /// without its fixed flag.
    void show(const char* name, int count = 0) const;
    /// The elements from coordinate `start` up to, not including, `stop`, a line per row.
    void show(const char* name, const Dim& start, const Dim& stop) const;
    /// The same for 1 to 4 axes; logs an error and prints nothing if the tensor has others.
    void show(const char* name, int w1, int w2) const;
    void show(const char* name, int h1, int w1, int h2, int w2) const;
    void show(const char* name, int c1, int h1, int w1, int c2, int h2, int w2) const;
    void show(const char* name, int n1, int c1, int h1, int w1, int n2, int c2, int h2,
              int w2) const;
    /// How many elements differ from those of `ref` by more than 1e-5, in row-major order, on any
    /// devices; NaN differs from nothing. Aborts unless the element counts are equal. `filename`
    /// and `index` are not read.
    index_t check(const Tensor<T>& ref, const char* filename = nullptr, index_t index = 0) const;

private:
    friend void gpu::vorn_norm1(const Tensor<float>& in, DType* res);
    friend void gpu::vorn_norm2(const Tensor<float>& in, DType* res);

    Tensor view(const Dim& size, index_t stride, T* ptr) const;

    std::shared_ptr<Buffer> _buffer;
    Dim _size;
    index_t _stride;
    T* _ptr;
    Device _device;
    bool _is_block;
};

}  // namespace vorn

#endif  // VORN_TENSOR_TENSOR_H_
