// Global slots: every global name gets one index, shared by all chunks run on a VM and by the host
// calls, so a global access is a vector index rather than a name lookup.
#pragma once

#include "value_internal.h"

#include <string>
#include <unordered_map>
#include <vector>

namespace korvel::lua {

class GlobalSlots {
public:
    // The slot for `name`, made (holding nil) on first use.
    std::uint32_t resolveGlobalSlot(std::string_view name) {
        auto found = m_indices.find(std::string(name));
        if (found != m_indices.end()) return found->second;
        auto index = static_cast<std::uint32_t>(m_values.size());
        m_indices.emplace(std::string(name), index);
        m_values.emplace_back();
        m_names.emplace_back(name);
        return index;
    }
    // -1 when the name never had a slot.
    long long findGlobalSlot(const std::string& name) const {
        auto found = m_indices.find(name);
        return found == m_indices.end() ? -1 : static_cast<long long>(found->second);
    }
    Value& at(std::uint32_t index) { return m_values[index]; }

    // String constants of every chunk share one object per text, so a field name in the source
    // and the key stored by a constructor are the same object and compare by address.
    // Short names only, and a bounded number of them, so generated source cannot grow the set forever.
    Value internConstant(const std::string& text) {
        auto found = m_constants.find(text);
        if (found != m_constants.end()) return found->second;
        Value value = Value::string(text);
        if (text.size() <= 40 && m_constants.size() < (1u << 16)) m_constants.emplace(text, value);
        return value;
    }
    std::vector<Value>& values() { return m_values; }
    const std::string& nameOf(std::uint32_t index) const { return m_names[index]; }

private:
    std::unordered_map<std::string, std::uint32_t> m_indices;
    std::vector<Value> m_values;
    std::vector<std::string> m_names;
    std::unordered_map<std::string, Value> m_constants;
};

} // namespace korvel::lua
