// The interpreter's private machinery: compiled expression trees, compiled lines, function
// prototypes, activations and the interpreter state itself.
#pragma once

#include "core/korvel_script.h"
#include "core/parser_internal.h"

#include <algorithm>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

namespace korvel {

struct Chunk;
struct FunctionProto;

// How a variable token is found: its name, an explicit scope code from a "#n" suffix (-1 for
// none), the local slot of the current function that may hold it, and its global slot.
struct NameRef {
    std::string name;
    int scope = -1;
    std::int32_t localSlot = -1;
    std::int32_t globalSlot = -1;
};

enum class Op : std::uint8_t {
    Const,
    Local,       // a name with a local slot; falls back to frame extras and the global
    Global,      // a name with no local slot in this function
    ScopedName,  // a name with an explicit scope suffix
    Or, And,
    Eq, Ne, Lt, Gt, Le, Ge,
    Add, Sub, Mul, Div, IDiv, Mod, Pow, Tetration, Pentation,
    Neg, Not, Len, Plus,
    ArrayLiteral, TableLiteral,
    Index,      // container[key]
    IndexKey,   // container["constant"]: the key string is hashed once
    Call,
};

class Interpreter;
struct FastExpression;

// Trees taller than this made of these operators are chains walked in a loop (evalChain), so
// their length never becomes recursion depth.
constexpr std::uint32_t kChainHeight = 32;
inline bool isChainOperator(Op op) {
    switch (op) {
    case Op::Or: case Op::And: case Op::Eq: case Op::Ne: case Op::Lt: case Op::Gt: case Op::Le: case Op::Ge:
    case Op::Add: case Op::Sub: case Op::Mul: case Op::Div: case Op::IDiv: case Op::Mod: return true;
    default: return false;
    }
}
struct GsubPattern;

// Built-ins that compiled calls dispatch to directly, without an argument vector, while their
// name still refers to them (see Interpreter::dispatchBuiltinFast).
enum class BuiltinId : std::uint8_t {
    None,
    Len, Load, Next, Error, Pcall, Assert, Pairs, IPairs, Select, ToString, ToNumber,
    MathAbs, MathMin, MathMax, MathSin, MathCos, MathRad, MathLog, GetTimeMs, MathCeil, MathSqrt,
    StringLen, StringSub, TableSort, MathFloor, StringFind, StringByte, StringGsub, StringUpper,
    StringMatch, TableInsert, TableRemove, TableConcat, StringGmatch, StringFormat, CollectGarbage,
    Utf8Len,
    Count
};

// The built-in a callee name denotes at compile time: "len", "string.find", or the plain
// global name of a group function ("find", "sort"); None for any other name.
BuiltinId builtinIdFromName(std::string_view name);

// A built-in's implementation: the arguments as a read-only span, one result. The native
// callable registered for it wraps the same function, so both call paths agree.
using Arguments = std::span<const Variable>;
using BuiltinFunction = Variable (*)(Interpreter&, Arguments);

struct BuiltinEntry {
    Variable callable;  // the function value the name was bound to (kept alive for the identity check)
    BuiltinFunction function = nullptr;
};

// Evaluates a node whose whole subtree can work on scalars (ints, floats, bools, nothing),
// packed as Variable::scalarBits gives them; Variable::kNotScalar hands the node back to the
// general evaluator (a non-scalar value turned up, or an operation must raise its error).
using ScalarFunction = std::uint64_t (*)(Interpreter&, const FastExpression*);

struct FastExpression {
    Op op = Op::Const;
    BuiltinId builtin = BuiltinId::None;  // Call: the built-in the callee's name denotes
    mutable ScalarFunction scalar = nullptr;
    mutable std::uint8_t scalarMisses = 0;
    std::uint64_t constantBits = Variable::kNotScalar;  // Const: the constant's scalar bits
    std::int32_t token = -1;  // the token an error report points at
    std::uint32_t height = 1; // levels of the tree below and including this node
    NameRef* name = nullptr;
    FastExpression* left = nullptr;
    FastExpression* right = nullptr;
    std::vector<FastExpression*> items;         // call arguments, array items, table values
    std::vector<StringObject*> keys;  // table literal: constant key, or null where items has [expr] pairs
    Variable constant;                // Const value; IndexKey key
};

enum class StmtKind : std::uint8_t {
    Empty,
    Error,          // a line that failed to compile: raises its message when it runs
    Expression,
    Assign,
    AssignLocal,    // local x = e / x = e where x is a live local, one plain target
    Compound,
    Declare,        // "local a, b" with no value
    If, ElseIf, Else,
    End,
    While, Repeat, Until,
    ForNumeric, ForIn,
    FunctionDecl,
    Return, Break, Nest,
};

enum class TargetScope : std::uint8_t { Plain, Native, Local, External, Explicit, Decay };

struct LValue {
    NameRef* name = nullptr;
    TargetScope scope = TargetScope::Plain;
    std::vector<FastExpression*> keys;  // index suffixes, outermost first; empty for a plain name
};

enum class IterKind : std::uint8_t { Pairs, IPairs, Array };

struct CompiledLine {
    StmtKind kind = StmtKind::Empty;
    LineKind lineKind = LineKind::Statement;
    std::int32_t jump = -1;       // if/elseif: next branch; loops: end line; decl: end line
    std::int32_t endIndex = -1;
    std::int32_t opener = -1;     // end/until/else: the opener line
    std::int32_t loopSlot = -1;   // for loops: their state's index in the activation
    std::int32_t breakTarget = -1;  // break: the enclosing loop's closing line
    std::int32_t errorToken = -1;
    char compoundOp = 0;          // + - * / \ % ^
    bool appendsToItself = false; // x = x + e on a local: may append in place
    IterKind iterKind = IterKind::Array;
    FastExpression* expr = nullptr;         // condition, value, start
    FastExpression* stop = nullptr;
    FastExpression* step = nullptr;
    std::vector<LValue> targets;
    FunctionProto* proto = nullptr;  // function declarations
    std::string message;             // Error lines
};

struct FunctionProto {
    Chunk* chunk = nullptr;
    std::string name;
    bool isChunk = false;              // a whole script or a loaded chunk
    std::int32_t declLine = -1;
    std::int32_t bodyBegin = 0;
    std::int32_t bodyEnd = 0;
    std::int32_t paramCount = 0;
    std::int32_t loopCount = 0;
    std::vector<std::string> slotNames;
    std::unordered_map<std::string, std::int32_t> slotIndex;
    std::unordered_map<std::string, std::int32_t> labels;  // nest label -> line
    std::vector<std::int32_t> loopOfLine;                   // unused entries are -1
    std::vector<std::int32_t> ownLines;  // the lines of the body that are not in nested functions
};

// Objects that never move once made, allocated in blocks that double from 8 to 256 (a big
// chunk makes many thousands of expression nodes, a deque would allocate every few; a small
// one, as load makes, stays small).
template <typename T>
class StableArena {
public:
    T& emplace_back() {
        if (m_used == m_blockSize) {
            m_blockSize = m_blocks.empty() ? 8 : std::min<std::size_t>(m_blockSize * 2, 256);
            // Default- rather than value-initialised: the constructor sets every member once.
            m_blocks.push_back(std::make_unique_for_overwrite<T[]>(m_blockSize));
            m_used = 0;
        }
        return m_blocks.back()[m_used++];
    }

private:
    std::vector<std::unique_ptr<T[]>> m_blocks;
    std::size_t m_blockSize = 0;
    std::size_t m_used = 0;
};

struct Chunk : std::enable_shared_from_this<Chunk> {
    ParsedScript parsed;
    std::vector<CompiledLine> lines;
    StableArena<FastExpression> nodes;
    StableArena<NameRef> names;
    std::vector<std::unique_ptr<FunctionProto>> protos;  // protos[0] is the top level
    std::vector<StringObject*> ownedKeys;
    std::optional<std::string> directory;  // a script file's directory, the base for its relative paths
    ~Chunk();
};

// The state of one running for loop.
struct ForState {
    bool active = false;
    bool isInt = true;
    std::int64_t current = 0, stop = 0, step = 1;
    double currentF = 0, stopF = 0, stepF = 1;
    Variable container;
    std::vector<Variable> keys;  // table keys snapshot for pairs
    std::size_t position = 0;
};

struct Activation {
    FunctionProto* proto = nullptr;
    Variable* slots = nullptr;
    ForState* loops = nullptr;
    std::unique_ptr<std::vector<std::pair<std::string, Variable>>> extras;  // names made at run time
};

// Thrown by kill(): ends the running script as if it had returned.
struct KillRequest {};

// Thrown by jumpTo and caught by the running body of the current activation.
struct JumpRequest {
    std::string label;
};

// A position on a SegmentedStack: block index in the high 32 bits, offset in the low 32 (64 bits
// wide on every platform, so 32-bit builds keep the block index too).
using StackMark = std::uint64_t;

// Segmented stack: blocks never move, so pointers into them stay valid while calls nest.
template <typename T>
class SegmentedStack {
public:
    static constexpr std::size_t kBlock = 1 << 14;
    // Returns count contiguous elements; the caller sets them.
    T* push(std::size_t count, StackMark& mark) {
        if (!m_blocks.empty() && m_top + count <= m_blockSizes[m_block]) {
            mark = (static_cast<StackMark>(m_block) << 32) | m_top;
            T* base = m_blocks[m_block].get() + m_top;
            m_top += count;
            return base;
        }
        return pushSlow(count, mark);
    }
    // Releases everything pushed since mark.
    void pop(StackMark mark) {
        if ((mark >> 32) == m_block) {
            auto top = static_cast<std::size_t>(mark & 0xffffffffu);
            T* base = m_blocks[m_block].get();
            for (std::size_t i = top; i < m_top; ++i) reset(base[i]);
            m_top = top;
            return;
        }
        popSlow(mark);
    }

private:
    T* pushSlow(std::size_t count, StackMark& mark);
    void popSlow(StackMark mark);
    static void reset(Variable& v) { v.setNil(); }
    static void reset(ForState& state) {
        if (state.active || !state.keys.empty() || !state.container.isNil()) state = ForState{};
    }

