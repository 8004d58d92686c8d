// The evaluator: walks the resolved tree. Expressions give values, statements give a Flow that
// says whether a block ended normally, by `break` or by `return` (results in m_returns).
#include "scalar_internal.h"

#include <cmath>
#include <charconv>
#include <cstring>

namespace korvel::lua {

namespace {

using Impl = LuaVM::Impl;

const char* operatorText(ExprKind kind) {
    switch (kind) {
    case ExprKind::Add: return "+";
    case ExprKind::Subtract: return "-";
    case ExprKind::Multiply: return "*";
    case ExprKind::Divide: return "/";
    case ExprKind::Modulo: return "%";
    default: return "?";
    }
}

std::int64_t wrapAdd(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) + static_cast<std::uint64_t>(b));
}
std::int64_t wrapSubtract(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) - static_cast<std::uint64_t>(b));
}
std::int64_t wrapMultiply(std::int64_t a, std::int64_t b) {
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(a) * static_cast<std::uint64_t>(b));
}

} // namespace

Value arithmetic(Impl& vm, ExprKind op, const Value& left, const Value& right, std::uint32_t line) {
    if (left.kind() == Kind::Integer && right.kind() == Kind::Integer) {
        std::int64_t a = left.asInteger(), b = right.asInteger();
        switch (op) {
        case ExprKind::Add: return Value::integer(wrapAdd(a, b));
        case ExprKind::Subtract: return Value::integer(wrapSubtract(a, b));
        case ExprKind::Multiply: return Value::integer(wrapMultiply(a, b));
        case ExprKind::Divide:
            if (b == 0) vm.failRuntime(line, "division by zero");
            if (b != -1 && a % b == 0) return Value::integer(a / b);
            return numericResult(static_cast<double>(a) / static_cast<double>(b));
        case ExprKind::Modulo: {
            if (b == 0) vm.failRuntime(line, "modulo by zero");
            if (b == -1) return Value::integer(0);
            // Floored remainder: the result takes the divisor's sign, as in Lua.
            std::int64_t remainder = a % b;
            if (remainder != 0 && ((remainder < 0) != (b < 0))) remainder += b;
            return Value::integer(remainder);
        }
        default: break;
        }
    }
    if (!left.isNumber() || !right.isNumber()) {
        vm.failRuntime(line, std::string("operator '") + operatorText(op) + "' expects numbers");
    }
    double a = left.toDouble(), b = right.toDouble();
    switch (op) {
    case ExprKind::Add: return numericResult(a + b);
    case ExprKind::Subtract: return numericResult(a - b);
    case ExprKind::Multiply: return numericResult(a * b);
    case ExprKind::Divide:
        if (b == 0.0) vm.failRuntime(line, "division by zero");
        return numericResult(a / b);
    case ExprKind::Modulo: {
        if (b == 0.0) vm.failRuntime(line, "modulo by zero");
        double remainder = std::fmod(a, b);
        if (remainder != 0.0 && ((remainder < 0.0) != (b < 0.0))) remainder += b;
        return numericResult(remainder);
    }
    default: break;
    }
    vm.failRuntime(line, "unsupported expression");
}

bool lessThan(Impl& vm, const Value& left, const Value& right, bool orEqual, std::uint32_t line) {
    if (left.kind() == Kind::Integer && right.kind() == Kind::Integer) {
        return orEqual ? left.asInteger() <= right.asInteger() : left.asInteger() < right.asInteger();
    }
    if (left.isNumber() && right.isNumber()) {
        return orEqual ? left.toDouble() <= right.toDouble() : left.toDouble() < right.toDouble();
    }
    if (left.kind() == Kind::String && right.kind() == Kind::String) {
        return orEqual ? left.stringView() <= right.stringView() : left.stringView() < right.stringView();
    }
    vm.failRuntime(line, "ordered comparisons require matching numbers or strings");
}

namespace {

// The text of one ".." operand: strings as they are, integers through to_chars, others through
// their text form. `buffer` and `owned` keep the bytes alive.
std::string_view concatPiece(const Value& value, char (&buffer)[24], std::string& owned) {
    if (value.kind() == Kind::String) return value.stringView();
    if (value.kind() == Kind::Integer) {
        auto result = std::to_chars(buffer, buffer + sizeof buffer, value.asInteger());
        return std::string_view(buffer, static_cast<std::size_t>(result.ptr - buffer));
    }
    owned = value.toString();
    return owned;
}

} // namespace

