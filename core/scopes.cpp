// Where names live: global slots, the frames of running functions, and the native-call scope.
//
// A function's frame holds a slot for each name it declares local; a slot stays Unset until
// its declaration runs, and until then the name reads and writes through to the globals,
// exactly as if the local did not exist yet. Names created at run time in a frame (through
// the external scope) go to the frame's extras.
#include "core/interpreter_internal.h"

#if defined(_WIN32)
#include <windows.h>
#else
#include <pthread.h>
#endif

namespace korvel {

std::int32_t Interpreter::globalSlot(std::string_view name) {
    std::string key(name);
    auto found = globalIndex.find(key);
    if (found != globalIndex.end()) return found->second;
    auto slot = static_cast<std::int32_t>(globals.size());
    globals.push_back(Variable::unset());
    globalIndex.emplace(std::move(key), slot);
    return slot;
}

void Interpreter::setGlobal(std::string_view name, Variable value) {
    std::int32_t slot = globalSlot(name);
    if (slot < 0 || static_cast<std::size_t>(slot) >= globals.size())
        throw ScriptError("Internal slot error while setting variable: " + std::string(name));
    globals[static_cast<std::size_t>(slot)] = std::move(value);
}

Variable Interpreter::getGlobal(std::string_view name) {
    auto found = globalIndex.find(std::string(name));
    if (found == globalIndex.end()) return Variable();
    const Variable& value = globals[static_cast<std::size_t>(found->second)];
    return value.isUnset() ? Variable() : value;
}

std::vector<std::pair<std::string, Variable>>& Interpreter::nativeScope() {
    if (nativeScopes.size() <= nativeDepth) nativeScopes.resize(nativeDepth + 1);
    return nativeScopes[nativeDepth];
}

namespace {

Variable* findInFrame(Activation& activation, const std::string& name) {
    if (activation.proto) {
        auto slot = activation.proto->slotIndex.find(name);
        if (slot != activation.proto->slotIndex.end()) {
            Variable& value = activation.slots[slot->second];
            if (!value.isUnset()) return &value;
        }
    }
    if (activation.extras)
        for (auto& entry : *activation.extras)
            if (entry.first == name) return &entry.second;
    return nullptr;
}

Variable* findInExtras(Activation* activation, const std::string& name) {
    if (!activation || !activation->extras) return nullptr;
    for (auto& entry : *activation->extras)
        if (entry.first == name) return &entry.second;
    return nullptr;
}

}  // namespace

Variable* Interpreter::findLocalByName(const std::string& name, bool acrossBases) {
    if (!current) return nullptr;
    if (!acrossBases) return findInFrame(*current, name);
    for (auto it = activations.rbegin(); it != activations.rend(); ++it)
        if (Variable* found = findInFrame(*it, name)) return found;
    return nullptr;
}

Variable* Interpreter::resolveVariablePtr(const NameRef& name) {
    switch (name.scope) {
    case -1: {
        if (current) {
            if (name.localSlot >= 0) {
                Variable& slot = current->slots[name.localSlot];
                if (!slot.isUnset()) return &slot;
            }
            if (Variable* extra = findInExtras(current, name.name)) return extra;
        }
        Variable& global = globals[static_cast<std::size_t>(name.globalSlot)];
        return global.isUnset() ? nullptr : &global;
    }
    case 0:
        for (auto& entry : nativeScope())
            if (entry.first == name.name) return &entry.second;
        return nullptr;
    case 1: {
        Variable& global = globals[static_cast<std::size_t>(name.globalSlot)];
        return global.isUnset() ? nullptr : &global;
    }
    case 2:
    case 3:
        if (!current) return nullptr;
        if (name.localSlot >= 0) {
            Variable& slot = current->slots[name.localSlot];
            if (!slot.isUnset()) return &slot;
        }
        return findInExtras(current, name.name);
    default: return nullptr;
    }
}

Variable Interpreter::resolveVariable(const NameRef& name) {
    Variable* found = resolveVariablePtr(name);
    return found ? *found : Variable();
}

void Interpreter::assignVariable(const NameRef& name, TargetScope scope, Variable value) {
    int code = name.scope;
    switch (scope) {
    case TargetScope::Plain:
        if (Variable* existing = resolveVariablePtr(name)) {
            *existing = std::move(value);
            return;
        }
        globals[static_cast<std::size_t>(name.globalSlot)] = std::move(value);
        return;
    case TargetScope::Native: code = 1; break;
    case TargetScope::Local: code = 2; break;
    case TargetScope::External: code = 3; break;
    case TargetScope::Decay: code = 0; break;
    case TargetScope::Explicit: break;
    }
    switch (code) {
    case 0: {
        auto& scopeValues = nativeScope();
        for (auto& entry : scopeValues)
            if (entry.first == name.name) {
                entry.second = std::move(value);
                return;
            }
        scopeValues.emplace_back(name.name, std::move(value));
        return;
    }
    case 1: {
        std::int32_t slot = name.globalSlot >= 0 ? name.globalSlot : globalSlot(name.name);
        if (static_cast<std::size_t>(slot) >= globals.size())
            throw ScriptError("Internal slot error while assigning variable: " + name.name);
        globals[static_cast<std::size_t>(slot)] = std::move(value);
        return;
    }
    case 2:
    case 3: {
        if (code == 3) {
            // An external write reaches the nearest frame, callers included, that has the name.
            if (Variable* existing = findLocalByName(name.name, true)) {
                *existing = std::move(value);
                externalNames.push_back(name.name);
                return;
            }
            externalNames.push_back(name.name);
        }
        if (!current) throw ScriptError("Internal slot error while assigning variable: " + name.name);
        if (name.localSlot >= 0) {
            current->slots[name.localSlot] = std::move(value);
            return;
        }
        if (Variable* extra = findInExtras(current, name.name)) {
            *extra = std::move(value);
            return;
        }
        if (!current->extras) current->extras = std::make_unique<std::vector<std::pair<std::string, Variable>>>();
        current->extras->emplace_back(name.name, std::move(value));
        return;
    }
    default: throw ScriptError("Unknown variable scope #" + std::to_string(code) + " for " + name.name);
    }
}

namespace {

// The lowest address of the current thread's stack, or 0 when it cannot be found.
std::uintptr_t stackLowAddress() {
#if defined(_WIN32)
    ULONG_PTR low = 0, high = 0;
    GetCurrentThreadStackLimits(&low, &high);
    return static_cast<std::uintptr_t>(low);
#else
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return 0;
    void* address = nullptr;
    std::size_t size = 0;
    pthread_attr_getstack(&attributes, &address, &size);
    pthread_attr_destroy(&attributes);
    return reinterpret_cast<std::uintptr_t>(address);
#endif
}

#if defined(KORVEL_SANITIZE) || defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kStackReserve = 1024 * 1024;  // sanitizer frames are larger
#else
constexpr std::size_t kStackReserve = 256 * 1024;
#endif

}  // namespace

void Interpreter::checkStack() {
    char marker = 0;
    auto here = reinterpret_cast<std::uintptr_t>(&marker);
    if (stackBase == 0) {
        std::uintptr_t low = stackLowAddress();
        stackBase = here;
        std::size_t room = (low && here > low) ? here - low : 1024 * 1024;
        stackLimit = room > 2 * kStackReserve ? room - kStackReserve : room / 2;
    }
    if (here < stackBase && stackBase - here > stackLimit)
        throw ScriptError("Call depth limit exceeded (recursion too deep)");
}

std::size_t Interpreter::stackRoom() {
    checkStack();
    char marker = 0;
    auto here = reinterpret_cast<std::uintptr_t>(&marker);
    std::size_t used = here < stackBase ? stackBase - here : 0;
    return used < stackLimit ? stackLimit - used : 0;
}

long Interpreter::patternStepLimit(long wanted) const {
    if (stepBudget == 0) return wanted;
    std::uint64_t allowance = stepBudget * kPatternStepsPerStatement;
    if (patternSteps >= allowance) return 0;
    return static_cast<long>(std::min<std::uint64_t>(static_cast<std::uint64_t>(wanted), allowance - patternSteps));
}

void Interpreter::requireUnsandboxed(const char* function) const {
    if (sandboxed) throw ScriptError(std::string(function) + " is not available in a sandboxed interpreter");
}

}  // namespace korvel

namespace korvel {

void Interpreter::setStackBounds(std::uintptr_t here, std::uintptr_t lowest) {
    std::size_t room = here > lowest ? here - lowest : 0;
    stackBase = here;
    stackLimit = room > 2 * kStackReserve ? room - kStackReserve : room / 2;
}

}  // namespace korvel