    std::vector<std::unique_ptr<T[]>> m_blocks;
    std::vector<std::size_t> m_blockSizes;
    std::vector<std::size_t> m_leftTop;  // how much of each block was in use when the next one began
    std::size_t m_block = 0;  // current block
    std::size_t m_top = 0;    // used elements in the current block
};

// Everything one line of execution keeps while it runs: the main script has one, and each
// coroutine has its own, exchanged with the interpreter's while the coroutine runs.
struct ExecutionState {
    std::vector<Activation> activations;
    Activation* current = nullptr;
    std::size_t argumentDepth = 0;
    SegmentedStack<Variable> valueStack;
    SegmentedStack<ForState> loopStack;
    std::deque<std::vector<Variable>> argumentPool;
    std::deque<std::vector<std::pair<std::string, Variable>>> nativeScopes;
    std::size_t nativeDepth = 0;
    std::uintptr_t stackBase = 0;
    std::size_t stackLimit = 0;
};

// Thrown inside a suspended coroutine that is being closed: unwinds its stack. Not a
// std::exception, so no handler on the way turns it into a script error.
struct CoroutineClose {};

class Interpreter {
public:
    explicit Interpreter(KorvelScript& owner);
    ~Interpreter();

    // Compiling
    std::shared_ptr<Chunk> compileChunk(std::string_view source, std::string_view name, ScriptError* parseError);
    RunResult run(const std::shared_ptr<Chunk>& chunk);
    Variable runChunk(const std::shared_ptr<Chunk>& chunk);

