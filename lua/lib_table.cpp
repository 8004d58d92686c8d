// The table library. In-place operations either finish or fail before the table changes.
#include "vm_internal.h"

#include <algorithm>

namespace korvel::lua {

using Impl = LuaVM::Impl;

namespace {

// table.unpack returns its values on the value stack; past this count it refuses.
constexpr std::int64_t kMaxUnpack = 1 << 20;

std::vector<Value> sequenceValues(Table* table) {
    std::int64_t length = table->sequenceLength();
    std::vector<Value> values;
    values.reserve(static_cast<std::size_t>(length));
    for (std::int64_t i = 1; i <= length; ++i) values.push_back(*table->findInteger(i));
    return values;
}

// Merge sort: stays within bounds and terminates even when a comparator is inconsistent, which
// std::sort does not promise.
template <typename Less> void mergeSort(std::vector<Value>& values, Less&& less) {
    std::vector<Value> buffer(values.size());
    for (std::size_t width = 1; width < values.size(); width *= 2) {
        for (std::size_t left = 0; left < values.size(); left += 2 * width) {
            std::size_t middle = std::min(left + width, values.size());
            std::size_t right = std::min(left + 2 * width, values.size());
            std::size_t a = left, b = middle, out = left;
            while (a < middle && b < right) {
                if (less(values[b], values[a])) buffer[out++] = values[b++];
                else buffer[out++] = values[a++];
            }
            while (a < middle) buffer[out++] = values[a++];
            while (b < right) buffer[out++] = values[b++];
        }
        values.swap(buffer);
    }
}

} // namespace

bool lessThan(Impl& vm, const Value& left, const Value& right, bool orEqual, std::uint32_t line);

void bindTableLibrary(Impl& vm) {
    Table* library = vm.makeLibraryTable("table");
    auto bind = [&](const char* name, NativeFunction native) { vm.bindTableFunction(library, "table", name, std::move(native)); };

    bind("insert", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.insert", arguments.size(), 2, 3);
        Table* table = requireTable(self, "table.insert", arguments, 0);
        std::int64_t length = table->sequenceLength();
        if (arguments.size() == 2) {
            table->setInteger(length + 1, arguments[1]);
            return MultiValue();
        }
        std::int64_t position = requireInteger(self, "table.insert", arguments, 1);
        if (position < 1 || position > length + 1) self.failRuntime(self.m_currentLine, "table.insert index out of range");
        for (std::int64_t i = length; i >= position; --i) table->setInteger(i + 1, *table->findInteger(i));
        table->setInteger(position, arguments[2]);
        return MultiValue();
    });
    bind("remove", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.remove", arguments.size(), 1, 2);
        Table* table = requireTable(self, "table.remove", arguments, 0);
        std::int64_t length = table->sequenceLength();
        std::int64_t position = arguments.size() > 1 ? requireInteger(self, "table.remove", arguments, 1) : length;
        if (length == 0 && arguments.size() == 1) return MultiValue(Value());
        if (length + 1 == position || (length == 0 && position == 0)) {
            Value removed = table->get(Value::integer(position));
            table->setInteger(position, Value());
            return MultiValue(removed);
        }
        if (position < 1 || position > length + 1) self.failRuntime(self.m_currentLine, "table.remove index out of range");
        Value removed = *table->findInteger(position);
        for (std::int64_t i = position; i < length; ++i) table->setInteger(i, *table->findInteger(i + 1));
        table->setInteger(length, Value());
        return MultiValue(removed);
    });
    bind("concat", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.concat", arguments.size(), 1, 4);
        Table* table = requireTable(self, "table.concat", arguments, 0);
        std::string_view separator = arguments.size() > 1 && !arguments[1].isNil() ? requireString(self, "table.concat", arguments, 1)
                                                                                  : std::string_view();
        std::int64_t first = arguments.size() > 2 && !arguments[2].isNil() ? requireInteger(self, "table.concat", arguments, 2) : 1;
        std::int64_t last = arguments.size() > 3 && !arguments[3].isNil() ? requireInteger(self, "table.concat", arguments, 3)
                                                                         : table->sequenceLength();
        std::string out;
        for (std::int64_t i = first; i <= last; ++i) {
            const Value* element = table->findInteger(i);
            if (!element || (element->kind() != Kind::String && !element->isNumber())) {
                self.failRuntime(self.m_currentLine, "table.concat element " + std::to_string(i) + " is not a string or number");
            }
            if (element->kind() == Kind::String) out.append(element->stringView());
            else out += element->toString();
            if (i < last) out.append(separator);
            if (out.size() > kMaxStringLength) self.failRuntime(self.m_currentLine, "string is too large");
        }
        return MultiValue(Value::string(out));
    });
    bind("sort", [](Impl& self, ValueSpan arguments, std::uint32_t line) {
        requireArgumentCount(self, "table.sort", arguments.size(), 1, 2);
        Table* table = requireTable(self, "table.sort", arguments, 0);
        bool custom = arguments.size() > 1 && !arguments[1].isNil();
        if (custom && arguments[1].kind() != Kind::Function) {
            self.failRuntime(self.m_currentLine, "table.sort comparator must be a function");
        }
        std::vector<Value> values = sequenceValues(table);
        bool allIntegers = !custom && std::all_of(values.begin(), values.end(), [](const Value& v) { return v.kind() == Kind::Integer; });
        if (allIntegers) {
            std::vector<std::int64_t> integers;
            integers.reserve(values.size());
            for (const Value& value : values) integers.push_back(value.asInteger());
            std::sort(integers.begin(), integers.end());
            for (std::size_t i = 0; i < integers.size(); ++i) values[i] = Value::integer(integers[i]);
        } else if (custom) {
            Value comparator = arguments[1];
            MultiValue result;
            mergeSort(values, [&](const Value& a, const Value& b) {
                Value pair[2] = {a, b};
                self.callValue(comparator, ValueSpan(pair, 2), line, result);
                return result.first().isTruthy();
            });
        } else {
            mergeSort(values, [&](const Value& a, const Value& b) { return lessThan(self, a, b, false, line); });
        }
        for (std::size_t i = 0; i < values.size(); ++i) table->setInteger(static_cast<std::int64_t>(i) + 1, std::move(values[i]));
        return MultiValue();
    });
    bind("unpack", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.unpack", arguments.size(), 1, 3);
        Table* table = requireTable(self, "table.unpack", arguments, 0);
        std::int64_t first = arguments.size() > 1 && !arguments[1].isNil() ? requireInteger(self, "table.unpack", arguments, 1) : 1;
        std::int64_t last = arguments.size() > 2 && !arguments[2].isNil() ? requireInteger(self, "table.unpack", arguments, 2)
                                                                         : table->sequenceLength();
        MultiValue results;
        if (first > last) return results;
        // Unsigned, because last - first overflows for bounds of opposite extremes.
        if (static_cast<std::uint64_t>(last) - static_cast<std::uint64_t>(first) >= static_cast<std::uint64_t>(kMaxUnpack)) {
            self.failRuntime(self.m_currentLine, "too many results to unpack");
        }
        for (std::int64_t i = first; i <= last; ++i) results.push(table->get(Value::integer(i)));
        return results;
    });
    bind("keys", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.keys", arguments.size(), 1, 1);
        Table* table = requireTable(self, "table.keys", arguments, 0);
        std::vector<Value> keys = table->sortedKeys();
        auto* result = new Table();
        Value resultValue = Value::object(result);
        for (Value& key : keys) result->append(std::move(key));
        return MultiValue(resultValue);
    });
    bind("values", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.values", arguments.size(), 1, 1);
        Table* table = requireTable(self, "table.values", arguments, 0);
        std::vector<Value> keys = table->sortedKeys();
        auto* result = new Table();
        Value resultValue = Value::object(result);
        for (const Value& key : keys) result->append(table->get(key));
        return MultiValue(resultValue);
    });
    bind("clone", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.clone", arguments.size(), 1, 1);
        Table* table = requireTable(self, "table.clone", arguments, 0);
        auto* copy = new Table();
        Value copyValue = Value::object(copy);
        std::size_t position = 0;
        Value key, value;
        while (table->nextEntry(position, key, value)) copy->set(key, value);
        return MultiValue(copyValue);
    });
    bind("clear", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.clear", arguments.size(), 1, 1);
        requireTable(self, "table.clear", arguments, 0)->clear();
        return MultiValue();
    });
    bind("extend", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "table.extend", arguments.size(), 2, 2);
        Table* target = requireTable(self, "table.extend", arguments, 0);
        Table* source = requireTable(self, "table.extend", arguments, 1);
        std::vector<Value> values = sequenceValues(source);   // copied first: source may be target
        std::int64_t length = target->sequenceLength();
        for (Value& value : values) target->setInteger(++length, std::move(value));
        return MultiValue(arguments[0]);
    });
}

} // namespace korvel::lua
