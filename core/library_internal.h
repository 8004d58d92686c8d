// Helpers for registering the built-in library.
#pragma once

#include "core/interpreter_internal.h"
#include "core/pattern.h"

#include <string>
#include <vector>

namespace korvel {

using Args = std::vector<Variable>;

// The longest string a library function builds (256 MiB); past it the function fails.
constexpr std::size_t kMaxStringResult = std::size_t(1) << 28;

class Library {
public:
    explicit Library(Interpreter& vm) : m_vm(vm) {}

    // A plain global function.
    void global(const std::string& name, NativeFunction function) {
        m_vm.setGlobal(name, m_vm.owner.createNativeCallable(std::move(function), name));
    }
    // The global group table `name`, created on first use.
    Variable group(const std::string& name) {
        Variable existing = m_vm.getGlobal(name);
        if (existing.type() == VarType::Table) return existing;
        Variable table = Variable::makeTable();
        m_vm.setGlobal(name, table);
        return table;
    }
    // group[name] = function; with alsoGlobal the short name is published too.
    Variable member(Variable& groupTable, const std::string& groupName, const std::string& name, NativeFunction function,
                    bool alsoGlobal = false) {
        Variable callable = m_vm.owner.createNativeCallable(std::move(function), groupName + "." + name);
        groupTable.table().set(name, callable);
        if (alsoGlobal) m_vm.setGlobal(name, callable);
        return callable;
    }
    // A built-in that calls may reach without an argument vector (see BuiltinId).
    Variable builtin(BuiltinId id, const std::string& name, BuiltinFunction function) {
        Variable callable = wrap(id, name, function);
        m_vm.setGlobal(name, callable);
        return callable;
    }
    Variable builtin(BuiltinId id, Variable& groupTable, const std::string& groupName, const std::string& name,
                     BuiltinFunction function, bool alsoGlobal = false) {
        Variable callable = wrap(id, groupName + "." + name, function);
        groupTable.table().set(name, callable);
        if (alsoGlobal) m_vm.setGlobal(name, callable);
        return callable;
    }

private:
    Variable wrap(BuiltinId id, const std::string& displayName, BuiltinFunction function) {
        Interpreter* vm = &m_vm;
        Variable callable = m_vm.owner.createNativeCallable(
            [vm, function](const std::vector<Variable>& args) { return function(*vm, args); }, displayName);
        m_vm.builtins[static_cast<std::size_t>(id)] = BuiltinEntry{callable, function};
        return callable;
    }

    Interpreter& m_vm;
};

// A number from text: an int when it is integral and fits, a float otherwise, nil when the
// text is not a number in that base.
Variable parseNumberText(std::string_view text, int base);

// Adds what a matcher spent to the run's pattern allowance when the search ends, also by an error.
struct PatternStepCharge {
    Interpreter& vm;
    const PatternMatcher& matcher;
    ~PatternStepCharge() { vm.patternSteps += static_cast<std::uint64_t>(matcher.stepsUsed()); }
};

// A matcher for one search from a library function, within the run's pattern allowance.
inline PatternOptions budgetedPatternOptions(Interpreter& vm, PatternOptions options = {}) {
    options.stepBudget = vm.patternStepLimit(options.stepBudget);
    return options;
}

// string.gsub and the global gsub (lib_gsub.cpp).
Variable gsubBuiltin(Interpreter& vm, Arguments args);

}  // namespace korvel
