// LuaValue: the host-facing value, its accessors and its text form.
#include "vm_internal.h"

#include <sstream>
#include <stdexcept>

namespace korvel::lua {

const char* luaValueTypeName(LuaValueType type) {
    switch (type) {
    case LuaValueType::Nil: return "nil";
    case LuaValueType::Integer: return "integer";
    case LuaValueType::Float: return "float";
    case LuaValueType::Boolean: return "boolean";
    case LuaValueType::String: return "string";
    case LuaValueType::Array: return "array";
    case LuaValueType::Map: return "map";
    case LuaValueType::Function: return "function";
    }
    return "unknown";
}

LuaValue::LuaValue(int value) : m_data(static_cast<std::int64_t>(value)) {}
LuaValue::LuaValue(std::int64_t value) : m_data(value) {}
LuaValue::LuaValue(double value) : m_data(value) {}
LuaValue::LuaValue(bool value) : m_data(value) {}
LuaValue::LuaValue(const char* value) : m_data(std::string(value ? value : "")) {}
LuaValue::LuaValue(const std::string& value) : m_data(value) {}
LuaValue::LuaValue(std::string&& value) : m_data(std::move(value)) {}
LuaValue::LuaValue(const Array& value) : m_data(std::make_shared<Array>(value)) {}
LuaValue::LuaValue(Array&& value) : m_data(std::make_shared<Array>(std::move(value))) {}
LuaValue::LuaValue(const Map& value) : m_data(std::make_shared<Map>(value)) {}
LuaValue::LuaValue(Map&& value) : m_data(std::make_shared<Map>(std::move(value))) {}
LuaValue::LuaValue(std::shared_ptr<LuaFunctionHandle> function) : m_data(std::move(function)) {}

LuaValue LuaValue::makeArray() { return LuaValue(Array{}); }
LuaValue LuaValue::makeMap() { return LuaValue(Map{}); }

bool LuaValue::isTruthy() const {
    if (isNil()) return false;
    if (const bool* value = std::get_if<bool>(&m_data)) return *value;
    return true;
}

std::int64_t LuaValue::asInteger() const {
    if (const auto* integer = std::get_if<std::int64_t>(&m_data)) return *integer;
    if (const auto* number = std::get_if<double>(&m_data)) {
        double value = *number;
        // Out-of-range floats saturate instead of invoking undefined behaviour.
        if (!(value == value)) return 0;
        if (value >= 9223372036854775807.0) return INT64_MAX;
        if (value <= -9223372036854775808.0) return INT64_MIN;
        return static_cast<std::int64_t>(value);
    }
    throw std::runtime_error("value is not numeric");
}

double LuaValue::asFloat() const {
    if (const auto* number = std::get_if<double>(&m_data)) return *number;
    if (const auto* integer = std::get_if<std::int64_t>(&m_data)) return static_cast<double>(*integer);
    throw std::runtime_error("value is not numeric");
}

bool LuaValue::asBoolean() const {
    if (const bool* value = std::get_if<bool>(&m_data)) return *value;
    throw std::runtime_error("value is not boolean");
}

const std::string& LuaValue::asString() const {
    if (const auto* text = std::get_if<std::string>(&m_data)) return *text;
    throw std::runtime_error("value is not a string");
}

LuaValue::Array& LuaValue::asArray() {
    if (auto* array = std::get_if<std::shared_ptr<Array>>(&m_data)) return **array;
    throw std::runtime_error("value is not an array");
}
const LuaValue::Array& LuaValue::asArray() const { return const_cast<LuaValue*>(this)->asArray(); }

LuaValue::Map& LuaValue::asMap() {
    if (auto* map = std::get_if<std::shared_ptr<Map>>(&m_data)) return **map;
    throw std::runtime_error("value is not a map");
}
const LuaValue::Map& LuaValue::asMap() const { return const_cast<LuaValue*>(this)->asMap(); }

const std::shared_ptr<LuaFunctionHandle>& LuaValue::asFunction() const {
    if (const auto* function = std::get_if<std::shared_ptr<LuaFunctionHandle>>(&m_data)) return *function;
    throw std::runtime_error("value is not a function");
}

namespace {

void appendText(std::string& out, const LuaValue& value, int depth) {
    // Host-built arrays can contain themselves; past this depth the text is cut short.
    if (depth > 200) {
        out += "...";
        return;
    }
    switch (value.type()) {
    case LuaValueType::Nil: out += "nil"; return;
    case LuaValueType::Integer: out += std::to_string(value.asInteger()); return;
    case LuaValueType::Float: {
        std::ostringstream stream;
        stream << value.asFloat();
        out += stream.str();
        return;
    }
    case LuaValueType::Boolean: out += value.asBoolean() ? "true" : "false"; return;
    case LuaValueType::String: out += value.asString(); return;
    case LuaValueType::Array: {
        out += '[';
        bool first = true;
        for (const LuaValue& element : value.asArray()) {
            if (!first) out += ", ";
            first = false;
            appendText(out, element, depth + 1);
        }
        out += ']';
        return;
    }
    case LuaValueType::Map: {
        out += '{';
        bool first = true;
        for (const auto& [key, element] : value.asMap()) {
            if (!first) out += ", ";
            first = false;
            out += key;
            out += ": ";
            appendText(out, element, depth + 1);
        }
        out += '}';
        return;
    }
    case LuaValueType::Function: {
        const auto& handle = value.asFunction();
        out += "[function ";
        out += handle && !handle->name.empty() ? handle->name : "anonymous";
        out += ']';
        return;
    }
    }
}

} // namespace

std::string LuaValue::toString() const {
    std::string text;
    appendText(text, *this, 0);
    return text;
}

} // namespace korvel::lua
