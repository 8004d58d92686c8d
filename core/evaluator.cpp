// Evaluates compiled expression trees and performs calls.
//
// Each arithmetic and comparison node tries the int and float cases inline and hands
// anything else to performOperation, which also produces the error messages. Before any step
// that can fail, the node's token is noted in errorToken so the report can point at it.
#include "core/interpreter_internal.h"

#include <cmath>

namespace korvel {

namespace {


inline std::int32_t wrapAdd(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
inline std::int32_t wrapSub(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}
inline std::int32_t wrapMul(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}

inline bool bothInt(const Variable& a, const Variable& b) {
    return a.type() == VarType::Int && b.type() == VarType::Int;
}
inline bool bothFloat(const Variable& a, const Variable& b) {
    return a.type() == VarType::Float && b.type() == VarType::Float;
}

// Restores the argument-pool depth when a call unwinds.
struct ArgumentScope {
    Interpreter& vm;
    std::vector<Variable>& arguments;
    explicit ArgumentScope(Interpreter& interpreter)
        : vm(interpreter), arguments(take(interpreter)) {}
    static std::vector<Variable>& take(Interpreter& vm) {
        if (vm.argumentDepth >= vm.argumentPool.size()) vm.argumentPool.emplace_back();
        return vm.argumentPool[vm.argumentDepth++];
    }
    ~ArgumentScope() {
        arguments.clear();
        --vm.argumentDepth;
    }
};

// Reserves a callee's slots on the value stack; releases them if the call never starts.
struct SlotReservation {
    Interpreter& vm;
    StackMark mark = 0;
    Variable* slots = nullptr;
    bool handedOver = false;
    SlotReservation(Interpreter& interpreter, const FunctionProto& proto) : vm(interpreter) {
        std::size_t count = proto.slotNames.size();
        slots = vm.valueStack.push(count, mark);
        for (std::size_t i = static_cast<std::size_t>(proto.paramCount); i < count; ++i) slots[i] = Variable::unset();
    }
    ~SlotReservation() {
        if (!handedOver) vm.valueStack.pop(mark);
    }
};

// Runs a native function: gives it a native scope of its own (for names written with "#0")
// and turns foreign exceptions into script errors.
template <typename Body>
Variable runNative(Interpreter& vm, Body&& body) {
    struct NativeScope {
        Interpreter& vm;
        explicit NativeScope(Interpreter& interpreter) : vm(interpreter) {
            ++vm.nativeDepth;
            if (vm.nativeScopes.size() <= vm.nativeDepth) vm.nativeScopes.resize(vm.nativeDepth + 1);
        }
        ~NativeScope() {
            vm.nativeScopes[vm.nativeDepth].clear();
            --vm.nativeDepth;
        }
    } scope(vm);
    try {
        return body();
    } catch (const ScriptError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw ScriptError("Out of memory");
    } catch (const std::exception& error) {
        throw ScriptError(error.what());
    }
}

struct BuiltinName {
    std::string_view name;
    BuiltinId id;
};

// The names by which scripts reach the fast built-ins: the group forms and the plain globals
// the library publishes for them.
constexpr BuiltinName kBuiltinNames[] = {
    {"len", BuiltinId::Len}, {"load", BuiltinId::Load}, {"next", BuiltinId::Next}, {"error", BuiltinId::Error},
    {"pcall", BuiltinId::Pcall}, {"assert", BuiltinId::Assert}, {"pairs", BuiltinId::Pairs},
    {"ipairs", BuiltinId::IPairs}, {"select", BuiltinId::Select}, {"toString", BuiltinId::ToString},
    {"toNumber", BuiltinId::ToNumber}, {"math.abs", BuiltinId::MathAbs}, {"math.min", BuiltinId::MathMin},
    {"math.max", BuiltinId::MathMax}, {"math.sin", BuiltinId::MathSin}, {"math.cos", BuiltinId::MathCos},
    {"math.rad", BuiltinId::MathRad}, {"math.log", BuiltinId::MathLog}, {"getTimeMs", BuiltinId::GetTimeMs},
    {"math.ceil", BuiltinId::MathCeil}, {"ceil", BuiltinId::MathCeil}, {"math.sqrt", BuiltinId::MathSqrt},
    {"sqrt", BuiltinId::MathSqrt}, {"string.len", BuiltinId::StringLen}, {"string.sub", BuiltinId::StringSub},
    {"table.sort", BuiltinId::TableSort}, {"sort", BuiltinId::TableSort}, {"math.floor", BuiltinId::MathFloor},
    {"floor", BuiltinId::MathFloor}, {"string.find", BuiltinId::StringFind}, {"find", BuiltinId::StringFind},
    {"string.byte", BuiltinId::StringByte}, {"byte", BuiltinId::StringByte}, {"string.gsub", BuiltinId::StringGsub},
    {"gsub", BuiltinId::StringGsub}, {"string.upper", BuiltinId::StringUpper}, {"upper", BuiltinId::StringUpper},
    {"string.match", BuiltinId::StringMatch}, {"match", BuiltinId::StringMatch},
    {"table.insert", BuiltinId::TableInsert}, {"insert", BuiltinId::TableInsert},
    {"table.remove", BuiltinId::TableRemove}, {"remove", BuiltinId::TableRemove},
    {"table.concat", BuiltinId::TableConcat}, {"concat", BuiltinId::TableConcat},
    {"string.gmatch", BuiltinId::StringGmatch}, {"gmatch", BuiltinId::StringGmatch},
    {"string.format", BuiltinId::StringFormat}, {"format", BuiltinId::StringFormat},
    {"collectGarbage", BuiltinId::CollectGarbage}, {"utf8.len", BuiltinId::Utf8Len},
};

}  // namespace

BuiltinId builtinIdFromName(std::string_view name) {
    for (const BuiltinName& entry : kBuiltinNames)
        if (entry.name == name) return entry.id;
    return BuiltinId::None;
}

Variable Interpreter::dispatchBuiltinFast(BuiltinId id, const FastExpression* n) {
    BuiltinFunction function = builtins[static_cast<std::size_t>(id)].function;
    constexpr std::size_t kInlineArguments = 6;
    std::size_t count = n->items.size();
    if (count > kInlineArguments) {
        ArgumentScope scope(*this);
        for (const FastExpression* argument : n->items) scope.arguments.push_back(eval(argument));
        errorToken = n->token;
        return runNative(*this, [&] { return function(*this, scope.arguments); });
    }
    Variable arguments[kInlineArguments];
    for (std::size_t i = 0; i < count; ++i) arguments[i] = eval(n->items[i]);
    errorToken = n->token;
    return runNative(*this, [&] { return function(*this, Arguments(arguments, count)); });
}

// Binds left and right to the operands of a binary node. Leaves are read in place; when the
// right operand can run code, the left one is copied first so that code cannot change it.
#define KORVEL_OPERANDS                                \
    Variable leftScratch, rightScratch;                \
    const Variable* leftPointer;                       \
    if (n->right->op <= Op::ScopedName) {              \
        leftPointer = &operand(n->left, leftScratch);  \
    } else {                                           \
        leftScratch = eval(n->left);                   \
        leftPointer = &leftScratch;                    \
    }                                                  \
    const Variable& left = *leftPointer;               \
    const Variable& right = operand(n->right, rightScratch);

bool Interpreter::evalCondition(const FastExpression* n) {
    if (n->height > kChainHeight) return isTruthy(eval(n));
    if (n->scalar) {
        std::uint64_t bits = n->scalar(*this, n);
        if (bits != Variable::kNotScalar) {
            auto type = static_cast<VarType>(bits >> 32);
            return type == VarType::Bool ? static_cast<std::uint32_t>(bits) != 0 : type != VarType::Nil;
        }
        if (++n->scalarMisses > 32) n->scalar = nullptr;
    }
    switch (n->op) {
    case Op::And: return evalCondition(n->left) && evalCondition(n->right);
    case Op::Or: return evalCondition(n->left) || evalCondition(n->right);
    case Op::Not: return !evalCondition(n->left);
    case Op::Eq: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return left.asInt() == right.asInt();
        return variablesEqual(left, right);
    }
    case Op::Ne: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return left.asInt() != right.asInt();
        return !variablesEqual(left, right);
    }
#define KORVEL_COMPARE_CONDITION(OPCODE, CMP)                            \
    case Op::OPCODE: {                                                   \
        KORVEL_OPERANDS                                                  \
        if (bothInt(left, right)) return left.asInt() CMP right.asInt(); \
        if (bothFloat(left, right)) return left.asFloat() CMP right.asFloat(); \
        errorToken = n->token;                                           \
        return compareVariables(left, right) CMP 0;                      \
    }
        KORVEL_COMPARE_CONDITION(Lt, <)
        KORVEL_COMPARE_CONDITION(Gt, >)
        KORVEL_COMPARE_CONDITION(Le, <=)
        KORVEL_COMPARE_CONDITION(Ge, >=)
#undef KORVEL_COMPARE_CONDITION
    default: {
        Variable scratch;
        return isTruthy(operand(n, scratch));
    }
    }
}

