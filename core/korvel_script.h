// The KorvelScript interpreter: all a host needs to run scripts and exchange values with them.
#pragma once

#include "core/bytecode.h"
#include "core/callable.h"
#include "core/script_error.h"
#include "core/table.h"
#include "core/variable.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {

struct RunResult {
    bool ok = true;
    Variable value;            // what a top-level return handed back (nil otherwise)
    std::string errorMessage;  // the bare message, as pcall would see it
    std::string errorReport;   // the full report: "KorvelScript error: ...", location, caret, hint
};

class KorvelScript {
public:
    KorvelScript();
    ~KorvelScript();
    KorvelScript(const KorvelScript&) = delete;
    KorvelScript& operator=(const KorvelScript&) = delete;

    // Parses and runs a script's text in the interpreter's current state. scriptName appears in
    // error reports ("at name:line"); an empty name reports "at line N".
    RunResult runScript(std::string_view source, std::string_view scriptName = {});
    // Like runScript, but when the text is a single expression line the result holds its value
    // (for interactive prompts).
    RunResult evaluate(std::string_view source, std::string_view scriptName = {});
    // Reads a script file (its path normalised) and runs it; its directory becomes the base for
    // relative paths used by the script.
    RunResult runFile(const std::string& path);

    // Bytecode images. serialiseBytecode compiles source (a parse failure throws ScriptError with
    // its report) into an image that remembers sourcePath for its reports.
    std::vector<std::uint8_t> serialiseBytecode(std::string_view source, std::string_view sourcePath);
    // Loads an image; an empty sourcePath keeps the one the image was made with. A damaged or
    // foreign image throws ScriptError ("Invalid bytecode image: ...").
    BytecodeProgram deserialiseBytecode(const std::vector<std::uint8_t>& bytes, std::string_view sourcePath = {});
    RunResult runBytecode(const BytecodeProgram& program);

    // Registers a native function as the global `name`.
    void pushFunction(const std::string& name, NativeFunction function);
    // Creates or overwrites the global `name`.
    void pushVariable(const std::string& name, Variable value);
    // The value of a variable as a running script would see it; throws ScriptError
    // "Variable not found: <name>" for an unknown name.
    Variable pullVariable(const std::string& name);
    // Calls a function value; ScriptError "callCallable: value is not a function" otherwise.
    Variable callCallable(const Variable& callable, const std::vector<Variable>& arguments);
    Variable invokeCallable(const Variable& callable, const std::vector<Variable>& arguments);
    Variable createNativeCallable(NativeFunction function, const std::string& name);
    // Publishes the variables written through the "external" scope into the globals.
    void commitExternalScopeToGlobal();

    // Where print writes; standard output by default.
    void setOutput(std::function<void(std::string_view)> writer);
    void flushOutput();

    // Paths: backslashes become slashes, "." and ".." parts are folded.
    static std::string normalisePath(std::string_view path);
    // A script path resolved against the running script's directory, then "scripts/".
    std::string resolvePath(std::string_view path) const;

    // The most nested script calls allowed before "Call depth limit exceeded" (default 200000;
    // the C stack is watched as well).
    void setCallDepthLimit(int depth);
    // For fuzzing and sandboxes: a budget of executed statements after which the run fails
    // with "Step budget exhausted". Zero means no limit. Pattern matching (find, match, gmatch,
    // gsub) then shares an allowance of 100 matcher steps per budgeted statement; past it a
    // search fails with "pattern too complex".
    void setStepBudget(std::uint64_t steps);

    // For fuzzing and untrusted scripts: io.open, io.popen, io.read, os.remove, loadFile and
    // runFile fail with "<function> is not available in a sandboxed interpreter".
    void setSandboxed(bool sandboxed);

    struct Impl;
    Impl& impl() { return *m_impl; }

private:
    std::unique_ptr<Impl> m_impl;
};

}  // namespace korvel
