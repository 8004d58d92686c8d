// A script table: a hash map from byte-string key to Variable that remembers insertion order.
//
// Entries sit in a vector in the order they were first inserted; an open-addressing index of
// entry numbers finds them. Keys are shared string objects with a cached hash, so a key
// written in the script source is hashed once. Removing a key leaves a hole that the next
// rebuild of the index squeezes out. Every change bumps `version()`, which iteration and the
// interpreter's look-up caches use to notice mutation.
#pragma once

#include "core/variable.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace korvel {

class Table {
public:
    struct Entry {
        StringObject* key = nullptr;  // null for a removed entry
        Variable value;
    };

    Table() = default;
    Table(const Table&) = delete;
    Table& operator=(const Table&) = delete;
    ~Table();

    Variable* find(std::string_view key) const noexcept;
    Variable* find(StringObject* key) const noexcept;
    // The value under key, inserted as nil when missing.
    Variable& getOrInsert(std::string_view key);
    Variable& getOrInsert(StringObject* key);
    void set(std::string_view key, Variable value) { getOrInsert(key) = std::move(value); }
    bool erase(std::string_view key);
    void clear();
    void reserve(std::size_t count);

    std::size_t size() const noexcept { return m_live; }
    // How many keys "1", "2", ... are present in a row from "1". Remembered between calls and
    // extended from where it stopped, so appending with t[#t + 1] stays linear.
    std::int64_t sequenceLength() const;
    std::uint32_t version() const noexcept { return m_version; }
    void markMutated() noexcept { ++m_version; }

    // Entries in insertion order, removed ones included (their key is null).
    const std::vector<Entry>& entries() const noexcept { return m_entries; }
    std::vector<Entry>& entries() noexcept { return m_entries; }

private:
    std::int32_t findSlot(std::string_view key, std::uint32_t hash) const noexcept;
    Variable& insertNew(StringObject* key, std::uint32_t hash);
    void rebuildIndex(std::size_t capacity);

    std::vector<Entry> m_entries;
    std::vector<std::int32_t> m_index;  // entry number, -1 for an empty slot; size a power of two
    std::uint32_t m_live = 0;
    std::uint32_t m_version = 0;
    mutable std::int64_t m_sequence = 0;  // keys "1".."m_sequence" are all present
};

struct TableObject : TrackedObject {
    TableObject() noexcept : TrackedObject(VarType::Table) {}
    Table table;
};

}  // namespace korvel