void Interpreter::noteScalarMiss(const FastExpression* n) {
    // A node that keeps meeting non-scalar values stops trying the scalar path.
    if (++n->scalarMisses > 32) n->scalar = nullptr;
}

namespace {

char operatorCharacter(Op op) {
    switch (op) {
    case Op::Add: return '+';
    case Op::Sub: return '-';
    case Op::Mul: return '*';
    case Op::Div: return '/';
    case Op::IDiv: return '\\';
    default: return '%';
    }
}

}  // namespace

Variable Interpreter::evalChain(const FastExpression* n) {
    std::vector<const FastExpression*> spine;
    const FastExpression* bottom = n;
    while (isChainOperator(bottom->op) && bottom->height > kChainHeight) {
        spine.push_back(bottom);
        bottom = bottom->left;
    }
    Variable value = eval(bottom);
    for (auto it = spine.rbegin(); it != spine.rend(); ++it) {
        const FastExpression* step = *it;
        if (step->op == Op::Or) {
            if (!isTruthy(value)) value = eval(step->right);
            continue;
        }
        if (step->op == Op::And) {
            if (isTruthy(value)) value = eval(step->right);
            continue;
        }
        Variable right = eval(step->right);
        errorToken = step->token;
        switch (step->op) {
        case Op::Eq: value = Variable(variablesEqual(value, right)); break;
        case Op::Ne: value = Variable(!variablesEqual(value, right)); break;
        case Op::Lt: value = Variable(compareVariables(value, right) < 0); break;
        case Op::Gt: value = Variable(compareVariables(value, right) > 0); break;
        case Op::Le: value = Variable(compareVariables(value, right) <= 0); break;
        case Op::Ge: value = Variable(compareVariables(value, right) >= 0); break;
        case Op::Add:
            if (value.type() == VarType::String) {
                right.appendTo(value.mutableString());  // a long concatenation grows one string
                break;
            }
            [[fallthrough]];
        default: value = performOperation(value, operatorCharacter(step->op), right); break;
        }
    }
    return value;
}

