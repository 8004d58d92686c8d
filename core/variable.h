// The one dynamic value of KorvelScript and of every native binding.
//
// A Variable is 16 bytes on 64-bit hosts: a kind tag and an 8-byte payload. Integers, floats,
// booleans and pointers live in the payload. Strings, raw bytes, arrays, tables, callables and
// multi-results live in reference-counted heap objects. Strings and raw bytes behave as values:
// a shared one is copied before it is changed, so "+=" on an unshared string appends in place.
// Variables belong to the script thread; reference counts are not atomic.
#pragma once

#include <concepts>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {

enum class VarType : std::uint8_t {
    Nil = 0,
    Int = 1,
    Float = 2,
    String = 3,
    Raw = 4,
    Bool = 5,
    Pointer = 6,
    Array = 7,
    MultiValue = 8,
    Table = 9,
    Function = 10,
    // Never seen by scripts: marks a local slot whose name has not been declared yet.
    Unset = 255,
};

// The kind name scripts see ("not", "int", ...); "unknown" for anything else.
const char* typeName(VarType type);

struct HeapObject {
    std::uint32_t refCount = 1;
};

struct StringObject;
struct RawObject;
struct ArrayObject;
struct TableObject;
struct MultiResult;
struct ScriptCallable;
class Table;

// Frees a heap object whose count reached zero. Frees are queued, so dropping a deeply nested
// structure never recurses through the C++ stack.
void destroyHeapObject(VarType type, HeapObject* object) noexcept;

class Variable {
public:
    Variable() noexcept : m_type(VarType::Nil) { m_value.heap = nullptr; }
    Variable(std::int32_t value) noexcept : m_type(VarType::Int) { m_value.i = value; }
    Variable(float value) noexcept : m_type(VarType::Float) { m_value.f = value; }
    Variable(double value) noexcept : m_type(VarType::Float) { m_value.f = static_cast<float>(value); }
    template <typename T>
        requires std::same_as<T, bool>
    Variable(T value) noexcept : m_type(VarType::Bool) { m_value.i = value ? 1 : 0; }
    Variable(std::string_view text);
    Variable(const std::string& text) : Variable(std::string_view(text)) {}
    Variable(std::string&& text);
    Variable(const char* text) : Variable(std::string_view(text)) {}

    static Variable fromPointer(void* pointer) noexcept;
    static Variable makeRaw(std::vector<std::uint8_t> bytes);
    static Variable makeTable();
    static Variable makeArray();
    static Variable makeArray(std::vector<Variable> items);
    static Variable makeMulti(std::vector<Variable>&& values);
    static Variable makeMulti(const std::vector<Variable>& values);
    static Variable makeFunction(ScriptCallable* callable);  // takes over one reference
    static Variable fromString(StringObject* string);          // adds a reference
    static Variable unset() noexcept;

    Variable(const Variable& other) noexcept : m_type(other.m_type), m_value(other.m_value) { retain(); }
    Variable(Variable&& other) noexcept : m_type(other.m_type), m_value(other.m_value) {
        other.m_type = VarType::Nil;
    }
    Variable& operator=(const Variable& other) noexcept {
        if (this != &other) {
            other.retain();
            release();
            m_type = other.m_type;
            m_value = other.m_value;
        }
        return *this;
    }
    Variable& operator=(Variable&& other) noexcept {
        if (this != &other) {
            release();
            m_type = other.m_type;
            m_value = other.m_value;
            other.m_type = VarType::Nil;
        }
        return *this;
    }
    ~Variable() { release(); }

    VarType type() const noexcept { return m_type; }
    bool isNil() const noexcept { return m_type == VarType::Nil; }
    bool isUnset() const noexcept { return m_type == VarType::Unset; }
    bool isNumericLike() const noexcept {
        return m_type == VarType::Int || m_type == VarType::Float || m_type == VarType::Bool;
    }
    bool isHeap() const noexcept { return isHeapType(m_type); }

    std::int32_t asInt() const noexcept { return m_value.i; }
    float asFloat() const noexcept { return m_value.f; }
    bool asBool() const noexcept { return m_value.i != 0; }
    void* asPointer() const noexcept { return m_value.p; }
    const std::string& asString() const noexcept;
    StringObject* stringObject() const noexcept { return m_value.s; }
    // The string for changing in place; a shared string is copied first.
    std::string& mutableString();
    const std::vector<std::uint8_t>& asRaw() const noexcept;
    std::vector<Variable>& arrayItems() const noexcept;
    ArrayObject* arrayObject() const noexcept { return m_value.a; }
    Table& table() const noexcept;
    TableObject* tableObject() const noexcept { return m_value.t; }
    std::vector<Variable>& multiValues() const noexcept;
    ScriptCallable& callable() const noexcept { return *m_value.c; }
    const void* identity() const noexcept { return m_value.heap; }

    void setInt(std::int32_t value) noexcept { release(); m_type = VarType::Int; m_value.i = value; }
    void setFloat(float value) noexcept { release(); m_type = VarType::Float; m_value.f = value; }
    void setBool(bool value) noexcept { release(); m_type = VarType::Bool; m_value.i = value ? 1 : 0; }
    void setNil() noexcept { release(); m_type = VarType::Nil; }
    // For the evaluator's scalar fast paths: the caller knows the old value holds no reference.
    void setIntUnchecked(std::int32_t value) noexcept { m_type = VarType::Int; m_value.i = value; }
    void setFloatUnchecked(float value) noexcept { m_type = VarType::Float; m_value.f = value; }

