// LuaVM::Impl: the evaluator's state (globals, value stack, library tables, random engine) and the
// heap object kinds that need it (functions, user data, iterators).
#pragma once

#include "ast_internal.h"
#include "error_internal.h"
#include "globals_internal.h"
#include "lua_vm.h"
#include "table_internal.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>

namespace korvel::lua {

using NativeFunction = std::function<MultiValue(LuaVM::Impl&, ValueSpan, std::uint32_t line)>;

struct FunctionObject : Object {
    std::string name;                          // empty for an anonymous script function
    const FunctionExpr* proto = nullptr;       // script body, or null for a native
    std::shared_ptr<const Chunk> chunk;        // keeps the syntax tree alive
    Value environment;                         // the captured environment (nil for a native or chunk)
    NativeFunction native;
    // Set for natives that map one number to one number (math.sqrt, ...): calls with one numeric
    // argument skip the general native path. The result still passes the integral-result rule.
    double (*numericFunction)(double) = nullptr;
    const LuaVM::Impl* owner = nullptr;        // the VM whose global slots the body uses

    FunctionObject() : Object(Kind::Function) {}
    std::string displayName() const { return name.empty() ? "<anonymous>" : name; }
};

// Host-visible handle for a function value; keeps the function alive.
} // namespace korvel::lua

struct korvel::lua::LuaFunctionHandle {
    Value function;
    std::string name;
};

namespace korvel::lua {

struct UserDataObject : Object {
    UserDataObject() : Object(Kind::UserData) {}
    virtual ~UserDataObject() = default;
    // The method `name`, or nil. `typeTag` tells natives which kind of object they hold.
    virtual Value field(LuaVM::Impl& vm, std::string_view name) = 0;
    virtual const char* typeTag() const = 0;
};

inline UserDataObject* Value::asUserData() const { return static_cast<UserDataObject*>(m_payload.object); }

struct IteratorObject : Object {
    enum class Mode : std::uint8_t { AllKeys, Sequence, Matches };
    Mode mode = Mode::AllKeys;
    Value subject;             // the table, or the string searched by gmatch
    Value pattern;             // gmatch only
    std::size_t position = 0;  // traversal position, sequence index or byte offset
    std::size_t lastMatch = ~std::size_t{0};   // gmatch: end of the previous match
    bool finished = false;
    IteratorObject() : Object(Kind::Iterator) {}
};

struct LuaVM::Impl {
    explicit Impl(LuaVM& owner);
    ~Impl();

    // ---- running (lua_vm.cpp) ----
    LuaValue runChunk(std::shared_ptr<Chunk> chunk);
    void resetAfterRun(std::size_t savedTop);

    // ---- evaluator (interpreter.cpp, calls.cpp) ----
    // The running activation: `slots` are its environment's slots (read directly for locals),
    // `owner` the heap object when the environment is owning (null when it lives on the stack).
    struct Frame {
        Value* slots;
        Environment* environment;
        EnvironmentObject* owner;
        FunctionObject* closure;
    };
    // The slot `slot` of the environment `depth` out from the running one.
    static Value& outerSlot(const Frame& frame, const VariableExpr* variable) {
        Environment* environment = frame.environment;
        for (std::uint32_t i = 0; i < variable->depth; ++i) environment = environment->parent;
        return environment->slots[variable->index];
    }
    enum class Flow : std::uint8_t { Normal, Break, Return };

    Value eval(const Expr* expr, Frame& frame);

    // A number without the Value wrapper, for the numbers-only path (scalar.cpp). Sixteen
    // trivially copyable bytes, so it travels in registers: `tag` says none, integer or float
    // (then `bits` holds the double's bits).
    struct Number {
        std::int64_t bits = 0;
        std::uint8_t tag = 0;
    };
    static constexpr std::uint8_t kNotANumber = 0, kIntegerNumber = 1, kFloatNumber = 2;
    // Evaluates a pure subtree on numbers. kNotANumber when a value on the way is not a number or
    // an operation would fail; the caller then evaluates the general way, which gives the error.
    Number evalNumber(const Expr* expr, Frame& frame);
    bool evalTruth(const Expr* expr, Frame& frame);
    // Pushes the values of an expression list onto the value stack (the last one expanded).
    void pushExpressionList(const std::vector<Expr*>& expressions, Frame& frame);
    void evalList(const std::vector<Expr*>& expressions, Frame& frame, MultiValue& out);
    Flow execBlock(const std::vector<Stmt*>& block, Frame& frame);
    Flow exec(const Stmt* statement, Frame& frame);
    [[gnu::noinline]] Flow execNumericFor(const Stmt* statement, Frame& frame);
    [[gnu::noinline]] Flow execGenericFor(const Stmt* statement, Frame& frame);
    [[gnu::noinline]] Value evalTable(const Expr* expr, Frame& frame);

