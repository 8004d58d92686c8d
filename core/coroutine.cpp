// Coroutines: each runs a function on a stack of its own, switched cooperatively on the
// interpreter's thread. A coroutine value is a function value: calling it resumes it.
#include "core/library_internal.h"
#include "platform/fiber.h"

#include <algorithm>
#include <exception>
#include <utility>

namespace korvel {

namespace {

// Stacks are reserved in full and committed as they are touched.
#if defined(_WIN32)
constexpr std::size_t kCoroutineStackSize = 1024 * 1024;
#else
constexpr std::size_t kCoroutineStackSize = 8 * 1024 * 1024;
#endif
// A script call takes well over 256 bytes of machine stack, so the stack runs out first.
constexpr std::size_t kCoroutineFrameEstimate = 256;

}  // namespace

enum class CoroutineStatus : std::uint8_t { Suspended, Running, Normal, Dead };

struct Coroutine {
    Interpreter* vm = nullptr;
    Variable function;
    CoroutineStatus status = CoroutineStatus::Suspended;
    bool started = false;
    bool closing = false;
    platform::Fiber* fiber = nullptr;
    platform::Fiber* resumer = nullptr;
    ExecutionState state;
    std::vector<Variable> transfer;  // arguments in, yielded or returned values out
    std::exception_ptr failure;
    ScriptCallable* self = nullptr;  // the function value standing for this coroutine

