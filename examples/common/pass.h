#ifndef COMMON_PASS_H_
#define COMMON_PASS_H_

namespace common {

/// What a forward pass is for. In training some layers look at the batch as a whole, and some leave
/// out a part of it at random.
enum class Pass { kTraining, kInference };

}  // namespace common

#endif  // COMMON_PASS_H_
