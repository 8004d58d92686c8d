// Internal values of the interpreter: a 16-byte tagged value, intrusively counted heap objects
// (strings, tables, functions, user data, iterators, owning environments), SmallValueStore and
// MultiValue.
#pragma once

#include <cfloat>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvel::lua {

// Kinds visible to scripts come first, in the order of describeValueType; Environment is private to
// the evaluator (the slots a closure keeps alive) and never escapes into script-visible places.
enum class Kind : std::uint8_t { Nil, Integer, Float, Boolean, String, Table, Function, UserData, Iterator, Environment };

// Every heap object. Objects that can hold values (all but strings) are also linked into the
// thread's list of containers, which the cycle collector (collector.cpp) walks.
struct Object {
    std::uint32_t refCount = 0;
    std::uint32_t collectorCount = 0;      // scratch for the cycle collector
    Object* previousContainer = nullptr;
    Object* nextContainer = nullptr;
    Kind kind;
    bool collectorMarked = false;
    explicit Object(Kind objectKind) : kind(objectKind) {
        if (objectKind != Kind::String) linkContainer();
    }
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    ~Object() {
        if (previousContainer) unlinkContainer();
    }

private:
    void linkContainer();
    void unlinkContainer();
};

// Containers made on this thread since the last cycle collection, and the count that makes the
// next one due (it grows with the live containers, so collection work stays proportional).
inline thread_local std::size_t t_containersSinceCollection = 0;
inline thread_local std::size_t t_collectionThreshold = 10000;

// Frees an object whose count reached zero. Children are released through a work list, so a
// million-long linked list of tables is freed without deep native recursion.
void destroyObject(Object* object) noexcept;

inline void retainObject(Object* object) { ++object->refCount; }
inline void releaseObject(Object* object) {
    if (--object->refCount == 0) destroyObject(object);
}

struct StringObject;
struct Table;
struct FunctionObject;
struct UserDataObject;
struct IteratorObject;
struct EnvironmentObject;

class Value {
public:
    Value() noexcept { m_payload.integer = 0; }
    Value(const Value& other) noexcept : m_kind(other.m_kind), m_payload(other.m_payload) {
        if (isObject()) retainObject(m_payload.object);
    }
    Value(Value&& other) noexcept : m_kind(other.m_kind), m_payload(other.m_payload) {
        other.m_kind = Kind::Nil;
    }
    Value& operator=(const Value& other) noexcept {
        if (other.isObject()) retainObject(other.m_payload.object);
        if (isObject()) releaseObject(m_payload.object);
        m_kind = other.m_kind;
        m_payload = other.m_payload;
        return *this;
    }
    Value& operator=(Value&& other) noexcept {
        if (this != &other) {
            if (isObject()) releaseObject(m_payload.object);
            m_kind = other.m_kind;
            m_payload = other.m_payload;
            other.m_kind = Kind::Nil;
        }
        return *this;
    }
    ~Value() {
        if (isObject()) releaseObject(m_payload.object);
    }

    static Value integer(std::int64_t value) {
        Value result;
        result.m_kind = Kind::Integer;
        result.m_payload.integer = value;
        return result;
    }
    static Value number(double value) {
        Value result;
        result.m_kind = Kind::Float;
        result.m_payload.number = value;
        return result;
    }
    static Value boolean(bool value) {
        Value result;
        result.m_kind = Kind::Boolean;
        result.m_payload.boolean = value;
        return result;
    }
    // Takes a new reference to the object.
    static Value object(Object* object) {
        Value result;
        result.m_kind = object->kind;
        result.m_payload.object = object;
        retainObject(object);
        return result;
    }
    static Value string(std::string_view text);

    Kind kind() const { return m_kind; }
    bool isNil() const { return m_kind == Kind::Nil; }
    bool isObject() const { return m_kind >= Kind::String; }
    bool isNumber() const { return m_kind == Kind::Integer || m_kind == Kind::Float; }
    bool isTruthy() const { return m_kind > Kind::Boolean || (m_kind != Kind::Nil && (m_kind != Kind::Boolean || m_payload.boolean)); }

    std::int64_t asInteger() const { return m_payload.integer; }
    double asFloat() const { return m_payload.number; }
    double toDouble() const { return m_kind == Kind::Integer ? static_cast<double>(m_payload.integer) : m_payload.number; }
    bool asBoolean() const { return m_payload.boolean; }
    Object* asObject() const { return m_payload.object; }
    StringObject* asString() const { return reinterpret_cast<StringObject*>(m_payload.object); }
    Table* asTable() const { return reinterpret_cast<Table*>(m_payload.object); }
    FunctionObject* asFunction() const { return reinterpret_cast<FunctionObject*>(m_payload.object); }
    // User data is polymorphic, so its Object part is not at offset 0: defined in vm_internal.h.
    UserDataObject* asUserData() const;
    IteratorObject* asIterator() const { return reinterpret_cast<IteratorObject*>(m_payload.object); }
    EnvironmentObject* asEnvironment() const { return reinterpret_cast<EnvironmentObject*>(m_payload.object); }

