// Global helpers for arrays and tables: clear, erase, contains, keys, values, pop, push,
// reserve and next.
#include "core/library_internal.h"

#include <cmath>

namespace korvel {

namespace {

bool isContainer(const Variable& v) { return v.type() == VarType::Array || v.type() == VarType::Table; }

// The 1-based position an int key names in an array, or 0.
std::int64_t arrayPosition(const Variable& key) {
    if (key.type() == VarType::Int) return key.asInt();
    // Beyond 2^31 no array reaches; such keys (and the infinities) name no place.
    if (key.type() == VarType::Float && std::floor(key.asFloat()) == key.asFloat() && std::fabs(key.asFloat()) < 2147483648.0f)
        return static_cast<std::int64_t>(key.asFloat());
    return 0;
}

}  // namespace

void Interpreter::registerContainerLibrary() {
    Library lib(*this);
    lib.global("clear", [](const Args& args) {
        if (args.size() != 1) throw ScriptError("clear(container) requires exactly 1 argument");
        if (!isContainer(args[0])) throw ScriptError("clear(container): container must be an array or table");
        if (args[0].type() == VarType::Array) {
            std::vector<Variable> old;
            old.swap(args[0].arrayItems());
        } else {
            args[0].table().clear();
        }
        return Variable();
    });
    lib.global("erase", [](const Args& args) {
        if (args.size() != 2) throw ScriptError("erase(container, keyOrIndex) requires exactly 2 arguments");
        if (!isContainer(args[0])) throw ScriptError("erase(container, keyOrIndex): container must be an array or table");
        if (args[0].type() == VarType::Array) {
            if (args[1].type() != VarType::Int) throw ScriptError("erase(array, index): index must be an int");
            auto& items = args[0].arrayItems();
            std::int32_t index = args[1].asInt();
            if (index < 1 || static_cast<std::size_t>(index) > items.size()) return Variable();
            Variable removed = std::move(items[static_cast<std::size_t>(index - 1)]);
            items.erase(items.begin() + (index - 1));
            return removed;
        }
        std::string buffer;
        std::string_view key = keyText(args[1], buffer);
        Variable* found = args[0].table().find(key);
        Variable removed = found ? *found : Variable();
        args[0].table().erase(key);
        return removed;
    });
    lib.global("contains", [](const Args& args) {
        if (args.size() != 2) throw ScriptError("contains(container, valueOrKey) requires exactly 2 arguments");
        if (!isContainer(args[0])) throw ScriptError("contains(container, valueOrKey): container must be an array or table");
        if (args[0].type() == VarType::Array) {
            for (const Variable& item : args[0].arrayItems())
                if (variablesEqual(item, args[1])) return Variable(true);
            return Variable(false);
        }
        std::string buffer;
        return Variable(args[0].table().find(keyText(args[1], buffer)) != nullptr);
    });
    lib.global("keys", [](const Args& args) {
        if (args.size() != 1 || args[0].type() != VarType::Table) throw ScriptError("keys(table) requires exactly 1 table argument");
        Variable result = Variable::makeArray();
        auto& items = result.arrayItems();
        items.reserve(args[0].table().size());
        for (const Table::Entry& entry : args[0].table().entries())
            if (entry.key) items.push_back(Variable::fromString(entry.key));
        return result;
    });
    lib.global("values", [](const Args& args) {
        if (args.size() != 1) throw ScriptError("values(container) requires exactly 1 argument");
        if (!isContainer(args[0])) throw ScriptError("values(container): container must be an array or table");
        if (args[0].type() == VarType::Array) return Variable::makeArray(args[0].arrayItems());
        Variable result = Variable::makeArray();
        auto& items = result.arrayItems();
        items.reserve(args[0].table().size());
        for (const Table::Entry& entry : args[0].table().entries())
            if (entry.key) items.push_back(entry.value);
        return result;
    });
    lib.global("pop", [](const Args& args) {
        if (args.size() != 1) throw ScriptError("pop(array) requires exactly 1 argument");
        if (args[0].type() != VarType::Array) throw ScriptError("pop(array): argument must be an array");
        auto& items = args[0].arrayItems();
        if (items.empty()) throw ScriptError("pop(array): array is empty");
        Variable last = std::move(items.back());
        items.pop_back();
        return last;
    });
    // push(array, values...): appends and returns the new length.
    lib.global("push", [](const Args& args) {
        if (args.size() < 2 || args[0].type() != VarType::Array)
            throw ScriptError("push(array, value...) requires an array and at least one value");
        auto& items = args[0].arrayItems();
        for (std::size_t i = 1; i < args.size(); ++i) items.push_back(args[i]);
        return Variable(static_cast<std::int32_t>(items.size()));
    });
    // reserve(array, count): makes room for count elements without changing the array.
    lib.global("reserve", [](const Args& args) {
        if (args.size() != 2 || args[0].type() != VarType::Array || args[1].type() != VarType::Int)
            throw ScriptError("reserve(array, count) requires an array and an int count");
        std::int32_t count = args[1].asInt();
        if (count < 0 || count > (1 << 24)) throw ScriptError("reserve(array, count): count must be between 0 and 16777216");
        args[0].arrayItems().reserve(static_cast<std::size_t>(count));
        return Variable();
    });
    lib.builtin(BuiltinId::Next, "next", [](Interpreter&, Arguments args) {
        if (args.empty() || args.size() > 2) throw ScriptError("next(container[, key]) requires 1 or 2 arguments");
        if (!isContainer(args[0])) throw ScriptError("next(container[, key]) expects an array or table");
        bool fromStart = args.size() == 1 || args[1].isNil();
        if (args[0].type() == VarType::Array) {
            const auto& items = args[0].arrayItems();
            std::int64_t position = fromStart ? 1 : arrayPosition(args[1]) + 1;
            if (position < 1 || static_cast<std::size_t>(position) > items.size()) return Variable();
            return Variable::makeMulti(std::vector<Variable>{Variable(static_cast<std::int32_t>(position)),
                                                             items[static_cast<std::size_t>(position - 1)]});
        }
        const auto& entries = args[0].table().entries();
        std::size_t start = 0;
        if (!fromStart) {
            std::string buffer;
            std::string_view key = keyText(args[1], buffer);
            std::size_t i = 0;
            while (i < entries.size() && !(entries[i].key && entries[i].key->text == key)) ++i;
            if (i == entries.size()) return Variable();
            start = i + 1;
        }
        for (std::size_t i = start; i < entries.size(); ++i)
            if (entries[i].key)
                return Variable::makeMulti(std::vector<Variable>{Variable::fromString(entries[i].key), entries[i].value});
        return Variable();
    });
}

}  // namespace korvel