Variable Interpreter::evalSlow(const FastExpression* n) {
    if (n->height > kChainHeight && isChainOperator(n->op)) return evalChain(n);
    switch (n->op) {
    case Op::Const: return n->constant;
    case Op::Local: {
        const Variable& slot = current->slots[n->name->localSlot];
        if (!slot.isUnset()) return slot;
        return resolveVariable(*n->name);
    }
    case Op::Global: {
        if (current->extras) return resolveVariable(*n->name);
        const Variable& global = globals[static_cast<std::size_t>(n->name->globalSlot)];
        if (global.isUnset()) return Variable();
        return global;
    }
    case Op::ScopedName: return resolveVariable(*n->name);
    case Op::Or: {
        Variable left = eval(n->left);
        if (isTruthy(left)) return left;
        return eval(n->right);
    }
    case Op::And: {
        Variable left = eval(n->left);
        if (!isTruthy(left)) return left;
        return eval(n->right);
    }
    case Op::Eq: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return Variable(left.asInt() == right.asInt());
        return Variable(variablesEqual(left, right));
    }
    case Op::Ne: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return Variable(left.asInt() != right.asInt());
        return Variable(!variablesEqual(left, right));
    }
#define KORVEL_COMPARE(OPCODE, CMP)                                                  \
    case Op::OPCODE: {                                                               \
        KORVEL_OPERANDS                                                              \
        if (bothInt(left, right)) return Variable(left.asInt() CMP right.asInt());   \
        if (bothFloat(left, right)) return Variable(left.asFloat() CMP right.asFloat()); \
        errorToken = n->token;                                                       \
        return Variable(compareVariables(left, right) CMP 0);                        \
    }
        KORVEL_COMPARE(Lt, <)
        KORVEL_COMPARE(Gt, >)
        KORVEL_COMPARE(Le, <=)
        KORVEL_COMPARE(Ge, >=)