    // Calls
    Variable call(const Variable& callee, const std::vector<Variable>& arguments);
    Variable callNative(ScriptCallable& callable, const std::vector<Variable>& arguments);
    Variable invokeCallableFast(const FastExpression* node);
    // A call whose callee is still the built-in its name denotes: arguments evaluated into a
    // small array and handed straight to the implementation.
    Variable dispatchBuiltinFast(BuiltinId id, const FastExpression* node);
    void executeAssignment(const CompiledLine& line);
    void executeCompound(const CompiledLine& line);
    void storeTarget(const LValue& target, const Variable* keys, std::size_t keyCount, Variable value);
    bool startForIn(const CompiledLine& line, ForState& state);
    bool advanceForIn(const CompiledLine& line, ForState& state);
    bool advanceFunctionIterator(const CompiledLine& line, ForState& state);
    void assignLoopVariable(const LValue& target, Variable value);
    Variable callScript(FunctionProto& proto, Variable* slots, StackMark mark);

    // Evaluating and executing
    // The common cases inline; the rest in evalSlow.
    Variable eval(const FastExpression* n) {
        if (n->scalar) {
            std::uint64_t bits = n->scalar(*this, n);
            if (bits != Variable::kNotScalar) return Variable::fromScalarBits(bits);
            noteScalarMiss(n);
        }
        switch (n->op) {
        case Op::Const: return n->constant;
        case Op::Local: {
            const Variable& slot = current->slots[n->name->localSlot];
            if (!slot.isUnset()) return slot;
            break;
        }
        case Op::Call: return invokeCallableFast(n);
        default: break;
        }
        return evalSlow(n);
    }
    Variable evalSlow(const FastExpression* node);
    // A long chain of left-associative operators (a + b + c + ...), evaluated bottom-up in a
    // loop so that its length never turns into recursion depth.
    Variable evalChain(const FastExpression* node);
    void noteScalarMiss(const FastExpression* node);
    bool evalCondition(const FastExpression* node);
    // A leaf's value without a copy where possible; otherwise evaluated into scratch.
    const Variable& operand(const FastExpression* node, Variable& scratch) {
        if (node->op == Op::Const) return node->constant;
        if (node->op == Op::Local) {
            const Variable& slot = current->slots[node->name->localSlot];
            if (!slot.isUnset()) return slot;
        }
        scratch = eval(node);
        return scratch;
    }
    void executeParsedBlock(Activation& activation);
    bool runScalarLoop(Activation& activation, const CompiledLine& body, ForState& state, const LValue& loopTarget);
    void raiseError(const std::string& message);  // fails the current statement

