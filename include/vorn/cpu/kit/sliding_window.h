#ifndef VORN_CPU_KIT_SLIDING_WINDOW_H_
#define VORN_CPU_KIT_SLIDING_WINDOW_H_

#include <algorithm>

#include "vorn/base.h"
#include "vorn/cpu/kit/loops.h"

/// Loops over the positions of a window that slides along a row of an image. They run across the
/// positions, with one tap of the window at a time: neighbouring positions are then neighbours in
/// memory, or `stride` apart, and no position is tested.
namespace vorn {
namespace cpu {

/// The positions p in [begin, end), within [0, count), at which a tap reads inside the image:
/// 0 <= offset + p * stride < extent.
struct InsideSpan {
    int begin, end;

    InsideSpan(int offset, int stride, int extent, int count) {
        begin = offset < 0 ? std::min(div_up(-offset, stride), count) : 0;
        end = offset < extent ? std::min(div_up(extent - offset, stride), count) : 0;
        end = std::max(begin, end);
    }
    int size() const { return end - begin; }
};

/// Calls f(p, p * stride) for p in [0, count), with the usual strides as constants, without which
/// the compiler does not vectorise the loop. No call may depend on another.
template <typename F>
VORN_FORCE_INLINE void for_each_position(int count, int stride, F f) {
    if (stride == 1) {
        for_each_element(count, [=](int p) { f(p, p); });
    } else if (stride == 2) {
        for_each_element(count, [=](int p) { f(p, 2 * p); });
    } else {
        for_each_element(count, [=](int p) { f(p, p * stride); });
    }
}

}  // namespace cpu
}  // namespace vorn

#endif  // VORN_CPU_KIT_SLIDING_WINDOW_H_
