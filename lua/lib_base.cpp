// Base library (print, type, pcall, pairs, ...), the shared argument checks and the binding helpers.
#include "lua_version.h"
#include "vm_internal.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <new>

namespace korvel::lua {

using Impl = LuaVM::Impl;

// ---- argument checks ----

void requireArgumentCount(Impl& vm, std::string_view name, std::size_t count, std::size_t minimum, std::size_t maximum) {
    if (count >= minimum && count <= maximum) return;
    std::string message(name);
    message += " expects ";
    if (minimum == maximum) {
        message += std::to_string(minimum) + (minimum == 1 ? " argument" : " arguments");
    } else if (maximum == kNoMaximum) {
        message += "at least " + std::to_string(minimum) + " arguments";
    } else {
        message += "between " + std::to_string(minimum) + " and " + std::to_string(maximum) + " arguments";
    }
    vm.failRuntime(vm.m_currentLine, message);
}

double requireNumber(Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index) {
    if (index >= arguments.size() || !arguments[index].isNumber()) {
        vm.failRuntime(vm.m_currentLine, std::string(name) + " expects a numeric argument");
    }
    return arguments[index].toDouble();
}

std::int64_t requireInteger(Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index) {
    if (index < arguments.size() && arguments[index].kind() == Kind::Integer) return arguments[index].asInteger();
    double value = requireNumber(vm, name, arguments, index);
    // Floats are accepted and truncated; out-of-range ones saturate.
    if (!(value == value)) return 0;
    if (value >= 9223372036854775807.0) return INT64_MAX;
    if (value <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<std::int64_t>(value);
}

std::string_view requireString(Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index) {
    if (index >= arguments.size() || arguments[index].kind() != Kind::String) {
        vm.failRuntime(vm.m_currentLine, std::string(name) + " expects a string argument");
    }
    return arguments[index].stringView();
}

Table* requireTable(Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index) {
    if (index >= arguments.size() || arguments[index].kind() != Kind::Table) {
        vm.failRuntime(vm.m_currentLine, std::string(name) + " expects a table");
    }
    return arguments[index].asTable();
}

UserDataObject* requireUserData(Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index, const char* typeTag) {
    if (index >= arguments.size() || arguments[index].kind() != Kind::UserData) {
        vm.failRuntime(vm.m_currentLine, std::string(name) + " expects userdata");
    }
    UserDataObject* object = arguments[index].asUserData();
    if (std::string_view(object->typeTag()) != typeTag) {
        vm.failRuntime(vm.m_currentLine, std::string(name) + " received the wrong userdata type");
    }
    return object;
}

// ---- binding ----

Value Impl::makeNative(const std::string& name, NativeFunction native) {
    auto* function = new FunctionObject();
    Value result = Value::object(function);
    function->name = name;
    function->native = std::move(native);
    function->owner = this;
    return result;
}

void Impl::bindNativeGlobal(const std::string& name, NativeFunction native) {
    m_globals.at(m_globals.resolveGlobalSlot(name)) = makeNative(name, std::move(native));
}

void Impl::bindTableFunction(Table* table, const std::string& tableName, const std::string& field, NativeFunction native) {
    table->set(m_globals.internConstant(field), makeNative(tableName + "." + field, std::move(native)));
}

Table* Impl::makeLibraryTable(const std::string& name) {
    auto* table = new Table();
    m_globals.at(m_globals.resolveGlobalSlot(name)) = Value::object(table);
    return table;
}

void Impl::bindDefaults() {
    bindBaseLibrary(*this);
    bindStringLibrary(*this);
    bindTableLibrary(*this);
    bindMathLibrary(*this);
    bindIoOsLibrary(*this);
}

// ---- iterators ----

bool nextPatternMatch(Impl& vm, IteratorObject* iterator, MultiValue& out, std::uint32_t line);

bool nextIteratorItem(Impl& vm, IteratorObject* iterator, MultiValue& out, std::uint32_t line) {
    if (iterator->finished) return false;
    switch (iterator->mode) {
    case IteratorObject::Mode::AllKeys: {
        Value key, value;
        if (!iterator->subject.asTable()->nextEntry(iterator->position, key, value)) {
            iterator->finished = true;
            return false;
        }
        out.push(std::move(key));
        out.push(std::move(value));
        return true;
    }
    case IteratorObject::Mode::Sequence: {
        const Value* value = iterator->subject.asTable()->findInteger(static_cast<std::int64_t>(iterator->position) + 1);
        if (!value || value->isNil()) {
            iterator->finished = true;
            return false;
        }
        ++iterator->position;
        out.push(Value::integer(static_cast<std::int64_t>(iterator->position)));
        out.push(*value);
        return true;
    }
    case IteratorObject::Mode::Matches:
        if (!nextPatternMatch(vm, iterator, out, line)) {
            iterator->finished = true;
            return false;
        }
        return true;
    }
    return false;
}

namespace {

Value makeTableIterator(Impl& vm, std::string_view name, ValueSpan arguments, IteratorObject::Mode mode) {
    if (arguments.empty() || arguments[0].kind() != Kind::Table) {
        vm.failRuntime(vm.m_currentLine, std::string(name) + " expects a table");
    }
    auto* iterator = new IteratorObject();
    Value result = Value::object(iterator);
    iterator->mode = mode;
    iterator->subject = arguments[0];
    return result;
}

// tonumber: decimal or "0x" integers, decimal floats, surrounded by optional spaces; nil otherwise.
Value parseNumber(std::string_view text) {
    auto isSpace = [](char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v'; };
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    if (text.empty()) return Value();
    std::string buffer(text);
    bool negative = buffer[0] == '-';
    std::size_t digitsStart = (buffer[0] == '-' || buffer[0] == '+') ? 1 : 0;
    if (buffer.size() > digitsStart + 2 && buffer[digitsStart] == '0' && (buffer[digitsStart + 1] | 0x20) == 'x') {
        std::uint64_t value = 0;
        for (std::size_t i = digitsStart + 2; i < buffer.size(); ++i) {
            char c = buffer[i];
            int digit = c >= '0' && c <= '9' ? c - '0' : (c | 0x20) >= 'a' && (c | 0x20) <= 'f' ? (c | 0x20) - 'a' + 10 : -1;
            if (digit < 0) return Value();
            value = value * 16 + static_cast<std::uint64_t>(digit);
        }
        std::int64_t result = static_cast<std::int64_t>(value);
        return Value::integer(negative ? static_cast<std::int64_t>(0ULL - value) : result);
    }
    bool integral = buffer.find_first_of(".eEnN") == std::string::npos;
    if (integral) {
        char* end = nullptr;
        errno = 0;
        long long value = std::strtoll(buffer.c_str(), &end, 10);
        if (end && *end == '\0' && end != buffer.c_str() + digitsStart && errno == 0) return Value::integer(value);
    }
    // strtod would also take "inf", "nan" and hexadecimal floats; only plain decimals are numbers here.
    for (char c : buffer) {
        if (!((c >= '0' && c <= '9') || c == '.' || c == 'e' || c == 'E' || c == '+' || c == '-')) return Value();
    }
    char* end = nullptr;
    double value = std::strtod(buffer.c_str(), &end);
    if (!end || *end != '\0' || end == buffer.c_str()) return Value();
    return Value::number(value);
}

Value parseNumberInBase(std::string_view text, std::int64_t base) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t' || text.front() == '\n')) text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t' || text.back() == '\n')) text.remove_suffix(1);
    bool negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    if (text.empty()) return Value();
    std::uint64_t value = 0;
    for (char c : text) {
        int digit = c >= '0' && c <= '9' ? c - '0' : (c | 0x20) >= 'a' && (c | 0x20) <= 'z' ? (c | 0x20) - 'a' + 10 : 99;
        if (digit >= base) return Value();
        value = value * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
    }
    return Value::integer(static_cast<std::int64_t>(negative ? 0ULL - value : value));
}

} // namespace

