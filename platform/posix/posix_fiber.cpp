// Fibers on ucontext: each has an mmap'd stack with an inaccessible guard page below it.
#include "platform/fiber.h"

#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

#include <new>

#if defined(__SANITIZE_ADDRESS__)
#define KORVEL_FIBER_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KORVEL_FIBER_ASAN 1
#endif
#endif

#if defined(KORVEL_FIBER_ASAN)
#include <sanitizer/common_interface_defs.h>
#endif

namespace korvel::platform {

struct Fiber {
    ucontext_t context{};
    void* mapping = nullptr;   // guard page + stack; null for a thread's own context
    std::size_t mappingSize = 0;
    const void* stackLow = nullptr;  // as the address sanitizer wants it
    std::size_t stackSize = 0;
    FiberEntry entry = nullptr;
    void* argument = nullptr;
    void* fakeStack = nullptr;  // the sanitizer's record of this context while it is away
};

namespace {

thread_local Fiber t_threadFiber;
thread_local Fiber* t_switchedFrom = nullptr;

// Runs after every landing in a context: tells the sanitizer the switch is over and learns
// the bounds of the stack we came from (the thread's own stack has no other source).
void finishSwitch([[maybe_unused]] void* fakeStack) {
#if defined(KORVEL_FIBER_ASAN)
    const void* low = nullptr;
    std::size_t size = 0;
    __sanitizer_finish_switch_fiber(fakeStack, &low, &size);
    if (t_switchedFrom && !t_switchedFrom->mapping) {
        t_switchedFrom->stackLow = low;
        t_switchedFrom->stackSize = size;
    }
#endif
}

void trampoline(unsigned int high, unsigned int low) {
    auto address = (static_cast<std::uintptr_t>(high) << 16 << 16) | static_cast<std::uintptr_t>(low);
    Fiber* self = reinterpret_cast<Fiber*>(address);
    finishSwitch(nullptr);
    self->entry(self->argument);
    // The entry must switch away for good; returning would end the thread.
    __builtin_trap();
}

// Kept apart from createFiber so that getcontext's return cannot clobber its locals.
[[gnu::noinline]] bool prepareContext(Fiber* fiber) {
    if (getcontext(&fiber->context) != 0) return false;
    fiber->context.uc_stack.ss_sp = const_cast<void*>(fiber->stackLow);
    fiber->context.uc_stack.ss_size = fiber->stackSize;
    fiber->context.uc_link = nullptr;
    auto address = reinterpret_cast<std::uintptr_t>(fiber);
    makecontext(&fiber->context, reinterpret_cast<void (*)()>(trampoline), 2,
                static_cast<unsigned int>(address >> 16 >> 16), static_cast<unsigned int>(address & 0xffffffffu));
    return true;
}

}  // namespace

Fiber* threadFiber() { return &t_threadFiber; }

Fiber* createFiber(std::size_t stackSize, FiberEntry entry, void* argument) {
    long page = sysconf(_SC_PAGESIZE);
    std::size_t pageSize = page > 0 ? static_cast<std::size_t>(page) : 4096;
    stackSize = (stackSize + pageSize - 1) / pageSize * pageSize;
    std::size_t mappingSize = stackSize + pageSize;
    void* mapping = mmap(nullptr, mappingSize, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE | MAP_STACK,
                         -1, 0);
    if (mapping == MAP_FAILED) return nullptr;
    mprotect(mapping, pageSize, PROT_NONE);
    auto* fiber = new (std::nothrow) Fiber;
    if (!fiber) {
        munmap(mapping, mappingSize);
        return nullptr;
    }
    fiber->mapping = mapping;
    fiber->mappingSize = mappingSize;
    fiber->stackLow = static_cast<char*>(mapping) + pageSize;
    fiber->stackSize = stackSize;
    fiber->entry = entry;
    fiber->argument = argument;
    if (!prepareContext(fiber)) {
        destroyFiber(fiber);
        return nullptr;
    }
    return fiber;
}

void destroyFiber(Fiber* fiber) {
    if (!fiber || fiber == &t_threadFiber) return;
    if (fiber->mapping) munmap(fiber->mapping, fiber->mappingSize);
    delete fiber;
}

void switchFiber(Fiber* from, Fiber* to, bool finished) {
    t_switchedFrom = from;
#if defined(KORVEL_FIBER_ASAN)
    __sanitizer_start_switch_fiber(finished ? nullptr : &from->fakeStack, to->stackLow, to->stackSize);
#else
    (void)finished;
#endif
    swapcontext(&from->context, &to->context);
    finishSwitch(from->fakeStack);
}

std::uintptr_t fiberStackTop(const Fiber* fiber) {
    return reinterpret_cast<std::uintptr_t>(fiber->stackLow) + fiber->stackSize;
}

std::size_t fiberStackSize(const Fiber* fiber) { return fiber->stackSize; }

}  // namespace korvel::platform