    // Scopes
    std::int32_t globalSlot(std::string_view name);
    Variable resolveVariable(const NameRef& name);
    Variable* resolveVariablePtr(const NameRef& name);
    void assignVariable(const NameRef& name, TargetScope scope, Variable value);
    Variable* findLocalByName(const std::string& name, bool acrossBases);
    void setGlobal(std::string_view name, Variable value);
    Variable getGlobal(std::string_view name);
    std::vector<std::pair<std::string, Variable>>& nativeScope();

    // Operations
    Variable getIndexedValue(const Variable& container, const Variable& key);
    Variable getKeyedValue(const Variable& container, StringObject* key);
    void setIndexedValue(Variable& container, const Variable& key, Variable value);
    Variable* indexedSlot(Variable& container, const Variable& key);
    Variable boundStringMethod(const Variable& text, const std::string& method);

    // Errors
    std::string formatReport(const Chunk& chunk, std::int32_t sourceLine, std::int32_t column, const std::string& token,
                             const std::string& message) const;

    // Library registration
    void registerLibrary();
    void registerBaseLibrary();
    void registerStringLibrary();
    void registerTableLibrary();
    void registerMathLibrary();
    void registerIoLibrary();
    void registerContainerLibrary();
    void registerSystemLibrary();
    void registerCoroutineLibrary();
    void registerStateLibrary();

    // State files
    std::vector<std::uint8_t> exportState();
    // Checks the whole file first; throws ScriptError and leaves the globals alone if it fails.
    void importState(const std::uint8_t* data, std::size_t size, const std::string& source);
    std::vector<Variable> libraryGlobals;  // what each global slot held once the library was in
    void registerFileLibrary();
    BuiltinEntry builtins[static_cast<std::size_t>(BuiltinId::Count)];
    std::mt19937 random;  // random and math.random

    void write(std::string_view text);

    KorvelScript& owner;
    std::function<void(std::string_view)> writer;
    std::string outputBuffer;

    // Globals: a name's slot never changes; an Unset slot is not live.
    std::unordered_map<std::string, std::int32_t> globalIndex;
    std::vector<Variable> globals;

    // Reserved up to the call depth limit on first use, so it never moves while frames point into it.
    std::vector<Activation> activations;
    Activation* current = nullptr;
    std::size_t argumentDepth = 0;
    SegmentedStack<Variable> valueStack;
    SegmentedStack<ForState> loopStack;
    std::deque<std::vector<Variable>> argumentPool;  // one vector per native call depth
    std::deque<std::vector<std::pair<std::string, Variable>>> nativeScopes;
    std::size_t nativeDepth = 0;
    std::vector<std::string> externalNames;

    Variable returnValue;
    std::int32_t errorToken = -1;
    int callDepthLimit = 200000;
    std::uint64_t stepBudget = 0;
    std::uint64_t steps = 0;
    std::uintptr_t stackBase = 0;
    std::size_t stackLimit = 0;
    std::vector<std::string> scriptDirectories;  // innermost running script last