void bindBaseLibrary(Impl& vm) {
    vm.bindHostFunction("print", [](LuaVM&, const std::vector<LuaValue>& arguments) {
        std::string line;
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            if (i > 0) line += '\t';
            line += arguments[i].toString();
        }
        line += '\n';
        std::fwrite(line.data(), 1, line.size(), stdout);
        return LuaValue();
    });
    vm.m_globals.at(vm.m_globals.resolveGlobalSlot("_VERSION")) = Value::string(kVersionText);

    vm.bindNativeGlobal("tostring", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "tostring", arguments.size(), 1, kNoMaximum);
        if (arguments[0].kind() == Kind::String) return MultiValue(arguments[0]);
        return MultiValue(Value::string(arguments[0].toString()));
    });
    vm.bindNativeGlobal("time_ms", [](Impl&, ValueSpan, std::uint32_t) {
        auto now = std::chrono::steady_clock::now().time_since_epoch();
        return MultiValue(Value::integer(std::chrono::duration_cast<std::chrono::milliseconds>(now).count()));
    });
    vm.bindNativeGlobal("tonumber", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "tonumber", arguments.size(), 1, 2);
        if (arguments.size() == 2 && !arguments[1].isNil()) {
            std::int64_t base = requireInteger(self, "tonumber", arguments, 1);
            if (base < 2 || base > 36) self.failRuntime(self.m_currentLine, "tonumber base must be between 2 and 36");
            if (arguments[0].kind() != Kind::String) self.failRuntime(self.m_currentLine, "tonumber expects a string argument");
            return MultiValue(parseNumberInBase(arguments[0].stringView(), base));
        }
        if (arguments[0].isNumber()) return MultiValue(arguments[0]);
        if (arguments[0].kind() == Kind::String) return MultiValue(parseNumber(arguments[0].stringView()));
        return MultiValue(Value());
    });
    vm.bindNativeGlobal("type", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "type", arguments.size(), 1, 1);
        return MultiValue(Value::string(describeValueType(arguments[0].kind())));
    });
    vm.bindNativeGlobal("assert", [](Impl& self, ValueSpan arguments, std::uint32_t line) {
        requireArgumentCount(self, "assert", arguments.size(), 1, kNoMaximum);
        if (!arguments[0].isTruthy()) {
            if (arguments.size() > 1 && !arguments[1].isNil()) self.failRuntime(line, arguments[1].toString());
            self.failRuntime(line, "assertion failed!");
        }
        MultiValue results;
        for (const Value& argument : arguments) results.push(argument);
        return results;
    });
    vm.bindNativeGlobal("error", [](Impl& self, ValueSpan arguments, std::uint32_t line) -> MultiValue {
        std::string message = arguments.empty() ? "nil" : arguments[0].toString();
        // error(message, 0) raises the text alone, like a message passed on from pcall.
        bool located = arguments.size() < 2 || !arguments[1].isNumber() || arguments[1].toDouble() != 0.0;
        if (located && (arguments.empty() || arguments[0].kind() == Kind::String || arguments[0].isNumber())) {
            self.failRuntime(line, message);
        }
        self.failUnlocated(message);
    });
    vm.bindNativeGlobal("pcall", [](Impl& self, ValueSpan arguments, std::uint32_t line) {
        requireArgumentCount(self, "pcall", arguments.size(), 1, kNoMaximum);
        std::size_t savedTop = self.m_top;
        const FunctionExpr* savedFunction = self.m_currentFunction;
        std::uint32_t savedLine = self.m_currentLine;
        MultiValue results;
        std::string failure;
        try {
            MultiValue called;
            self.callValue(arguments[0], arguments.subspan(1), line, called);
            results.push(Value::boolean(true));
            for (std::size_t i = 0; i < called.size(); ++i) results.push(std::move(called[i]));
            return results;
        } catch (const LuaError& error) {
            failure = error.message();
        } catch (const std::bad_alloc&) {
            failure = "not enough memory";
        } catch (const std::exception& error) {
            failure = error.what();
        }
        self.popTo(savedTop);
        self.m_currentFunction = savedFunction;
        self.m_currentLine = savedLine;
        results.push(Value::boolean(false));
        results.push(Value::string(failure));
        return results;
    });
    vm.bindNativeGlobal("pairs", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        return MultiValue(makeTableIterator(self, "pairs", arguments, IteratorObject::Mode::AllKeys));
    });
    vm.bindNativeGlobal("ipairs", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        return MultiValue(makeTableIterator(self, "ipairs", arguments, IteratorObject::Mode::Sequence));
    });
    vm.bindNativeGlobal("next", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        if (arguments.empty() || arguments[0].kind() != Kind::Table) self.failRuntime(self.m_currentLine, "next expects a table");
        const std::vector<Value>& keys = arguments[0].asTable()->sortedKeys();
        std::size_t position = 0;
        if (arguments.size() > 1 && !arguments[1].isNil()) {
            Value key;
            if (!tryMakeKeyFromValue(arguments[1], key)) {
                self.failRuntime(self.m_currentLine, "next key must be nil, number, string, or boolean");
            }
            position = static_cast<std::size_t>(std::upper_bound(keys.begin(), keys.end(), key, keyLess) - keys.begin());
        }
        if (position >= keys.size()) return MultiValue(Value());
        MultiValue results;
        Value key = keys[position];
        results.push(key);
        results.push(arguments[0].asTable()->get(key));
        return results;
    });
    vm.bindNativeGlobal("select", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        if (arguments.empty()) self.failRuntime(self.m_currentLine, "select index must be a number or '#'");
        std::int64_t rest = static_cast<std::int64_t>(arguments.size()) - 1;
        if (arguments[0].kind() == Kind::String && arguments[0].stringView() == "#") return MultiValue(Value::integer(rest));
        if (!arguments[0].isNumber()) self.failRuntime(self.m_currentLine, "select index must be a number or '#'");
        std::int64_t index = requireInteger(self, "select", arguments, 0);
        if (index < 0) index = rest + index + 1;
        if (index <= 0) self.failRuntime(self.m_currentLine, "select index out of range");
        MultiValue results;
        for (std::int64_t i = index; i <= rest; ++i) results.push(arguments[static_cast<std::size_t>(i)]);
        return results;
    });
    vm.bindNativeGlobal("rawget", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        Table* table = requireTable(self, "rawget", arguments, 0);
        Value key;
        if (arguments.size() < 2 || !tryMakeKeyFromValue(arguments[1], key)) {
            self.failRuntime(self.m_currentLine, "rawget key must be a number, string, or boolean");
        }
        return MultiValue(table->get(key));
    });
    vm.bindNativeGlobal("rawset", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        Table* table = requireTable(self, "rawset", arguments, 0);
        Value key;
        if (arguments.size() < 2 || !tryMakeKeyFromValue(arguments[1], key)) {
            self.failRuntime(self.m_currentLine, "rawset key must be a number, string, or boolean");
        }
        table->set(key, arguments.size() > 2 ? arguments[2] : Value());
        return MultiValue(arguments[0]);
    });
}

} // namespace korvel::lua