    // Calls: arguments sit on the value stack from `base`; results land in m_returns.
    Value methodCallee(const CallExpr* call, Frame& frame);
    void evalCallToStack(const CallExpr* call, Frame& frame);
    Value evalCall(const CallExpr* call, Frame& frame);
    void invoke(const Value& callee, std::size_t base, std::size_t argumentCount, std::uint32_t line);
    void callScript(FunctionObject* function, std::size_t base, std::size_t argumentCount);
    [[gnu::noinline]] Value callStackScript(const CallExpr* call, FunctionObject* function, Frame& frame, std::size_t base);
    void makeStackSlots(Environment& environment, std::size_t count, std::uint32_t line);
    // Per-call checks: the step budget, a due cycle collection, the native stack budget.
    void enterScript();
    // Runs a script function's body in `environment`, whose slots already hold the arguments.
    void runBody(FunctionObject* function, Environment& environment, EnvironmentObject* owner);
    // For natives: calls `callee` with `arguments`, results into `out`.
    void callValue(const Value& callee, ValueSpan arguments, std::uint32_t line, MultiValue& out);
    void pushValue(Value value) {
        if (m_top >= m_stackCapacity) failRuntime(m_currentLine, "stack overflow");
        m_stack[m_top++] = std::move(value);
    }
    void popTo(std::size_t top) {
        while (m_top > top) m_stack[--m_top].reset();
    }

    Value index(const Value& object, const Value& key, std::uint32_t line);
    Value indexField(const Value& object, const Value& name, std::uint32_t line);
    void assign(const Expr* target, Value value, Frame& frame);
    Value makeClosure(const FunctionExpr* proto, Frame& frame);
    void countStep() {
        if (--m_stepsLeft == 0) stepBudgetExhausted();
    }
    [[noreturn]] void stepBudgetExhausted();

    // ---- errors ----
    // "chunk:line: message", with the chunk of the running function.
    [[noreturn]] void failRuntime(std::uint32_t line, std::string_view message);
    [[noreturn]] void failUnlocated(std::string message);

    // ---- library helpers (lib_base.cpp) ----
    void bindNativeGlobal(const std::string& name, NativeFunction native);
    // The public binding path: arguments and the result are converted through LuaValue.
    void bindHostFunction(const std::string& name, LuaHostFunction function);
    // The native is named "<tableName>.<field>" in messages.
    void bindTableFunction(Table* table, const std::string& tableName, const std::string& field, NativeFunction native);
    Value makeNative(const std::string& name, NativeFunction native);
    Table* makeLibraryTable(const std::string& name);
    void bindDefaults();

    // ---- conversions (lua_vm.cpp) ----
    Value publicToValue(const LuaValue& value, int depth = 0);
    LuaValue valueToPublic(const Value& value, int depth = 0);

    // ---- state ----
    LuaVM* m_owner;
    GlobalSlots m_globals;
    Value* m_stack = nullptr;                  // fixed block: spans into it stay valid
    std::size_t m_stackCapacity = 0;
    std::size_t m_top = 0;
    MultiValue m_returns;
    const FunctionExpr* m_currentFunction = nullptr;
    std::uint32_t m_currentLine = 0;
    std::uint64_t m_stepBudget = 0;
    std::uint64_t m_stepsLeft = ~std::uint64_t{0};
    std::size_t m_nativeStackBudget = 0;       // host setting; 0 means "most of this thread's stack"
    std::size_t m_activeStackBudget = 0;       // decided when the outermost run starts
    const char* m_nativeStackBase = nullptr;
    Table* m_stringLibrary = nullptr;          // string methods: ("x"):upper()
    Value m_stringLibraryValue;
    std::mt19937_64 m_random;
};

std::size_t effectiveStackBudget(const LuaVM::Impl& vm);

// Type name of describeValueType: "nil", "number", ..., "iterator".
const char* describeValueType(Kind kind);
bool valuesEqual(const Value& left, const Value& right);
std::string formatNumber(double value);

// Argument checks shared by natives; each message begins with the function's full name.
void requireArgumentCount(LuaVM::Impl& vm, std::string_view name, std::size_t count, std::size_t minimum, std::size_t maximum);
constexpr std::size_t kNoMaximum = ~std::size_t{0};
double requireNumber(LuaVM::Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index);
std::int64_t requireInteger(LuaVM::Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index);
std::string_view requireString(LuaVM::Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index);
Table* requireTable(LuaVM::Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index);
UserDataObject* requireUserData(LuaVM::Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index, const char* typeTag);

// Library installers, one per file.
void bindBaseLibrary(LuaVM::Impl& vm);
void bindStringLibrary(LuaVM::Impl& vm);
void bindTableLibrary(LuaVM::Impl& vm);
void bindMathLibrary(LuaVM::Impl& vm);
void bindIoOsLibrary(LuaVM::Impl& vm);

// Next key/value (or captures) of an iterator; false at the end.
bool nextIteratorItem(LuaVM::Impl& vm, IteratorObject* iterator, MultiValue& out, std::uint32_t line);

} // namespace korvel::lua
