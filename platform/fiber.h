// Execution contexts with their own stacks, switched cooperatively on one thread: what script
// coroutines run on. POSIX builds use ucontext, Windows builds use Fibers.
#pragma once

#include <cstddef>
#include <cstdint>

namespace korvel::platform {

struct Fiber;

using FiberEntry = void (*)(void* argument);

// The calling thread's own context, made once per thread; never destroyed by callers.
Fiber* threadFiber();

// A new context with a stack of about stackSize bytes (committed as it is touched). entry
// runs on the first switch to it and must never return: it ends by switching away for good
// (switchFiber with finished = true). Null when the stack cannot be had.
Fiber* createFiber(std::size_t stackSize, FiberEntry entry, void* argument);
// Frees a fiber that is not running.
void destroyFiber(Fiber* fiber);

// Suspends `from` (the running context) and continues `to`. finished says `from` will never
// run again, so tools that track stacks can forget it.
void switchFiber(Fiber* from, Fiber* to, bool finished = false);

// The highest address of a created fiber's stack and its usable size.
std::uintptr_t fiberStackTop(const Fiber* fiber);
std::size_t fiberStackSize(const Fiber* fiber);

}  // namespace korvel::platform
