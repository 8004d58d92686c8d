#include "core/variable.h"

#include "core/callable.h"
#include "core/script_error.h"
#include "core/table.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace korvel {

const char* typeName(VarType type) {
    switch (type) {
    case VarType::Nil: return "not";
    case VarType::Int: return "int";
    case VarType::Float: return "float";
    case VarType::String: return "string";
    case VarType::Raw: return "raw";
    case VarType::Bool: return "bool";
    case VarType::Pointer: return "pointer";
    case VarType::Array: return "array";
    case VarType::MultiValue: return "multivalue";
    case VarType::Table: return "table";
    case VarType::Function: return "function";
    default: return "unknown";
    }
}

namespace {

// Objects whose count reached zero while another object was being freed wait here, so that
// freeing a long chain of nested containers is a loop rather than a recursion.
struct PendingFree {
    VarType type;
    HeapObject* object;
};
// Never destroyed: values in other static objects may still be freed during program exit.
std::vector<PendingFree>& pendingFrees() {
    static auto* pending = new std::vector<PendingFree>();
    return *pending;
}
bool g_freeing = false;

void deleteObject(VarType type, HeapObject* object) noexcept {
    switch (type) {
    case VarType::String: delete static_cast<StringObject*>(object); break;
    case VarType::Raw: delete static_cast<RawObject*>(object); break;
    case VarType::Array: delete static_cast<ArrayObject*>(object); break;
    case VarType::MultiValue: delete static_cast<MultiResult*>(object); break;
    case VarType::Table: delete static_cast<TableObject*>(object); break;
    case VarType::Function: delete static_cast<ScriptCallable*>(object); break;
    default: break;
    }
}

}  // namespace

void destroyHeapObject(VarType type, HeapObject* object) noexcept {
    if (type == VarType::String) {  // strings hold no references: free at once
        delete static_cast<StringObject*>(object);
        return;
    }
    std::vector<PendingFree>& pending = pendingFrees();
    if (g_freeing) {
        pending.push_back({type, object});
        return;
    }
    g_freeing = true;
    deleteObject(type, object);
    while (!pending.empty()) {
        PendingFree next = pending.back();
        pending.pop_back();
        deleteObject(next.type, next.object);
    }
    g_freeing = false;
}

std::uint32_t hashBytes(std::string_view bytes) noexcept {
    std::uint32_t hash = 2166136261u;
    for (unsigned char c : bytes) {
        hash ^= c;
        hash *= 16777619u;
    }
    return hash;
}

std::uint32_t StringObject::hashValue() noexcept {
    if (!hashed) {
        hash = hashBytes(text);
        hashed = true;
    }
    return hash;
}

StringObject* newStringObject(std::string_view text) {
    auto* string = new StringObject;
    string->text.assign(text.data(), text.size());
    return string;
}

Variable::Variable(std::string_view text) : m_type(VarType::String) { m_value.s = newStringObject(text); }

Variable::Variable(std::string&& text) : m_type(VarType::String) {
    auto* string = new StringObject;
    string->text = std::move(text);
    m_value.s = string;
}

Variable Variable::fromPointer(void* pointer) noexcept {
    Variable v;
    v.m_type = VarType::Pointer;
    v.m_value.p = pointer;
    return v;
}

Variable Variable::makeRaw(std::vector<std::uint8_t> bytes) {
    auto* raw = new RawObject;
    raw->bytes = std::move(bytes);
    Variable v;
    v.m_type = VarType::Raw;
    v.m_value.r = raw;
    return v;
}

Variable Variable::makeTable() {
    Variable v;
    v.m_type = VarType::Table;
    v.m_value.t = new TableObject;
    return v;
}

Variable Variable::makeArray() {
    Variable v;
    v.m_type = VarType::Array;
    v.m_value.a = new ArrayObject;
    return v;
}

Variable Variable::makeArray(std::vector<Variable> items) {
    Variable v = makeArray();
    v.m_value.a->items = std::move(items);
    return v;
}

Variable Variable::makeMulti(std::vector<Variable>&& values) {
    auto* multi = new MultiResult;
    multi->values = std::move(values);
    Variable v;
    v.m_type = VarType::MultiValue;
    v.m_value.m = multi;
    return v;
}

