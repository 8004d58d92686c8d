// The scalar fast path: arithmetic, comparisons and numeric reads evaluated on packed scalars
// (int, float, bool, nothing) without building Variables. Each function gives exactly the
// general evaluator's result; wherever the general path would raise an error or meet a
// non-scalar value it returns kNotScalar and the general evaluator takes over. Everything a
// scalar subtree reads is free of side effects, so evaluating it again is harmless.
//
// Common shapes get their own functions: an operator whose left operand is a local and whose
// right operand is a constant (i + 1, x % 2) or another local reads both in place.
#include "core/interpreter_internal.h"

#include <cmath>
#include <cstring>

namespace korvel {

namespace {

using Bits = std::uint64_t;
constexpr Bits kNo = Variable::kNotScalar;

constexpr std::uint32_t kind(Bits b) { return static_cast<std::uint32_t>(b >> 32); }
constexpr std::int32_t payloadInt(Bits b) { return static_cast<std::int32_t>(static_cast<std::uint32_t>(b)); }
inline float payloadFloat(Bits b) {
    auto raw = static_cast<std::uint32_t>(b);
    float f;
    std::memcpy(&f, &raw, sizeof f);
    return f;
}
constexpr std::uint32_t kInt = static_cast<std::uint32_t>(VarType::Int);
constexpr std::uint32_t kFloat = static_cast<std::uint32_t>(VarType::Float);
constexpr std::uint32_t kBool = static_cast<std::uint32_t>(VarType::Bool);
constexpr std::uint32_t kNil = static_cast<std::uint32_t>(VarType::Nil);

constexpr Bits makeInt(std::int64_t v) { return (Bits(kInt) << 32) | static_cast<std::uint32_t>(v); }
constexpr Bits makeBool(bool v) { return (Bits(kBool) << 32) | (v ? 1u : 0u); }
inline Bits makeFloat(double v) {
    float f = static_cast<float>(v);
    std::uint32_t raw;
    std::memcpy(&raw, &f, sizeof raw);
    return (Bits(kFloat) << 32) | raw;
}
inline Bits makeFloatF(float f) {
    std::uint32_t raw;
    std::memcpy(&raw, &f, sizeof raw);
    return (Bits(kFloat) << 32) | raw;
}

constexpr bool numeric(Bits b) { return kind(b) == kInt || kind(b) == kFloat || kind(b) == kBool; }
inline double number(Bits b) {
    return kind(b) == kFloat ? static_cast<double>(payloadFloat(b)) : static_cast<double>(payloadInt(b));
}
constexpr bool truthy(Bits b) { return kind(b) == kBool ? payloadInt(b) != 0 : kind(b) != kNil; }

inline Bits readGlobal(Interpreter& vm, const NameRef& name) {
    if (vm.current->extras) return kNo;
    const Variable& global = vm.globals[static_cast<std::size_t>(name.globalSlot)];
    if (global.isUnset()) return Bits(kNil) << 32;
    return global.scalarBits();
}

inline Bits readLocal(Interpreter& vm, const FastExpression* n) {
    const Variable& slot = vm.current->slots[n->name->localSlot];
    if (!slot.isUnset()) return slot.scalarBits();
    return readGlobal(vm, *n->name);
}

// Leaves inline, anything else through its scalar function.
inline Bits fetch(Interpreter& vm, const FastExpression* n) {
    switch (n->op) {
    case Op::Const: return n->constantBits;
    case Op::Local: return readLocal(vm, n);
    case Op::Global: return readGlobal(vm, *n->name);
    default: return n->scalar ? n->scalar(vm, n) : kNo;
    }
}

// One operator on two scalars, or kNo where the general path must decide.
template <Op OP>
inline Bits combine(Bits a, Bits b) {
    if (kind(a) == kInt && kind(b) == kInt) {
        std::int64_t x = payloadInt(a), y = payloadInt(b);
        switch (OP) {
        case Op::Add: return makeInt(x + y);
        case Op::Sub: return makeInt(x - y);
        case Op::Mul: return makeInt(static_cast<std::int64_t>(static_cast<std::uint32_t>(x) * static_cast<std::uint32_t>(y)));
        case Op::Div: return y == 0 ? kNo : makeFloat(static_cast<double>(x) / static_cast<double>(y));
        case Op::IDiv: {
            if (y == 0) return kNo;
            std::int64_t q = x / y;
            if ((x % y != 0) && ((x < 0) != (y < 0))) --q;
            return makeInt(q);
        }
        case Op::Mod: return y == 0 ? kNo : makeInt(x % y);
        case Op::Eq: return makeBool(x == y);
        case Op::Ne: return makeBool(x != y);
        case Op::Lt: return makeBool(x < y);
        case Op::Gt: return makeBool(x > y);
        case Op::Le: return makeBool(x <= y);
        case Op::Ge: return makeBool(x >= y);
        default: return kNo;
        }
    }
    if (OP == Op::Eq || OP == Op::Ne) {
        bool equal;
        if (numeric(a) && numeric(b)) {
            equal = number(a) == number(b);
        } else {
            equal = kind(a) == kind(b) && kind(a) == kNil;  // a number never equals nothing
        }
        return makeBool(OP == Op::Eq ? equal : !equal);
    }
    if (!numeric(a) || !numeric(b)) return kNo;
    bool anyFloat = kind(a) == kFloat || kind(b) == kFloat;
    bool bothFloat = kind(a) == kFloat && kind(b) == kFloat;
    switch (OP) {
    case Op::Add:
        if (!anyFloat) return makeInt(std::int64_t(payloadInt(a)) + payloadInt(b));
        return bothFloat ? makeFloatF(payloadFloat(a) + payloadFloat(b)) : makeFloat(number(a) + number(b));
    case Op::Sub:
        if (!anyFloat) return makeInt(std::int64_t(payloadInt(a)) - payloadInt(b));
        return bothFloat ? makeFloatF(payloadFloat(a) - payloadFloat(b)) : makeFloat(number(a) - number(b));
    case Op::Mul:
        if (!anyFloat) return combine<Op::Mul>(makeInt(payloadInt(a)), makeInt(payloadInt(b)));
        return bothFloat ? makeFloatF(payloadFloat(a) * payloadFloat(b)) : makeFloat(number(a) * number(b));
    case Op::Div: {
        double divisor = number(b);
        if (divisor == 0.0) return kNo;
        return makeFloat(number(a) / divisor);
    }
    case Op::IDiv: {
        if (!anyFloat) return combine<Op::IDiv>(makeInt(payloadInt(a)), makeInt(payloadInt(b)));
        double divisor = number(b);
        if (divisor == 0.0) return kNo;
        double q = std::floor(number(a) / divisor);
        if (q >= -2147483648.0 && q <= 2147483647.0) return makeInt(static_cast<std::int64_t>(q));
        return makeFloat(q);
    }
    case Op::Mod: {
        if (!anyFloat) return combine<Op::Mod>(makeInt(payloadInt(a)), makeInt(payloadInt(b)));
        double divisor = number(b);
        if (divisor == 0.0) return kNo;
        return makeFloat(std::fmod(number(a), divisor));
    }
    case Op::Lt: return makeBool(number(a) < number(b));
    case Op::Gt: return makeBool(number(a) > number(b));
    case Op::Le: return makeBool(number(a) <= number(b));
    case Op::Ge: return makeBool(number(a) >= number(b));
    default: return kNo;
    }
}

template <Op OP>
Bits binaryAny(Interpreter& vm, const FastExpression* n) {
    Bits a = fetch(vm, n->left);
    if (a == kNo) return kNo;
    Bits b = fetch(vm, n->right);
    if (b == kNo) return kNo;
    return combine<OP>(a, b);
}

// left is a local, right a constant.
template <Op OP>
Bits binaryLocalConst(Interpreter& vm, const FastExpression* n) {
    Bits a = readLocal(vm, n->left);
    if (a == kNo) return kNo;
    return combine<OP>(a, n->right->constantBits);
}

// The container of an index read: a local or global read in place.
inline const Variable* leafValue(Interpreter& vm, const FastExpression* n) {
    if (n->op == Op::Local) {
        const Variable& slot = vm.current->slots[n->name->localSlot];
        if (!slot.isUnset()) return &slot;
    }
    if (vm.current->extras) return nullptr;
    const Variable& global = vm.globals[static_cast<std::size_t>(n->name->globalSlot)];
    return global.isUnset() ? nullptr : &global;
}

// container[key] for an array and an int key inside it; kNo otherwise.
inline Bits arrayItem(Interpreter& vm, const FastExpression* container, Bits key) {
    if (kind(key) != kInt) return kNo;
    const Variable* value = leafValue(vm, container);
    if (!value || value->type() != VarType::Array) return kNo;
    const auto& items = value->arrayItems();
    std::int32_t index = payloadInt(key);
    if (index < 1 || static_cast<std::size_t>(index) > items.size()) return kNo;
    return items[static_cast<std::size_t>(index - 1)].scalarBits();
}

Bits scalarIndex(Interpreter& vm, const FastExpression* n) { return arrayItem(vm, n->left, fetch(vm, n->right)); }

// left is a local, right an array item indexed by a local (sum + a[i]): read in place, without
// the calls through the operands' own functions.
template <Op OP>
Bits binaryLocalIndex(Interpreter& vm, const FastExpression* n) {
    Bits a = readLocal(vm, n->left);
    if (a == kNo) return kNo;
    const FastExpression* index = n->right;
    Bits b = arrayItem(vm, index->left, readLocal(vm, index->right));
    if (b == kNo) return kNo;
    return combine<OP>(a, b);
}

// both operands are locals.
template <Op OP>
Bits binaryLocalLocal(Interpreter& vm, const FastExpression* n) {
    Bits a = readLocal(vm, n->left);
    if (a == kNo) return kNo;
    Bits b = readLocal(vm, n->right);
    if (b == kNo) return kNo;
    return combine<OP>(a, b);
}

template <Op OP>
ScalarFunction binaryFunction(const FastExpression* n) {
    if (n->left->op == Op::Local && n->right->op == Op::Const) return binaryLocalConst<OP>;
    if (n->left->op == Op::Local && n->right->op == Op::Local) return binaryLocalLocal<OP>;
    if (n->left->op == Op::Local && n->right->scalar == scalarIndex && n->right->right->op == Op::Local)
        return binaryLocalIndex<OP>;
    return binaryAny<OP>;
}

Bits scalarNeg(Interpreter& vm, const FastExpression* n) {
    Bits a = fetch(vm, n->left);
    switch (kind(a)) {
    case kInt:
    case kBool: return makeInt(-static_cast<std::int64_t>(payloadInt(a)));
    case kFloat: return makeFloatF(-payloadFloat(a));
    default: return kNo;
    }
}

Bits scalarNot(Interpreter& vm, const FastExpression* n) {
    Bits a = fetch(vm, n->left);
    if (a == kNo) return kNo;
    return makeBool(!truthy(a));
}

Bits scalarPlus(Interpreter& vm, const FastExpression* n) { return fetch(vm, n->left); }

Bits scalarAnd(Interpreter& vm, const FastExpression* n) {
    Bits a = fetch(vm, n->left);
    if (a == kNo || !truthy(a)) return a;
    return fetch(vm, n->right);
}

Bits scalarOr(Interpreter& vm, const FastExpression* n) {
    Bits a = fetch(vm, n->left);
    if (a == kNo || truthy(a)) return a;
    return fetch(vm, n->right);
}


Bits scalarIndexKey(Interpreter& vm, const FastExpression* n) {
    const Variable* container = leafValue(vm, n->left);
    if (!container || container->type() != VarType::Table) return kNo;
    Variable* found = container->table().find(n->constant.stringObject());
    if (!found) return Bits(kNil) << 32;
    return found->scalarBits();
}

// f(x) where f is a built-in of one number: called directly, no argument vector. The callee
// is looked up as usual on every call, so a script that replaces `sqrt` gets its own.
Bits scalarCallUnary(Interpreter& vm, const FastExpression* n) {
    const FastExpression* callee = n->left;
    const Variable* function = nullptr;
    if (callee->op == Op::Global) {
        if (vm.current->extras) return kNo;
        function = &vm.globals[static_cast<std::size_t>(callee->name->globalSlot)];
    } else if (callee->op == Op::IndexKey && callee->left->op == Op::Global && !vm.current->extras) {
        const Variable& group = vm.globals[static_cast<std::size_t>(callee->left->name->globalSlot)];
        if (group.type() != VarType::Table) return kNo;
        function = group.table().find(callee->constant.stringObject());
    }
    if (!function || function->type() != VarType::Function) return kNo;
    const ScriptCallable& callable = function->callable();
    if (!callable.scalarUnary) return kNo;
    Bits argument = fetch(vm, n->items[0]);
    if (argument == kNo || !numeric(argument)) return kNo;
    double x = number(argument);
    if (!(x >= callable.scalarMinimum)) return kNo;
    double result = callable.scalarUnary(x);
    if (callable.integralResult && result >= -2147483648.0 && result <= 2147483647.0)
        return makeInt(static_cast<std::int64_t>(result));
    return makeFloat(result);
}

bool isLeaf(const FastExpression* n) { return n->op == Op::Local || n->op == Op::Global; }

constexpr std::uint32_t kScalarHeight = 24;

// One node whose children are done; left and right tell whether they are scalar.
bool assignNodeScalarFunction(FastExpression* n, bool left, bool right);

}  // namespace

bool assignScalarFunctions(FastExpression* n) {
    if (!n) return false;
    if (n->height > kScalarHeight) {
        // Tall trees (long operator chains) stay with the general evaluator, which walks them
        // in a loop; their short branches still get scalar functions. No recursion down the
        // tall part.
        std::vector<FastExpression*> work{n};
        while (!work.empty()) {
            FastExpression* node = work.back();
            work.pop_back();
            auto visit = [&](FastExpression* child) {
                if (!child) return;
                if (child->height > kScalarHeight) {
                    work.push_back(child);
                } else {
                    assignScalarFunctions(child);
                }
            };
            visit(node->left);
            visit(node->right);
            for (FastExpression* item : node->items) visit(item);
        }
        return false;
    }
    // Children first, so every node in a tree is considered.
    bool left = assignScalarFunctions(n->left);
    bool right = assignScalarFunctions(n->right);
    for (FastExpression* item : n->items) assignScalarFunctions(item);
    return assignNodeScalarFunction(n, left, right);
}

// What assignScalarFunctions returns for a node it has done, read back from the node.
static bool hasScalarFunction(const FastExpression* n) {
    if (!n || n->height > kScalarHeight) return false;
    if (n->op == Op::Const) return n->constantBits != kNo;
    return n->op == Op::Local || n->op == Op::Global || n->scalar != nullptr;
}

void assignScalarFunctionsInOrder(std::span<FastExpression* const> nodes) {
    // Tall nodes are skipped as the recursive walk skips them; their children still come.
    for (FastExpression* n : nodes) {
        if (n->height > kScalarHeight) continue;
        assignNodeScalarFunction(n, hasScalarFunction(n->left), hasScalarFunction(n->right));
    }
}

namespace {

bool assignNodeScalarFunction(FastExpression* n, bool left, bool right) {
    switch (n->op) {
    case Op::Const:
        n->constantBits = n->constant.scalarBits();
        return n->constantBits != kNo;
    case Op::Local:
    case Op::Global: return true;
    case Op::Index:
        if (isLeaf(n->left) && right) n->scalar = scalarIndex;
        return n->scalar != nullptr;
    case Op::IndexKey:
        if (isLeaf(n->left)) n->scalar = scalarIndexKey;
        return n->scalar != nullptr;
    case Op::Call: {
        bool directCallee = n->left->op == Op::Global ||
                            (n->left->op == Op::IndexKey && n->left->left->op == Op::Global);
        bool scalarArgument = n->items.size() == 1 && (n->items[0]->scalar || n->items[0]->op <= Op::Global);
        if (directCallee && scalarArgument && !(n->items[0]->op == Op::Const && n->items[0]->constantBits == kNo))
            n->scalar = scalarCallUnary;
        return n->scalar != nullptr;
    }
    default: break;
    }
    bool unary = n->op == Op::Neg || n->op == Op::Not || n->op == Op::Plus;
    if (!(left && (unary || right))) return false;
    switch (n->op) {
    case Op::Add: n->scalar = binaryFunction<Op::Add>(n); break;
    case Op::Sub: n->scalar = binaryFunction<Op::Sub>(n); break;
    case Op::Mul: n->scalar = binaryFunction<Op::Mul>(n); break;
    case Op::Div: n->scalar = binaryFunction<Op::Div>(n); break;
    case Op::IDiv: n->scalar = binaryFunction<Op::IDiv>(n); break;
    case Op::Mod: n->scalar = binaryFunction<Op::Mod>(n); break;
    case Op::Eq: n->scalar = binaryFunction<Op::Eq>(n); break;
    case Op::Ne: n->scalar = binaryFunction<Op::Ne>(n); break;
    case Op::Lt: n->scalar = binaryFunction<Op::Lt>(n); break;
    case Op::Gt: n->scalar = binaryFunction<Op::Gt>(n); break;
    case Op::Le: n->scalar = binaryFunction<Op::Le>(n); break;
    case Op::Ge: n->scalar = binaryFunction<Op::Ge>(n); break;
    case Op::Neg: n->scalar = scalarNeg; break;
    case Op::Not: n->scalar = scalarNot; break;
    case Op::Plus: n->scalar = scalarPlus; break;
    case Op::And: n->scalar = scalarAnd; break;
    case Op::Or: n->scalar = scalarOr; break;
    default: return false;
    }
    return true;
}

}  // namespace

}  // namespace korvel
