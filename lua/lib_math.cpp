// The math library. Results pass through the integral-result rule like arithmetic does, so
// math.sqrt(16) is the integer 4.
#include "vm_internal.h"

#include <cmath>

namespace korvel::lua {

using Impl = LuaVM::Impl;

namespace {

constexpr double kPi = 3.141592653589793;

// floor and ceil give integers when the result fits one, floats (such as inf) otherwise.
Value integralOrFloat(double value) {
    if (value >= -9223372036854775808.0 && value < 9223372036854775808.0) return Value::integer(static_cast<std::int64_t>(value));
    return Value::number(value);
}

NativeFunction unary(const char* name, double (*operation)(double)) {
    return [name, operation](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, name, arguments.size(), 1, 1);
        return MultiValue(numericResult(operation(requireNumber(self, name, arguments, 0))));
    };
}

} // namespace

void bindMathLibrary(Impl& vm) {
    Table* library = vm.makeLibraryTable("math");
    auto bind = [&](const char* name, NativeFunction native) { vm.bindTableFunction(library, "math", name, std::move(native)); };
    library->set(vm.m_globals.internConstant("pi"), Value::number(kPi));
    library->set(vm.m_globals.internConstant("huge"), Value::number(HUGE_VAL));
    library->set(vm.m_globals.internConstant("maxinteger"), Value::integer(INT64_MAX));
    library->set(vm.m_globals.internConstant("mininteger"), Value::integer(INT64_MIN));

    auto extreme = [](const char* name, bool wantMax) {
        return [=](Impl& self, ValueSpan arguments, std::uint32_t) {
            requireArgumentCount(self, name, arguments.size(), 1, kNoMaximum);
            requireNumber(self, name, arguments, 0);
            std::size_t best = 0;
            for (std::size_t i = 1; i < arguments.size(); ++i) {
                double candidate = requireNumber(self, name, arguments, i);
                double current = arguments[best].toDouble();
                if (wantMax ? candidate > current : candidate < current) best = i;
            }
            return MultiValue(arguments[best]);
        };
    };
    bind("min", extreme("math.min", false));
    bind("max", extreme("math.max", true));
    bind("floor", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.floor", arguments.size(), 1, 1);
        if (arguments[0].kind() == Kind::Integer) return MultiValue(arguments[0]);
        return MultiValue(integralOrFloat(std::floor(requireNumber(self, "math.floor", arguments, 0))));
    });
    bind("ceil", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.ceil", arguments.size(), 1, 1);
        if (arguments[0].kind() == Kind::Integer) return MultiValue(arguments[0]);
        return MultiValue(integralOrFloat(std::ceil(requireNumber(self, "math.ceil", arguments, 0))));
    });
    bind("abs", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.abs", arguments.size(), 1, 1);
        if (arguments[0].kind() == Kind::Integer) {
            std::int64_t value = arguments[0].asInteger();
            return MultiValue(Value::integer(value < 0 ? static_cast<std::int64_t>(0ULL - static_cast<std::uint64_t>(value)) : value));
        }
        return MultiValue(numericResult(std::fabs(requireNumber(self, "math.abs", arguments, 0))));
    });
    bind("sqrt", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        if (arguments.size() == 1 && arguments[0].kind() == Kind::Float) return MultiValue(numericResult(std::sqrt(arguments[0].asFloat())));
        requireArgumentCount(self, "math.sqrt", arguments.size(), 1, 1);
        return MultiValue(numericResult(std::sqrt(requireNumber(self, "math.sqrt", arguments, 0))));
    });
    bind("sin", unary("math.sin", [](double x) { return std::sin(x); }));
    bind("cos", unary("math.cos", [](double x) { return std::cos(x); }));
    bind("exp", unary("math.exp", [](double x) { return std::exp(x); }));
    bind("rad", unary("math.rad", [](double x) { return x * (kPi / 180.0); }));
    bind("deg", unary("math.deg", [](double x) { return x * (180.0 / kPi); }));
    auto markNumeric = [&](const char* field, double (*function)(double)) {
        library->get(Value::string(field)).asFunction()->numericFunction = function;
    };
    markNumeric("sqrt", [](double x) { return std::sqrt(x); });
    markNumeric("sin", [](double x) { return std::sin(x); });
    markNumeric("cos", [](double x) { return std::cos(x); });
    markNumeric("exp", [](double x) { return std::exp(x); });
    bind("pow", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.pow", arguments.size(), 2, 2);
        return MultiValue(numericResult(std::pow(requireNumber(self, "math.pow", arguments, 0), requireNumber(self, "math.pow", arguments, 1))));
    });
    bind("log", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.log", arguments.size(), 1, 2);
        double value = requireNumber(self, "math.log", arguments, 0);
        if (arguments.size() == 1 || arguments[1].isNil()) return MultiValue(numericResult(std::log(value)));
        double base = requireNumber(self, "math.log", arguments, 1);
        if (base == 2.0) return MultiValue(numericResult(std::log2(value)));
        if (base == 10.0) return MultiValue(numericResult(std::log10(value)));
        return MultiValue(numericResult(std::log(value) / std::log(base)));
    });
    bind("clamp", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.clamp", arguments.size(), 3, 3);
        double value = requireNumber(self, "math.clamp", arguments, 0);
        double lower = requireNumber(self, "math.clamp", arguments, 1);
        double upper = requireNumber(self, "math.clamp", arguments, 2);
        if (lower > upper) self.failRuntime(self.m_currentLine, "math.clamp lower bound is greater than upper bound");
        if (value < lower) return MultiValue(arguments[1]);
        if (value > upper) return MultiValue(arguments[2]);
        return MultiValue(arguments[0]);
    });
    bind("randomseed", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.randomseed", arguments.size(), 1, 1);
        self.m_random.seed(static_cast<std::uint64_t>(requireInteger(self, "math.randomseed", arguments, 0)));
        return MultiValue();
    });
    bind("random", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "math.random", arguments.size(), 0, 2);
        if (arguments.empty()) {
            std::uniform_real_distribution<double> distribution(0.0, 1.0);
            return MultiValue(Value::number(distribution(self.m_random)));
        }
        std::int64_t lower = 1, upper = 0;
        if (arguments.size() == 1) {
            upper = requireInteger(self, "math.random", arguments, 0);
        } else {
            lower = requireInteger(self, "math.random", arguments, 0);
            upper = requireInteger(self, "math.random", arguments, 1);
        }
        if (lower > upper) self.failRuntime(self.m_currentLine, "math.random interval is empty");
        std::uniform_int_distribution<std::int64_t> distribution(lower, upper);
        return MultiValue(Value::integer(distribution(self.m_random)));
    });
}

} // namespace korvel::lua