Value concatenate(Impl& vm, const Value& left, const Value& right, std::uint32_t line) {
    char leftBuffer[24], rightBuffer[24];
    std::string leftOwned, rightOwned;
    std::string_view a = concatPiece(left, leftBuffer, leftOwned);
    std::string_view b = concatPiece(right, rightBuffer, rightOwned);
    if (a.size() + b.size() > kMaxStringLength) vm.failRuntime(line, "string is too large");
    StringObject* joined = StringObject::allocate(a.size() + b.size());
    if (!a.empty()) std::memcpy(joined->mutableData(), a.data(), a.size());
    if (!b.empty()) std::memcpy(joined->mutableData() + a.size(), b.data(), b.size());
    return Value::object(joined);
}

namespace {

// Locals and constants are read in place: environment slots never move while the activation runs.
// A closure called while the other operand is evaluated may store into the slot; the reference then
// sees the new value (as a register read after the call would), never a freed one, because callers
// look at both operands only once both are evaluated. Anything else is evaluated into `scratch`.
inline const Value& operand(Impl& vm, const Expr* expr, Impl::Frame& frame, Value& scratch) {
    if (expr->kind == ExprKind::Local) return frame.slots[static_cast<const VariableExpr*>(expr)->index];
    if (expr->kind == ExprKind::Constant) return static_cast<const ConstantExpr*>(expr)->value;
    scratch = expr->kind == ExprKind::Call ? vm.evalCall(static_cast<const CallExpr*>(expr), frame) : vm.eval(expr, frame);
    return scratch;
}

inline bool isArithmetic(const Expr* expr) {
    return expr->kind >= ExprKind::Negate && expr->kind <= ExprKind::Modulo && expr->kind != ExprKind::Not &&
           expr->kind != ExprKind::Length;
}

// Stores a pure arithmetic result straight into a slot; false when the general path must run.
inline bool storeScalar(Impl& vm, const Expr* value, Impl::Frame& frame, Value& slot) {
    if (!value->pure || !isArithmetic(value)) return false;
    Number result = vm.evalNumber(value, frame);
    if (result.tag == Impl::kIntegerNumber) slot.setInteger(result.bits);
    else if (result.tag == Impl::kFloatNumber) slot.setFloat(std::bit_cast<double>(result.bits));
    else return false;
    return true;
}

// Both operands pure numbers: compares without building Values. False when not both numbers.
inline bool scalarCompare(Impl& vm, const BinaryExpr* binary, Impl::Frame& frame, bool& outcome) {
    if (!binary->left->pure || !binary->right->pure) return false;
    Number a = numberOperand(vm, binary->left, frame);
    if (a.tag == Impl::kNotANumber) return false;
    Number b = numberOperand(vm, binary->right, frame);
    if (b.tag == Impl::kNotANumber) return false;
    if (a.tag == Impl::kIntegerNumber && b.tag == Impl::kIntegerNumber) {
        switch (binary->kind) {
        case ExprKind::Equal: outcome = a.bits == b.bits; return true;
        case ExprKind::NotEqual: outcome = a.bits != b.bits; return true;
        case ExprKind::Less: outcome = a.bits < b.bits; return true;
        case ExprKind::LessEqual: outcome = a.bits <= b.bits; return true;
        case ExprKind::Greater: outcome = a.bits > b.bits; return true;
        default: outcome = a.bits >= b.bits; return true;
        }
    }
    double x = numberAsDouble(a), y = numberAsDouble(b);
    bool equal = a.tag == b.tag ? x == y : (x - y <= kIntegralTolerance && y - x <= kIntegralTolerance);
    switch (binary->kind) {
    case ExprKind::Equal: outcome = equal; return true;
    case ExprKind::NotEqual: outcome = !equal; return true;
    case ExprKind::Less: outcome = x < y; return true;
    case ExprKind::LessEqual: outcome = x <= y; return true;
    case ExprKind::Greater: outcome = x > y; return true;
    default: outcome = x >= y; return true;
    }
}

} // namespace

