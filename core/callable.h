// Function values: script functions, chunks made by load, and native functions.
#pragma once

#include "core/variable.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace korvel {

// A native binding: the arguments as a read-only vector, one result. Failures are thrown
// (ScriptError or any std::exception) and become script errors.
using NativeFunction = std::function<Variable(const std::vector<Variable>&)>;

struct FunctionProto;  // the compiled body of a script function (interpreter internal)
struct Coroutine;      // a coroutine's own stack and state (interpreter internal)

struct ScriptCallable : HeapObject {
    enum class Kind : std::uint8_t { Script, Chunk, Native };

    ScriptCallable() = default;
    ~ScriptCallable();
    ScriptCallable(const ScriptCallable&) = delete;
    ScriptCallable& operator=(const ScriptCallable&) = delete;

    Kind kind = Kind::Native;
    std::string name;                     // used in messages
    NativeFunction native;                // for Kind::Native
    std::shared_ptr<FunctionProto> proto; // for Kind::Script and Kind::Chunk

    // Built-in numeric functions of one number (math.floor, math.sqrt, ...) also offer this
    // form, so compiled expressions can call them without building an argument vector. It
    // must give what `native` gives; an input it does not take (below minimum) goes to `native`.
    double (*scalarUnary)(double) = nullptr;
    bool integralResult = false;     // an int when the result fits
    double scalarMinimum = -1.0 / 0.0;

    // Set on the function value that stands for a coroutine (a Native one: calling it resumes).
    Coroutine* coroutine = nullptr;
};

}  // namespace korvel
