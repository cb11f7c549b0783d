#ifndef VORN_RULES_OP_WRAPPERS_H_
#define VORN_RULES_OP_WRAPPERS_H_

#include "vorn/base.h"
#include "vorn/host_device.h"

/// What a kernel of the frame gets: a rule and the views of its operands, by value. One call does
/// one element, at an index on the contiguous path, at a row and column on the pitched path. Where
/// is_packed(), run_pack(i) does the i-th N elements of the contiguous path, each operand in one
/// access. All views of a wrapper are of the same form.
namespace vorn {

template <int N, typename... Views>
VORN_HD bool are_packed(const Views&... views) {
    return (views.template is_packed<N>() && ...);
}

template <typename Op, typename View>
struct GenerateOp {
    Op _op;
    View _out;

    GenerateOp(Op op, View out) : _op(op), _out(out) {}
    VORN_HD void operator()(index_t i) { _out(i) = _op(); }
    VORN_HD void operator()(index_t row, index_t col) { _out(row, col) = _op(); }
    template <int N>
    VORN_HD bool is_packed() const {
        return are_packed<N>(_out);
    }
    template <int N>
    VORN_HD void run_pack(index_t i) {
        typename View::template PackOf<N> out;
        for (int k = 0; k < N; ++k) {
            out.elements[k] = _op();
        }
        _out.template pack<N>(i) = out;
    }
};

template <typename Op, typename InView, typename OutView>
struct UnaryOp {
    Op _op;
    InView _in;
    OutView _out;

    UnaryOp(Op op, InView in, OutView out) : _op(op), _in(in), _out(out) {}
    VORN_HD void operator()(index_t i) { _out(i) = _op(_in(i)); }
    VORN_HD void operator()(index_t row, index_t col) { _out(row, col) = _op(_in(row, col)); }
    template <int N>
    VORN_HD bool is_packed() const {
        return are_packed<N>(_in, _out);
    }
    template <int N>
    VORN_HD void run_pack(index_t i) {
        const typename InView::template PackOf<N> in = _in.template pack<N>(i);
        typename OutView::template PackOf<N> out;
        for (int k = 0; k < N; ++k) {
            out.elements[k] = _op(in.elements[k]);
        }
        _out.template pack<N>(i) = out;
    }
};

template <typename Op, typename InView1, typename InView2, typename OutView>
struct BinaryOp {
    Op _op;
    InView1 _in1;
    InView2 _in2;
    OutView _out;

    BinaryOp(Op op, InView1 in1, InView2 in2, OutView out)
        : _op(op), _in1(in1), _in2(in2), _out(out) {}
    VORN_HD void operator()(index_t i) { _out(i) = _op(_in1(i), _in2(i)); }
    VORN_HD void operator()(index_t row, index_t col) {
        _out(row, col) = _op(_in1(row, col), _in2(row, col));
    }
    template <int N>
    VORN_HD bool is_packed() const {
        return are_packed<N>(_in1, _in2, _out);
    }
    template <int N>
    VORN_HD void run_pack(index_t i) {
        const typename InView1::template PackOf<N> in1 = _in1.template pack<N>(i);
        const typename InView2::template PackOf<N> in2 = _in2.template pack<N>(i);
        typename OutView::template PackOf<N> out;
        for (int k = 0; k < N; ++k) {
            out.elements[k] = _op(in1.elements[k], in2.elements[k]);
        }
        _out.template pack<N>(i) = out;
    }
};

template <typename Op, typename InView1, typename InView2, typename OutView>
struct TrinaryInplaceOp {
    Op _op;
    InView1 _in1;
    InView2 _in2;
    OutView _out;

    TrinaryInplaceOp(Op op, InView1 in1, InView2 in2, OutView out)
        : _op(op), _in1(in1), _in2(in2), _out(out) {}
    VORN_HD void operator()(index_t i) { _out(i) = _op(_in1(i), _in2(i), _out(i)); }
    VORN_HD void operator()(index_t row, index_t col) {
        _out(row, col) = _op(_in1(row, col), _in2(row, col), _out(row, col));
    }
    template <int N>
    VORN_HD bool is_packed() const {
        return are_packed<N>(_in1, _in2, _out);
    }
    template <int N>
    VORN_HD void run_pack(index_t i) {
        const typename InView1::template PackOf<N> in1 = _in1.template pack<N>(i);
        const typename InView2::template PackOf<N> in2 = _in2.template pack<N>(i);
        typename OutView::template PackOf<N> out = _out.template pack<N>(i);
        for (int k = 0; k < N; ++k) {
            out.elements[k] = _op(in1.elements[k], in2.elements[k], out.elements[k]);
        }
        _out.template pack<N>(i) = out;
    }
};

}  // namespace vorn

#endif  // VORN_RULES_OP_WRAPPERS_H_
