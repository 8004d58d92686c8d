// The numbers-only path: pure arithmetic subtrees evaluated on plain integers and doubles, with the
// same rules as the general path (64-bit wrap-around, the integral-result rule, floored modulo),
// so that intermediate results never become Values.
#include "scalar_internal.h"

#include <cmath>

namespace korvel::lua {

using Impl = LuaVM::Impl;

namespace {

inline void floatResult(double value, Impl::Scalar& out) {
    std::int64_t integral = 0;
    if (floatToIntegral(value, integral)) {
        out.isInteger = true;
        out.integer = integral;
    } else {
        out.isInteger = false;
        out.number = value;
    }
}

} // namespace

bool Impl::evalScalar(const Expr* expr, Frame& frame, Scalar& out) {
    switch (expr->kind) {
    case ExprKind::Constant: return loadScalar(static_cast<const ConstantExpr*>(expr)->value, out);
    case ExprKind::Local: return loadScalar(frame.slots[static_cast<const VariableExpr*>(expr)->index], out);
    case ExprKind::BoxedLocal:
        return loadScalar(frame.slots[static_cast<const VariableExpr*>(expr)->index].asBox()->value, out);
    case ExprKind::Upvalue:
        return loadScalar(frame.closure->upvalues[static_cast<const VariableExpr*>(expr)->index].asBox()->value, out);
    case ExprKind::Global: return loadScalar(m_globals.at(static_cast<const VariableExpr*>(expr)->index), out);
    case ExprKind::Field: {
        auto* field = static_cast<const FieldExpr*>(expr);
        const Expr* objectExpr = field->object;
        const Value* object = nullptr;
        Value scratch;
        if (objectExpr->kind == ExprKind::Local) {
            object = &frame.slots[static_cast<const VariableExpr*>(objectExpr)->index];
        } else {
            scratch = eval(objectExpr, frame);
            object = &scratch;
        }
        if (object->kind() != Kind::Table) return false;
        const Value* slot = object->asTable()->findStringCached(field->name.asString(), field->cacheHint);
        return slot && loadScalar(*slot, out);
    }
    case ExprKind::Index: {
        auto* indexing = static_cast<const IndexExpr*>(expr);
        Scalar key;
        if (!scalarOperand(*this, indexing->key, frame, key) || !key.isInteger) return false;
        const Expr* objectExpr = indexing->object;
        const Value* object = nullptr;
        Value scratch;
        if (objectExpr->kind == ExprKind::Local) {
            object = &frame.slots[static_cast<const VariableExpr*>(objectExpr)->index];
        } else {
            scratch = eval(objectExpr, frame);
            object = &scratch;
        }
        if (object->kind() != Kind::Table) return false;
        const Value* slot = object->asTable()->findInteger(key.integer);
        return slot && loadScalar(*slot, out);
    }
    case ExprKind::Negate: {
        if (!evalScalar(static_cast<const UnaryExpr*>(expr)->operand, frame, out)) return false;
        if (out.isInteger) out.integer = static_cast<std::int64_t>(0ULL - static_cast<std::uint64_t>(out.integer));
        else floatResult(-out.number, out);
        return true;
    }
    case ExprKind::Add:
    case ExprKind::Subtract:
    case ExprKind::Multiply:
    case ExprKind::Divide:
    case ExprKind::Modulo: {
        auto* binary = static_cast<const BinaryExpr*>(expr);
        Scalar right;
        if (!scalarOperand(*this, binary->left, frame, out) || !scalarOperand(*this, binary->right, frame, right)) return false;
        if (out.isInteger && right.isInteger) {
            auto a = static_cast<std::uint64_t>(out.integer), b = static_cast<std::uint64_t>(right.integer);
            switch (expr->kind) {
            case ExprKind::Add: out.integer = static_cast<std::int64_t>(a + b); return true;
            case ExprKind::Subtract: out.integer = static_cast<std::int64_t>(a - b); return true;
            case ExprKind::Multiply: out.integer = static_cast<std::int64_t>(a * b); return true;
            case ExprKind::Modulo: {
                std::int64_t divisor = right.integer;
                if (divisor == 0) return false;
                if (divisor == -1) {
                    out.integer = 0;
                    return true;
                }
                std::int64_t remainder = out.integer % divisor;
                if (remainder != 0 && ((remainder < 0) != (divisor < 0))) remainder += divisor;
                out.integer = remainder;
                return true;
            }
            default: {
                std::int64_t divisor = right.integer;
                if (divisor == 0) return false;
                if (divisor != -1 && out.integer % divisor == 0) {
                    out.integer /= divisor;
                    return true;
                }
                floatResult(static_cast<double>(out.integer) / static_cast<double>(divisor), out);
                return true;
            }
            }
        }
        double a = out.toDouble(), b = right.toDouble();
        switch (expr->kind) {
        case ExprKind::Add: floatResult(a + b, out); return true;
        case ExprKind::Subtract: floatResult(a - b, out); return true;
        case ExprKind::Multiply: floatResult(a * b, out); return true;
        case ExprKind::Divide:
            if (b == 0.0) return false;
            floatResult(a / b, out);
            return true;
        default: {
            if (b == 0.0) return false;
            double remainder = std::fmod(a, b);
            if (remainder != 0.0 && ((remainder < 0.0) != (b < 0.0))) remainder += b;
            floatResult(remainder, out);
            return true;
        }
        }
    }
    default:
        return false;
    }
}

} // namespace korvel::lua
