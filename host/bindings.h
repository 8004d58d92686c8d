// The conventions every native binding follows: the argument helpers with their exact
// messages, binding errors, and module tables. Bindings live beside the subsystem they expose
// (host/korvel_module.cpp, graphics/mirel_bindings.cpp, ...) and are published by
// registerFunctions() in host/registry.cpp.
#pragma once

#include "core/korvel_script.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace quillfen {

using korvel::Variable;
using Arguments = std::vector<Variable>;

// One function of a module: its script-visible name and the native binding behind it.
struct ModuleEntry {
    std::string name;
    korvel::NativeFunction binding;
};

// Throws the runtime error "<functionName>: <message>" (functionName is the display name,
// such as "Korvel.sleep").
[[noreturn]] void bindingError(std::string_view functionName, std::string_view message);

// Argument `index` (0-based); "missing argument N" (1-based) when the list is shorter.
const Variable& requireArg(const Arguments& args, std::size_t index, std::string_view functionName);
// An integer, float or boolean (true 1, false 0) as a double; "<argumentName> must be numeric".
double numericValue(const Variable& value, std::string_view functionName, std::string_view argumentName);
// The text of a string value; "<argumentName> must be a string".
const std::string& stringValue(const Variable& value, std::string_view functionName, std::string_view argumentName);
// The native pointer of a pointer value; "<argumentName> must be a pointer".
void* pointerValue(const Variable& value, std::string_view functionName, std::string_view argumentName);
// Several results as one value, for bindings that return more than one.
Variable returnValues(std::vector<Variable> list);

// Builds the table of a module (first entry of a name wins; later ones are dropped) with a
// native callable per entry, displayed as "<name>.<function>", and publishes it as the global
// `name` of `engine`.
void makeModule(korvel::KorvelScript& engine, const std::string& name, const std::vector<ModuleEntry>& entries);

}  // namespace quillfen