#undef KORVEL_COMPARE
    case Op::Add: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return Variable(wrapAdd(left.asInt(), right.asInt()));
        if (bothFloat(left, right)) return Variable(left.asFloat() + right.asFloat());
        errorToken = n->token;
        return performOperation(left, '+', right);
    }
    case Op::Sub: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return Variable(wrapSub(left.asInt(), right.asInt()));
        if (bothFloat(left, right)) return Variable(left.asFloat() - right.asFloat());
        errorToken = n->token;
        return performOperation(left, '-', right);
    }
    case Op::Mul: {
        KORVEL_OPERANDS
        if (bothInt(left, right)) return Variable(wrapMul(left.asInt(), right.asInt()));
        if (bothFloat(left, right)) return Variable(left.asFloat() * right.asFloat());
        errorToken = n->token;
        return performOperation(left, '*', right);
    }
    case Op::Div: {
        KORVEL_OPERANDS
        if (bothFloat(left, right) && right.asFloat() != 0.0f) return Variable(left.asFloat() / right.asFloat());
        errorToken = n->token;
        return performOperation(left, '/', right);
    }
    case Op::IDiv: {
        KORVEL_OPERANDS
        if (bothInt(left, right) && right.asInt() > 0 && left.asInt() >= 0) return Variable(left.asInt() / right.asInt());
        errorToken = n->token;
        return performOperation(left, '\\', right);
    }
    case Op::Mod: {
        KORVEL_OPERANDS
        if (bothInt(left, right) && right.asInt() > 0) return Variable(left.asInt() % right.asInt());
        errorToken = n->token;
        return performOperation(left, '%', right);
    }
    case Op::Pow: {
        KORVEL_OPERANDS
        errorToken = n->token;
        return performOperation(left, '^', right);
    }
    case Op::Tetration: {
        KORVEL_OPERANDS
        errorToken = n->token;
        return performTetrationOperation(left, right);
    }
    case Op::Pentation: {
        KORVEL_OPERANDS
        errorToken = n->token;
        return performPentationOperation(left, right);
    }
    case Op::Neg: {
        Variable operand = eval(n->left);
        switch (operand.type()) {
        case VarType::Int: return Variable(wrapSub(0, operand.asInt()));
        case VarType::Float: return Variable(-operand.asFloat());
        case VarType::Bool: return Variable(operand.asBool() ? -1 : 0);
        default: errorToken = n->token; throw ScriptError("Unary '-' requires a numeric value");
        }
    }
    case Op::Not: return Variable(!isTruthy(eval(n->left)));
    case Op::Len: {
        Variable operand = eval(n->left);
        errorToken = n->token;
        std::int64_t length = arrayLength(operand);
        return Variable(static_cast<std::int32_t>(length > INT32_MAX ? INT32_MAX : length));
    }
    case Op::Plus: return eval(n->left);
    case Op::ArrayLiteral: {
        Variable array = Variable::makeArray();
        auto& items = array.arrayItems();
        items.reserve(n->items.size());
        for (const FastExpression* item : n->items) items.push_back(eval(item));
        return array;
    }
    case Op::TableLiteral: {
        Variable table = Variable::makeTable();
        Table& target = table.table();
        target.reserve(n->keys.size());
        std::size_t item = 0;
        for (StringObject* key : n->keys) {
            if (key) {
                Variable value = eval(n->items[item++]);
                target.getOrInsert(key) = std::move(value);
            } else {
                Variable computed = eval(n->items[item++]);
                Variable value = eval(n->items[item++]);
                errorToken = n->token;
                std::string buffer;
                std::string_view text = keyText(computed, buffer);
                target.getOrInsert(text) = std::move(value);
            }
        }
        return table;
    }
    case Op::Index: {
        KORVEL_OPERANDS
        const Variable& container = left;
        const Variable& key = right;
        if (container.type() == VarType::Array && key.type() == VarType::Int) {
            auto& items = container.arrayItems();
            std::int32_t index = key.asInt();
            if (index >= 1 && static_cast<std::size_t>(index) <= items.size()) return items[static_cast<std::size_t>(index - 1)];
        }
        errorToken = n->token;
        return getIndexedValue(container, key);
    }
    case Op::IndexKey: {
        Variable scratch;
        const Variable& container = operand(n->left, scratch);
        if (container.type() == VarType::Table) {
            Variable* found = container.table().find(n->constant.stringObject());
            return found ? *found : Variable();
        }
        errorToken = n->token;
        return getKeyedValue(container, n->constant.stringObject());
    }
    case Op::Call: return invokeCallableFast(n);
    }
    return Variable();
}