    ~Coroutine() {
        if (fiber) platform::destroyFiber(fiber);
    }
};

namespace {

const char* statusName(CoroutineStatus status) {
    switch (status) {
    case CoroutineStatus::Suspended: return "suspended";
    case CoroutineStatus::Running: return "running";
    case CoroutineStatus::Normal: return "normal";
    case CoroutineStatus::Dead: return "dead";
    }
    return "dead";
}

void spreadInto(std::vector<Variable>& out, Variable value) {
    out.clear();
    if (value.type() == VarType::MultiValue) {
        for (const Variable& item : value.multiValues()) out.push_back(item);
    } else if (!value.isNil()) {
        out.push_back(std::move(value));
    }
}

Variable gather(std::vector<Variable>&& values) {
    if (values.empty()) return Variable();
    if (values.size() == 1) return std::move(values[0]);
    return Variable::makeMulti(std::move(values));
}

platform::Fiber* fiberOf(Interpreter& vm) {
    return vm.runningCoroutine ? vm.runningCoroutine->fiber : platform::threadFiber();
}

void coroutineMain(void* argument) {
    auto* co = static_cast<Coroutine*>(argument);
    Interpreter& vm = *co->vm;
    {
        char marker = 0;
        std::uintptr_t top = platform::fiberStackTop(co->fiber);
        std::uintptr_t lowest = top - platform::fiberStackSize(co->fiber);
        vm.setStackBounds(reinterpret_cast<std::uintptr_t>(&marker), lowest);
        try {
            std::vector<Variable> arguments = std::move(co->transfer);
            Variable result = vm.call(co->function, arguments);
            spreadInto(co->transfer, std::move(result));
        } catch (const CoroutineClose&) {
            co->transfer.clear();
        } catch (...) {
            co->transfer.clear();
            co->failure = std::current_exception();
        }
    }
    co->status = CoroutineStatus::Dead;
    platform::switchFiber(co->fiber, co->resumer, true);
}

// Runs co until it yields, returns or fails. Returns whether it finished.
void switchInto(Interpreter& vm, Coroutine& co) {
    Coroutine* previous = vm.runningCoroutine;
    platform::Fiber* here = fiberOf(vm);
    if (!co.fiber) {
        co.fiber = platform::createFiber(kCoroutineStackSize, coroutineMain, &co);
        if (!co.fiber) throw ScriptError("coroutine: not enough memory for a coroutine stack");
        std::size_t depth = std::min<std::size_t>(static_cast<std::size_t>(std::max(vm.callDepthLimit, 1)),
                                                  kCoroutineStackSize / kCoroutineFrameEstimate);
        co.state.activations.reserve(depth);
        co.state.nativeScopes.resize(1);
    }
    co.resumer = here;
    co.started = true;
    co.status = CoroutineStatus::Running;
    if (previous) previous->status = CoroutineStatus::Normal;
    vm.exchangeExecutionState(co.state);
    vm.runningCoroutine = &co;
    platform::switchFiber(here, co.fiber);
    vm.runningCoroutine = previous;
    vm.exchangeExecutionState(co.state);
    if (previous) previous->status = CoroutineStatus::Running;
    if (co.status == CoroutineStatus::Dead && co.fiber) {
        platform::destroyFiber(co.fiber);
        co.fiber = nullptr;
        co.state = ExecutionState{};
    }
}

// Resumes co with arguments. Values the coroutine yielded or returned go to results; a
// script error inside it comes back as its message (false), anything else passes on.
bool resume(Interpreter& vm, Coroutine& co, std::vector<Variable> arguments, std::vector<Variable>& results,
            Variable& message) {
    vm.closeUnreferencedCoroutines();
    if (co.status == CoroutineStatus::Dead) {
        message = Variable("cannot resume dead coroutine");
        return false;
    }
    if (co.status != CoroutineStatus::Suspended) {
        message = Variable("cannot resume non-suspended coroutine");
        return false;
    }
    // Keep the coroutine alive while it runs, whatever happens to the values naming it.
    Variable keepAlive = Variable::makeFunction(co.self);
    co.self->refCount++;
    co.transfer = std::move(arguments);
    switchInto(vm, co);
    results = std::move(co.transfer);
    co.transfer.clear();
    if (co.failure) {
        std::exception_ptr failure = std::exchange(co.failure, nullptr);
        try {
            std::rethrow_exception(failure);
        } catch (const ScriptError& error) {
            message = error.hasValue() ? error.value() : Variable(std::string(error.what()));
            return false;
        }
    }
    return true;
}

Coroutine* coroutineArgument(const Args& args, const char* message) {
    if (args.empty() || args[0].type() != VarType::Function || !args[0].callable().coroutine)
        throw ScriptError(message);
    return args[0].callable().coroutine;
}

}  // namespace

void Interpreter::exchangeExecutionState(ExecutionState& other) {
    using std::swap;
    swap(activations, other.activations);
    swap(current, other.current);
    swap(argumentDepth, other.argumentDepth);
    swap(valueStack, other.valueStack);
    swap(loopStack, other.loopStack);
    swap(argumentPool, other.argumentPool);
    swap(nativeScopes, other.nativeScopes);
    swap(nativeDepth, other.nativeDepth);
    swap(stackBase, other.stackBase);
    swap(stackLimit, other.stackLimit);
}

// Closing a suspended coroutine resumes it once more with a request that unwinds its stack,
// so every value its frames hold is released.
static void closeCoroutine(Interpreter& vm, Coroutine& co) {
    if (co.status != CoroutineStatus::Suspended || !co.started) return;
    // Values released while it unwinds may include the last one naming it.
    Variable keepAlive;
    if (co.self) {
        co.self->refCount++;
        keepAlive = Variable::makeFunction(co.self);
    }
    co.closing = true;
    switchInto(vm, co);
    co.failure = nullptr;
    co.transfer.clear();
}

void Interpreter::closeUnreferencedCoroutines() {
    while (!coroutinesToClose.empty()) {
        Coroutine* co = coroutinesToClose.back();
        coroutinesToClose.pop_back();
        closeCoroutine(*this, *co);
        liveCoroutines.erase(std::find(liveCoroutines.begin(), liveCoroutines.end(), co));
        delete co;
    }
}

void Interpreter::shutDownCoroutines() {
    // Closing one coroutine can free others, so look for the next one afresh each time.
    for (;;) {
        closeUnreferencedCoroutines();
        auto suspended = std::find_if(liveCoroutines.begin(), liveCoroutines.end(), [](const Coroutine* co) {
            return co->started && co->status == CoroutineStatus::Suspended;
        });
        if (suspended == liveCoroutines.end()) break;
        closeCoroutine(*this, **suspended);
    }
    // Those the host still holds forget the interpreter.
    for (Coroutine* co : liveCoroutines) co->vm = nullptr;
    liveCoroutines.clear();
}

ScriptCallable::~ScriptCallable() {
    if (!coroutine) return;
    Coroutine* co = coroutine;
    co->self = nullptr;
    Interpreter* vm = co->vm;
    if (!vm) {
        delete co;
        return;
    }
    if (co->started && co->status == CoroutineStatus::Suspended) {
        // Its stack still holds frames: unwind them at the next safe point.
        vm->coroutinesToClose.push_back(co);
        return;
    }
    vm->liveCoroutines.erase(std::find(vm->liveCoroutines.begin(), vm->liveCoroutines.end(), co));
    delete co;
}

void Interpreter::registerCoroutineLibrary() {
    Library lib(*this);
    Variable group = lib.group("coroutine");

    auto create = [this](const Args& args, const char* message) {
        if (args.size() != 1 || args[0].type() != VarType::Function) throw ScriptError(message);
        closeUnreferencedCoroutines();
        auto* co = new Coroutine;
        co->vm = this;
        co->function = args[0];
        auto* callable = new ScriptCallable;
        callable->kind = ScriptCallable::Kind::Native;
        callable->name = "coroutine";
        callable->coroutine = co;
        co->self = callable;
        liveCoroutines.push_back(co);
        // Calling the value resumes it; a failure inside is raised again in the caller.
        callable->native = [this, co](const Args& arguments) {
            std::vector<Variable> results;
            Variable message;
            if (!resume(*this, *co, arguments, results, message)) {
                std::string text = message.type() == VarType::String ? message.asString() : message.toString();
                throw ScriptError(text, message);
            }
            return gather(std::move(results));
        };
        return Variable::makeFunction(callable);
    };
    lib.member(group, "coroutine", "create",
               [create](const Args& args) { return create(args, "coroutine['create'](f) requires a function"); });
    lib.member(group, "coroutine", "wrap",
               [create](const Args& args) { return create(args, "coroutine['wrap'](f) requires a function"); });
    lib.member(group, "coroutine", "resume", [this](const Args& args) {
        Coroutine* co = coroutineArgument(args, "coroutine['resume'](co, ...) requires a coroutine");
        std::vector<Variable> results;
        Variable message;
        if (!resume(*this, *co, std::vector<Variable>(args.begin() + 1, args.end()), results, message))
            return Variable::makeMulti(std::vector<Variable>{Variable(false), std::move(message)});
        results.insert(results.begin(), Variable(true));
        return Variable::makeMulti(std::move(results));
    });
    lib.member(group, "coroutine", "yield", [this](const Args& args) {
        Coroutine* co = runningCoroutine;
        if (!co) throw ScriptError("coroutine['yield']: attempt to yield from outside a coroutine");
        co->transfer.assign(args.begin(), args.end());
        co->status = CoroutineStatus::Suspended;
        platform::switchFiber(co->fiber, co->resumer);
        if (co->closing) throw CoroutineClose{};
        return gather(std::move(co->transfer));
    });
    lib.member(group, "coroutine", "status", [](const Args& args) {
        Coroutine* co = coroutineArgument(args, "coroutine['status'](co) requires a coroutine");
        return Variable(statusName(co->status));
    });
    lib.member(group, "coroutine", "isyieldable", [this](const Args& args) {
        if (!args.empty()) throw ScriptError("coroutine['isyieldable']() takes no arguments");
        return Variable(runningCoroutine != nullptr);
    });
    lib.member(group, "coroutine", "running", [this](const Args& args) {
        if (!args.empty()) throw ScriptError("coroutine['running']() takes no arguments");
        if (!runningCoroutine || !runningCoroutine->self) return Variable();
        runningCoroutine->self->refCount++;
        return Variable::makeFunction(runningCoroutine->self);
    });
}

}  // namespace korvel