    Variable stringLibrary;  // the string group that string methods come from
    // Constant strings of compiled code, one object per text, so that table look-ups with
    // constant keys usually match by pointer. Returns a new reference.
    StringObject* internString(std::string_view text);
    std::unordered_map<std::string_view, StringObject*> internedStrings;
    // Drops the constant strings that no chunk or value uses any more; returns how many.
    std::size_t pruneDeadTableCacheEntries();
    std::size_t internedAfterPruning = 0;
    std::vector<std::shared_ptr<Chunk>> liveChunks;  // chunks whose functions may still be called

    void checkStack();
    // Bounds of the stack a coroutine runs on, from the address of a local at its bottom.
    void setStackBounds(std::uintptr_t here, std::uintptr_t lowest);

    // Coroutines
    void exchangeExecutionState(ExecutionState& other);
    Coroutine* runningCoroutine = nullptr;          // null while the main script runs
    std::vector<Coroutine*> liveCoroutines;          // every coroutine not yet freed
    std::vector<Coroutine*> coroutinesToClose;       // suspended ones nothing refers to any more
    void closeUnreferencedCoroutines();
    void shutDownCoroutines();

    // Stack bytes left before the interpreter's own limit.
    std::size_t stackRoom();

    // gsub patterns, compiled once per text (bounded; cleared when full).
    std::shared_ptr<const GsubPattern> getCachedGsubPattern(const std::string& pattern);
    std::unordered_map<std::string, std::shared_ptr<const GsubPattern>> gsubPatterns;

    // Under a step budget, pattern matching draws on an allowance of kPatternStepsPerStatement
    // matcher steps per budgeted statement for the whole run, so that repeated costly searches
    // cannot stretch a bounded run. The steps a search may take: `wanted`, or less.
    static constexpr std::uint64_t kPatternStepsPerStatement = 100;
    long patternStepLimit(long wanted) const;
    std::uint64_t patternSteps = 0;  // spent against the allowance

    // Set by KorvelScript::setSandboxed: no files, processes or script files from scripts.
    bool sandboxed = false;
    // Fails with "<function> is not available in a sandboxed interpreter" when sandboxed.
    void requireUnsandboxed(const char* function) const;
};

struct KorvelScript::Impl {
    explicit Impl(KorvelScript& owner) : vm(owner) {}
    Interpreter vm;
};

// For a chunk whose parsed lines are in place but whose statements come from a bytecode image:
// makes its prototypes and links as the compiler would. Returns the prototype owning each line.
std::vector<FunctionProto*> buildChunkStructure(Interpreter& vm, Chunk& chunk);

// Keeps the directory of a script file as the base for relative paths while it runs.
struct ScriptDirectoryScope {
    Interpreter& vm;
    bool pushed = false;
    ScriptDirectoryScope(Interpreter& interpreter, const std::optional<std::string>& directory) : vm(interpreter) {
        if (directory) {
            vm.scriptDirectories.push_back(*directory);
            pushed = true;
        }
    }
    ~ScriptDirectoryScope() {
        if (pushed) vm.scriptDirectories.pop_back();
    }
    ScriptDirectoryScope(const ScriptDirectoryScope&) = delete;
    ScriptDirectoryScope& operator=(const ScriptDirectoryScope&) = delete;
};

// Whole files for loadFile, runFile and KorvelScript::runFile; false when the file cannot be
// read or is larger than a script may be.
bool readScriptFile(const std::string& path, std::string& out);
// "dir/sub/" for "dir/sub/name.ks"; "" for a bare name.
std::string directoryOfPath(const std::string& path);

// Gives scalar-capable subtrees their scalar functions (once, after compiling a line).
bool assignScalarFunctions(FastExpression* node);
// The same for trees given as all their nodes, children before parents (a loaded image): one
// pass, no recursion. Only for nodes that assignScalarFunctions would reach from their roots.
void assignScalarFunctionsInOrder(std::span<FastExpression* const> nodes);

// Arithmetic helpers shared by the evaluator and the library.
Variable performOperation(const Variable& left, char op, const Variable& right);
Variable performOperation(const Variable& left, std::string_view op, const Variable& right);
Variable performTetrationOperation(const Variable& base, const Variable& height);
Variable performPentationOperation(const Variable& base, const Variable& count);
std::int64_t arrayLength(const Variable& value);
std::int64_t numericTableLength(const Table& table);
// The text of a table key for a non-string key value, written into buffer.
std::string_view keyText(const Variable& key, std::string& buffer);

// Argument helpers for the library's messages.
[[noreturn]] void throwScriptError(const std::string& message);

}  // namespace korvel
