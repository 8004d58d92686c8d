// KorvelLua: the engine's interpreter for a Lua dialect. This header is all the host may use;
// lexer, parser, evaluator and library live behind LuaVM::Impl in lua/*.cpp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <variant>
#include <vector>

namespace korvel::lua {

// The order and the numeric values are part of the host interface.
enum class LuaValueType : std::uint8_t {
    Nil = 0, Integer = 1, Float = 2, Boolean = 3, String = 4, Array = 5, Map = 6, Function = 7
};

// "nil", "integer", "float", "boolean", "string", "array", "map" or "function".
const char* luaValueTypeName(LuaValueType type);

// A function living inside a VM (script closure or native). Opaque: the host can hold it and pass it
// back into the VM that made it, but cannot call it directly.
struct LuaFunctionHandle;

// The value that crosses the interpreter's boundary. Arrays, maps and functions are shared by
// reference: copying a LuaValue copies the pointer, not the container.
class LuaValue {
public:
    using Array = std::vector<LuaValue>;
    using Map = std::unordered_map<std::string, LuaValue>;

    LuaValue() = default;
    LuaValue(std::nullptr_t) {}
    LuaValue(int value);
    LuaValue(std::int64_t value);
    LuaValue(double value);
    LuaValue(bool value);
    LuaValue(const char* value);
    LuaValue(const std::string& value);
    LuaValue(std::string&& value);
    LuaValue(const Array& value);
    LuaValue(Array&& value);
    LuaValue(const Map& value);
    LuaValue(Map&& value);
    LuaValue(std::shared_ptr<LuaFunctionHandle> function);

    static LuaValue makeArray();
    static LuaValue makeMap();

    LuaValueType type() const { return static_cast<LuaValueType>(m_data.index()); }
    bool isNil() const { return m_data.index() == 0; }

    // false for nil and false only; 0 and "" are true.
    bool isTruthy() const;
    // Text form: "nil", digits, "%g"-style floats, "[a, b]" for arrays, "{k: v}" for maps,
    // "[function name]" for functions.
    std::string toString() const;

    // Accessors throw std::runtime_error ("value is not numeric", ...) on the wrong kind.
    std::int64_t asInteger() const;      // a float is truncated toward zero
    double asFloat() const;
    bool asBoolean() const;
    const std::string& asString() const;
    Array& asArray();
    const Array& asArray() const;
    Map& asMap();
    const Map& asMap() const;
    const std::shared_ptr<LuaFunctionHandle>& asFunction() const;

private:
    // The alternatives are in LuaValueType order, so index() is the type.
    std::variant<std::monostate, std::int64_t, double, bool, std::string, std::shared_ptr<Array>,
                 std::shared_ptr<Map>, std::shared_ptr<LuaFunctionHandle>> m_data;
};

// Outcome of every run operation: on failure, message holds "chunk:line: text" (runtime),
// "chunk:line:column: text" (syntax) or a bare library/file message.
struct [[nodiscard]] LuaResult {
    bool success = false;
    LuaValue value;
    std::string error;

    static LuaResult ok(LuaValue value) { return LuaResult{true, std::move(value), {}}; }
    static LuaResult failure(std::string message) { return LuaResult{false, {}, std::move(message)}; }
};

// One KLBC image: "KLBC", version 1, the chunk name and the checked source, little-endian lengths.
using LuaBytecode = std::vector<std::uint8_t>;

class LuaVM;
using LuaHostFunction = std::function<LuaValue(LuaVM&, const std::vector<LuaValue>&)>;

class LuaVM {
public:
    LuaVM();                                  // builds the standard library
    ~LuaVM();
    LuaVM(LuaVM&&) noexcept;
    LuaVM& operator=(LuaVM&&) noexcept;
    LuaVM(const LuaVM&) = delete;
    LuaVM& operator=(const LuaVM&) = delete;

    // Parses, resolves and runs a chunk; globals persist across runs, locals do not.
    LuaResult runScriptString(std::string_view source, std::string_view chunkName);
    // Reads the whole file; the path is the chunk name.
    LuaResult runScriptFile(const std::string& path);

    // Parses first, so a syntax error is thrown (std::runtime_error) and no image is made.
    LuaBytecode compileScript(std::string_view source, std::string_view chunkName);
    // Compiles and writes an image; false with the reason in *error on failure.
    bool writeBytecodeFile(std::string_view source, std::string_view chunkName, const std::string& outputPath,
                           std::string* error = nullptr);
    LuaResult runBytecode(const LuaBytecode& image);
    LuaResult runBytecodeFile(const std::string& path);
    LuaResult runScriptFromBytecodeFile(const std::string& path);

    void setGlobal(const std::string& name, const LuaValue& value);
    // false when no global of that name was ever set, bound or assigned.
    bool getGlobal(const std::string& name, LuaValue& value);
    // Binds a host function as the global `name` (a dotted name is one global, not a path).
    void bindFunction(const std::string& name, LuaHostFunction function);

    // Steps are loop iterations and calls. A run that uses more than `steps` fails with
    // "step budget exhausted"; 0 (the default) means no budget. Each run gets the full budget.
    void setStepBudget(std::uint64_t steps);
    // Bytes of native stack a run may use for nested calls before "stack overflow" is raised.
    void setNativeStackBudget(std::size_t bytes);

    static std::string valueToString(const LuaValue& value);

    struct Impl;
    Impl& impl() { return *m_impl; }

private:
    std::unique_ptr<Impl> m_impl;
};

LuaResult runLuaScriptString(LuaVM& vm, std::string_view source, std::string_view chunkName);
LuaResult runLuaScriptFile(LuaVM& vm, const std::string& path);
LuaResult runLuaBytecode(LuaVM& vm, const LuaBytecode& image);
LuaResult runLuaScriptFromBytecodeFile(LuaVM& vm, const std::string& path);
LuaResult runLuaBytecodeFile(LuaVM& vm, const std::string& path);
void bindCppFunctionToLuaVM(LuaVM& vm, const std::string& name, LuaHostFunction function);

} // namespace korvel::lua
