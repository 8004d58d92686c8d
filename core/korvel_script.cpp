// The public face of the interpreter.
#include "core/korvel_script.h"

#include "core/interpreter_internal.h"

#include <cstdio>
#include <cctype>
#include <fstream>
#include <sstream>

namespace korvel {

Interpreter::Interpreter(KorvelScript& script) : owner(script) {
    nativeScopes.resize(1);
    returnValue = Variable();
}

Interpreter::~Interpreter() {
    // Drop values before the chunks whose keys they may share, then free what only cycles
    // kept alive.
    returnValue = Variable();
    stringLibrary = Variable();
    for (BuiltinEntry& entry : builtins) entry.callable = Variable();
    gsubPatterns.clear();
    globals.clear();
    libraryGlobals.clear();
    // Suspended coroutines unwind their stacks while the interpreter still works.
    shutDownCoroutines();
    nativeScopes.clear();
    argumentPool.clear();
    collectCycles();
    for (auto& entry : internedStrings) releaseString(entry.second);
}

void Interpreter::write(std::string_view text) {
    if (writer) {
        writer(text);
    } else {
        std::fwrite(text.data(), 1, text.size(), stdout);
    }
}

Variable Interpreter::runChunk(const std::shared_ptr<Chunk>& chunk) {
    FunctionProto& top = *chunk->protos.front();
    StackMark mark = 0;
    Variable* slots = valueStack.push(top.slotNames.size(), mark);
    for (std::size_t i = 0; i < top.slotNames.size(); ++i) slots[i] = Variable::unset();
    return callScript(top, slots, mark);
}

RunResult Interpreter::run(const std::shared_ptr<Chunk>& chunk) {
    RunResult result;
    try {
        result.value = runChunk(chunk);
    } catch (const ScriptError& error) {
        result.ok = false;
        result.errorMessage = error.what();
        result.errorReport =
            error.located() ? error.report() : "KorvelScript error: " + result.errorMessage + "\n";
    } catch (const KillRequest&) {
        // kill() ends the script normally.
    } catch (const JumpRequest& jump) {
        result.ok = false;
        result.errorMessage = "jumpTo(label): no nest label '" + jump.label + "'";
        result.errorReport = "KorvelScript error: " + result.errorMessage + "\n";
    }
    if (activations.empty()) closeUnreferencedCoroutines();
    return result;
}

KorvelScript::KorvelScript() : m_impl(std::make_unique<Impl>(*this)) { m_impl->vm.registerLibrary(); }

KorvelScript::~KorvelScript() = default;

namespace {
RunResult parseFailure(const ScriptError& error) {
    RunResult result;
    result.ok = false;
    result.errorMessage = error.what();
    result.errorReport = error.report();
    return result;
}
}  // namespace

RunResult KorvelScript::evaluate(std::string_view source, std::string_view scriptName) {
    Interpreter& vm = m_impl->vm;
    ScriptError parseError("");
    std::shared_ptr<Chunk> chunk = vm.compileChunk(source, scriptName, &parseError);
    if (!chunk) return parseFailure(parseError);
    // A lone expression line hands back its value, as if it were returned.
    if (chunk->lines.size() == 1 && chunk->lines[0].kind == StmtKind::Expression) chunk->lines[0].kind = StmtKind::Return;
    return vm.run(chunk);
}

RunResult KorvelScript::runScript(std::string_view source, std::string_view scriptName) {
    Interpreter& vm = m_impl->vm;
    ScriptError parseError("");
    std::shared_ptr<Chunk> chunk = vm.compileChunk(source, scriptName, &parseError);
    if (!chunk) return parseFailure(parseError);
    return vm.run(chunk);
}

namespace {
// Larger files are not scripts; the limit also keeps a device such as /dev/zero from filling memory.
constexpr std::size_t kMaxScriptFileSize = std::size_t(64) << 20;
}  // namespace

bool readScriptFile(const std::string& path, std::string& out) {
    std::ifstream file(path, std::ios::binary);
    if (!file) return false;
    std::string text;
    char buffer[65536];
    while (file.read(buffer, sizeof buffer) || file.gcount() > 0) {
        text.append(buffer, static_cast<std::size_t>(file.gcount()));
        if (text.size() > kMaxScriptFileSize) return false;
    }
    if (file.bad()) return false;
    out = std::move(text);
    return true;
}

std::string directoryOfPath(const std::string& path) {
    std::size_t slash = path.find_last_of('/');
    return slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
}

RunResult KorvelScript::runFile(const std::string& path) {
    std::string normalised = normalisePath(path);
    std::string source;
    if (!readScriptFile(normalised, source)) {
        RunResult result;
        result.ok = false;
        result.errorMessage = "Failed to open script file: " + path;
        result.errorReport = "KorvelScript error: " + result.errorMessage + "\n";
        return result;
    }
    Interpreter& vm = m_impl->vm;
    vm.scriptDirectories.push_back(directoryOfPath(normalised));
    RunResult result = runScript(source, path);
    vm.scriptDirectories.pop_back();
    return result;
}

void KorvelScript::pushFunction(const std::string& name, NativeFunction function) {
    m_impl->vm.setGlobal(name, createNativeCallable(std::move(function), name));
}

void KorvelScript::pushVariable(const std::string& name, Variable value) {
    m_impl->vm.setGlobal(name, std::move(value));
}

Variable KorvelScript::pullVariable(const std::string& name) {
    Interpreter& vm = m_impl->vm;
    if (Variable* local = vm.findLocalByName(name, false)) return *local;
    auto found = vm.globalIndex.find(name);
    if (found != vm.globalIndex.end() && !vm.globals[static_cast<std::size_t>(found->second)].isUnset())
        return vm.globals[static_cast<std::size_t>(found->second)];
    throw ScriptError("Variable not found: " + name);
}

Variable KorvelScript::callCallable(const Variable& callable, const std::vector<Variable>& arguments) {
    if (callable.type() != VarType::Function) throw ScriptError("callCallable: value is not a function");
    return m_impl->vm.call(callable, arguments);
}

Variable KorvelScript::invokeCallable(const Variable& callable, const std::vector<Variable>& arguments) {
    return callCallable(callable, arguments);
}

Variable KorvelScript::createNativeCallable(NativeFunction function, const std::string& name) {
    auto* callable = new ScriptCallable;
    callable->kind = ScriptCallable::Kind::Native;
    callable->name = name;
    callable->native = std::move(function);
    return Variable::makeFunction(callable);
}

void KorvelScript::commitExternalScopeToGlobal() {
    Interpreter& vm = m_impl->vm;
    for (const std::string& name : vm.externalNames) {
        if (Variable* value = vm.findLocalByName(name, true)) vm.setGlobal(name, *value);
    }
    vm.externalNames.clear();
}

void KorvelScript::setOutput(std::function<void(std::string_view)> writer) { m_impl->vm.writer = std::move(writer); }

void KorvelScript::flushOutput() { std::fflush(stdout); }

std::string KorvelScript::normalisePath(std::string_view path) {
    std::string text(path);
    for (char& c : text)
        if (c == '\\') c = '/';
    bool absolute = !text.empty() && text[0] == '/';
    std::vector<std::string> parts;
    std::size_t pos = 0;
    while (pos <= text.size()) {
        std::size_t slash = text.find('/', pos);
        if (slash == std::string::npos) slash = text.size();
        std::string part = text.substr(pos, slash - pos);
        if (part == "..") {
            if (!parts.empty() && parts.back() != "..") {
                parts.pop_back();
            } else if (!absolute) {
                parts.push_back(part);
            }
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        pos = slash + 1;
    }
    std::string out;
    if (absolute) out.push_back('/');
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (i) out.push_back('/');
        out.append(parts[i]);
    }
    if (out.empty()) out.push_back('.');
    return out;
}

std::string KorvelScript::resolvePath(std::string_view path) const {
    std::string normalised = normalisePath(path);
    bool driveLetter = normalised.size() >= 3 && std::isalpha(static_cast<unsigned char>(normalised[0])) &&
                       normalised[1] == ':' && normalised[2] == '/';
    if ((!normalised.empty() && normalised[0] == '/') || driveLetter) return normalised;
    const Interpreter& vm = m_impl->vm;
    std::vector<std::string> candidates;
    if (!vm.scriptDirectories.empty()) {
        // A host may give a directory without its trailing separator.
        const std::string& directory = vm.scriptDirectories.back();
        bool separated = directory.empty() || directory.back() == '/' || directory.back() == '\\';
        candidates.push_back(directory + (separated ? "" : "/") + normalised);
    }
    candidates.push_back(normalised);
    candidates.push_back("scripts/" + normalised);
    for (const std::string& candidate : candidates) {
        std::ifstream probe(candidate);
        if (probe) return normalisePath(candidate);
    }
    return normalised;
}

void KorvelScript::setCallDepthLimit(int depth) {
    Interpreter& vm = m_impl->vm;
    if (!vm.activations.empty()) return;  // frames point into the reserved stack: only between runs
    vm.callDepthLimit = depth > 0 ? depth : 1;
    std::vector<Activation>().swap(vm.activations);
}

void KorvelScript::setSandboxed(bool sandboxed) { m_impl->vm.sandboxed = sandboxed; }

void KorvelScript::setStepBudget(std::uint64_t steps) {
    m_impl->vm.stepBudget = steps;
    m_impl->vm.steps = 0;
    m_impl->vm.patternSteps = 0;
}

}  // namespace korvel