Value Impl::eval(const Expr* expr, Frame& frame) {
    switch (expr->kind) {
    case ExprKind::Constant: return static_cast<const ConstantExpr*>(expr)->value;
    case ExprKind::Local: return frame.slots[static_cast<const VariableExpr*>(expr)->index];
    case ExprKind::Outer: return outerSlot(frame, static_cast<const VariableExpr*>(expr));
    case ExprKind::Global: return m_globals.at(static_cast<const VariableExpr*>(expr)->index);
    case ExprKind::Negate: {
        Value operand = eval(static_cast<const UnaryExpr*>(expr)->operand, frame);
        if (operand.kind() == Kind::Integer) {
            return Value::integer(static_cast<std::int64_t>(0ULL - static_cast<std::uint64_t>(operand.asInteger())));
        }
        if (operand.kind() == Kind::Float) return numericResult(-operand.asFloat());
        failRuntime(expr->line, "unary '-' expects a number");
    }
    case ExprKind::Not: return Value::boolean(!evalTruth(static_cast<const UnaryExpr*>(expr)->operand, frame));
    case ExprKind::Length: {
        Value operand = eval(static_cast<const UnaryExpr*>(expr)->operand, frame);
        if (operand.kind() == Kind::String) return Value::integer(static_cast<std::int64_t>(operand.asString()->length));
        if (operand.kind() == Kind::Table) return Value::integer(operand.asTable()->sequenceLength());
        failRuntime(expr->line, "length operator expects a string or table");
    }
    case ExprKind::Add:
    case ExprKind::Subtract:
    case ExprKind::Multiply: {
        if (expr->pure) {
            Number result = evalNumber(expr, frame);
            if (result.tag != kNotANumber) return numberToValue(result);
        }
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value leftScratch, rightScratch;
        const Value& left = operand(*this, binary->left, frame, leftScratch);
        const Value& right = operand(*this, binary->right, frame, rightScratch);
        if (left.kind() == Kind::Integer && right.kind() == Kind::Integer) {
            std::int64_t a = left.asInteger(), b = right.asInteger();
            return Value::integer(expr->kind == ExprKind::Add        ? wrapAdd(a, b)
                                  : expr->kind == ExprKind::Subtract ? wrapSubtract(a, b)
                                                                     : wrapMultiply(a, b));
        }
        if (left.kind() == Kind::Float && right.kind() == Kind::Float) {
            double a = left.asFloat(), b = right.asFloat();
            return numericResult(expr->kind == ExprKind::Add ? a + b : expr->kind == ExprKind::Subtract ? a - b : a * b);
        }
        return arithmetic(*this, expr->kind, left, right, expr->line);
    }
    case ExprKind::Divide:
    case ExprKind::Modulo: {
        if (expr->pure) {
            Number result = evalNumber(expr, frame);
            if (result.tag != kNotANumber) return numberToValue(result);
        }
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value leftScratch, rightScratch;
        const Value& left = operand(*this, binary->left, frame, leftScratch);
        const Value& right = operand(*this, binary->right, frame, rightScratch);
        if (left.kind() == Kind::Integer && right.kind() == Kind::Integer && right.asInteger() > 0 &&
            expr->kind == ExprKind::Modulo && left.asInteger() >= 0) {
            return Value::integer(left.asInteger() % right.asInteger());
        }
        if (left.kind() == Kind::Float && right.kind() == Kind::Float && expr->kind == ExprKind::Divide && right.asFloat() != 0.0) {
            return numericResult(left.asFloat() / right.asFloat());
        }
        return arithmetic(*this, expr->kind, left, right, expr->line);
    }
    case ExprKind::Concat: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value leftScratch, rightScratch;
        const Value& left = operand(*this, binary->left, frame, leftScratch);
        const Value& right = operand(*this, binary->right, frame, rightScratch);
        return concatenate(*this, left, right, expr->line);
    }
    case ExprKind::Equal:
    case ExprKind::NotEqual:
    case ExprKind::Less:
    case ExprKind::LessEqual:
    case ExprKind::Greater:
    case ExprKind::GreaterEqual:
        return Value::boolean(evalTruth(expr, frame));
    case ExprKind::And: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value left = eval(binary->left, frame);
        if (!left.isTruthy()) return left;
        return eval(binary->right, frame);
    }
    case ExprKind::Or: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value left = eval(binary->left, frame);
        if (left.isTruthy()) return left;
        return eval(binary->right, frame);
    }
    case ExprKind::Table: return evalTable(expr, frame);
    case ExprKind::Field: {
        auto* field = static_cast<const FieldExpr*>(expr);
        Value objectScratch;
        const Value& object = operand(*this, field->object, frame, objectScratch);
        if (object.kind() == Kind::Table) {
            const Value* slot = object.asTable()->findStringCached(field->name.asString(), field->cacheHint);
            return slot ? *slot : Value();
        }
        return indexField(object, field->name, expr->line);
    }
    case ExprKind::Index: {
        auto* indexing = static_cast<const IndexExpr*>(expr);
        Value objectScratch, keyScratch;
        const Value& object = operand(*this, indexing->object, frame, objectScratch);
        const Value& key = operand(*this, indexing->key, frame, keyScratch);
        if (object.kind() == Kind::Table && key.kind() == Kind::Integer) {
            const Value* slot = object.asTable()->findInteger(key.asInteger());
            return slot ? *slot : Value();
        }
        return index(object, key, expr->line);
    }
    case ExprKind::Call: return evalCall(static_cast<const CallExpr*>(expr), frame);
    case ExprKind::Function: return makeClosure(static_cast<const FunctionExpr*>(expr), frame);
    default: break;
    }
    failRuntime(expr->line, "unsupported expression");
}

