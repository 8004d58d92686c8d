// The argument helpers and module tables shared by every native binding.
#include "host/bindings.h"

#include "core/script_error.h"

namespace quillfen {

void bindingError(std::string_view functionName, std::string_view message) {
    std::string text;
    text.reserve(functionName.size() + 2 + message.size());
    text.append(functionName).append(": ").append(message);
    throw korvel::ScriptError(text);
}

const Variable& requireArg(const Arguments& args, std::size_t index, std::string_view functionName) {
    if (index >= args.size()) bindingError(functionName, "missing argument " + std::to_string(index + 1));
    return args[index];
}

double numericValue(const Variable& value, std::string_view functionName, std::string_view argumentName) {
    switch (value.type()) {
    case korvel::VarType::Int: return value.asInt();
    case korvel::VarType::Float: return value.asFloat();
    case korvel::VarType::Bool: return value.asBool() ? 1.0 : 0.0;
    default: bindingError(functionName, std::string(argumentName) + " must be numeric");
    }
}

const std::string& stringValue(const Variable& value, std::string_view functionName, std::string_view argumentName) {
    if (value.type() != korvel::VarType::String) bindingError(functionName, std::string(argumentName) + " must be a string");
    return value.asString();
}

void* pointerValue(const Variable& value, std::string_view functionName, std::string_view argumentName) {
    if (value.type() != korvel::VarType::Pointer) bindingError(functionName, std::string(argumentName) + " must be a pointer");
    return value.asPointer();
}

Variable returnValues(std::vector<Variable> list) {
    return Variable::makeMulti(std::move(list));
}

void makeModule(korvel::KorvelScript& engine, const std::string& name, const std::vector<ModuleEntry>& entries) {
    Variable module = Variable::makeTable();
    korvel::Table& table = module.table();
    table.reserve(entries.size());
    for (const ModuleEntry& entry : entries) {
        if (table.find(entry.name)) continue;  // the first entry of a name is the one kept
        table.set(entry.name, engine.createNativeCallable(entry.binding, name + "." + entry.name));
    }
    engine.pushVariable(name, std::move(module));
}

}  // namespace quillfen
