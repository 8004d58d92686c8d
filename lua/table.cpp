// Table storage: array part, insertion-ordered hash part, cached sequence length, sorted keys.
#include "table_internal.h"

#include <algorithm>
#include <cstddef>

namespace korvel::lua {

namespace {

std::uint32_t mixInteger(std::uint64_t value) {
    value ^= value >> 33;
    value *= 0xff51afd7ed558ccdULL;
    value ^= value >> 33;
    return static_cast<std::uint32_t>(value);
}

} // namespace

bool tryMakeKeyFromValue(const Value& value, Value& key) {
    switch (value.kind()) {
    case Kind::Integer:
    case Kind::String:
    case Kind::Boolean:
        key = value;
        return true;
    case Kind::Float: {
        std::int64_t integral = 0;
        double number = value.asFloat();
        // Tables accept a float key only when it names an integer; 2^63 does not fit one.
        if (number != number || number >= kIntegralLimit || number < -kIntegralLimit) return false;
        if (!floatToIntegral(number, integral)) return false;
        key = Value::integer(integral);
        return true;
    }
    default:
        return false;
    }
}

std::uint32_t hashKey(const Value& key) {
    switch (key.kind()) {
    case Kind::Integer: return mixInteger(static_cast<std::uint64_t>(key.asInteger()));
    case Kind::String: return key.asString()->hashValue();
    case Kind::Boolean: return key.asBoolean() ? 0x9e3779b9u : 0x7f4a7c15u;
    default: return 0;
    }
}

bool keysEqual(const Value& left, const Value& right) {
    if (left.kind() != right.kind()) return false;
    switch (left.kind()) {
    case Kind::Integer: return left.asInteger() == right.asInteger();
    case Kind::Boolean: return left.asBoolean() == right.asBoolean();
    case Kind::String: {
        const StringObject* a = left.asString();
        const StringObject* b = right.asString();
        return a == b || (a->length == b->length && a->hashValue() == b->hashValue() &&
                          std::memcmp(a->data(), b->data(), a->length) == 0);
    }
    default: return false;
    }
}

bool keyLess(const Value& left, const Value& right) {
    if (left.kind() != right.kind()) {
        auto rank = [](Kind kind) { return kind == Kind::Integer ? 0 : kind == Kind::String ? 1 : 2; };
        return rank(left.kind()) < rank(right.kind());
    }
    switch (left.kind()) {
    case Kind::Integer: return left.asInteger() < right.asInteger();
    case Kind::String: return left.stringView() < right.stringView();
    case Kind::Boolean: return !left.asBoolean() && right.asBoolean();
    default: return false;
    }
}

const Value* Table::findInHash(const Value& key) const {
    if (m_index.empty()) return nullptr;
    std::uint32_t hash = hashKey(key);
    std::size_t mask = m_index.size() - 1;
    for (std::size_t probe = hash & mask;; probe = (probe + 1) & mask) {
        std::uint32_t slot = m_index[probe];
        if (slot == 0) return nullptr;
        const HashEntry& entry = m_entries[slot - 1];
        if (entry.hash == hash && keysEqual(entry.key, key)) return &entry.value;
    }
}

const Value* Table::findString(const StringObject* key) const {
    if (m_index.empty()) return nullptr;
    std::uint32_t hash = key->hashValue();
    std::size_t mask = m_index.size() - 1;
    for (std::size_t probe = hash & mask;; probe = (probe + 1) & mask) {
        std::uint32_t slot = m_index[probe];
        if (slot == 0) return nullptr;
        const HashEntry& entry = m_entries[slot - 1];
        if (entry.hash == hash && entry.key.kind() == Kind::String) {
            const StringObject* other = entry.key.asString();
            if (other == key || (other->length == key->length &&
                                 std::memcmp(other->data(), key->data(), key->length) == 0)) {
                return &entry.value;
            }
        }
    }
}

const Value* Table::findStringUpdatingHint(const StringObject* key, std::uint32_t& hint) const {
    const Value* slot = findString(key);
    if (slot) {
        // Entries are the first member of HashEntry, so the value's entry index follows from its address.
        auto* entry = reinterpret_cast<const HashEntry*>(reinterpret_cast<const char*>(slot) - offsetof(HashEntry, value));
        hint = static_cast<std::uint32_t>(entry - m_entries.data());
    }
    return slot;
}

const Value* Table::find(const Value& key) const {
    switch (key.kind()) {
    case Kind::Integer: return findInteger(key.asInteger());
    case Kind::String: return findString(key.asString());
    default: return findInHash(key);
    }
}

void Table::rebuildHash(std::size_t minimumCapacity) {
    std::vector<HashEntry> live;
    live.reserve(std::max<std::size_t>(minimumCapacity, 4));
    for (HashEntry& entry : m_entries) {
        if (!entry.value.isNil()) live.push_back(std::move(entry));
    }
    m_entries = std::move(live);
    std::size_t indexSize = 8;
    while (indexSize < m_entries.capacity() * 2) indexSize *= 2;
    m_index.assign(indexSize, 0);
    std::size_t mask = indexSize - 1;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        std::size_t probe = m_entries[i].hash & mask;
        while (m_index[probe] != 0) probe = (probe + 1) & mask;
        m_index[probe] = static_cast<std::uint32_t>(i + 1);
    }
}

void Table::insertIntoHash(const Value& key, std::uint32_t hash, Value value) {
    // Entries never move between rebuilds, so growing only when the dense vector is full keeps
    // the index load at one half at most.
    if (m_entries.size() == m_entries.capacity() || m_index.empty()) {
        rebuildHash(std::max<std::size_t>(m_hashLive * 2, 4));
    }
    m_entries.push_back(HashEntry{key, std::move(value), hash});
    std::size_t mask = m_index.size() - 1;
    std::size_t probe = hash & mask;
    while (m_index[probe] != 0) probe = (probe + 1) & mask;
    m_index[probe] = static_cast<std::uint32_t>(m_entries.size());
    ++m_hashLive;
}

