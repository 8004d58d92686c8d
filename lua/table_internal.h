// Tables: an array part for the keys 1..n and a hash part kept in insertion order, with the
// sequence length cached against a modification counter.
#pragma once

#include "value_internal.h"

#include <cstdint>
#include <vector>

namespace korvel::lua {

// Turns a value into a table key: integers, strings and booleans as they are; a float only when it
// lies within the tolerance of an integer (so t[1.0] is t[1]). False for every other value.
bool tryMakeKeyFromValue(const Value& value, Value& key);

struct Table : Object {
    Table() : Object(Kind::Table) {}

    // Lookup with an already normalised key (integer, string or boolean).
    const Value* find(const Value& key) const;
    const Value* findInteger(std::int64_t key) const {
        if (static_cast<std::uint64_t>(key - 1) < m_array.size()) return &m_array[static_cast<std::size_t>(key - 1)];
        return m_hashLive == 0 ? nullptr : findInHash(Value::integer(key));
    }
    const Value* findString(const StringObject* key) const;
    // Field access with a per-site hint: the entry index where this key was found last time.
    // Tables built alike (same keys, same order) keep the hint valid across all of them.
    const Value* findStringCached(const StringObject* key, std::uint32_t& hint) const {
        if (hint < m_entries.size()) {
            const HashEntry& entry = m_entries[hint];
            if (entry.key.kind() == Kind::String && entry.key.asObject() == key) return &entry.value;
        }
        return findStringUpdatingHint(key, hint);
    }
    // Overwrites a present field through the hint; false when the slow path must run.
    bool assignStringCached(const StringObject* key, std::uint32_t hint, Value& value) {
        if (hint >= m_entries.size() || value.isNil()) return false;
        HashEntry& entry = m_entries[hint];
        if (entry.key.kind() != Kind::String || entry.key.asObject() != key || entry.value.isNil()) return false;
        entry.value = std::move(value);   // the key set is unchanged, so no cached length or order goes stale
        return true;
    }
    Value get(const Value& key) const {
        const Value* slot = find(key);
        return slot ? *slot : Value();
    }

    // Stores under a normalised key; nil removes. Keys up to one past the array part go there.
    void set(const Value& key, Value value);
    void setInteger(std::int64_t key, Value value);
    void append(Value value) { setInteger(static_cast<std::int64_t>(m_array.size()) + 1, std::move(value)); }

    std::int64_t sequenceLength();
    std::size_t entryCount() const;
    void clear();

    // Traversal in a stable order: array part first, then the hash part in insertion order.
    // `position` is 0 to start; returns false at the end. Robust against changes during traversal.
    bool nextEntry(std::size_t& position, Value& key, Value& value) const;

    // All keys sorted: integers, then strings (bytewise), then false before true.
    const std::vector<Value>& sortedKeys();

    std::vector<Value>& arrayPart() { return m_array; }
    // Every stored value (not the keys, which are never containers), for the cycle collector.
    template <typename Visit> void forEachValue(Visit&& visit) const {
        for (const Value& value : m_array) visit(value);
        for (const HashEntry& entry : m_entries) visit(entry.value);
    }

private:
    struct HashEntry {
        Value key;      // nil marks a slot freed by a rehash-pending removal
        Value value;    // nil means the key was removed
        std::uint32_t hash = 0;
    };

    const Value* findInHash(const Value& key) const;
    const Value* findStringUpdatingHint(const StringObject* key, std::uint32_t& hint) const;
    Value* findInHashMutable(const Value& key) { return const_cast<Value*>(findInHash(key)); }
    void insertIntoHash(const Value& key, std::uint32_t hash, Value value);
    void rebuildHash(std::size_t minimumCapacity);
    void migrateFromHash();
    void trimArrayTail();

    std::vector<Value> m_array;
    std::size_t m_arrayNils = 0;               // nils inside the array part
    std::vector<HashEntry> m_entries;          // insertion order, removed ones keep their place
    std::vector<std::uint32_t> m_index;        // open addressing, entry index + 1, 0 = empty
    std::size_t m_hashLive = 0;
    std::uint64_t m_modifications = 0;
    std::uint64_t m_lengthStamp = ~std::uint64_t{0};
    std::int64_t m_cachedLength = 0;
    std::uint64_t m_sortedStamp = ~std::uint64_t{0};
    std::vector<Value> m_sortedKeys;
};

std::uint32_t hashKey(const Value& key);
bool keysEqual(const Value& left, const Value& right);
// Strict weak order of sortedTableKeys.
bool keyLess(const Value& left, const Value& right);

} // namespace korvel::lua
