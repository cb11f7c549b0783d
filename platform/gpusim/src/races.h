#ifndef GPUSIM_DETAIL_RACES_H_
#define GPUSIM_DETAIL_RACES_H_

// What ThreadSanitizer is told of the threads of a block, so that it finds the races between them;
// nothing without it.

#include "sanitizer.h"

namespace gpusim {

/// What leaves comes after all that has arrived.
class SyncPoint {
public:
#ifdef GPUSIM_TSAN
    void arrive() {
        __tsan_release(this);
    }
    void leave() {
        __tsan_acquire(this);
    }

private:
    void* unused_ = nullptr;  // the sanitizer tells points apart by their addresses
#else
    void arrive() {}
    void leave() {}
#endif
};

/// The points of a barrier that is met again and again. A thread may arrive at the next round
/// before another has left the last one, but never two rounds ahead of it.
class Rounds {
public:
    SyncPoint& point() { return points_[round_ % 2]; }
    void next() { ++round_; }

private:
    SyncPoint points_[2];
    unsigned round_ = 0;
};

}  // namespace gpusim

#endif  // GPUSIM_DETAIL_RACES_H_
