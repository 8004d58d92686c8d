// Shared pieces of the numbers-only path, for the evaluator and scalar.cpp.
#pragma once

#include "vm_internal.h"

namespace korvel::lua {

inline bool loadScalar(const Value& value, LuaVM::Impl::Scalar& out) {
    if (value.kind() == Kind::Integer) {
        out.isInteger = true;
        out.integer = value.asInteger();
        return true;
    }
    if (value.kind() == Kind::Float) {
        out.isInteger = false;
        out.number = value.asFloat();
        return true;
    }
    return false;
}

// Leaves are loaded here without a call; everything else recurses.
inline bool scalarOperand(LuaVM::Impl& vm, const Expr* expr, LuaVM::Impl::Frame& frame, LuaVM::Impl::Scalar& out) {
    if (expr->kind == ExprKind::Local) return loadScalar(frame.slots[static_cast<const VariableExpr*>(expr)->index], out);
    if (expr->kind == ExprKind::Constant) return loadScalar(static_cast<const ConstantExpr*>(expr)->value, out);
    return vm.evalScalar(expr, frame, out);
}


} // namespace korvel::lua
