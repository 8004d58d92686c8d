// Internal values: string allocation, object destruction, text forms, equality.
#include "vm_internal.h"

#include <cstdio>
#include <new>

namespace korvel::lua {

namespace {

// Objects whose count reached zero while another destruction was running wait here, so freeing
// a long chain of tables is a loop rather than a recursion.
thread_local std::vector<Object*> t_pendingDestruction;
thread_local bool t_destroying = false;

void freeObject(Object* object) noexcept {
    switch (object->kind) {
    case Kind::String: {
        auto* string = static_cast<StringObject*>(object);
        string->~StringObject();
        ::operator delete(string);
        return;
    }
    case Kind::Table: delete static_cast<Table*>(object); return;
    case Kind::Function: delete static_cast<FunctionObject*>(object); return;
    case Kind::UserData: delete static_cast<UserDataObject*>(object); return;
    case Kind::Iterator: delete static_cast<IteratorObject*>(object); return;
    case Kind::Environment: delete static_cast<EnvironmentObject*>(object); return;
    default: return;
    }
}

} // namespace

void destroyObject(Object* object) noexcept {
    if (object->kind == Kind::String) {
        freeObject(object);   // strings own no values
        return;
    }
    t_pendingDestruction.push_back(object);
    if (t_destroying) return;
    t_destroying = true;
    while (!t_pendingDestruction.empty()) {
        Object* next = t_pendingDestruction.back();
        t_pendingDestruction.pop_back();
        freeObject(next);
    }
    t_destroying = false;
}

StringObject* StringObject::allocate(std::size_t length) {
    void* memory = ::operator new(sizeof(StringObject) + length + 1);
    auto* string = new (memory) StringObject();
    string->length = length;
    string->mutableData()[length] = '\0';
    return string;
}

StringObject* StringObject::create(std::string_view text) {
    StringObject* string = allocate(text.size());
    if (!text.empty()) std::memcpy(string->mutableData(), text.data(), text.size());
    return string;
}

void StringObject::computeHash() const {
    // FNV-1a; long strings sample at most 64 bytes spread over the text, the length covering the rest.
    std::uint32_t value = 2166136261u ^ static_cast<std::uint32_t>(length);
    std::size_t step = length <= 64 ? 1 : length / 64;
    for (std::size_t i = 0; i < length; i += step) {
        value ^= static_cast<unsigned char>(data()[i]);
        value *= 16777619u;
    }
    hash = value;
    hashed = true;
}

std::string formatNumber(double value) {
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%g", value);
    return buffer;
}

namespace {

std::string addressText(const void* pointer) {
    char buffer[32];
    std::snprintf(buffer, sizeof buffer, "%p", pointer);
    return buffer;
}

} // namespace

std::string Value::toString() const {
    switch (m_kind) {
    case Kind::Nil: return "nil";
    case Kind::Integer: return std::to_string(m_payload.integer);
    case Kind::Float: return formatNumber(m_payload.number);
    case Kind::Boolean: return m_payload.boolean ? "true" : "false";
    case Kind::String: return std::string(stringView());
    case Kind::Table: return "table: " + addressText(m_payload.object);
    case Kind::Function: return "function: " + asFunction()->displayName();
    case Kind::UserData: return "userdata: " + addressText(m_payload.object);
    case Kind::Iterator: return "iterator: " + addressText(m_payload.object);
    default: return "unknown";
    }
}

const char* describeValueType(Kind kind) {
    switch (kind) {
    case Kind::Nil: return "nil";
    case Kind::Integer:
    case Kind::Float: return "number";
    case Kind::Boolean: return "boolean";
    case Kind::String: return "string";
    case Kind::Table: return "table";
    case Kind::Function: return "function";
    case Kind::UserData: return "userdata";
    case Kind::Iterator: return "iterator";
    default: return "unknown";
    }
}

bool valuesEqual(const Value& left, const Value& right) {
    if (left.kind() != right.kind()) {
        // Mixed integer and float: equal within the tolerance, on purpose (two floats must match exactly).
        if (left.isNumber() && right.isNumber()) {
            double difference = left.toDouble() - right.toDouble();
            return difference <= kIntegralTolerance && difference >= -kIntegralTolerance;
        }
        return false;
    }
    switch (left.kind()) {
    case Kind::Nil: return true;
    case Kind::Integer: return left.asInteger() == right.asInteger();
    case Kind::Float: return left.asFloat() == right.asFloat();
    case Kind::Boolean: return left.asBoolean() == right.asBoolean();
    case Kind::String: return left.asObject() == right.asObject() || left.stringView() == right.stringView();
    default: return left.asObject() == right.asObject();
    }
}

} // namespace korvel::lua