namespace {

bool compareIntegers(ExprKind kind, std::int64_t a, std::int64_t b) {
    switch (kind) {
    case ExprKind::Equal: return a == b;
    case ExprKind::NotEqual: return a != b;
    case ExprKind::Less: return a < b;
    case ExprKind::LessEqual: return a <= b;
    case ExprKind::Greater: return a > b;
    default: return a >= b;
    }
}

} // namespace

bool Impl::evalTruth(const Expr* expr, Frame& frame) {
    if (expr->kind >= ExprKind::Equal && expr->kind <= ExprKind::GreaterEqual) {
        // The commonest loop and recursion test: an integer local against an integer constant.
        auto* binary = static_cast<const BinaryExpr*>(expr);
        if (binary->left->kind == ExprKind::Local && binary->right->kind == ExprKind::Constant) {
            const Value& left = frame.slots[static_cast<const VariableExpr*>(binary->left)->index];
            const Value& right = static_cast<const ConstantExpr*>(binary->right)->value;
            if (left.kind() == Kind::Integer && right.kind() == Kind::Integer) {
                return compareIntegers(expr->kind, left.asInteger(), right.asInteger());
            }
        }
        bool outcome = false;
        if (scalarCompare(*this, static_cast<const BinaryExpr*>(expr), frame, outcome)) return outcome;
    }
    switch (expr->kind) {
    case ExprKind::Equal:
    case ExprKind::NotEqual: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value leftScratch, rightScratch;
        const Value& left = operand(*this, binary->left, frame, leftScratch);
        const Value& right = operand(*this, binary->right, frame, rightScratch);
        bool equal = left.kind() == Kind::Integer && right.kind() == Kind::Integer ? left.asInteger() == right.asInteger()
                                                                                  : valuesEqual(left, right);
        return expr->kind == ExprKind::Equal ? equal : !equal;
    }
    case ExprKind::Less:
    case ExprKind::LessEqual: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value leftScratch, rightScratch;
        const Value& left = operand(*this, binary->left, frame, leftScratch);
        const Value& right = operand(*this, binary->right, frame, rightScratch);
        if (left.kind() == Kind::Integer && right.kind() == Kind::Integer) {
            return expr->kind == ExprKind::LessEqual ? left.asInteger() <= right.asInteger() : left.asInteger() < right.asInteger();
        }
        return lessThan(*this, left, right, expr->kind == ExprKind::LessEqual, expr->line);
    }
    case ExprKind::Greater:
    case ExprKind::GreaterEqual: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Value leftScratch, rightScratch;
        const Value& left = operand(*this, binary->left, frame, leftScratch);
        const Value& right = operand(*this, binary->right, frame, rightScratch);
        if (left.kind() == Kind::Integer && right.kind() == Kind::Integer) {
            return expr->kind == ExprKind::GreaterEqual ? left.asInteger() >= right.asInteger() : left.asInteger() > right.asInteger();
        }
        return lessThan(*this, right, left, expr->kind == ExprKind::GreaterEqual, expr->line);
    }
    case ExprKind::Not: return !evalTruth(static_cast<const UnaryExpr*>(expr)->operand, frame);
    case ExprKind::And: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        return evalTruth(binary->left, frame) && evalTruth(binary->right, frame);
    }
    case ExprKind::Or: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        return evalTruth(binary->left, frame) || evalTruth(binary->right, frame);
    }
    default: return eval(expr, frame).isTruthy();
    }
}