Variable Interpreter::invokeCallableFast(const FastExpression* n) {
    const FastExpression* calleeNode = n->left;
    Variable callee;
    if (calleeNode->op == Op::IndexKey) {
        Variable container = eval(calleeNode->left);
        if (container.type() == VarType::String) {
            // "text"["upper"](...): call the string function with the text first, no binding made.
            Variable* function = stringLibrary.type() == VarType::Table
                                     ? stringLibrary.table().find(calleeNode->constant.stringObject())
                                     : nullptr;
            if (function && function->type() == VarType::Function && function->callable().kind == ScriptCallable::Kind::Native) {
                Variable target = *function;
                ArgumentScope scope(*this);
                scope.arguments.push_back(std::move(container));
                for (const FastExpression* argument : n->items) scope.arguments.push_back(eval(argument));
                errorToken = n->token;
                return callNative(target.callable(), scope.arguments);
            }
        }
        errorToken = calleeNode->token;
        callee = container.type() == VarType::Table ? [&] {
            Variable* found = container.table().find(calleeNode->constant.stringObject());
            return found ? *found : Variable();
        }()
                                                    : getKeyedValue(container, calleeNode->constant.stringObject());
    } else if (calleeNode->op == Op::Global && !current->extras) {
        const Variable& global = globals[static_cast<std::size_t>(calleeNode->name->globalSlot)];
        if (!global.isUnset()) callee = global;
    } else {
        callee = eval(calleeNode);
    }
    if (callee.type() != VarType::Function) {
        errorToken = n->token;
        throw ScriptError(std::string("Attempted to call a non-function value of type ") + typeName(callee.type()));
    }
    ScriptCallable& callable = callee.callable();
    switch (callable.kind) {
    case ScriptCallable::Kind::Native: {
        // Only while the name still holds the built-in: a script may rebind `len` to its own.
        if (n->builtin != BuiltinId::None &&
            builtins[static_cast<std::size_t>(n->builtin)].callable.identity() == &callable)
            return dispatchBuiltinFast(n->builtin, n);
        ArgumentScope scope(*this);
        for (const FastExpression* argument : n->items) scope.arguments.push_back(eval(argument));
        errorToken = n->token;
        return callNative(callable, scope.arguments);
    }
    case ScriptCallable::Kind::Script: {
        if (!callable.proto) {
            errorToken = n->token;
            throw ScriptError("Attempted to call an invalid function value");
        }
        FunctionProto& proto = *callable.proto;
        SlotReservation reservation(*this, proto);
        std::size_t count = n->items.size();
        auto params = static_cast<std::size_t>(proto.paramCount);
        for (std::size_t i = 0; i < count; ++i) {
            if (i < params) {
                reservation.slots[i] = eval(n->items[i]);
            } else {
                eval(n->items[i]);  // extra arguments are evaluated for their effects, then dropped
            }
        }
        for (std::size_t i = count; i < params; ++i) reservation.slots[i] = Variable();
        errorToken = n->token;
        reservation.handedOver = true;
        return callScript(proto, reservation.slots, reservation.mark);
    }
    case ScriptCallable::Kind::Chunk: {
        errorToken = n->token;
        if (!n->items.empty()) throw ScriptError("Loaded script chunks do not accept call arguments");
        if (!callable.proto) throw ScriptError("Attempted to call an invalid function value");
        FunctionProto& proto = *callable.proto;
        ScriptDirectoryScope directory(*this, proto.chunk->directory);
        SlotReservation reservation(*this, proto);
        reservation.handedOver = true;
        return callScript(proto, reservation.slots, reservation.mark);
    }
    }
    return Variable();
}