void Table::migrateFromHash() {
    while (m_hashLive > 0) {
        Value* slot = findInHashMutable(Value::integer(static_cast<std::int64_t>(m_array.size()) + 1));
        if (!slot || slot->isNil()) return;
        m_array.push_back(std::move(*slot));
        *slot = Value();
        --m_hashLive;
    }
}

void Table::trimArrayTail() {
    while (!m_array.empty() && m_array.back().isNil()) {
        m_array.pop_back();
        --m_arrayNils;
    }
}

void Table::setInteger(std::int64_t key, Value value) {
    ++m_modifications;
    std::size_t size = m_array.size();
    if (key >= 1 && static_cast<std::uint64_t>(key) <= size) {
        Value& slot = m_array[static_cast<std::size_t>(key - 1)];
        if (slot.isNil() != value.isNil()) m_arrayNils += value.isNil() ? 1 : std::size_t(-1);
        slot = std::move(value);
        if (static_cast<std::uint64_t>(key) == size && m_array.back().isNil()) trimArrayTail();
        return;
    }
    if (static_cast<std::uint64_t>(key) == size + 1 && key >= 1) {
        if (value.isNil()) {
            // The key may still live in the hash part.
            if (Value* slot = findInHashMutable(Value::integer(key)); slot && !slot->isNil()) {
                *slot = Value();
                --m_hashLive;
            }
            return;
        }
        if (m_hashLive > 0) {
            if (Value* slot = findInHashMutable(Value::integer(key)); slot && !slot->isNil()) {
                *slot = Value();
                --m_hashLive;
            }
        }
        m_array.push_back(std::move(value));
        if (m_hashLive > 0) migrateFromHash();
        return;
    }
    Value keyValue = Value::integer(key);
    if (Value* slot = findInHashMutable(keyValue)) {
        if (slot->isNil() && !value.isNil()) ++m_hashLive;
        else if (!slot->isNil() && value.isNil()) --m_hashLive;
        *slot = std::move(value);
        return;
    }
    if (value.isNil()) return;
    insertIntoHash(keyValue, hashKey(keyValue), std::move(value));
}

void Table::set(const Value& key, Value value) {
    if (key.kind() == Kind::Integer) {
        setInteger(key.asInteger(), std::move(value));
        return;
    }
    ++m_modifications;
    if (Value* slot = findInHashMutable(key)) {
        if (slot->isNil() && !value.isNil()) ++m_hashLive;
        else if (!slot->isNil() && value.isNil()) --m_hashLive;
        *slot = std::move(value);
        return;
    }
    if (value.isNil()) return;
    insertIntoHash(key, hashKey(key), std::move(value));
}

std::int64_t Table::sequenceLength() {
    if (m_lengthStamp == m_modifications) return m_cachedLength;
    std::int64_t length = 0;
    if (m_arrayNils == 0) {
        length = static_cast<std::int64_t>(m_array.size());
    } else {
        while (static_cast<std::size_t>(length) < m_array.size() && !m_array[static_cast<std::size_t>(length)].isNil()) ++length;
    }
    if (static_cast<std::size_t>(length) == m_array.size() && m_hashLive > 0) {
        while (true) {
            const Value* slot = findInHash(Value::integer(length + 1));
            if (!slot || slot->isNil()) break;
            ++length;
        }
    }
    m_cachedLength = length;
    m_lengthStamp = m_modifications;
    return length;
}

std::size_t Table::entryCount() const {
    return m_array.size() - m_arrayNils + m_hashLive;
}

void Table::clear() {
    // Move the contents out first: releasing them may run destructors that look at this table.
    std::vector<Value> array = std::move(m_array);
    std::vector<HashEntry> entries = std::move(m_entries);
    m_array.clear();
    m_entries.clear();
    m_index.clear();
    m_arrayNils = 0;
    m_hashLive = 0;
    m_sortedKeys.clear();
    ++m_modifications;
}

bool Table::nextEntry(std::size_t& position, Value& key, Value& value) const {
    while (position < m_array.size()) {
        std::size_t index = position++;
        if (!m_array[index].isNil()) {
            key = Value::integer(static_cast<std::int64_t>(index) + 1);
            value = m_array[index];
            return true;
        }
    }
    while (position - m_array.size() < m_entries.size()) {
        const HashEntry& entry = m_entries[position - m_array.size()];
        ++position;
        if (!entry.value.isNil()) {
            key = entry.key;
            value = entry.value;
            return true;
        }
    }
    // The array part may have grown while traversing; stay at the end.
    position = m_array.size() + m_entries.size();
    return false;
}

const std::vector<Value>& Table::sortedKeys() {
    if (m_sortedStamp == m_modifications) return m_sortedKeys;
    m_sortedKeys.clear();
    m_sortedKeys.reserve(entryCount());
    for (std::size_t i = 0; i < m_array.size(); ++i) {
        if (!m_array[i].isNil()) m_sortedKeys.push_back(Value::integer(static_cast<std::int64_t>(i) + 1));
    }
    for (const HashEntry& entry : m_entries) {
        if (!entry.value.isNil()) m_sortedKeys.push_back(entry.key);
    }
    std::sort(m_sortedKeys.begin(), m_sortedKeys.end(), keyLess);
    m_sortedStamp = m_modifications;
    return m_sortedKeys;
}

} // namespace korvel::lua