void Impl::pushExpressionList(const std::vector<Expr*>& expressions, Frame& frame) {
    std::size_t count = expressions.size();
    for (std::size_t i = 0; i < count; ++i) {
        const Expr* expr = expressions[i];
        if (i + 1 == count && expr->kind == ExprKind::Call && !static_cast<const CallExpr*>(expr)->parenthesised) {
            evalCallToStack(static_cast<const CallExpr*>(expr), frame);
        } else {
            Value value = eval(expr, frame);
            pushValue(std::move(value));
        }
    }
}

void Impl::evalList(const std::vector<Expr*>& expressions, Frame& frame, MultiValue& out) {
    std::size_t base = m_top;
    pushExpressionList(expressions, frame);
    for (std::size_t k = base; k < m_top; ++k) out.push(std::move(m_stack[k]));
    popTo(base);
}

void Impl::assign(const Expr* target, Value value, Frame& frame) {
    switch (target->kind) {
    case ExprKind::Local: frame.slots[static_cast<const VariableExpr*>(target)->index] = std::move(value); return;
    case ExprKind::Outer: outerSlot(frame, static_cast<const VariableExpr*>(target)) = std::move(value); return;
    case ExprKind::Global: m_globals.at(static_cast<const VariableExpr*>(target)->index) = std::move(value); return;
    case ExprKind::Field: {
        auto* field = static_cast<const FieldExpr*>(target);
        Value objectScratch;
        const Value& object = operand(*this, field->object, frame, objectScratch);
        if (object.kind() != Kind::Table) {
            failRuntime(target->line, std::string("attempt to assign into a ") + describeValueType(object.kind()) + " value");
        }
        Table* table = object.asTable();
        if (table->assignStringCached(field->name.asString(), field->cacheHint, value)) return;
        table->set(field->name, std::move(value));
        table->findStringCached(field->name.asString(), field->cacheHint);   // refresh the hint
        return;
    }
    case ExprKind::Index: {
        auto* indexing = static_cast<const IndexExpr*>(target);
        Value objectScratch, keyScratch;
        const Value& object = operand(*this, indexing->object, frame, objectScratch);
        const Value& rawKey = operand(*this, indexing->key, frame, keyScratch);
        if (object.kind() != Kind::Table) {
            failRuntime(target->line, std::string("attempt to assign into a ") + describeValueType(object.kind()) + " value");
        }
        if (rawKey.kind() == Kind::Integer) {
            object.asTable()->setInteger(rawKey.asInteger(), std::move(value));
            return;
        }
        Value key;
        if (!tryMakeKeyFromValue(rawKey, key)) failRuntime(target->line, "table keys must be numbers, strings, or booleans");
        object.asTable()->set(key, std::move(value));
        return;
    }
    default: failRuntime(target->line, "invalid assignment target");
    }
}

namespace {

inline void storeLocal(Value* slots, const LocalInfo* local, Value value) { slots[local->slot] = std::move(value); }

} // namespace

Impl::Flow Impl::execBlock(const std::vector<Stmt*>& block, Frame& frame) {
    for (const Stmt* statement : block) {
        Flow flow = exec(statement, frame);
        if (flow != Flow::Normal) return flow;
    }
    return Flow::Normal;
}

