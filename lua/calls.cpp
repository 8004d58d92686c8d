// Calls, closures and indexing. Arguments are evaluated onto the VM's value stack and moved into
// the callee's environment, which lives on the native stack unless the callee's body makes
// closures; so a call of a function without nested functions allocates nothing on the heap.
#include "scalar_internal.h"

#include "collector_internal.h"

namespace korvel::lua {

using Impl = LuaVM::Impl;

void Impl::failRuntime(std::uint32_t line, std::string_view message) {
    std::string text = m_currentFunction && m_currentFunction->chunkName ? *m_currentFunction->chunkName : std::string("?");
    text += ':' + std::to_string(line) + ": ";
    text += message;
    throw LuaError(std::move(text));
}

void Impl::failUnlocated(std::string message) { throw LuaError(std::move(message)); }

void Impl::stepBudgetExhausted() {
    m_stepsLeft = 1;   // stays exhausted until the run ends
    throw StepBudgetSignal{};
}

// A closure captures the whole running environment, so every closure made in one activation
// shares its variables.
Value Impl::makeClosure(const FunctionExpr* proto, Frame& frame) {
    if (!frame.owner) failUnlocated("attempted to capture a non-owning KorvelLua environment");
    auto* function = new FunctionObject();
    Value result = Value::object(function);
    function->name = proto->name;
    function->proto = proto;
    function->chunk = frame.closure->chunk;
    function->owner = this;
    function->environment = Value::object(frame.owner);
    return result;
}

// obj:name(...): the method looked up on obj, with obj pushed as the first argument.
Value Impl::methodCallee(const CallExpr* call, Frame& frame) {
    Value object = eval(call->callee, frame);
    Value callee;
    if (object.kind() == Kind::Table) {
        const Value* slot = object.asTable()->findStringCached(call->method.asString(), call->cacheHint);
        if (slot) callee = *slot;
    } else {
        callee = indexField(object, call->method, call->line);
    }
    pushValue(std::move(object));
    return callee;
}

void Impl::evalCallToStack(const CallExpr* call, Frame& frame) {
    std::size_t base = m_top;
    Value callee;
    if (!call->method.isNil()) {
        callee = methodCallee(call, frame);
    } else {
        callee = eval(call->callee, frame);
    }
    pushExpressionList(call->arguments, frame);
    invoke(callee, base, m_top - base, call->line);
    for (std::size_t i = 0; i < m_returns.size(); ++i) pushValue(std::move(m_returns[i]));
}

Value Impl::evalCall(const CallExpr* call, Frame& frame) {
    std::size_t base = m_top;
    Value callee;
    if (!call->method.isNil()) {
        callee = methodCallee(call, frame);
    } else {
        const Expr* calleeExpr = call->callee;
        switch (calleeExpr->kind) {
        case ExprKind::Local: callee = frame.slots[static_cast<const VariableExpr*>(calleeExpr)->index]; break;
        case ExprKind::Outer: callee = outerSlot(frame, static_cast<const VariableExpr*>(calleeExpr)); break;
        case ExprKind::Global: callee = m_globals.at(static_cast<const VariableExpr*>(calleeExpr)->index); break;
        default: callee = eval(calleeExpr, frame); break;
        }
        // math.sqrt and friends on one number: no stack traffic, no result list.
        if (call->arguments.size() == 1 && callee.kind() == Kind::Function && callee.asFunction()->numericFunction) {
            Number argument;
            Value scratch;
            const Expr* argumentExpr = call->arguments[0];
            if (argumentExpr->pure) {
                argument = numberOperand(*this, argumentExpr, frame);
            }
            if (argument.tag == kNotANumber && argumentExpr->kind != ExprKind::Call) {
                scratch = eval(argumentExpr, frame);
                argument = numberOf(scratch);
            } else if (argument.tag == kNotANumber) {
                pushValue(eval(argumentExpr, frame));
                invoke(callee, base, m_top - base, call->line);
                return m_returns.empty() ? Value() : std::move(m_returns[0]);
            }
            if (argument.tag != kNotANumber) {
                countStep();
                return numericResult(callee.asFunction()->numericFunction(numberAsDouble(argument)));
            }
            pushValue(std::move(scratch));
            invoke(callee, base, m_top - base, call->line);
            return m_returns.empty() ? Value() : std::move(m_returns[0]);
        }
    }
    const std::vector<Expr*>& arguments = call->arguments;
    std::size_t count = arguments.size();
    if (callee.kind() == Kind::Function && callee.asFunction()->proto && !callee.asFunction()->proto->ownsEnvironment &&
        (count == 0 || arguments[count - 1]->kind != ExprKind::Call ||
         static_cast<const CallExpr*>(arguments[count - 1])->parenthesised)) {
        return callStackScript(call, callee.asFunction(), frame, base);
    }
    for (std::size_t i = 0; i < count; ++i) {
        const Expr* argument = arguments[i];
        if (i + 1 == count && argument->kind == ExprKind::Call && !static_cast<const CallExpr*>(argument)->parenthesised) {
            evalCallToStack(static_cast<const CallExpr*>(argument), frame);
        } else if (argument->kind == ExprKind::Local) {
            if (m_top >= m_stackCapacity) failRuntime(call->line, "stack overflow");
            m_stack[m_top++] = frame.slots[static_cast<const VariableExpr*>(argument)->index];
        } else {
            // Arithmetic arguments go straight into their slot on the numbers-only path.
            bool arithmetic = argument->kind >= ExprKind::Add && argument->kind <= ExprKind::Modulo;
            Number number = argument->pure && arithmetic ? evalNumber(argument, frame) : Number{};
            if (m_top >= m_stackCapacity) failRuntime(call->line, "stack overflow");
            if (number.tag == kIntegerNumber) {
                m_stack[m_top++].setInteger(number.bits);
            } else if (number.tag == kFloatNumber) {
                m_stack[m_top++].setFloat(std::bit_cast<double>(number.bits));
            } else {
                Value value = eval(argument, frame);
                m_stack[m_top++] = std::move(value);
            }
        }
    }
    if (callee.kind() == Kind::Function && callee.asFunction()->proto) {
        m_currentLine = call->line;
        callScript(callee.asFunction(), base, m_top - base);
    } else {
        invoke(callee, base, m_top - base, call->line);
    }
    return m_returns.empty() ? Value() : std::move(m_returns[0]);
}

// An error leaves m_currentFunction as it was at the failure (its chunk names the message); pcall
// and the run functions put it back.
inline void Impl::runBody(FunctionObject* function, Environment& environment, EnvironmentObject* owner) {
    const FunctionExpr* proto = function->proto;
    const FunctionExpr* savedFunction = m_currentFunction;
    m_currentFunction = proto;
    Frame frame{environment.slots.data(), &environment, owner, function};
    Flow flow = execBlock(proto->body, frame);
    if (flow != Flow::Return) m_returns.clear();
    // A stack environment is emptied here; an owning one keeps its slots for the closures that
    // captured it.
    if (!owner) clearEnvironmentSlots(environment);
    m_currentFunction = savedFunction;
}

// A script function whose environment stays on the native stack, called with a fixed number of
// arguments: they are evaluated straight into its slots, without the value stack.
// A method call's object is already on the value stack at `base`.
Value Impl::callStackScript(const CallExpr* call, FunctionObject* function, Frame& frame, std::size_t base) {
    const FunctionExpr* proto = function->proto;
    Value self;
    std::size_t first = 0;
    if (m_top > base) {
        self = std::move(m_stack[base]);
        popTo(base);
        first = 1;
    }
    Environment environment;
    environment.parent = function->environment.isNil() ? nullptr : &function->environment.asEnvironment()->environment;
    makeStackSlots(environment, proto->environmentSize, call->line);
    std::size_t parameterCount = proto->parameters.size();
    if (first && parameterCount > 0) environment.slots[0] = std::move(self);
    const std::vector<Expr*>& arguments = call->arguments;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const Expr* argument = arguments[i];
        Value discarded;
        Value& target = i + first < parameterCount ? environment.slots[i + first] : discarded;
        if (argument->kind == ExprKind::Local) {
            target = frame.slots[static_cast<const VariableExpr*>(argument)->index];
            continue;
        }
        bool arithmetic = argument->kind >= ExprKind::Add && argument->kind <= ExprKind::Modulo;
        Number number = argument->pure && arithmetic ? evalNumber(argument, frame) : Number{};
        if (number.tag == kIntegerNumber) target.setInteger(number.bits);
        else if (number.tag == kFloatNumber) target.setFloat(std::bit_cast<double>(number.bits));
        else target = eval(argument, frame);
    }
    m_currentLine = call->line;
    enterScript();
    runBody(function, environment, nullptr);
    popTo(base);
    return m_returns.empty() ? Value() : std::move(m_returns[0]);
}

