#ifndef VORN_CONTEXT_LIFETIME_H_
#define VORN_CONTEXT_LIFETIME_H_

#include <memory>

#include "vorn/context/resource.h"

/// What GPU memory needs to outlive the thread that allocated it, and to meet the end of the
/// process.
namespace vorn {

/// The calling thread's `default_stream`, or the null stream's handle where it has none. The stream
/// of a thread's context lives on after that until its last holder has gone.
std::shared_ptr<CUstream_st> share_default_stream();

/// To be called when the GPU's runtime is up, so that its own exit handlers run after ours.
void watch_for_exit();

/// True once exit() has come so far that the GPU's runtime may be gone: what is destroyed from then
/// on leaves the GPU alone.
bool is_exiting();

}  // namespace vorn

#endif  // VORN_CONTEXT_LIFETIME_H_