Variable Interpreter::call(const Variable& callee, const std::vector<Variable>& arguments) {
    if (callee.type() != VarType::Function) throw ScriptError("callCallable: value is not a function");
    ScriptCallable& callable = callee.callable();
    if (callable.kind == ScriptCallable::Kind::Native) return callNative(callable, arguments);
    if (!callable.proto) throw ScriptError("Attempted to call an invalid function value");
    if (callable.kind == ScriptCallable::Kind::Chunk && !arguments.empty())
        throw ScriptError("Loaded script chunks do not accept call arguments");
    FunctionProto& proto = *callable.proto;
    Variable keepAlive = callee;
    std::optional<ScriptDirectoryScope> directory;
    if (callable.kind == ScriptCallable::Kind::Chunk) directory.emplace(*this, proto.chunk->directory);
    SlotReservation reservation(*this, proto);
    auto params = static_cast<std::size_t>(proto.paramCount);
    for (std::size_t i = 0; i < params; ++i)
        reservation.slots[i] = i < arguments.size() ? arguments[i] : Variable();
    reservation.handedOver = true;
    return callScript(proto, reservation.slots, reservation.mark);
}

Variable Interpreter::callNative(ScriptCallable& callable, const std::vector<Variable>& arguments) {
    return runNative(*this, [&] { return callable.native(arguments); });
}

Variable Interpreter::callScript(FunctionProto& proto, Variable* slots, StackMark mark) {
    // Undoes everything the call set up, also when an error passes through.
    struct CallFrame {
        Interpreter& vm;
        StackMark valueMark;
        StackMark loopMark = 0;
        bool loopsPushed = false;
        CallFrame(Interpreter& interpreter, StackMark mark) : vm(interpreter), valueMark(mark) {}
        ~CallFrame() {
            vm.activations.pop_back();
            vm.current = vm.activations.empty() ? nullptr : &vm.activations.back();
            if (loopsPushed) vm.loopStack.pop(loopMark);
            vm.valueStack.pop(valueMark);
        }
    };
    if (activations.size() >= activations.capacity()) {
        if (activations.capacity() == 0) {
            activations.reserve(static_cast<std::size_t>(callDepthLimit > 0 ? callDepthLimit : 1));
        } else {
            valueStack.pop(mark);
            throw ScriptError("Call depth limit exceeded (recursion too deep)");
        }
    }
    activations.emplace_back();
    CallFrame frame(*this, mark);
    Activation& activation = activations.back();
    activation.proto = &proto;
    activation.slots = slots;
    if (proto.loopCount > 0) {
        activation.loops = loopStack.push(static_cast<std::size_t>(proto.loopCount), frame.loopMark);
        frame.loopsPushed = true;
    }
    current = &activation;
    // A few calls use far less stack than the reserve the check keeps, so every 8th will do.
    if ((activations.size() & 7) == 1) checkStack();
    executeParsedBlock(activation);
    return std::move(returnValue);
}

}  // namespace korvel
