#include "fiber.h"

#include <pthread.h>
#include <sys/mman.h>

#include <new>

namespace gpusim {

namespace bc = boost::context::detail;

namespace {

// Room for printf and the mathematics library below a kernel's own frames; instrumented frames
// are several times as large.
constexpr size_t kStackSize = kSanitizer ? 256 * 1024 : 64 * 1024;
constexpr size_t kGuardSize = 4096;

// Stacks start at different lines of a page: at equal offsets, the hot ends of hundreds of stacks
// would share a few cache sets.
constexpr size_t kColours = 37;
constexpr size_t kColourStep = 64;

#if defined(__x86_64__)
// jump_fcontext comes back by a jump, so that a call of it would leave an entry too many on the
// processor's stack of return addresses, and every return from here up to the kernel would be
// mispredicted (40 ns a barrier instead of 12). Hence a jump in both directions.
inline bc::transfer_t jump(bc::fcontext_t to, void* data) {
    void* function = reinterpret_cast<void*>(&bc::jump_fcontext);
    bc::transfer_t transfer;
    __asm__ volatile(
        "subq $128, %%rsp\n\t"  // spares the red zone
        "leaq 1f(%%rip), %%rax\n\t"
        "pushq %%rax\n\t"
        "jmp *%%rcx\n"
        "1:\n\t"
        "addq $128, %%rsp"
        : "=a"(transfer.fctx), "=d"(transfer.data), "+D"(to), "+S"(data), "+c"(function)
        :
        : "r8", "r9", "r10", "r11", "xmm0", "xmm1", "xmm2", "xmm3", "xmm4", "xmm5", "xmm6", "xmm7",
          "xmm8", "xmm9", "xmm10", "xmm11", "xmm12", "xmm13", "xmm14", "xmm15", "memory", "cc");
    return transfer;
}
#else
inline bc::transfer_t jump(bc::fcontext_t to, void* data) {
    return bc::jump_fcontext(to, data);
}
#endif

void arrive(bc::transfer_t transfer, [[maybe_unused]] Fiber& self) {
    static_cast<Fiber*>(transfer.data)->context = transfer.fctx;
#ifdef GPUSIM_ASAN
    __sanitizer_finish_switch_fiber(self.fake_stack, nullptr, nullptr);
#endif
}

}  // namespace

Fiber::~Fiber() {
    if (mapped == 0) {
        return;
    }
#ifdef GPUSIM_TSAN
    __tsan_destroy_fiber(tsan_fiber);
#endif
    unpoison(stack, stack_size);
    munmap(stack - kGuardSize, mapped);
}

void adopt_thread_stack(Fiber& fiber) {
    pthread_attr_t attributes;
    void* low = nullptr;
    if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
        pthread_attr_getstack(&attributes, &low, &fiber.stack_size);
        pthread_attr_destroy(&attributes);
    }
    fiber.stack = static_cast<char*>(low);
#ifdef GPUSIM_TSAN
    fiber.tsan_fiber = __tsan_get_current_fiber();
#endif
}

void switch_fiber(Fiber& from, Fiber& to) {
#ifdef GPUSIM_ASAN
    __sanitizer_start_switch_fiber(&from.fake_stack, to.stack, to.stack_size);
#endif
    arrive(jump(to.context, &from), from);
}

void enter_fiber(bc::transfer_t transfer, Fiber& self) {
    arrive(transfer, self);
}

void become([[maybe_unused]] const Fiber& fiber) {
#ifdef GPUSIM_TSAN
    __tsan_switch_to_fiber(fiber.tsan_fiber, __tsan_switch_to_fiber_no_sync);
#endif
}

void name_fiber([[maybe_unused]] const Fiber& fiber, [[maybe_unused]] const std::string& name) {
#ifdef GPUSIM_TSAN
    __tsan_set_fiber_name(fiber.tsan_fiber, name.c_str());
#endif
}

void FiberPool::grow() {
    auto fiber = std::make_unique<Fiber>();
    const size_t size = kStackSize + kGuardSize;
    void* block = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK, -1, 0);
    if (block == MAP_FAILED) {
        throw std::bad_alloc();
    }
    mprotect(block, kGuardSize, PROT_NONE);
    fiber->mapped = size;
    fiber->stack = static_cast<char*>(block) + kGuardSize;
    fiber->stack_size = kStackSize - all_.size() % kColours * kColourStep;
    all_.push_back(std::move(fiber));
    reset(*all_.back());
    free_.push_back(all_.back().get());
}

void FiberPool::reset(Fiber& fiber) {
    fiber.thread = detail::kNoThread;
    fiber.fake_stack = nullptr;
    unpoison(fiber.stack, fiber.stack_size);
#ifdef GPUSIM_TSAN
    if (fiber.tsan_fiber != nullptr) {
        // What the fiber did comes before all that follows.
        void* const self = __tsan_get_current_fiber();
        __tsan_switch_to_fiber(fiber.tsan_fiber, __tsan_switch_to_fiber_no_sync);
        __tsan_switch_to_fiber(self, 0);
        __tsan_destroy_fiber(fiber.tsan_fiber);
    }
    fiber.tsan_fiber = __tsan_create_fiber(0);
#endif
    fiber.context = bc::make_fcontext(fiber.stack + fiber.stack_size, fiber.stack_size, entry_);
}

void FiberPool::abandon_all() {
    free_.clear();
    for (const auto& fiber : all_) {
        reset(*fiber);
        free_.push_back(fiber.get());
    }
}

}  // namespace gpusim
