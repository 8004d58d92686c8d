#include "core/table.h"

#include <bit>
#include <charconv>

namespace korvel {

namespace {
constexpr std::int32_t kEmpty = -1;
constexpr std::int32_t kRemoved = -2;
}  // namespace

Table::~Table() {
    for (Entry& entry : m_entries) releaseString(entry.key);
}

std::int32_t Table::findSlot(std::string_view key, std::uint32_t hash) const noexcept {
    if (m_index.empty()) return -1;
    std::size_t mask = m_index.size() - 1;
    for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        std::int32_t entry = m_index[slot];
        if (entry == kEmpty) return -1;
        if (entry == kRemoved) continue;
        StringObject* candidate = m_entries[static_cast<std::size_t>(entry)].key;
        if (candidate->hash == hash && candidate->text == key) return entry;
    }
}

Variable* Table::find(std::string_view key) const noexcept {
    std::int32_t entry = findSlot(key, hashBytes(key));
    return entry < 0 ? nullptr : const_cast<Variable*>(&m_entries[static_cast<std::size_t>(entry)].value);
}

Variable* Table::find(StringObject* key) const noexcept {
    if (m_index.empty()) return nullptr;
    std::uint32_t hash = key->hashValue();
    std::size_t mask = m_index.size() - 1;
    for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        std::int32_t entry = m_index[slot];
        if (entry == kEmpty) return nullptr;
        if (entry == kRemoved) continue;
        const Entry& e = m_entries[static_cast<std::size_t>(entry)];
        if (e.key == key || (e.key->hash == hash && e.key->text == key->text))
            return const_cast<Variable*>(&e.value);
    }
}

void Table::rebuildIndex(std::size_t capacity) {
    // Squeeze out removed entries, then index the rest.
    if (m_live != m_entries.size()) {
        std::size_t out = 0;
        for (std::size_t i = 0; i < m_entries.size(); ++i) {
            if (!m_entries[i].key) continue;
            if (out != i) m_entries[out] = std::move(m_entries[i]);
            ++out;
        }
        m_entries.resize(out);
    }
    m_index.assign(capacity, kEmpty);
    std::size_t mask = capacity - 1;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        std::size_t slot = m_entries[i].key->hash & mask;
        while (m_index[slot] != kEmpty) slot = (slot + 1) & mask;
        m_index[slot] = static_cast<std::int32_t>(i);
    }
}

Variable& Table::insertNew(StringObject* key, std::uint32_t hash) {
    // Keep the index at most three quarters full, counting removed slots as used.
    if ((m_entries.size() + 1) * 4 > m_index.size() * 3) {
        std::size_t wanted = std::bit_ceil(std::max<std::size_t>(8, (m_live + 1) * 2));
        rebuildIndex(wanted);
    }
    std::size_t mask = m_index.size() - 1;
    std::size_t slot = hash & mask;
    while (m_index[slot] >= 0) slot = (slot + 1) & mask;
    m_index[slot] = static_cast<std::int32_t>(m_entries.size());
    m_entries.push_back(Entry{key, Variable()});
    ++m_live;
    ++m_version;
    return m_entries.back().value;
}

Variable& Table::getOrInsert(std::string_view key) {
    std::uint32_t hash = hashBytes(key);
    std::int32_t entry = findSlot(key, hash);
    if (entry >= 0) {
        ++m_version;
        return m_entries[static_cast<std::size_t>(entry)].value;
    }
    StringObject* object = newStringObject(key);
    object->hash = hash;
    object->hashed = true;
    return insertNew(object, hash);
}

Variable& Table::getOrInsert(StringObject* key) {
    if (Variable* existing = find(key)) {
        ++m_version;
        return *existing;
    }
    ++key->refCount;
    return insertNew(key, key->hashValue());
}

namespace {
// The positive integer a key names ("7"), or 0 for any other key ("07", "x", "-1").
std::int64_t sequenceNumber(std::string_view key) {
    if (key.empty() || key.size() > 18 || key[0] < '1' || key[0] > '9') return 0;
    std::int64_t n = 0;
    for (char c : key) {
        if (c < '0' || c > '9') return 0;
        n = n * 10 + (c - '0');
    }
    return n;
}
}  // namespace

std::int64_t Table::sequenceLength() const {
    char buffer[24];
    while (true) {
        auto [end, ec] = std::to_chars(buffer, buffer + sizeof buffer, m_sequence + 1);
        (void)ec;
        if (!find(std::string_view(buffer, static_cast<std::size_t>(end - buffer)))) return m_sequence;
        ++m_sequence;
    }
}

bool Table::erase(std::string_view key) {
    if (m_index.empty()) return false;
    if (std::int64_t n = sequenceNumber(key); n >= 1 && n <= m_sequence) m_sequence = n - 1;
    std::uint32_t hash = hashBytes(key);
    std::size_t mask = m_index.size() - 1;
    for (std::size_t slot = hash & mask;; slot = (slot + 1) & mask) {
        std::int32_t entry = m_index[slot];
        if (entry == kEmpty) return false;
        if (entry == kRemoved) continue;
        Entry& e = m_entries[static_cast<std::size_t>(entry)];
        if (e.key->hash == hash && e.key->text == key) {
            releaseString(e.key);
            e.key = nullptr;
            e.value = Variable();
            m_index[slot] = kRemoved;
            --m_live;
            ++m_version;
            return true;
        }
    }
}

void Table::clear() {
    for (Entry& entry : m_entries) releaseString(entry.key);
    m_entries.clear();
    m_index.clear();
    m_live = 0;
    m_sequence = 0;
    ++m_version;
}

void Table::reserve(std::size_t count) {
    m_entries.reserve(count);
    std::size_t wanted = std::bit_ceil(std::max<std::size_t>(8, count * 2));
    if (wanted > m_index.size()) rebuildIndex(wanted);
}

}  // namespace korvel
