#ifndef GPUSIM_GPUSIM_LAUNCH_H_
#define GPUSIM_GPUSIM_LAUNCH_H_

/// Launch of a kernel.

#include <cstddef>
#include <memory>
#include <tuple>
#include <type_traits>
#include <utility>

#include "gpusim/device_functions.h"
#include "gpusim/runtime_api.h"

struct cudaLaunchAttribute;

typedef struct cudaLaunchConfig_st {
    dim3 gridDim;
    dim3 blockDim;
    size_t dynamicSmemBytes;
    cudaStream_t stream;
    cudaLaunchAttribute* attrs;
    unsigned numAttrs;
} cudaLaunchConfig_t;

namespace gpusim::detail {

constexpr unsigned kNoThread = ~0u;
constexpr size_t kMaxArgumentBytes = 4096;

/// What a run of threads has to know of the fiber that it runs on.
struct FiberThread {
    /// Linear index of the thread that parked on this fiber; kNoThread while none has.
    unsigned thread = kNoThread;
};

/// A kernel with its arguments.
class KernelCall {
public:
    virtual ~KernelCall() = default;

    /// Runs the threads [first, last) of the current block one after the other. Ends early when
    /// one has parked at a barrier: its stack keeps this frame, and others go on elsewhere.
    virtual void run(const FiberThread& self, unsigned first, unsigned last) = 0;
    virtual const void* address() const = 0;
    /// The bytes that the kernel's arguments lie in.
    virtual const void* arguments() const = 0;
    virtual size_t argument_bytes() const = 0;
    /// Whether `is_usable` accepts all arguments that are pointers.
    virtual bool have_usable_pointers(bool (*is_usable)(const void*)) const = 0;
};

/// `Kernel` is a pointer to a function, or a std::integral_constant of one.
template <class Kernel, class... P>
class TypedKernelCall final : public KernelCall {
public:
    template <class... A>
    explicit TypedKernelCall(Kernel kernel, A&&... args)
        : kernel_(kernel), args_(std::forward<A>(args)...) {}

    // Flat: a kernel that is called for each thread would fetch its arguments anew.
    __attribute__((flatten)) void run(const FiberThread& self, unsigned first,
                                      unsigned last) override {
        run_threads(self, first, last, std::index_sequence_for<P...>{});
    }
    const void* address() const override {
        return reinterpret_cast<const void*>(static_cast<void (*)(P...)>(kernel_));
    }
    const void* arguments() const override { return &args_; }
    size_t argument_bytes() const override { return sizeof(args_); }
    bool have_usable_pointers(bool (*is_usable)(const void*)) const override {
        return std::apply(
            [=](const P&... values) { return (is_usable(pointer_to_data(values)) && ...); }, args_);
    }

private:
    /// Null for what is no pointer, or one to a function.
    template <class T>
    static const void* pointer_to_data(const T& value) {
        if constexpr (std::is_pointer_v<T> && !std::is_function_v<std::remove_pointer_t<T>>) {
            return const_cast<const void*>(static_cast<const volatile void*>(value));
        } else {
            return nullptr;
        }
    }

    // Not seen by ThreadSanitizer, to which the threads of a block are separate.
    __attribute__((no_sanitize("thread"))) static void set(unsigned& coordinate, unsigned value) {
        coordinate = value;
    }

    template <size_t... I>
    void run_threads(const FiberThread& self, unsigned first, unsigned last,
                     std::index_sequence<I...>) {
        // Locals, so that small arguments stay in registers from thread to thread.
        void (*const kernel)(P...) = kernel_;
        [[maybe_unused]] const std::tuple<P...> args = args_;
        const unsigned size_x = blockDim.x;
        const unsigned size_y = blockDim.y;
        uint3 index{first % size_x, first / size_x % size_y, first / size_x / size_y};
        for (unsigned left = last - first; left != 0;) {
            set(threadIdx.y, index.y);
            set(threadIdx.z, index.z);
            const unsigned stop = left < size_x - index.x ? index.x + left : size_x;
            left -= stop - index.x;
            for (unsigned x = index.x; x != stop; ++x) {
                set(threadIdx.x, x);
                kernel(std::get<I>(args)...);
                if (__builtin_expect(self.thread != kNoThread, 0)) {
                    return;
                }
            }
            index.x = 0;
            if (++index.y == size_y) {
                index.y = 0;
                ++index.z;
            }
        }
    }

    Kernel kernel_;
    std::tuple<P...> args_;
};

/// Why `config` cannot be launched, or cudaSuccess; recorded as the last error.
cudaError_t check_launch(const cudaLaunchConfig_t* config, const void* kernel);
cudaError_t submit(const cudaLaunchConfig_t& config, std::unique_ptr<KernelCall> call);

template <class Kernel, class... P, class... A>
cudaError_t launch(const cudaLaunchConfig_t* config, Kernel kernel, void (*address)(P...),
                   A&&... args) {
    static_assert(!(std::is_reference_v<P> || ...), "a kernel's parameters are values");
    static_assert((std::is_trivially_copyable_v<P> && ...),
                  "a kernel's parameters are trivially copyable: their bytes go to the device");
    static_assert((sizeof(P) + ... + 0) <= kMaxArgumentBytes,
                  "a kernel's parameters are too large");
    static_assert(sizeof...(P) == sizeof...(A), "wrong number of arguments for this kernel");
    const cudaError_t error = check_launch(config, reinterpret_cast<const void*>(address));
    if (error != cudaSuccess) {
        return error;
    }
    // A function's parameters, so that arguments convert as they do in a plain call.
    const auto bind = [&](P... values) {
        return std::make_unique<TypedKernelCall<Kernel, P...>>(kernel, values...);
    };
    return submit(*config, bind(std::forward<A>(args)...));
}

}  // namespace gpusim::detail

/// Enqueues `kernel` with copies of its arguments, converted to the kernel's parameter types.
/// Refused with cudaErrorInvalidConfiguration: an extent of zero, more than 1024 threads a block
/// (64 along z), more than 65535 blocks along y or z. Shared memory is static here: a launch with
/// dynamic shared memory or attributes is refused with cudaErrorNotSupported.
template <class... P, class... A>
cudaError_t cudaLaunchKernelEx(const cudaLaunchConfig_t* config, void (*kernel)(P...),
                               A&&... args) {
    return ::gpusim::detail::launch(config, kernel, kernel, std::forward<A>(args)...);
}

/// The same for a kernel that is known at compile time: it is inlined into the loop that runs the
/// threads of a block. The toolkit of a real GPU has no such form.
template <class... P, void (*Kernel)(P...), class... A>
cudaError_t cudaLaunchKernelEx(const cudaLaunchConfig_t* config,
                               std::integral_constant<void (*)(P...), Kernel> kernel, A&&... args) {
    return ::gpusim::detail::launch(config, kernel, Kernel, std::forward<A>(args)...);
}

#endif  // GPUSIM_GPUSIM_LAUNCH_H_