// The slots of a stack environment: inline up to eight; a larger set takes a block of the value
// stack above the arguments (freed with them, in call order), so no call allocates.
inline void Impl::makeStackSlots(Environment& environment, std::size_t count, std::uint32_t line) {
    if (count <= 8) {
        environment.slots.reset(count);
        return;
    }
    if (m_top + count > m_stackCapacity) failRuntime(line, "stack overflow");
    environment.slots.borrow(m_stack + m_top, count);
    m_top += count;
}

inline void Impl::enterScript() {
    countStep();
    // A call is a safe point: everything in flight is held by counted references.
    if (collectionDue()) collectCycles();
    // Each script call nests a few native frames of the tree walker; the budget turns deep
    // recursion into an error well before the thread's stack runs out.
    const char* here = static_cast<const char*>(__builtin_frame_address(0));
    if (m_nativeStackBase && static_cast<std::size_t>(m_nativeStackBase - here) > m_activeStackBudget) {
        failRuntime(m_currentLine, "stack overflow");
    }
}

void Impl::invoke(const Value& callee, std::size_t base, std::size_t argumentCount, std::uint32_t line) {
    if (callee.kind() != Kind::Function) {
        failRuntime(line, std::string("attempt to call a ") + describeValueType(callee.kind()) + " value");
    }
    FunctionObject* function = callee.asFunction();
    if (function->proto) {
        m_currentLine = line;
        callScript(function, base, argumentCount);
        return;
    }
    if (!function->native) failRuntime(line, "attempt to call an empty function");
    countStep();
    std::uint32_t savedLine = m_currentLine;
    m_currentLine = line;
    MultiValue results = function->native(*this, ValueSpan(m_stack + base, argumentCount), line);
    m_currentLine = savedLine;
    popTo(base);
    m_returns = std::move(results);
}