Variable Variable::makeMulti(const std::vector<Variable>& values) {
    return makeMulti(std::vector<Variable>(values));
}

Variable Variable::makeFunction(ScriptCallable* callable) {
    Variable v;
    v.m_type = VarType::Function;
    v.m_value.c = callable;
    return v;
}

Variable Variable::fromString(StringObject* string) {
    ++string->refCount;
    Variable v;
    v.m_type = VarType::String;
    v.m_value.s = string;
    return v;
}

Variable Variable::unset() noexcept {
    Variable v;
    v.m_type = VarType::Unset;
    return v;
}

const std::string& Variable::asString() const noexcept { return m_value.s->text; }

std::string& Variable::mutableString() {
    if (m_value.s->refCount != 1) {
        StringObject* copy = newStringObject(m_value.s->text);
        release();
        m_value.s = copy;
    }
    m_value.s->hashed = false;
    return m_value.s->text;
}

const std::vector<std::uint8_t>& Variable::asRaw() const noexcept { return m_value.r->bytes; }
std::vector<Variable>& Variable::arrayItems() const noexcept { return m_value.a->items; }
Table& Variable::table() const noexcept { return m_value.t->table; }
std::vector<Variable>& Variable::multiValues() const noexcept { return m_value.m->values; }

namespace {

// Printing stops descending past this depth, so a container that holds itself prints finitely.
constexpr int kMaxPrintDepth = 1000;

void appendFloat(std::string& out, float value) {
    char buffer[64];
    int n = std::snprintf(buffer, sizeof buffer, "%f", static_cast<double>(value));
    if (n > 0 && n < static_cast<int>(sizeof buffer)) {
        out.append(buffer, static_cast<std::size_t>(n));
    } else {
        std::string big(static_cast<std::size_t>(std::max(n, 0)) + 1, '\0');
        std::snprintf(big.data(), big.size(), "%f", static_cast<double>(value));
        big.pop_back();
        out += big;
    }
}

// path holds the containers being printed around this one: meeting one again is a cycle.
void appendValue(std::string& out, const Variable& value, int depth, std::vector<const void*>& path) {
    switch (value.type()) {
    case VarType::Nil: out += "not"; break;
    case VarType::Int: {
        char buffer[16];
        auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, value.asInt());
        (void)ec;
        out.append(buffer, end);
        break;
    }
    case VarType::Float: appendFloat(out, value.asFloat()); break;
    case VarType::String: out += value.asString(); break;
    case VarType::Raw: {
        const auto& bytes = value.asRaw();
        out.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
        break;
    }
    case VarType::Bool: out += value.asBool() ? "true" : "false"; break;
    case VarType::Pointer: {
        char buffer[32];
        int n = std::snprintf(buffer, sizeof buffer, "$%" PRIXPTR,
                              reinterpret_cast<std::uintptr_t>(value.asPointer()));
        out.append(buffer, static_cast<std::size_t>(n));
        break;
    }
    case VarType::Array: {
        if (depth >= kMaxPrintDepth || std::find(path.begin(), path.end(), value.identity()) != path.end()) {
            out += "[...]";
            break;
        }
        path.push_back(value.identity());
        out += '[';
        bool first = true;
        for (const Variable& item : value.arrayItems()) {
            if (!first) out += ", ";
            first = false;
            appendValue(out, item, depth + 1, path);
        }
        out += ']';
        path.pop_back();
        break;
    }
    case VarType::Table: {
        if (depth >= kMaxPrintDepth || std::find(path.begin(), path.end(), value.identity()) != path.end()) {
            out += "{...}";
            break;
        }
        path.push_back(value.identity());
        out += '{';
        bool first = true;
        for (const Table::Entry& entry : value.table().entries()) {
            if (!entry.key) continue;
            if (!first) out += ", ";
            first = false;
            out += entry.key->text;
            out += ": ";
            appendValue(out, entry.value, depth + 1, path);
        }
        out += '}';
        path.pop_back();
        break;
    }
    case VarType::MultiValue: out += "[multivalue]"; break;
    case VarType::Function: out += "[function]"; break;
    default: out += "[unconvertible type]"; break;
    }
}

}  // namespace

