// Shared pieces of the numbers-only path, for the evaluator and scalar.cpp.
#pragma once

#include "vm_internal.h"

#include <bit>

namespace korvel::lua {

using Number = LuaVM::Impl::Number;

inline Number integerNumber(std::int64_t value) { return Number{value, LuaVM::Impl::kIntegerNumber}; }
inline Number floatNumber(double value) { return Number{std::bit_cast<std::int64_t>(value), LuaVM::Impl::kFloatNumber}; }
inline double numberAsDouble(Number number) {
    return number.tag == LuaVM::Impl::kIntegerNumber ? static_cast<double>(number.bits) : std::bit_cast<double>(number.bits);
}

inline Number numberOf(const Value& value) {
    if (value.kind() == Kind::Integer) return integerNumber(value.asInteger());
    if (value.kind() == Kind::Float) return floatNumber(value.asFloat());
    return Number{};
}

inline Value numberToValue(Number number) {
    return number.tag == LuaVM::Impl::kIntegerNumber ? Value::integer(number.bits) : Value::number(std::bit_cast<double>(number.bits));
}

// The integral-result rule on the numbers-only path.
inline Number numericNumber(double value) {
    std::int64_t integral = 0;
    if (floatToIntegral(value, integral)) return integerNumber(integral);
    return floatNumber(value);
}

// Leaves are loaded here without a call; everything else recurses.
inline Number numberOperand(LuaVM::Impl& vm, const Expr* expr, LuaVM::Impl::Frame& frame) {
    if (expr->kind == ExprKind::Local) return numberOf(frame.slots[static_cast<const VariableExpr*>(expr)->index]);
    if (expr->kind == ExprKind::Constant) return numberOf(static_cast<const ConstantExpr*>(expr)->value);
    return vm.evalNumber(expr, frame);
}

} // namespace korvel::lua
