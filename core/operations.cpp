// Arithmetic, the hyper-operations, lengths and indexing.
#include "core/interpreter_internal.h"

#include <charconv>
#include <cmath>

namespace korvel {

void throwScriptError(const std::string& message) { throw ScriptError(message); }

namespace {

double num(const Variable& v) {
    switch (v.type()) {
    case VarType::Int: return v.asInt();
    case VarType::Float: return v.asFloat();
    default: return v.asBool() ? 1.0 : 0.0;
    }
}

std::int64_t integerOf(const Variable& v) { return v.type() == VarType::Int ? v.asInt() : (v.asBool() ? 1 : 0); }

[[noreturn]] void unsupported(char op) {
    throw ScriptError(std::string("Unsupported operation '") + op + "' between types");
}

// A double result as an int when it is integral and fits, otherwise as a float.
Variable integralOrFloat(double value) {
    if (value >= -2147483648.0 && value <= 2147483647.0 && std::floor(value) == value)
        return Variable(static_cast<std::int32_t>(value));
    return Variable(value);
}

}  // namespace

Variable performOperation(const Variable& left, char op, const Variable& right) {
    if (op == '+' && (left.type() == VarType::String || right.type() == VarType::String)) {
        std::string text;
        left.appendTo(text);
        right.appendTo(text);
        return Variable(std::move(text));
    }
    if (!left.isNumericLike() || !right.isNumericLike()) {
        switch (op) {
        case '+': case '-': case '*': case '/': case '\\': case '%': case '^': unsupported(op);
        default: throw ScriptError(std::string("Unsupported operation: ") + op);
        }
    }
    bool anyFloat = left.type() == VarType::Float || right.type() == VarType::Float;
    switch (op) {
    case '+':
        if (!anyFloat) return Variable(static_cast<std::int32_t>(static_cast<std::uint32_t>(integerOf(left)) +
                                                                 static_cast<std::uint32_t>(integerOf(right))));
        return Variable(num(left) + num(right));
    case '-':
        if (!anyFloat) return Variable(static_cast<std::int32_t>(static_cast<std::uint32_t>(integerOf(left)) -
                                                                 static_cast<std::uint32_t>(integerOf(right))));
        return Variable(num(left) - num(right));
    case '*':
        if (!anyFloat) return Variable(static_cast<std::int32_t>(static_cast<std::uint32_t>(integerOf(left)) *
                                                                 static_cast<std::uint32_t>(integerOf(right))));
        return Variable(num(left) * num(right));
    case '/': {
        double divisor = num(right);
        if (divisor == 0.0) throw ScriptError("Division by zero");
        return Variable(num(left) / divisor);
    }
    case '\\': {
        if (!anyFloat) {
            std::int64_t a = integerOf(left), b = integerOf(right);
            if (b == 0) throw ScriptError("Division by zero");
            std::int64_t q = a / b;
            if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
            return Variable(static_cast<std::int32_t>(static_cast<std::uint32_t>(q)));
        }
        double divisor = num(right);
        if (divisor == 0.0) throw ScriptError("Division by zero");
        return integralOrFloat(std::floor(num(left) / divisor));
    }
    case '%': {
        if (!anyFloat) {
            std::int64_t a = integerOf(left), b = integerOf(right);
            if (b == 0) throw ScriptError("Division by zero");
            return Variable(static_cast<std::int32_t>(a % b));
        }
        double divisor = num(right);
        if (divisor == 0.0) throw ScriptError("Division by zero");
        return Variable(std::fmod(num(left), divisor));
    }
    case '^': {
        double result = std::pow(num(left), num(right));
        if (!std::isfinite(result)) throw ScriptError("Invalid exponentiation result");
        if (!anyFloat) return integralOrFloat(result);
        return Variable(result);
    }
    default: throw ScriptError(std::string("Unsupported operation: ") + op);
    }
}

Variable performOperation(const Variable& left, std::string_view op, const Variable& right) {
    if (op == "<-") return performTetrationOperation(left, right);
    if (op == "->") return performPentationOperation(left, right);
    if (op.size() == 1) return performOperation(left, op[0], right);
    throw ScriptError("Unsupported operation: " + std::string(op));
}

namespace {

void checkCount(double value, const std::string& what) {
    if (!std::isfinite(value)) throw ScriptError(what + " must be finite");
    if (std::floor(value) != value) throw ScriptError(what + " must be an integer");
    if (value < 0) throw ScriptError(what + " must be a non-negative integer");
}

// a^(a^(...)) with `height` copies of a. Long towers settle into a fixed point or a two-cycle
// (or overflow) long before the count runs out, so the loop stops there.
double tetrate(double base, double height, const char* operation) {
    double result = 1.0, previous = NAN, beforePrevious = NAN;
    for (double i = 0; i < height; i += 1) {
        double next = std::pow(base, result);
        if (!std::isfinite(next)) throw ScriptError(std::string("Invalid ") + operation + " result");
        beforePrevious = previous;
        previous = result;
        result = next;
        if (result == previous) break;
        if (result == beforePrevious) {
            double remaining = height - i - 1;
            if (std::fmod(remaining, 2.0) != 0.0) result = previous;
            break;
        }
    }
    return result;
}

}  // namespace

Variable performTetrationOperation(const Variable& base, const Variable& height) {
    if (!base.isNumericLike() || !height.isNumericLike()) throw ScriptError("tetration requires numeric operands");
    double h = num(height);
    checkCount(h, "tetration height");
    return integralOrFloat(tetrate(num(base), h, "tetration"));
}

Variable performPentationOperation(const Variable& base, const Variable& count) {
    if (!base.isNumericLike() || !count.isNumericLike()) throw ScriptError("pentation requires numeric operands");
    double a = num(base);
    if (!std::isfinite(a)) throw ScriptError("pentation base must be finite");
    double n = num(count);
    checkCount(n, "pentation count");
    double result = 1.0, previous = NAN;
    for (double i = 0; i < n; i += 1) {
        checkCount(result, "pentation intermediate height");
        double next = tetrate(a, result, "pentation");
        previous = result;
        result = next;
        if (result == previous) break;
    }
    return integralOrFloat(result);
}

std::int64_t numericTableLength(const Table& table) { return table.sequenceLength(); }

std::int64_t arrayLength(const Variable& value) {
    switch (value.type()) {
    case VarType::Array: return static_cast<std::int64_t>(value.arrayItems().size());
    case VarType::String: return static_cast<std::int64_t>(value.asString().size());
    case VarType::Table: return numericTableLength(value.table());
    default: throw ScriptError("len(x) expects an array, table, or string");
    }
}

std::string_view keyText(const Variable& key, std::string& buffer) {
    switch (key.type()) {
    case VarType::String: return key.asString();
    case VarType::Int: {
        char digits[16];
        auto [end, ec] = std::to_chars(digits, digits + sizeof digits, key.asInt());
        (void)ec;
        buffer.assign(digits, end);
        return buffer;
    }
    case VarType::Float: {
        float f = key.asFloat();
        if (std::floor(f) == f && f >= -2147483648.0f && f < 2147483648.0f) {
            buffer = std::to_string(static_cast<std::int64_t>(f));
            return buffer;
        }
        buffer = key.toString();
        return buffer;
    }
    case VarType::Bool: return key.asBool() ? "true" : "false";
    default: throw ScriptError("Table key must be string, number, or bool");
    }
}

Variable Interpreter::getIndexedValue(const Variable& container, const Variable& key) {
    switch (container.type()) {
    case VarType::Array: {
        std::int64_t index = arrayIndexOfKey(key);
        const auto& items = container.arrayItems();
        if (index >= 1 && static_cast<std::size_t>(index) <= items.size()) return items[static_cast<std::size_t>(index - 1)];
        return Variable();
    }
    case VarType::Table: {
        Variable* found;
        if (key.type() == VarType::String) {
            found = container.table().find(key.stringObject());
        } else {
            std::string buffer;
            found = container.table().find(keyText(key, buffer));
        }
        return found ? *found : Variable();
    }
    case VarType::String: {
        if (key.type() == VarType::Int) {
            const std::string& text = container.asString();
            std::int32_t index = key.asInt();
            if (index >= 1 && static_cast<std::size_t>(index) <= text.size())
                return Variable(std::string_view(&text[static_cast<std::size_t>(index - 1)], 1));
            return Variable();
        }
        if (key.type() == VarType::String) return boundStringMethod(container, key.asString());
        throw ScriptError("String index must be an int or string method name");
    }
    default: throw ScriptError("Indexing requires an array, table, or string");
    }
}

Variable Interpreter::getKeyedValue(const Variable& container, StringObject* key) {
    if (container.type() == VarType::Table) {
        Variable* found = container.table().find(key);
        return found ? *found : Variable();
    }
    if (container.type() == VarType::String) return boundStringMethod(container, key->text);
    if (container.type() == VarType::Array) return Variable();
    throw ScriptError("Indexing requires an array, table, or string");
}

Variable Interpreter::boundStringMethod(const Variable& text, const std::string& method) {
    if (stringLibrary.type() != VarType::Table) return Variable();
    Variable* function = stringLibrary.table().find(method);
    if (!function || function->type() != VarType::Function) return Variable();
    Variable target = *function;
    Variable self = text;
    return owner.createNativeCallable(
        [this, target, self](const std::vector<Variable>& arguments) {
            std::vector<Variable> withSelf;
            withSelf.reserve(arguments.size() + 1);
            withSelf.push_back(self);
            withSelf.insert(withSelf.end(), arguments.begin(), arguments.end());
            return call(target, withSelf);
        },
        method);
}

namespace {
// Growth past the end of an array fills the gap with nil, within this many new elements
// (or up to double the old length); a key further out turns the array into a table.
constexpr std::int64_t kMaxArrayGap = 1 << 16;
}  // namespace

Variable* Interpreter::indexedSlot(Variable& container, const Variable& key) {
    switch (container.type()) {
    case VarType::Array: {
        std::int64_t index = arrayIndexOfKey(key);
        auto& items = container.arrayItems();
        if (index >= 1 && static_cast<std::size_t>(index) <= items.size()) return &items[static_cast<std::size_t>(index - 1)];
        return nullptr;
    }
    case VarType::Table: {
        if (key.type() == VarType::String) return container.table().find(key.stringObject());
        std::string buffer;
        return container.table().find(keyText(key, buffer));
    }
    default: return nullptr;
    }
}

void Interpreter::setIndexedValue(Variable& container, const Variable& key, Variable value) {
    if (container.type() == VarType::Array) {
        std::int64_t index = arrayIndexOfKey(key);
        auto& items = container.arrayItems();
        auto size = static_cast<std::int64_t>(items.size());
        if (index >= 1 && index <= size) {
            items[static_cast<std::size_t>(index - 1)] = std::move(value);
            return;
        }
        if (index == size + 1) {
            items.push_back(std::move(value));
            return;
        }
        if (index > size && (index - size <= kMaxArrayGap || index <= size * 2)) {
            items.resize(static_cast<std::size_t>(index));
            items.back() = std::move(value);
            return;
        }
        promoteArrayVariableToTable(container);
    }
    if (container.type() == VarType::Table) {
        if (key.type() == VarType::String) {
            container.table().getOrInsert(key.stringObject()) = std::move(value);
        } else {
            std::string buffer;
            container.table().getOrInsert(keyText(key, buffer)) = std::move(value);
        }
        return;
    }
    throw ScriptError(std::string("Cannot assign by index into a value of type ") + typeName(container.type()));
}

}  // namespace korvel
