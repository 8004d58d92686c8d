// Fibers on the Win32 fiber API: the thread becomes a fiber on first use; each script
// coroutine gets a fiber whose stack is reserved in full and committed as it grows.
#include "platform/fiber.h"

#include <windows.h>

#include <new>

namespace korvel::platform {

struct Fiber {
    void* handle = nullptr;
    bool ownsHandle = false;
    std::uintptr_t stackTop = 0;
    std::size_t stackSize = 0;
    FiberEntry entry = nullptr;
    void* argument = nullptr;
};

namespace {

thread_local Fiber t_threadFiber;

// The running fiber, read from the thread's TEB by mingw's inline GetCurrentFiber. GCC 12 takes
// its fixed-offset segment read for an access into a zero-length array and warns (-Warray-bounds)
// once it is inlined into a caller, so the read stays in a function of its own.
#if defined(__GNUC__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#endif
__attribute__((noinline)) void* runningFiber() { return GetCurrentFiber(); }
#if defined(__GNUC__)
#pragma GCC diagnostic pop
#endif

void WINAPI fiberStart(void* parameter) {
    auto* self = static_cast<Fiber*>(parameter);
    // The stack's bounds, for the interpreter's depth check.
    ULONG_PTR low = 0, high = 0;
    GetCurrentThreadStackLimits(&low, &high);
    self->stackTop = static_cast<std::uintptr_t>(high);
    self->entry(self->argument);
    // The entry must switch away for good; returning would end the thread.
    ExitProcess(3);
}

}  // namespace

Fiber* threadFiber() {
    if (!t_threadFiber.handle) {
        void* handle = ConvertThreadToFiber(nullptr);
        if (!handle) handle = runningFiber();  // the thread already was a fiber
        else t_threadFiber.ownsHandle = true;
        t_threadFiber.handle = handle;
    }
    return &t_threadFiber;
}

Fiber* createFiber(std::size_t stackSize, FiberEntry entry, void* argument) {
    threadFiber();
    auto* fiber = new (std::nothrow) Fiber;
    if (!fiber) return nullptr;
    fiber->entry = entry;
    fiber->argument = argument;
    fiber->stackSize = stackSize;
    fiber->handle = CreateFiberEx(64 * 1024, stackSize, FIBER_FLAG_FLOAT_SWITCH, fiberStart, fiber);
    if (!fiber->handle) {
        delete fiber;
        return nullptr;
    }
    fiber->ownsHandle = true;
    return fiber;
}

void destroyFiber(Fiber* fiber) {
    if (!fiber || fiber == &t_threadFiber) return;
    if (fiber->handle) DeleteFiber(fiber->handle);
    delete fiber;
}

void switchFiber(Fiber*, Fiber* to, bool) { SwitchToFiber(to->handle); }

std::uintptr_t fiberStackTop(const Fiber* fiber) { return fiber->stackTop; }

std::size_t fiberStackSize(const Fiber* fiber) { return fiber->stackSize; }

}  // namespace korvel::platform