void Variable::appendTo(std::string& out) const {
    std::vector<const void*> path;
    appendValue(out, *this, 0, path);
}

std::string Variable::toString() const {
    if (m_type == VarType::String) return m_value.s->text;
    std::string out;
    appendTo(out);
    return out;
}

bool isTruthy(const Variable& value) noexcept {
    switch (value.type()) {
    case VarType::Nil:
    case VarType::Unset: return false;
    case VarType::Bool: return value.asBool();
    default: return true;
    }
}

namespace {
double numericOf(const Variable& v) noexcept {
    switch (v.type()) {
    case VarType::Int: return v.asInt();
    case VarType::Float: return v.asFloat();
    default: return v.asBool() ? 1.0 : 0.0;
    }
}
}  // namespace

bool variablesEqual(const Variable& a, const Variable& b) noexcept {
    if (a.isNumericLike() && b.isNumericLike()) {
        if (a.type() == VarType::Int && b.type() == VarType::Int) return a.asInt() == b.asInt();
        return numericOf(a) == numericOf(b);
    }
    if (a.type() != b.type()) return false;
    switch (a.type()) {
    case VarType::Nil: return true;
    case VarType::String:
        return a.stringObject() == b.stringObject() || a.asString() == b.asString();
    case VarType::Raw: return a.asRaw() == b.asRaw();
    case VarType::Pointer: return a.asPointer() == b.asPointer();
    default: return a.identity() == b.identity();
    }
}

int compareVariables(const Variable& a, const Variable& b) {
    if (a.isNumericLike() && b.isNumericLike()) {
        double x = numericOf(a), y = numericOf(b);
        return x < y ? -1 : (x > y ? 1 : 0);
    }
    if (a.type() == VarType::String && b.type() == VarType::String) {
        const std::string& x = a.asString();
        const std::string& y = b.asString();
        std::size_t common = std::min(x.size(), y.size());
        int c = common ? std::memcmp(x.data(), y.data(), common) : 0;  // memcmp compares unsigned bytes
        if (c != 0) return c < 0 ? -1 : 1;
        return x.size() < y.size() ? -1 : (x.size() > y.size() ? 1 : 0);
    }
    throw ScriptError(std::string("Cannot compare ") + typeName(a.type()) + " with " + typeName(b.type()));
}

std::int64_t arrayIndexOfKey(const Variable& key) noexcept {
    if (key.type() == VarType::Int) return key.asInt() >= 1 ? key.asInt() : 0;
    if (key.type() == VarType::Float) {
        double d = key.asFloat();
        if (d >= 1.0 && d <= 2147483648.0 && std::floor(d) == d) return static_cast<std::int64_t>(d);
    }
    return 0;
}

bool prefersArrayStorage(const Variable& key) noexcept { return arrayIndexOfKey(key) != 0; }

void promoteArrayVariableToTable(Variable& variable) {
    if (variable.type() != VarType::Array) return;
    Variable table = Variable::makeTable();
    const std::vector<Variable>& items = variable.arrayItems();
    Table& target = table.table();
    target.reserve(items.size());
    for (std::size_t i = 0; i < items.size(); ++i) target.set(std::to_string(i + 1), items[i]);
    variable = std::move(table);
}

std::string keyToString(const Variable& key) {
    switch (key.type()) {
    case VarType::Int: return std::to_string(key.asInt());
    case VarType::Float:
    case VarType::String:
    case VarType::Bool: return key.toString();
    default: throw ScriptError("Table key must be string, number, or bool");
    }
}

double toDouble(const Variable& value) {
    if (!value.isNumericLike()) throw ScriptError("Expected a numeric value");
    return numericOf(value);
}

std::int32_t toInt(const Variable& value) {
    switch (value.type()) {
    case VarType::Int: return value.asInt();
    case VarType::Float: {
        float f = value.asFloat();
        if (!(f >= -2147483648.0f && f < 2147483648.0f)) return f < 0 ? INT32_MIN : INT32_MAX;
        return static_cast<std::int32_t>(f);
    }
    case VarType::Bool: return value.asBool() ? 1 : 0;
    default: throw ScriptError("Expected a numeric value");
    }
}

}  // namespace korvel
