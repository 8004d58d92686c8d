// The global helpers the language itself relies on: print, typeOf, len, toString, toNumber,
// pcall, error, assert, load, loadFile, runFile, pairs, ipairs, select, jumpTo, and the
// version constants.
#include "core/interpreter_internal.h"
#include "core/library_internal.h"

#include <chrono>
#include <cmath>
#include <cstdlib>

namespace korvel {

Variable parseNumberText(std::string_view text, int base) {
    std::size_t begin = 0, end = text.size();
    while (begin < end && std::isspace(static_cast<unsigned char>(text[begin]))) ++begin;
    while (end > begin && std::isspace(static_cast<unsigned char>(text[end - 1]))) --end;
    std::string trimmed(text.substr(begin, end - begin));
    if (trimmed.empty()) return Variable();
    char* stop = nullptr;
    if (base != 10 || trimmed.find_first_of(".eEnN") == std::string::npos) {
        errno = 0;
        long long value = std::strtoll(trimmed.c_str(), &stop, base);
        if (stop && *stop == '\0' && errno == 0) {
            if (value >= INT32_MIN && value <= INT32_MAX) return Variable(static_cast<std::int32_t>(value));
            return Variable(static_cast<double>(value));
        }
        if (base != 10) return Variable();
    }
    double value = std::strtod(trimmed.c_str(), &stop);
    if (!stop || *stop != '\0' || std::isnan(value) || trimmed.find_first_of("xXpP") != std::string::npos) return Variable();
    return Variable(value);
}

namespace {

// What pcall and xpcall return when the call succeeds: true, then the call's results.
Variable succeededWith(Variable result) {
    std::vector<Variable> values{Variable(true)};
    if (result.type() == VarType::MultiValue) {
        for (const Variable& v : result.multiValues()) values.push_back(v);
    } else {
        values.push_back(std::move(result));
    }
    return Variable::makeMulti(std::move(values));
}


// A compiled chunk as a function value; it takes no arguments when called.
Variable chunkFunction(const std::shared_ptr<Chunk>& chunk, const std::string& name) {
    auto* callable = new ScriptCallable;
    callable->kind = ScriptCallable::Kind::Chunk;
    callable->name = name;
    callable->proto = std::shared_ptr<FunctionProto>(chunk, chunk->protos.front().get());
    return Variable::makeFunction(callable);
}

}  // namespace

void Interpreter::registerBaseLibrary() {
    Library lib(*this);
    lib.global("print", [this](const Args& args) {
        std::string line;
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (i) line += ' ';
            args[i].appendTo(line);
        }
        line += '\n';
        write(line);
        return Variable();
    });
    lib.global("typeOf", [](const Args& args) {
        if (args.size() != 1) throw ScriptError("typeOf(x) requires exactly 1 argument");
        return Variable(typeName(args[0].type()));
    });
    lib.builtin(BuiltinId::Len, "len", [](Interpreter&, Arguments args) {
        if (args.size() != 1) throw ScriptError("len(x) expects an array, table, or string");
        std::int64_t length = arrayLength(args[0]);
        return Variable(static_cast<std::int32_t>(length > INT32_MAX ? INT32_MAX : length));
    });
    lib.builtin(BuiltinId::ToString, "toString", [](Interpreter&, Arguments args) {
        if (args.size() != 1) throw ScriptError("toString function requires exactly 1 argument");
        return Variable(args[0].toString());
    });
    lib.builtin(BuiltinId::ToNumber, "toNumber", [](Interpreter&, Arguments args) {
        if (args.empty() || args.size() > 2) throw ScriptError("toNumber(x[, base]) requires 1 or 2 arguments");
        int base = 10;
        if (args.size() == 2) {
            if (!args[1].isNumericLike()) throw ScriptError("toNumber(x[, base]) requires 1 or 2 arguments");
            base = toInt(args[1]);
            if (base < 2 || base > 36) throw ScriptError("toNumber base must be between 2 and 36");
        }
        const Variable& value = args[0];
        if (value.type() == VarType::Int || value.type() == VarType::Float) return value;
        if (value.type() == VarType::Bool) return Variable(value.asBool() ? 1 : 0);
        if (value.type() == VarType::String) return parseNumberText(value.asString(), base);
        return Variable();
    });
    lib.builtin(BuiltinId::Pcall, "pcall", [](Interpreter& vm, Arguments args) {
        if (args.empty() || args[0].type() != VarType::Function) throw ScriptError("pcall requires a callable value");
        std::vector<Variable> rest(args.begin() + 1, args.end());
        try {
            Variable result = vm.call(args[0], rest);
            return succeededWith(std::move(result));
        } catch (const ScriptError& error) {
            Variable message = error.hasValue() ? error.value() : Variable(std::string(error.what()));
            return Variable::makeMulti(std::vector<Variable>{Variable(false), std::move(message)});
        }
    });
    // xpcall(f, handler, args...): like pcall, but on an error the handler is called with the
    // message (or error's value) and the full report a failing script would print (error line,
    // location, source line, caret, hint); xpcall then returns false and what the handler returns.
    lib.global("xpcall", [this](const Args& args) {
        if (args.size() < 2 || args[0].type() != VarType::Function || args[1].type() != VarType::Function)
            throw ScriptError("xpcall(f, handler, ...) requires two callable values");
        std::vector<Variable> rest(args.begin() + 2, args.end());
        Variable message;
        std::string report;
        try {
            Variable result = call(args[0], rest);
            return succeededWith(std::move(result));
        } catch (const ScriptError& error) {
            message = error.hasValue() ? error.value() : Variable(std::string(error.what()));
            report = error.located() ? error.report() : "KorvelScript error: " + std::string(error.what()) + "\n";
        }
        Variable handled = call(args[1], std::vector<Variable>{message, Variable(std::move(report))});
        return Variable::makeMulti(std::vector<Variable>{Variable(false), std::move(handled)});
    });
    lib.builtin(BuiltinId::Error, "error", [](Interpreter&, Arguments args) -> Variable {
        Variable value = args.empty() ? Variable() : args[0];
        throw ScriptError(value.toString(), value);
    });
    lib.builtin(BuiltinId::Assert, "assert", [](Interpreter&, Arguments args) {
        if (args.empty()) throw ScriptError("assert requires at least 1 argument");
        if (!isTruthy(args[0])) {
            if (args.size() > 1) throw ScriptError(args[1].toString(), args[1]);
            throw ScriptError("assertion failed!");
        }
        return args[0];
    });
    lib.builtin(BuiltinId::Load, "load", [](Interpreter& vm, Arguments args) {
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("load(scriptText) requires a script string");
        ScriptError parseError("");
        std::shared_ptr<Chunk> chunk = vm.compileChunk(args[0].asString(), "load", &parseError);
        if (!chunk) return Variable::makeMulti(std::vector<Variable>{Variable(), Variable(std::string(parseError.what()))});
        return chunkFunction(chunk, "load");
    });
    lib.global("loadFile", [this](const Args& args) {
        requireUnsandboxed("loadFile");
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("loadFile(path) requires a script path string");
        const std::string& path = args[0].asString();
        std::string resolved = owner.resolvePath(path);
        std::string source;
        if (!readScriptFile(resolved, source)) throw ScriptError("Failed to open script file: " + path);
        ScriptError parseError("");
        std::shared_ptr<Chunk> chunk = compileChunk(source, path, &parseError);
        if (!chunk) {
            // Like load: nothing and the message, here with the file's name and line.
            std::string message = path + ":" + std::to_string(parseError.line()) + ": " + parseError.what();
            return Variable::makeMulti(std::vector<Variable>{Variable(), Variable(std::move(message))});
        }
        chunk->directory = directoryOfPath(resolved);
        return chunkFunction(chunk, path);
    });
    lib.global("runFile", [this](const Args& args) {
        requireUnsandboxed("runFile");
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("runFile(path) requires a script path string");
        const std::string& path = args[0].asString();
        std::string resolved = owner.resolvePath(path);
        std::string source;
        if (!readScriptFile(resolved, source)) throw ScriptError("Failed to load script file");
        ScriptError parseError("");
        std::shared_ptr<Chunk> chunk = compileChunk(source, path, &parseError);
        if (!chunk) throw parseError;  // already located in the file: its report names the file and line
        chunk->directory = directoryOfPath(resolved);
        ScriptDirectoryScope directory(*this, chunk->directory);
        return runChunk(chunk);
    });
    lib.builtin(BuiltinId::Pairs, "pairs", [](Interpreter&, Arguments args) {
        if (args.size() != 1) throw ScriptError("pairs(container) requires exactly 1 argument");
        if (args[0].type() != VarType::Array && args[0].type() != VarType::Table)
            throw ScriptError("pairs(container) expects an array or table");
        return args[0];
    });
    lib.builtin(BuiltinId::IPairs, "ipairs", [](Interpreter&, Arguments args) {
        if (args.size() != 1) throw ScriptError("ipairs(container) requires exactly 1 argument");
        if (args[0].type() != VarType::Array && args[0].type() != VarType::Table)
            throw ScriptError("ipairs(container) expects an array or table");
        return args[0];
    });
    lib.builtin(BuiltinId::Select, "select", [](Interpreter&, Arguments args) {
        if (args.size() < 2) throw ScriptError("select(index, values...) requires at least 2 arguments");
        if (args[0].type() != VarType::Int) throw ScriptError("select(index, values...) requires an integer index");
        std::int32_t index = args[0].asInt();
        if (index < 1) throw ScriptError("select index must be >= 1");
        std::vector<Variable> rest;
        for (std::size_t i = static_cast<std::size_t>(index); i < args.size(); ++i) rest.push_back(args[i]);
        if (rest.size() == 1) return rest[0];
        if (rest.empty()) return Variable();
        return Variable::makeMulti(std::move(rest));
    });
    lib.global("jumpTo", [](const Args& args) -> Variable {
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("jumpTo(label) expects exactly one string argument");
        if (args[0].asString().empty()) throw ScriptError("jumpTo(label) expects a non-empty label");
        throw JumpRequest{args[0].asString()};
    });
    lib.builtin(BuiltinId::GetTimeMs, "getTimeMs", [](Interpreter&, Arguments args) {
        if (!args.empty()) throw ScriptError("getTimeMs function takes no arguments");
        static const auto start = std::chrono::steady_clock::now();
        auto elapsed = std::chrono::steady_clock::now() - start;
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
        return Variable(static_cast<std::int32_t>(ms & 0x7fffffff));
    });
    lib.builtin(BuiltinId::CollectGarbage, "collectGarbage", [](Interpreter& vm, Arguments) {
        // Frees containers that only keep each other alive and returns how many went; also drops
        // the cached key strings that nothing uses any more.
        auto freed = static_cast<std::int32_t>(collectCycles());
        vm.pruneDeadTableCacheEntries();
        return Variable(freed);
    });
    setGlobal("KORVEL_NAME", Variable("KorvelScript"));
    setGlobal("KORVEL_RELEASE", Variable("Beta"));
    setGlobal("KORVEL_VERSION", Variable("0.1.0"));
    setGlobal("KORVEL_AUTHOR", Variable(""));
}

void Interpreter::registerLibrary() {
    registerBaseLibrary();
    registerStringLibrary();
    registerTableLibrary();
    registerMathLibrary();
    registerIoLibrary();
    registerContainerLibrary();
    registerSystemLibrary();
    registerCoroutineLibrary();
    registerStateLibrary();
    registerFileLibrary();
    libraryGlobals = globals;
}

}  // namespace korvel