    // Integer or float content without a kind check, for arithmetic fast paths.
    void setInteger(std::int64_t value) {
        if (isObject()) releaseObject(m_payload.object);
        m_kind = Kind::Integer;
        m_payload.integer = value;
    }
    void reset() {
        if (isObject()) releaseObject(m_payload.object);
        m_kind = Kind::Nil;
    }
    void setFloat(double value) {
        if (isObject()) releaseObject(m_payload.object);
        m_kind = Kind::Float;
        m_payload.number = value;
    }

    std::string_view stringView() const;
    // Value::toString of the evaluator: "table: 0x...", "function: name", "%g" floats.
    std::string toString() const;

private:
    Kind m_kind = Kind::Nil;
    union Payload {
        std::int64_t integer;
        double number;
        bool boolean;
        Object* object;
    } m_payload;
};

static_assert(sizeof(Value) == 16, "values are meant to stay two words");

// Immutable byte string; the hash is computed on first use as a table key.
struct StringObject : Object {
    std::size_t length = 0;
    mutable std::uint32_t hash = 0;
    mutable bool hashed = false;

    StringObject() : Object(Kind::String) {}
    const char* data() const { return reinterpret_cast<const char*>(this + 1); }
    char* mutableData() { return reinterpret_cast<char*>(this + 1); }
    std::string_view view() const { return {data(), length}; }
    std::uint32_t hashValue() const {
        if (!hashed) computeHash();
        return hash;
    }
    void computeHash() const;

    // Allocates the header and the bytes in one block, filled by the caller when text is empty.
    static StringObject* create(std::string_view text);
    static StringObject* allocate(std::size_t length);
};

inline std::string_view Value::stringView() const { return asString()->view(); }

inline Value Value::string(std::string_view text) {
    Value result;
    result.m_kind = Kind::String;
    StringObject* object = StringObject::create(text);
    retainObject(object);
    result.m_payload.object = object;
    return result;
}

// A small vector of values: N places inline, a heap array beyond. Its size is fixed when it is
// made (`reset`), so pointers to its values stay valid while it lives; it never moves. The inline
// places are raw storage and only the `count` in use are constructed: a one-slot activation pays
// for one value, not eight.
template <std::size_t N> class SmallValueStore {
public:
    SmallValueStore() = default;
    SmallValueStore(const SmallValueStore&) = delete;
    SmallValueStore& operator=(const SmallValueStore&) = delete;
    ~SmallValueStore() { clear(); }

    // Makes `count` nil values; earlier contents are dropped.
    void reset(std::size_t count) {
        clear();
        if (count <= N) {
            for (std::size_t i = 0; i < count; ++i) new (&m_data[i]) Value();
        } else {
            m_data = new Value[count];
        }
        m_size = count;
    }
    // Uses `count` nil values that the caller owns (a stack activation's block of the VM's value
    // stack) instead of allocating; they are reset to nil by `clear` and never freed here.
    void borrow(Value* external, std::size_t count) {
        clear();
        m_data = external;
        m_size = count;
        m_borrowed = true;
    }
    // Releases every value and leaves the store empty.
    void clear() {
        if (m_data == inlineValues()) {
            for (std::size_t i = 0; i < m_size; ++i) m_data[i].~Value();
        } else if (m_borrowed) {
            for (std::size_t i = 0; i < m_size; ++i) m_data[i].reset();
            m_borrowed = false;
            m_data = inlineValues();
        } else {
            delete[] m_data;
            m_data = inlineValues();
        }
        m_size = 0;
    }
    // Moves the values out into `out` (the collector breaks cycles this way).
    void moveOut(std::vector<Value>& out) {
        for (std::size_t i = 0; i < m_size; ++i) out.push_back(std::move(m_data[i]));
        clear();
    }
    Value* data() { return m_data; }
    const Value* data() const { return m_data; }
    std::size_t size() const { return m_size; }
    Value& operator[](std::size_t index) { return m_data[index]; }
    const Value& operator[](std::size_t index) const { return m_data[index]; }

private:
    Value* inlineValues() { return std::launder(reinterpret_cast<Value*>(m_storage)); }

    alignas(Value) unsigned char m_storage[N * sizeof(Value)];
    Value* m_data = inlineValues();   // the inline places, a heap array past N, or borrowed places
    std::size_t m_size = 0;
    bool m_borrowed = false;
};