Impl::Flow Impl::exec(const Stmt* statement, Frame& frame) {
    switch (statement->kind) {
    case StmtKind::Expression: {
        std::size_t base = m_top;
        evalCallToStack(static_cast<const ExpressionStmt*>(statement)->call, frame);
        popTo(base);
        return Flow::Normal;
    }
    case StmtKind::Local: {
        auto* local = static_cast<const LocalStmt*>(statement);
        if (local->locals.size() == 1 && local->values.size() == 1) {
            if (storeScalar(*this, local->values[0], frame, frame.slots[local->locals[0]->slot])) {
                return Flow::Normal;
            }
            storeLocal(frame.slots, local->locals[0], eval(local->values[0], frame));
            return Flow::Normal;
        }
        std::size_t base = m_top;
        pushExpressionList(local->values, frame);
        for (std::size_t i = 0; i < local->locals.size(); ++i) {
            std::size_t source = base + i;
            storeLocal(frame.slots, local->locals[i], source < m_top ? std::move(m_stack[source]) : Value());
        }
        popTo(base);
        return Flow::Normal;
    }
    case StmtKind::Assign: {
        auto* assignment = static_cast<const AssignStmt*>(statement);
        if (assignment->targets.size() == 1 && assignment->values.size() == 1) {
            const Expr* target = assignment->targets[0];
            if (target->kind == ExprKind::Local &&
                storeScalar(*this, assignment->values[0], frame, frame.slots[static_cast<const VariableExpr*>(target)->index])) {
                return Flow::Normal;
            }
            assign(target, eval(assignment->values[0], frame), frame);
            return Flow::Normal;
        }
        std::size_t base = m_top;
        pushExpressionList(assignment->values, frame);
        std::size_t produced = m_top - base;
        for (std::size_t i = 0; i < assignment->targets.size(); ++i) {
            Value value = i < produced ? m_stack[base + i] : Value();
            assign(assignment->targets[i], std::move(value), frame);
        }
        popTo(base);
        return Flow::Normal;
    }
    case StmtKind::LocalFunction: {
        auto* declaration = static_cast<const LocalFunctionStmt*>(statement);
        // The closure shares this environment, so its body sees its own name once it is stored.
        frame.slots[declaration->local->slot] = makeClosure(declaration->function, frame);
        return Flow::Normal;
    }
    case StmtKind::If: {
        auto* branchy = static_cast<const IfStmt*>(statement);
        for (const IfStmt::Branch& branch : branchy->branches) {
            if (evalTruth(branch.condition, frame)) return execBlock(branch.block, frame);
        }
        return execBlock(branchy->elseBlock, frame);
    }
    case StmtKind::While: {
        auto* loop = static_cast<const WhileStmt*>(statement);
        while (evalTruth(loop->condition, frame)) {
            countStep();
            Flow flow = execBlock(loop->body, frame);
            if (flow == Flow::Break) break;
            if (flow == Flow::Return) return flow;
        }
        return Flow::Normal;
    }
    case StmtKind::NumericFor: return execNumericFor(statement, frame);
    case StmtKind::GenericFor: return execGenericFor(statement, frame);
    case StmtKind::Return: {
        auto* returning = static_cast<const ReturnStmt*>(statement);
        if (returning->values.size() == 1 && returning->values[0]->kind != ExprKind::Call) {
            const Expr* value = returning->values[0];
            if (value->kind == ExprKind::Local) {
                m_returns.setOne(frame.slots[static_cast<const VariableExpr*>(value)->index]);
                return Flow::Return;
            }
            m_returns.setOne(eval(value, frame));
            return Flow::Return;
        }
        std::size_t base = m_top;
        pushExpressionList(returning->values, frame);
        m_returns.clear();
        for (std::size_t k = base; k < m_top; ++k) m_returns.push(std::move(m_stack[k]));
        popTo(base);
        return Flow::Return;
    }
    case StmtKind::Break: return Flow::Break;
    case StmtKind::AssignFieldNumber: {
        auto* assignment = static_cast<const AssignStmt*>(statement);
        Number result = evalNumber(assignment->values[0], frame);
        assign(assignment->targets[0], result.tag != kNotANumber ? numberToValue(result) : eval(assignment->values[0], frame), frame);
        return Flow::Normal;
    }
    case StmtKind::LocalNumber: {
        auto* local = static_cast<const LocalStmt*>(statement);
        Value& slot = frame.slots[local->locals[0]->slot];
        Number result = evalNumber(local->values[0], frame);
        if (result.tag == kIntegerNumber) slot.setInteger(result.bits);
        else if (result.tag == kFloatNumber) slot.setFloat(std::bit_cast<double>(result.bits));
        else slot = eval(local->values[0], frame);   // raises the error the numbers-only path avoided
        return Flow::Normal;
    }
    case StmtKind::AssignLocalNumber: {
        auto* assignment = static_cast<const AssignStmt*>(statement);
        Value& slot = frame.slots[static_cast<const VariableExpr*>(assignment->targets[0])->index];
        Number result = evalNumber(assignment->values[0], frame);
        if (result.tag == kIntegerNumber) slot.setInteger(result.bits);
        else if (result.tag == kFloatNumber) slot.setFloat(std::bit_cast<double>(result.bits));
        else slot = eval(assignment->values[0], frame);
        return Flow::Normal;
    }
    }
    failRuntime(statement->line, "unsupported statement");
}