void Impl::callScript(FunctionObject* function, std::size_t base, std::size_t argumentCount) {
    const FunctionExpr* proto = function->proto;
    enterScript();
    std::size_t parameterCount = std::min(proto->parameters.size(), argumentCount);
    Environment* parent = function->environment.isNil() ? nullptr : &function->environment.asEnvironment()->environment;
    if (proto->ownsEnvironment) {
        auto* object = new EnvironmentObject();
        Value held = Value::object(object);
        object->parentObject = function->environment;
        Environment& environment = object->environment;
        environment.parent = parent;
        environment.slots.reset(proto->environmentSize);
        for (std::size_t i = 0; i < parameterCount; ++i) environment.slots[i] = std::move(m_stack[base + i]);
        popTo(base);
        runBody(function, environment, object);
        return;
    }
    Environment environment;
    environment.parent = parent;
    // The slots are taken above the arguments and the arguments moved down into them.
    makeStackSlots(environment, proto->environmentSize, m_currentLine);
    for (std::size_t i = 0; i < parameterCount; ++i) environment.slots[i] = std::move(m_stack[base + i]);
    runBody(function, environment, nullptr);
    popTo(base);
}


void Impl::callValue(const Value& callee, ValueSpan arguments, std::uint32_t line, MultiValue& out) {
    std::size_t base = m_top;
    for (const Value& argument : arguments) pushValue(argument);
    invoke(callee, base, arguments.size(), line);
    out = std::move(m_returns);
    m_returns.clear();
}

Value Impl::indexField(const Value& object, const Value& name, std::uint32_t line) {
    return index(object, name, line);
}

Value Impl::index(const Value& object, const Value& rawKey, std::uint32_t line) {
    switch (object.kind()) {
    case Kind::Table: {
        Value key;
        if (!tryMakeKeyFromValue(rawKey, key)) failRuntime(line, "table index must be a number, string, or boolean");
        return object.asTable()->get(key);
    }
    case Kind::String: {
        if (rawKey.kind() == Kind::String) {
            const Value* method = m_stringLibrary->findString(rawKey.asString());
            if (method && !method->isNil()) return *method;
        }
        failRuntime(line, "string indexing only supports library methods");
    }
    case Kind::UserData: {
        if (rawKey.kind() != Kind::String) failRuntime(line, "userdata fields must be strings");
        return object.asUserData()->field(*this, rawKey.stringView());
    }
    default:
        failRuntime(line, std::string("attempt to index a ") + describeValueType(object.kind()) + " value");
    }
}

} // namespace korvel::lua