// The slots of one function activation or chunk and the environment it is nested in (the one
// the running closure captured). Names resolve at parse time to "so many environments out, this
// slot", so a read walks `parent` that many times and indexes.
struct Environment {
    SmallValueStore<8> slots;
    Environment* parent = nullptr;
};

// Empties a native-stack environment when its activation ends.
inline void clearEnvironmentSlots(Environment& environment) { environment.slots.clear(); }

// An environment that closures can capture: counted like every heap object, and holding its parent
// alive through `parentObject` (the enclosing environment is always an owning one, since it
// contains the function whose activation this is).
struct EnvironmentObject : Object {
    Environment environment;
    Value parentObject;
    EnvironmentObject() : Object(Kind::Environment) { ++t_environmentsAllocated; }
    // Heap environments made on this thread; the tests read it to check that activations of
    // functions without nested functions stay on the native stack.
    static inline thread_local std::uint64_t t_environmentsAllocated = 0;
};

// Strings longer than this cannot be made (string.rep, concatenation, formatting, gsub).
constexpr std::size_t kMaxStringLength = std::size_t{1} << 28;

// Largest magnitude accepted by the integral-result and key rules; 2^63 itself does not fit an int64,
// so the test is "strictly below".
constexpr double kIntegralLimit = 9223372036854775808.0;
constexpr double kIntegralTolerance = 2.220446049250313e-16;

// The integral-result rule: a float within the tolerance of its nearest integer becomes that integer.
inline bool floatToIntegral(double value, std::int64_t& out) {
    // Below 2^51 in magnitude, adding and subtracting 1.5 * 2^52 rounds to the nearest integer
    // without the two conversions; this runs after every float operation. It needs doubles to be
    // evaluated as doubles (not in x87 extended precision), hence the FLT_EVAL_METHOD test.
    constexpr double kSmallLimit = 2251799813685248.0;
    constexpr double kRoundingBias = 6755399441055744.0;
    if (FLT_EVAL_METHOD == 0 && value < kSmallLimit && value > -kSmallLimit) {
        double nearest = (value + kRoundingBias) - kRoundingBias;
        double difference = value - nearest;
        if (difference > kIntegralTolerance || difference < -kIntegralTolerance) return false;
        out = static_cast<std::int64_t>(nearest);
        return true;
    }
    if (!(value > -kIntegralLimit - 1.0 && value < kIntegralLimit)) return false;
    std::int64_t truncated = static_cast<std::int64_t>(value);
    double difference = value - static_cast<double>(truncated);
    if (difference <= kIntegralTolerance && difference >= -kIntegralTolerance) {
        out = truncated;
        return true;
    }
    if (difference > 0.5 && static_cast<double>(truncated + 1) - value <= kIntegralTolerance) {
        out = truncated + 1;
        return true;
    }
    if (difference < -0.5 && value - static_cast<double>(truncated - 1) <= kIntegralTolerance) {
        out = truncated - 1;
        return true;
    }
    return false;
}

inline Value numericResult(double value) {
    std::int64_t integral = 0;
    if (floatToIntegral(value, integral)) return Value::integer(integral);
    return Value::number(value);
}

// Results of calls and expression lists: two values inline, more on the heap.
class MultiValue {
public:
    MultiValue() = default;
    MultiValue(Value value) : m_count(1) { m_inline[0] = std::move(value); }

    std::size_t size() const { return m_count; }
    bool empty() const { return m_count == 0; }
    void push(Value value) {
        if (m_count < 2) m_inline[m_count] = std::move(value);
        else m_rest.push_back(std::move(value));
        ++m_count;
    }
    // Replaces the contents by one value (a `return x`), keeping any heap part for reuse.
    void setOne(Value value) {
        if (m_count > 1) {
            m_inline[1] = Value();
            m_rest.clear();
        }
        m_inline[0] = std::move(value);
        m_count = 1;
    }
    Value& operator[](std::size_t index) { return index < 2 ? m_inline[index] : m_rest[index - 2]; }
    const Value& operator[](std::size_t index) const { return index < 2 ? m_inline[index] : m_rest[index - 2]; }
    Value first() const { return m_count > 0 ? m_inline[0] : Value(); }
    void clear() {
        m_inline[0] = Value();
        m_inline[1] = Value();
        m_rest.clear();
        m_count = 0;
    }

private:
    std::size_t m_count = 0;
    Value m_inline[2];
    std::vector<Value> m_rest;
};

using ValueSpan = std::span<const Value>;

} // namespace korvel::lua