    // Scalars packed in 64 bits for the evaluator's fast path: the kind above bit 32, the 32-bit
    // payload below (bools as 0 or 1). Non-scalar kinds give kNotScalar.
    static constexpr std::uint64_t kNotScalar = std::uint64_t(0xFF) << 32;
    std::uint64_t scalarBits() const noexcept {
        constexpr std::uint32_t scalarKinds = (1u << 0) | (1u << 1) | (1u << 2) | (1u << 5);
        auto kind = static_cast<std::uint32_t>(m_type);
        if (!((scalarKinds >> (kind & 31u)) & 1u) || kind > 31u) return kNotScalar;
        return (std::uint64_t(kind) << 32) | static_cast<std::uint32_t>(m_value.i);
    }
    static Variable fromScalarBits(std::uint64_t bits) noexcept {
        Variable v;
        v.m_type = static_cast<VarType>(bits >> 32);
        v.m_value.i = static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
        return v;
    }
    // Overwrites a value that holds no reference with a scalar.
    void setScalarBits(std::uint64_t bits) noexcept {
        release();
        m_type = static_cast<VarType>(bits >> 32);
        m_value.i = static_cast<std::int32_t>(static_cast<std::uint32_t>(bits));
    }

    // The printed form: "not", 42, 1.500000, [1, 2], {a: 1}, "$1F00", "[function]", ...
    std::string toString() const;
    void appendTo(std::string& out) const;

    static constexpr bool isHeapType(VarType type) noexcept {
        // One shift and mask: strings, raw bytes, arrays, multivalues, tables, functions.
        constexpr std::uint32_t heapKinds = (1u << 3) | (1u << 4) | (1u << 7) | (1u << 8) | (1u << 9) | (1u << 10);
        return (heapKinds >> (static_cast<std::uint32_t>(type) & 31u)) & 1u;
    }

private:
    void retain() const noexcept {
        if (isHeapType(m_type)) ++m_value.heap->refCount;
    }
    void release() noexcept {
        if (isHeapType(m_type) && --m_value.heap->refCount == 0) destroyHeapObject(m_type, m_value.heap);
    }

    VarType m_type;
    union Payload {
        std::int32_t i;
        float f;
        bool b;
        void* p;
        HeapObject* heap;
        StringObject* s;
        RawObject* r;
        ArrayObject* a;
        TableObject* t;
        MultiResult* m;
        ScriptCallable* c;
    } m_value;
};

struct StringObject : HeapObject {
    std::string text;
    std::uint32_t hash = 0;
    bool hashed = false;

    std::uint32_t hashValue() noexcept;
};

struct RawObject : HeapObject {
    std::vector<std::uint8_t> bytes;
};

// Containers can form reference cycles; the cycle collector finds them through this list.
struct TrackedObject : HeapObject {
    TrackedObject* gcPrevious = nullptr;
    TrackedObject* gcNext = nullptr;
    std::uint32_t gcRefs = 0;
    VarType gcType;
    explicit TrackedObject(VarType type) noexcept;
    ~TrackedObject();
    TrackedObject(const TrackedObject&) = delete;
    TrackedObject& operator=(const TrackedObject&) = delete;
};

struct ArrayObject : TrackedObject {
    ArrayObject() noexcept : TrackedObject(VarType::Array) {}
    std::vector<Variable> items;
};

struct MultiResult : TrackedObject {
    MultiResult() noexcept : TrackedObject(VarType::MultiValue) {}
    std::vector<Variable> values;
};

// Frees containers that only keep each other alive. Safe whenever every value the running
// code uses is held by a Variable (the interpreter calls it between statements). Returns
// how many containers it freed.
std::size_t collectCycles();
// Set when enough containers were made since the last collection that one should run soon.
extern bool g_collectionDue;

std::uint32_t hashBytes(std::string_view bytes) noexcept;

// A new string object with one reference (for keys built by the interpreter).
StringObject* newStringObject(std::string_view text);
inline void releaseString(StringObject* string) noexcept {
    if (string && --string->refCount == 0) destroyHeapObject(VarType::String, string);
}

bool isTruthy(const Variable& value) noexcept;
bool variablesEqual(const Variable& a, const Variable& b) noexcept;
// -1, 0 or +1; throws ScriptError "Cannot compare <a> with <b>" for other kinds.
int compareVariables(const Variable& a, const Variable& b);
bool prefersArrayStorage(const Variable& key) noexcept;
// The 1-based array index a key addresses, or 0 when it does not prefer array storage.
std::int64_t arrayIndexOfKey(const Variable& key) noexcept;
void promoteArrayVariableToTable(Variable& variable);
// Throws "Table key must be string, number, or bool" for other kinds.
std::string keyToString(const Variable& key);
// Throws "Expected a numeric value" for non-numeric kinds.
double toDouble(const Variable& value);
std::int32_t toInt(const Variable& value);

}  // namespace korvel
