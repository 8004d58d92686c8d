// The table group: insert, remove, concat, sort (on arrays, and on tables by their keys
// "1", "2", ...).
#include "core/library_internal.h"

#include <algorithm>
#include <cmath>

namespace korvel {

namespace {

bool isContainer(const Variable& v) { return v.type() == VarType::Array || v.type() == VarType::Table; }

// The sequence view of a table: its values under "1".."n".
std::vector<Variable> tableSequence(const Table& table) {
    std::vector<Variable> items;
    for (std::int64_t i = 1;; ++i) {
        Variable* value = table.find(std::to_string(i));
        if (!value) break;
        items.push_back(*value);
    }
    return items;
}

void storeSequence(Table& table, const std::vector<Variable>& items, std::size_t oldLength) {
    for (std::size_t i = 0; i < items.size(); ++i) table.set(std::to_string(i + 1), items[i]);
    for (std::size_t i = items.size(); i < oldLength; ++i) table.erase(std::to_string(i + 1));
}

std::int64_t positionArgument(const Variable& v, const char* message) {
    if (!v.isNumericLike()) throw ScriptError(message);
    // Clamped far beyond any length, so that a huge float is out of bounds, not overflowed.
    double position = std::floor(toDouble(v));
    if (std::isnan(position)) return 0;
    return static_cast<std::int64_t>(std::clamp(position, -4294967296.0, 4294967296.0));
}

}  // namespace

void Interpreter::registerTableLibrary() {
    Library lib(*this);
    Variable table = lib.group("table");
    lib.builtin(BuiltinId::TableInsert, table, "table", "insert", [](Interpreter&, Arguments args) {
        static const char* message = "table['insert'](table[, pos], value) requires an array or table";
        if (args.size() < 2 || args.size() > 3 || !isContainer(args[0])) throw ScriptError(message);
        const Variable& container = args[0];
        bool array = container.type() == VarType::Array;
        std::vector<Variable> items = array ? std::vector<Variable>() : tableSequence(container.table());
        std::vector<Variable>& sequence = array ? container.arrayItems() : items;
        std::size_t oldLength = sequence.size();
        if (args.size() == 2) {
            sequence.push_back(args[1]);
        } else {
            std::int64_t pos = positionArgument(args[1], message);
            if (pos < 1 || pos > static_cast<std::int64_t>(sequence.size()) + 1)
                throw ScriptError("table['insert']: position out of bounds");
            sequence.insert(sequence.begin() + (pos - 1), args[2]);
        }
        if (!array) storeSequence(container.table(), sequence, oldLength);
        return Variable();
    }, true);
    lib.builtin(BuiltinId::TableRemove, table, "table", "remove", [](Interpreter&, Arguments args) {
        static const char* message = "table['remove'](table[, pos]) requires an array or table";
        if (args.empty() || args.size() > 2 || !isContainer(args[0])) throw ScriptError(message);
        const Variable& container = args[0];
        bool array = container.type() == VarType::Array;
        std::vector<Variable> items = array ? std::vector<Variable>() : tableSequence(container.table());
        std::vector<Variable>& sequence = array ? container.arrayItems() : items;
        std::size_t oldLength = sequence.size();
        if (sequence.empty()) return Variable();
        std::int64_t pos = args.size() == 2 ? positionArgument(args[1], message) : static_cast<std::int64_t>(sequence.size());
        if (pos < 1 || pos > static_cast<std::int64_t>(sequence.size())) return Variable();
        Variable removed = sequence[static_cast<std::size_t>(pos - 1)];
        sequence.erase(sequence.begin() + (pos - 1));
        if (!array) storeSequence(container.table(), sequence, oldLength);
        return removed;
    }, true);
    lib.builtin(BuiltinId::TableConcat, table, "table", "concat", [](Interpreter&, Arguments args) {
        static const char* message = "table['concat'](table[, sep[, i[, j]]]) requires an array or table";
        if (args.empty() || args.size() > 4 || !isContainer(args[0])) throw ScriptError(message);
        std::vector<Variable> items =
            args[0].type() == VarType::Array ? args[0].arrayItems() : tableSequence(args[0].table());
        std::string separator = args.size() > 1 && !args[1].isNil() ? args[1].toString() : std::string();
        std::int64_t i = args.size() > 2 ? positionArgument(args[2], message) : 1;
        std::int64_t j = args.size() > 3 ? positionArgument(args[3], message) : static_cast<std::int64_t>(items.size());
        std::string out;
        for (std::int64_t k = std::max<std::int64_t>(i, 1); k <= j && k <= static_cast<std::int64_t>(items.size()); ++k) {
            if (k > i) out += separator;
            items[static_cast<std::size_t>(k - 1)].appendTo(out);
        }
        return Variable(std::move(out));
    }, true);
    lib.builtin(BuiltinId::TableSort, table, "table", "sort", [](Interpreter& vm, Arguments args) {
        if (args.empty() || args.size() > 2 || !isContainer(args[0]) ||
            (args.size() == 2 && args[1].type() != VarType::Function))
            throw ScriptError("table['sort'](table[, comp]) requires an array or table");
        const Variable& container = args[0];
        bool array = container.type() == VarType::Array;
        // Sort a copy: a comparator that changes the array cannot pull it from under the sort.
        std::vector<Variable> items = array ? container.arrayItems() : tableSequence(container.table());
        if (args.size() == 2) {
            Variable comparator = args[1];
            std::vector<Variable> pair(2);
            std::stable_sort(items.begin(), items.end(), [&](const Variable& a, const Variable& b) {
                pair[0] = a;
                pair[1] = b;
                return isTruthy(vm.call(comparator, pair));
            });
        } else if (std::all_of(items.begin(), items.end(), [](const Variable& v) { return v.type() == VarType::Int; })) {
            std::vector<std::int32_t> numbers;
            numbers.reserve(items.size());
            for (const Variable& v : items) numbers.push_back(v.asInt());
            std::sort(numbers.begin(), numbers.end());
            for (std::size_t i = 0; i < numbers.size(); ++i) items[i] = Variable(numbers[i]);
        } else {
            std::stable_sort(items.begin(), items.end(),
                             [](const Variable& a, const Variable& b) { return compareVariables(a, b) < 0; });
        }
        if (array) {
            container.arrayItems() = std::move(items);
        } else {
            storeSequence(container.table(), items, items.size());
        }
        return Variable();
    }, true);
}

namespace {

// math.floor and the other functions of one number. Each has its own message, so the
// template takes it as a parameter; the scalar form lets compiled arithmetic skip the call.
template <const char* Message, double (*Function)(double), bool Integral>
Variable mathUnary(Interpreter&, Arguments args) {
    if (args.size() != 1 || !args[0].isNumericLike()) throw ScriptError(Message);
    double result = Function(toDouble(args[0]));
    if (Integral && result >= -2147483648.0 && result <= 2147483647.0) return Variable(static_cast<std::int32_t>(result));
    return Variable(result);
}

double floorOf(double x) { return std::floor(x); }
double ceilOf(double x) { return std::ceil(x); }
double sineOf(double x) { return std::sin(x); }
double cosineOf(double x) { return std::cos(x); }
double radiansOf(double x) { return x * 3.14159265358979323846 / 180.0; }
double squareRootOf(double x) { return std::sqrt(x); }

constexpr char kFloorMessage[] = "math['floor'](x) requires exactly 1 argument";
constexpr char kCeilMessage[] = "math['ceil'](x) requires exactly 1 argument";
constexpr char kSinMessage[] = "math['sin'](x) requires exactly 1 argument";
constexpr char kCosMessage[] = "math['cos'](x) requires exactly 1 argument";
constexpr char kRadMessage[] = "math['rad'](x) requires exactly 1 argument";
constexpr char kMinMessage[] = "math['min'](...) requires at least 1 argument";
constexpr char kMaxMessage[] = "math['max'](...) requires at least 1 argument";

template <const char* Message, bool WantMax>
Variable mathExtreme(Interpreter&, Arguments args) {
    if (args.empty()) throw ScriptError(Message);
    Variable best = args[0];
    for (std::size_t i = 1; i < args.size(); ++i) {
        int order = compareVariables(args[i], best);
        if (WantMax ? order > 0 : order < 0) best = args[i];
    }
    return best;
}

}  // namespace

void Interpreter::registerMathLibrary() {
    Library lib(*this);
    Variable math = lib.group("math");
    auto unary = [&](BuiltinId id, const char* name, BuiltinFunction implementation, double (*function)(double),
                     bool integral, bool alsoGlobal) {
        Variable callable = lib.builtin(id, math, "math", name, implementation, alsoGlobal);
        callable.callable().scalarUnary = function;
        callable.callable().integralResult = integral;
    };
    unary(BuiltinId::MathFloor, "floor", mathUnary<kFloorMessage, floorOf, true>, floorOf, true, true);
    unary(BuiltinId::MathCeil, "ceil", mathUnary<kCeilMessage, ceilOf, true>, ceilOf, true, true);
    unary(BuiltinId::MathSin, "sin", mathUnary<kSinMessage, sineOf, false>, sineOf, false, false);
    unary(BuiltinId::MathCos, "cos", mathUnary<kCosMessage, cosineOf, false>, cosineOf, false, false);
    unary(BuiltinId::MathRad, "rad", mathUnary<kRadMessage, radiansOf, false>, radiansOf, false, false);
    lib.builtin(BuiltinId::MathAbs, math, "math", "abs", [](Interpreter&, Arguments args) {
        if (args.size() != 1 || !args[0].isNumericLike()) throw ScriptError("math['abs'](x) requires exactly 1 argument");
        if (args[0].type() == VarType::Int)
            return Variable(args[0].asInt() == INT32_MIN ? INT32_MIN : std::abs(args[0].asInt()));
        return Variable(std::fabs(toDouble(args[0])));
    });
    Variable sqrtFunction = lib.builtin(BuiltinId::MathSqrt, math, "math", "sqrt", [](Interpreter&, Arguments args) {
        if (args.size() != 1 || !args[0].isNumericLike()) throw ScriptError("math['sqrt'](x) requires exactly 1 argument");
        double x = toDouble(args[0]);
        if (x < 0) throw ScriptError("math['sqrt'] requires a non-negative value");
        return Variable(std::sqrt(x));
    }, true);
    sqrtFunction.callable().scalarUnary = squareRootOf;
    sqrtFunction.callable().scalarMinimum = 0.0;
    lib.builtin(BuiltinId::MathMin, math, "math", "min", mathExtreme<kMinMessage, false>);
    lib.builtin(BuiltinId::MathMax, math, "math", "max", mathExtreme<kMaxMessage, true>);
    lib.builtin(BuiltinId::MathLog, math, "math", "log", [](Interpreter&, Arguments args) {
        if (args.empty() || args.size() > 2 || !args[0].isNumericLike() || (args.size() == 2 && !args[1].isNumericLike()))
            throw ScriptError("math['log'](x[, base]) requires 1 or 2 arguments");
        double x = toDouble(args[0]);
        if (x <= 0) throw ScriptError("math['log'] requires a positive value");
        if (args.size() == 1) return Variable(std::log(x));
        double base = toDouble(args[1]);
        if (base <= 0 || base == 1) throw ScriptError("math['log'] base must be positive and not equal to 1");
        return Variable(std::log(x) / std::log(base));
    });
    math.table().set("pi", Variable(3.14159265358979323846));
}

}  // namespace korvel