// Kept out of exec so the per-statement dispatch stays small.
Impl::Flow Impl::execNumericFor(const Stmt* statement, Frame& frame) {
    auto* loop = static_cast<const NumericForStmt*>(statement);
    Value start = eval(loop->start, frame);
    Value limit = eval(loop->limit, frame);
    Value step = loop->step ? eval(loop->step, frame) : Value::integer(1);
    if (!start.isNumber() || !limit.isNumber() || !step.isNumber()) {
        failRuntime(statement->line, "numeric for loop expects numeric bounds");
    }
    if (step.toDouble() == 0.0) failRuntime(statement->line, "numeric for step cannot be zero");
    const LocalInfo* variable = loop->variable;
    if (start.kind() == Kind::Integer && limit.kind() == Kind::Integer && step.kind() == Kind::Integer) {
        // Integer bounds count exactly; the iteration count is computed up front so the
        // counter never overflows.
        std::int64_t first = start.asInteger(), last = limit.asInteger(), increment = step.asInteger();
        if (increment > 0 ? first > last : first < last) return Flow::Normal;
        std::uint64_t span = increment > 0 ? static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first)
                                           : static_cast<std::uint64_t>(first) - static_cast<std::uint64_t>(last);
        std::uint64_t stride = increment > 0 ? static_cast<std::uint64_t>(increment)
                                             : 0ULL - static_cast<std::uint64_t>(increment);
        std::uint64_t remaining = span / stride;
        std::int64_t current = first;
        Value* slot = &frame.slots[variable->slot];
        while (true) {
            countStep();
            slot->setInteger(current);
            Flow flow = execBlock(loop->body, frame);
            if (flow == Flow::Break) break;
            if (flow == Flow::Return) return flow;
            if (remaining-- == 0) break;
            current = wrapAdd(current, increment);
        }
        return Flow::Normal;
    }
    double current = start.toDouble(), last = limit.toDouble(), increment = step.toDouble();
    while (increment > 0 ? current <= last : current >= last) {
        countStep();
        storeLocal(frame.slots, variable, numericResult(current));
        Flow flow = execBlock(loop->body, frame);
        if (flow == Flow::Break) break;
        if (flow == Flow::Return) return flow;
        current += increment;
    }
    return Flow::Normal;
}

Impl::Flow Impl::execGenericFor(const Stmt* statement, Frame& frame) {
    auto* loop = static_cast<const GenericForStmt*>(statement);
    std::size_t base = m_top;
    pushExpressionList(loop->iterators, frame);
    Value iteratorValue = m_top > base ? m_stack[base] : Value();
    popTo(base);
    if (iteratorValue.kind() != Kind::Iterator) failRuntime(statement->line, "generic for loop expects an iterator");
    IteratorObject* iterator = iteratorValue.asIterator();
    MultiValue item;
    while (true) {
        item.clear();
        if (!nextIteratorItem(*this, iterator, item, statement->line)) break;
        countStep();
        for (std::size_t i = 0; i < loop->variables.size(); ++i) {
            storeLocal(frame.slots, loop->variables[i], i < item.size() ? std::move(item[i]) : Value());
        }
        Flow flow = execBlock(loop->body, frame);
        if (flow == Flow::Break) break;
        if (flow == Flow::Return) return flow;
    }
    return Flow::Normal;
}

Value Impl::evalTable(const Expr* expr, Frame& frame) {
    auto* constructor = static_cast<const TableExpr*>(expr);
    auto* table = new Table();
    Value result = Value::object(table);
    if (constructor->positionalCount > 0) table->arrayPart().reserve(constructor->positionalCount);
    std::int64_t position = 0;
    for (std::size_t i = 0; i < constructor->fields.size(); ++i) {
        const TableField& field = constructor->fields[i];
        if (field.form == TableField::Form::Positional) {
            bool last = i + 1 == constructor->fields.size();
            if (last && field.value->kind == ExprKind::Call && !static_cast<const CallExpr*>(field.value)->parenthesised) {
                std::size_t base = m_top;
                evalCallToStack(static_cast<const CallExpr*>(field.value), frame);
                for (std::size_t k = base; k < m_top; ++k) table->setInteger(++position, m_stack[k]);
                popTo(base);
            } else {
                table->setInteger(++position, eval(field.value, frame));
            }
            continue;
        }
        Value rawKey = eval(field.key, frame);
        Value key;
        if (!tryMakeKeyFromValue(rawKey, key)) failRuntime(field.key->line, "table keys must be numbers, strings, or booleans");
        table->set(key, eval(field.value, frame));
    }
    return result;
}

} // namespace korvel::lua
