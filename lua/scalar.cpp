// The numbers-only path: pure arithmetic subtrees evaluated on plain integers and doubles, with the
// same rules as the general path (64-bit wrap-around, the integral-result rule, floored modulo),
// so that intermediate results never become Values.
#include "scalar_internal.h"

#include <cmath>

namespace korvel::lua {

using Impl = LuaVM::Impl;

namespace {

const Value* tableOperand(Impl& vm, const Expr* objectExpr, Impl::Frame& frame, Value& scratch) {
    if (objectExpr->kind == ExprKind::Local) return &frame.slots[static_cast<const VariableExpr*>(objectExpr)->index];
    scratch = vm.eval(objectExpr, frame);
    return &scratch;
}

Number integerArithmetic(ExprKind op, std::int64_t left, std::int64_t right) {
    auto a = static_cast<std::uint64_t>(left), b = static_cast<std::uint64_t>(right);
    switch (op) {
    case ExprKind::Add: return integerNumber(static_cast<std::int64_t>(a + b));
    case ExprKind::Subtract: return integerNumber(static_cast<std::int64_t>(a - b));
    case ExprKind::Multiply: return integerNumber(static_cast<std::int64_t>(a * b));
    case ExprKind::Modulo: {
        if (right == 0) return Number{};
        if (right == -1) return integerNumber(0);
        std::int64_t remainder = left % right;
        if (remainder != 0 && ((remainder < 0) != (right < 0))) remainder += right;
        return integerNumber(remainder);
    }
    default: {
        if (right == 0) return Number{};
        if (right != -1 && left % right == 0) return integerNumber(left / right);
        return numericNumber(static_cast<double>(left) / static_cast<double>(right));
    }
    }
}

Number floatArithmetic(ExprKind op, double a, double b) {
    switch (op) {
    case ExprKind::Add: return numericNumber(a + b);
    case ExprKind::Subtract: return numericNumber(a - b);
    case ExprKind::Multiply: return numericNumber(a * b);
    case ExprKind::Divide:
        if (b == 0.0) return Number{};
        return numericNumber(a / b);
    default: {
        if (b == 0.0) return Number{};
        double remainder = std::fmod(a, b);
        if (remainder != 0.0 && ((remainder < 0.0) != (b < 0.0))) remainder += b;
        return numericNumber(remainder);
    }
    }
}

} // namespace

Number Impl::evalNumber(const Expr* expr, Frame& frame) {
    switch (expr->kind) {
    case ExprKind::Constant: return numberOf(static_cast<const ConstantExpr*>(expr)->value);
    case ExprKind::Local: return numberOf(frame.slots[static_cast<const VariableExpr*>(expr)->index]);
    case ExprKind::Outer: return numberOf(outerSlot(frame, static_cast<const VariableExpr*>(expr)));
    case ExprKind::Global: return numberOf(m_globals.at(static_cast<const VariableExpr*>(expr)->index));
    case ExprKind::Field: {
        auto* field = static_cast<const FieldExpr*>(expr);
        Value scratch;
        const Value* object = tableOperand(*this, field->object, frame, scratch);
        if (object->kind() != Kind::Table) return Number{};
        const Value* slot = object->asTable()->findStringCached(field->name.asString(), field->cacheHint);
        return slot ? numberOf(*slot) : Number{};
    }
    case ExprKind::Index: {
        auto* indexing = static_cast<const IndexExpr*>(expr);
        Number key = numberOperand(*this, indexing->key, frame);
        if (key.tag != kIntegerNumber) return Number{};
        Value scratch;
        const Value* object = tableOperand(*this, indexing->object, frame, scratch);
        if (object->kind() != Kind::Table) return Number{};
        const Value* slot = object->asTable()->findInteger(key.bits);
        return slot ? numberOf(*slot) : Number{};
    }
    case ExprKind::Negate: {
        Number operand = numberOperand(*this, static_cast<const UnaryExpr*>(expr)->operand, frame);
        if (operand.tag == kIntegerNumber) return integerNumber(static_cast<std::int64_t>(0ULL - static_cast<std::uint64_t>(operand.bits)));
        if (operand.tag == kFloatNumber) return numericNumber(-std::bit_cast<double>(operand.bits));
        return Number{};
    }
    case ExprKind::Add:
    case ExprKind::Subtract:
    case ExprKind::Multiply:
    case ExprKind::Divide:
    case ExprKind::Modulo: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Number left = numberOperand(*this, binary->left, frame);
        if (left.tag == kNotANumber) return left;
        Number right = numberOperand(*this, binary->right, frame);
        if (right.tag == kNotANumber) return right;
        if (left.tag == kIntegerNumber && right.tag == kIntegerNumber) return integerArithmetic(expr->kind, left.bits, right.bits);
        return floatArithmetic(expr->kind, numberAsDouble(left), numberAsDouble(right));
    }
    default:
        return Number{};
    }
}

} // namespace korvel::lua
