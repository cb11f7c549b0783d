#ifndef VORN_CONTEXT_CONTEXT_H_
#define VORN_CONTEXT_CONTEXT_H_

#include "vorn/context/resource.h"

/// The GPU state of a host thread. A thread that issues GPU work sets its context up first; each
/// thread works on its own stream, and threads that share a tensor order their work themselves.
namespace vorn {

// `__thread` rather than `thread_local`: a reader elsewhere then knows that no initialiser is to be
// run, and reads the variable without a call.
extern __thread ThreadContext* t_ctx;

/// The stream of every launch and asynchronous call of this thread.
extern __thread cudaStream_t default_stream;

/// When true, every launch is followed by a wait and an error check, which stops the process at
/// the launch site of a kernel that failed. When false (the start value), calls return with their
/// kernels in flight.
extern __thread bool g_sync_flag;

/// Sets up the calling thread's context on GPU `device`: streams, library handles, generators and
/// scratch. Without a GPU it sets up the host generator only. Aborts if the thread has a context.
void init_thread_context(int device = 0);

/// Waits for the thread's work and frees its context. Does nothing where there is none, and where
/// exit() has come so far that the GPU's runtime may be gone.
void release_thread_context();

/// Restarts the thread's host and GPU random generators at `seed`. Aborts without a context.
void seed_thread_context(unsigned long long seed);

/// Waits until the GPU has done what the calling thread has queued on its `default_stream`. Aborts
/// with the text of the status if that failed. Does nothing on a machine without a GPU.
void synchronize();

/// True where a GPU (or the simulated one) can be used.
bool has_gpu();

/// The context of the calling thread for the lifetime of a scope.
class ThreadContextScope {
public:
    explicit ThreadContextScope(int device = 0) { init_thread_context(device); }
    ~ThreadContextScope() { release_thread_context(); }
    ThreadContextScope(const ThreadContextScope&) = delete;
    ThreadContextScope& operator=(const ThreadContextScope&) = delete;
};

}  // namespace vorn

#endif  // VORN_CONTEXT_CONTEXT_H_
