// Helpers for registering the built-in library.
#pragma once

#include "core/interpreter_internal.h"

#include <string>
#include <vector>

namespace korvel {

using Args = std::vector<Variable>;

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

private:
    Interpreter& m_vm;
};

// A number from text: an int when it is integral and fits, a float otherwise, nil when the
// text is not a number in that base.
Variable parseNumberText(std::string_view text, int base);

}  // namespace korvel

namespace korvel {
// Searches text from byte offset init for a Lua-style pattern. With positions, returns the
// start and end (1-based) and the captures; otherwise the captures or the whole match. Nil
// when nothing matches.
Variable findPattern(const std::string& text, const std::string& pattern, std::size_t init, bool positions);
}  // namespace korvel
