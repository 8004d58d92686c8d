// The string library: slicing, case, search and replace with patterns, formatting, packing.
#include "pattern_internal.h"

#include <algorithm>
#include <cstdio>

namespace korvel::lua {

using Impl = LuaVM::Impl;

namespace {

// string.byte returns its codes as separate values; past this many it refuses.
constexpr std::int64_t kMaxByteResults = 1 << 20;

std::size_t stringLength(ValueSpan arguments) { return arguments[0].asString()->length; }

// A 1-based start position; negative counts from the end, and anything before the start is 1.
std::int64_t startPosition(std::int64_t position, std::size_t length) {
    auto size = static_cast<std::int64_t>(length);
    if (position > 0) return position;
    if (position == 0 || position < -size) return 1;
    return size + position + 1;
}

// A 1-based end position clipped to the string.
std::int64_t endPosition(std::int64_t position, std::size_t length) {
    auto size = static_cast<std::int64_t>(length);
    if (position > size) return size;
    if (position >= 0) return position;
    if (position < -size) return 0;
    return size + position + 1;
}

std::int64_t optionalInteger(Impl& vm, std::string_view name, ValueSpan arguments, std::size_t index, std::int64_t fallback) {
    if (index >= arguments.size() || arguments[index].isNil()) return fallback;
    return requireInteger(vm, name, arguments, index);
}

void checkLength(Impl& vm, std::size_t length) {
    if (length > kMaxStringLength) vm.failRuntime(vm.m_currentLine, "string is too large");
}

bool isStripSpace(char c) { return c == ' ' || c == '\f' || c == '\n' || c == '\r' || c == '\t' || c == '\v'; }

MultiValue find(Impl& vm, ValueSpan arguments, bool wantPositions) {
    const char* name = wantPositions ? "string.find" : "string.match";
    requireArgumentCount(vm, name, arguments.size(), 2, 4);
    std::string_view subject = requireString(vm, name, arguments, 0);
    std::string_view pattern = requireString(vm, name, arguments, 1);
    std::int64_t init = startPosition(optionalInteger(vm, name, arguments, 2, 1), subject.size());
    if (init > static_cast<std::int64_t>(subject.size()) + 1) return MultiValue(Value());
    auto offset = static_cast<std::size_t>(init - 1);
    bool plain = wantPositions && arguments.size() > 3 && arguments[3].isTruthy();
    if (plain || isPlainPattern(pattern)) {
        std::size_t found = subject.find(pattern, offset);
        if (found == std::string_view::npos) return MultiValue(Value());
        if (!wantPositions) return MultiValue(Value::string(pattern));
        MultiValue results;
        results.push(Value::integer(static_cast<std::int64_t>(found) + 1));
        results.push(Value::integer(static_cast<std::int64_t>(found + pattern.size())));
        return results;
    }
    PatternMatch match;
    if (!findPattern(vm, subject, pattern, offset, match)) return MultiValue(Value());
    MultiValue results;
    if (wantPositions) {
        results.push(Value::integer(static_cast<std::int64_t>(match.start) + 1));
        results.push(Value::integer(static_cast<std::int64_t>(match.end)));
        for (int i = 1; i <= match.captureCount; ++i) results.push(captureValue(subject, match, i));
    } else {
        pushCaptures(subject, match, results);
    }
    return results;
}

void appendReplacement(Impl& vm, std::string& out, std::string_view subject, const PatternMatch& match,
                       const Value& replacement) {
    std::string_view whole = subject.substr(match.start, match.end - match.start);
    if (replacement.kind() == Kind::String || replacement.isNumber()) {
        std::string text = replacement.kind() == Kind::String ? std::string(replacement.stringView()) : replacement.toString();
        for (std::size_t i = 0; i < text.size(); ++i) {
            if (text[i] != '%') {
                out += text[i];
                continue;
            }
            if (++i >= text.size()) vm.failRuntime(vm.m_currentLine, "invalid use of '%' in replacement string");
            char c = text[i];
            if (c == '%') {
                out += '%';
            } else if (c == '0') {
                out.append(whole);
            } else if (c >= '1' && c <= '9') {
                int index = c - '0';
                if (index == 1 && match.captureCount == 0) {
                    out.append(whole);
                } else if (index > match.captureCount) {
                    vm.failRuntime(vm.m_currentLine, "invalid capture index %" + std::string(1, c) + " in replacement string");
                } else {
                    // A capture that took no part in the match (under "?" or "*") adds nothing.
                    Value capture = captureValue(subject, match, index);
                    if (!capture.isNil()) out += capture.toString();
                }
            } else {
                vm.failRuntime(vm.m_currentLine, "invalid use of '%' in replacement string");
            }
        }
        return;
    }
    Value result;
    if (replacement.kind() == Kind::Table) {
        Value key;
        Value first = captureValue(subject, match, match.captureCount == 0 ? 0 : 1);
        if (tryMakeKeyFromValue(first, key)) result = replacement.asTable()->get(key);
    } else {
        MultiValue captures;
        pushCaptures(subject, match, captures);
        std::vector<Value> arguments;
        for (std::size_t i = 0; i < captures.size(); ++i) arguments.push_back(captures[i]);
        MultiValue called;
        vm.callValue(replacement, arguments, vm.m_currentLine, called);
        result = called.first();
    }
    if (!result.isTruthy()) {
        out.append(whole);
    } else if (result.kind() == Kind::String || result.isNumber()) {
        out += result.toString();
    } else {
        vm.failRuntime(vm.m_currentLine, std::string("invalid replacement value (a ") + describeValueType(result.kind()) + ")");
    }
}

MultiValue gsub(Impl& vm, ValueSpan arguments) {
    requireArgumentCount(vm, "string.gsub", arguments.size(), 3, 4);
    std::string_view subject = requireString(vm, "string.gsub", arguments, 0);
    std::string_view pattern = requireString(vm, "string.gsub", arguments, 1);
    const Value& replacement = arguments[2];
    if (replacement.kind() != Kind::String && !replacement.isNumber() && replacement.kind() != Kind::Table &&
        replacement.kind() != Kind::Function) {
        vm.failRuntime(vm.m_currentLine, "string.gsub replacement must be a string, table, or function");
    }
    std::int64_t limit = optionalInteger(vm, "string.gsub", arguments, 3, INT64_MAX);
    bool anchored = !pattern.empty() && pattern[0] == '^';
    // A pattern without special characters is replaced as plain text; the empty one still goes
    // to the engine, which matches it between every two bytes.
    bool plain = !pattern.empty() && isPlainPattern(pattern);
    std::shared_ptr<const RegexProgram> program = plain ? nullptr : compilePattern(vm, pattern);
    // The subject stays alive through the argument span while callbacks run.
    std::string out;
    std::size_t source = 0;
    std::size_t lastMatch = std::string_view::npos;
    std::int64_t count = 0;
    PatternMatch match;
    while (count < limit) {
        vm.countStep();
        if (plain) {
            std::size_t found = subject.find(pattern, source);
            if (found == std::string_view::npos) break;
            match.start = found;
            match.end = found + pattern.size();
            match.captureCount = 0;
        } else if (!findCompiledPattern(vm, *program, subject, source, match)) {
            break;
        }
        // An empty match right where the previous match ended is skipped: the byte there is
        // kept and the search goes on after it.
        if (match.end == lastMatch) {
            if (anchored || source >= subject.size()) break;
            out += subject[source++];
            continue;
        }
        out.append(subject.substr(source, match.start - source));
        ++count;
        appendReplacement(vm, out, subject, match, replacement);
        checkLength(vm, out.size());
        source = lastMatch = match.end;
        if (anchored) break;
    }
    if (source < subject.size()) out.append(subject.substr(source));
    checkLength(vm, out.size());
    MultiValue results;
    results.push(Value::string(out));
    results.push(Value::integer(count));
    return results;
}

// ---- string.format ----

void appendFormatted(std::string& out, const char* format, auto value) {
    char buffer[512];
    int length = std::snprintf(buffer, sizeof buffer, format, value);
    if (length > 0) out.append(buffer, static_cast<std::size_t>(std::min<int>(length, sizeof buffer - 1)));
}

void appendQuoted(std::string& out, std::string_view text) {
    out += '"';
    for (std::size_t i = 0; i < text.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c == '\n') {
            out += "\\n";
        } else if (c == '\r') {
            out += "\\r";
        } else if (c == 0) {
            out += (i + 1 < text.size() && text[i + 1] >= '0' && text[i + 1] <= '9') ? "\\000" : "\\0";
        } else if (c < 32 || c == 127) {
            out += '\\';
            out += std::to_string(c);
        } else {
            out += static_cast<char>(c);
        }
    }
    out += '"';
}

std::int64_t formatInteger(Impl& vm, const Value& value) {
    if (value.kind() == Kind::Integer) return value.asInteger();
    if (value.kind() != Kind::Float) vm.failRuntime(vm.m_currentLine, "integer format expects a number");
    double number = value.asFloat();
    std::int64_t integral = 0;
    if (floatToIntegral(number, integral)) return integral;
    if (!(number == number)) return 0;
    if (number >= 9223372036854775807.0) return INT64_MAX;
    if (number <= -9223372036854775808.0) return INT64_MIN;
    return static_cast<std::int64_t>(number);
}

MultiValue format(Impl& vm, ValueSpan arguments) {
    requireArgumentCount(vm, "string.format", arguments.size(), 1, kNoMaximum);
    std::string_view text = requireString(vm, "string.format", arguments, 0);
    std::string out;
    std::size_t next = 1;
    auto argument = [&]() -> const Value& {
        if (next >= arguments.size()) vm.failRuntime(vm.m_currentLine, "missing format argument");
        return arguments[next++];
    };
    for (std::size_t i = 0; i < text.size(); ++i) {
        char c = text[i];
        if (c != '%') {
            out += c;
            continue;
        }
        if (++i >= text.size()) vm.failRuntime(vm.m_currentLine, "unterminated format token");
        if (text[i] == '%') {
            out += '%';
            continue;
        }
        // Flags, then at most two digits of width and of precision, keep the buffer bounded.
        std::string directive = "%";
        while (i < text.size() && std::string_view("-+ #0").find(text[i]) != std::string_view::npos) directive += text[i++];
        for (int digits = 0; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++digits) {
            if (digits == 2) vm.failRuntime(vm.m_currentLine, "format width is too long");
            directive += text[i++];
        }
        if (i < text.size() && text[i] == '.') {
            directive += text[i++];
            for (int digits = 0; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++digits) {
                if (digits == 2) vm.failRuntime(vm.m_currentLine, "format precision is too long");
                directive += text[i++];
            }
        }
        if (i >= text.size()) vm.failRuntime(vm.m_currentLine, "unterminated format token");
        char conversion = text[i];
        switch (conversion) {
        case 'd':
        case 'i': {
            std::int64_t value = formatInteger(vm, argument());
            if (directive.size() == 1) {
                char buffer[24];
                int length = std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(value));
                out.append(buffer, static_cast<std::size_t>(length));
            } else {
                appendFormatted(out, (directive + "lld").c_str(), static_cast<long long>(value));
            }
            break;
        }
        case 'u':
        case 'x':
        case 'X':
        case 'o':
            appendFormatted(out, (directive + "ll" + conversion).c_str(), static_cast<unsigned long long>(formatInteger(vm, argument())));
            break;
        case 'c':
            out += static_cast<char>(formatInteger(vm, argument()));
            break;
        case 'e': case 'E': case 'f': case 'F': case 'g': case 'G': case 'a': case 'A': {
            const Value& value = argument();
            if (!value.isNumber()) vm.failRuntime(vm.m_currentLine, "float format expects a number");
            appendFormatted(out, (directive + conversion).c_str(), value.toDouble());
            break;
        }
        case 's': {
            const Value& value = argument();
            std::string owned;
            std::string_view piece;
            if (value.kind() == Kind::String) {
                piece = value.stringView();
            } else {
                owned = value.toString();
                piece = owned;
            }
            if (directive.size() == 1) {
                out.append(piece);
            } else {
                std::string terminated(piece);
                appendFormatted(out, (directive + 's').c_str(), terminated.c_str());
            }
            break;
        }
        case 'q': {
            const Value& value = argument();
            if (value.kind() == Kind::String) appendQuoted(out, value.stringView());
            else out += value.toString();
            break;
        }
        default:
            vm.failRuntime(vm.m_currentLine, std::string("unsupported format token %") + conversion);
        }
        checkLength(vm, out.size());
    }
    return MultiValue(Value::string(out));
}

// ---- pack and unpack: 32-bit little-endian unsigned fields only ----

MultiValue pack(Impl& vm, ValueSpan arguments) {
    std::string_view format = requireString(vm, "string.pack", arguments, 0);
    std::string out;
    std::size_t next = 1;
    for (std::size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c == ' ' || c == '<' || c == '=') continue;
        if (c != 'I') vm.failRuntime(vm.m_currentLine, "unsupported string.pack format");
        std::size_t digits = i + 1;
        while (digits < format.size() && format[digits] >= '0' && format[digits] <= '9') ++digits;
        if (format.substr(i + 1, digits - i - 1) != "4") {
            vm.failRuntime(vm.m_currentLine, "KorvelLua only supports string.pack I4 fields");
        }
        i = digits - 1;
        if (next >= arguments.size()) vm.failRuntime(vm.m_currentLine, "string.pack is missing a value");
        auto value = static_cast<std::uint32_t>(requireInteger(vm, "string.pack", arguments, next++));
        for (int shift = 0; shift < 32; shift += 8) out += static_cast<char>((value >> shift) & 0xFF);
    }
    return MultiValue(Value::string(out));
}

MultiValue unpack(Impl& vm, ValueSpan arguments) {
    requireArgumentCount(vm, "string.unpack", arguments.size(), 2, 3);
    std::string_view format = requireString(vm, "string.unpack", arguments, 0);
    std::string_view data = requireString(vm, "string.unpack", arguments, 1);
    std::int64_t start = startPosition(optionalInteger(vm, "string.unpack", arguments, 2, 1), data.size());
    auto offset = static_cast<std::uint64_t>(start - 1);
    MultiValue results;
    for (std::size_t i = 0; i < format.size(); ++i) {
        char c = format[i];
        if (c == ' ' || c == '<' || c == '=') continue;
        if (c != 'I') vm.failRuntime(vm.m_currentLine, "unsupported string.unpack format");
        std::size_t digits = i + 1;
        while (digits < format.size() && format[digits] >= '0' && format[digits] <= '9') ++digits;
        if (format.substr(i + 1, digits - i - 1) != "4") {
            vm.failRuntime(vm.m_currentLine, "KorvelLua only supports string.unpack I4 fields");
        }
        i = digits - 1;
        if (offset > data.size() || data.size() - offset < 4) {
            vm.failRuntime(vm.m_currentLine, "string.unpack ran past the end of the buffer");
        }
        std::uint32_t value = 0;
        for (int k = 3; k >= 0; --k) value = value << 8 | static_cast<unsigned char>(data[offset + static_cast<std::size_t>(k)]);
        results.push(Value::integer(value));
        offset += 4;
    }
    results.push(Value::integer(static_cast<std::int64_t>(offset) + 1));
    return results;
}

} // namespace

bool nextPatternMatch(Impl& vm, IteratorObject* iterator, MultiValue& out, std::uint32_t) {
    std::string_view subject = iterator->subject.stringView();
    std::string_view pattern = iterator->pattern.stringView();
    bool anchored = !pattern.empty() && pattern[0] == '^';
    std::shared_ptr<const RegexProgram> program = compilePattern(vm, pattern);
    PatternMatch match;
    // An empty match right where the previous match ended is skipped, so "a*" over "baa" gives
    // "" and "aa" instead of looping on one position.
    std::size_t at = iterator->position;
    while (at <= subject.size()) {
        vm.countStep();
        if (!findCompiledPattern(vm, *program, subject, at, match)) break;
        if (match.end == iterator->lastMatch) {
            if (anchored) break;
            at = match.start + 1;
            continue;
        }
        iterator->position = iterator->lastMatch = match.end;
        if (anchored) iterator->position = subject.size() + 1;
        pushCaptures(subject, match, out);
        return true;
    }
    iterator->position = subject.size() + 1;
    return false;
}

void bindStringLibrary(Impl& vm) {
    Table* string = vm.makeLibraryTable("string");
    vm.m_stringLibrary = string;
    vm.m_stringLibraryValue = Value::object(string);
    auto bind = [&](const char* name, NativeFunction native) {
        vm.bindTableFunction(string, "string", name, std::move(native));
    };

    bind("len", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.len", arguments.size(), 1, 1);
        requireString(self, "string.len", arguments, 0);
        return MultiValue(Value::integer(static_cast<std::int64_t>(stringLength(arguments))));
    });
    auto mapCase = [](bool upper) {
        return [upper](Impl& self, ValueSpan arguments, std::uint32_t) {
            const char* name = upper ? "string.upper" : "string.lower";
            requireArgumentCount(self, name, arguments.size(), 1, 1);
            std::string_view text = requireString(self, name, arguments, 0);
            StringObject* result = StringObject::allocate(text.size());
            char* out = result->mutableData();
            for (std::size_t i = 0; i < text.size(); ++i) {
                char c = text[i];
                if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
                if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
                out[i] = c;
            }
            return MultiValue(Value::object(result));
        };
    };
    bind("upper", mapCase(true));
    bind("lower", mapCase(false));
    bind("sub", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.sub", arguments.size(), 1, 3);
        std::string_view text = requireString(self, "string.sub", arguments, 0);
        std::int64_t first = startPosition(optionalInteger(self, "string.sub", arguments, 1, 1), text.size());
        std::int64_t last = endPosition(optionalInteger(self, "string.sub", arguments, 2, -1), text.size());
        if (first > last) return MultiValue(Value::string(""));
        return MultiValue(Value::string(text.substr(static_cast<std::size_t>(first - 1), static_cast<std::size_t>(last - first + 1))));
    });
    bind("find", [](Impl& self, ValueSpan arguments, std::uint32_t) { return find(self, arguments, true); });
    bind("match", [](Impl& self, ValueSpan arguments, std::uint32_t) { return find(self, arguments, false); });
    bind("gmatch", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.gmatch", arguments.size(), 2, 2);
        requireString(self, "string.gmatch", arguments, 0);
        requireString(self, "string.gmatch", arguments, 1);
        auto* iterator = new IteratorObject();
        Value result = Value::object(iterator);
        iterator->mode = IteratorObject::Mode::Matches;
        iterator->subject = arguments[0];
        iterator->pattern = arguments[1];
        return MultiValue(result);
    });
    bind("gsub", [](Impl& self, ValueSpan arguments, std::uint32_t) { return gsub(self, arguments); });
    bind("format", [](Impl& self, ValueSpan arguments, std::uint32_t) { return format(self, arguments); });
    bind("byte", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.byte", arguments.size(), 1, 3);
        std::string_view text = requireString(self, "string.byte", arguments, 0);
        std::int64_t first = startPosition(optionalInteger(self, "string.byte", arguments, 1, 1), text.size());
        std::int64_t last = endPosition(optionalInteger(self, "string.byte", arguments, 2, first), text.size());
        MultiValue results;
        if (last - first >= kMaxByteResults) self.failRuntime(self.m_currentLine, "string slice too long");
        for (std::int64_t i = first; i <= last; ++i) {
            results.push(Value::integer(static_cast<unsigned char>(text[static_cast<std::size_t>(i - 1)])));
        }
        return results;
    });
    bind("char", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        std::string out;
        for (std::size_t i = 0; i < arguments.size(); ++i) {
            std::int64_t code = requireInteger(self, "string.char", arguments, i);
            if (code < 0 || code > 255) self.failRuntime(self.m_currentLine, "string.char code must be between 0 and 255");
            out += static_cast<char>(code);
        }
        return MultiValue(Value::string(out));
    });
    bind("rep", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.rep", arguments.size(), 2, 3);
        std::string_view text = requireString(self, "string.rep", arguments, 0);
        std::int64_t count = requireInteger(self, "string.rep", arguments, 1);
        std::string_view separator = arguments.size() > 2 && !arguments[2].isNil() ? requireString(self, "string.rep", arguments, 2)
                                                                                  : std::string_view();
        if (count <= 0) return MultiValue(Value::string(""));
        // Computed in 128 bits' worth of care: each factor is checked before multiplying.
        std::uint64_t pieces = static_cast<std::uint64_t>(count);
        std::uint64_t unit = text.size() + separator.size();
        if (unit != 0 && (pieces > kMaxStringLength / unit + 1 || pieces * unit - separator.size() > kMaxStringLength)) {
            self.failRuntime(self.m_currentLine, "string.rep result is too large");
        }
        std::size_t total = unit == 0 ? 0 : static_cast<std::size_t>(pieces * unit - separator.size());
        StringObject* result = StringObject::allocate(total);
        char* out = result->mutableData();
        for (std::uint64_t i = 0; i < pieces && unit != 0; ++i) {
            if (!text.empty()) std::memcpy(out, text.data(), text.size());
            out += text.size();
            if (i + 1 < pieces && !separator.empty()) {
                std::memcpy(out, separator.data(), separator.size());
                out += separator.size();
            }
        }
        return MultiValue(Value::object(result));
    });
    bind("reverse", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.reverse", arguments.size(), 1, 1);
        std::string text(requireString(self, "string.reverse", arguments, 0));
        std::reverse(text.begin(), text.end());
        return MultiValue(Value::string(text));
    });
    auto strip = [](const char* name, bool left, bool right) {
        return [=](Impl& self, ValueSpan arguments, std::uint32_t) {
            requireArgumentCount(self, name, arguments.size(), 1, 1);
            std::string_view text = requireString(self, name, arguments, 0);
            while (left && !text.empty() && isStripSpace(text.front())) text.remove_prefix(1);
            while (right && !text.empty() && isStripSpace(text.back())) text.remove_suffix(1);
            return MultiValue(Value::string(text));
        };
    };
    bind("strip", strip("string.strip", true, true));
    bind("lstrip", strip("string.lstrip", true, false));
    bind("rstrip", strip("string.rstrip", false, true));
    bind("contains", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.contains", arguments.size(), 2, 2);
        std::string_view text = requireString(self, "string.contains", arguments, 0);
        std::string_view part = requireString(self, "string.contains", arguments, 1);
        return MultiValue(Value::boolean(text.find(part) != std::string_view::npos));
    });
    bind("startswith", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.startswith", arguments.size(), 2, 2);
        std::string_view text = requireString(self, "string.startswith", arguments, 0);
        std::string_view prefix = requireString(self, "string.startswith", arguments, 1);
        return MultiValue(Value::boolean(text.substr(0, prefix.size()) == prefix));
    });
    bind("endswith", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.endswith", arguments.size(), 2, 2);
        std::string_view text = requireString(self, "string.endswith", arguments, 0);
        std::string_view suffix = requireString(self, "string.endswith", arguments, 1);
        return MultiValue(Value::boolean(text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix));
    });
    bind("split", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "string.split", arguments.size(), 1, 2);
        std::string_view text = requireString(self, "string.split", arguments, 0);
        std::string_view separator = arguments.size() > 1 ? requireString(self, "string.split", arguments, 1) : " ";
        auto* table = new Table();
        Value result = Value::object(table);
        if (separator.empty()) {
            // No separator: one piece per byte.
            for (char c : text) table->append(Value::string(std::string_view(&c, 1)));
            return MultiValue(result);
        }
        std::size_t start = 0;
        while (true) {
            std::size_t found = text.find(separator, start);
            if (found == std::string_view::npos) {
                table->append(Value::string(text.substr(start)));
                break;
            }
            table->append(Value::string(text.substr(start, found - start)));
            start = found + separator.size();
        }
        return MultiValue(result);
    });
    bind("pack", [](Impl& self, ValueSpan arguments, std::uint32_t) { return pack(self, arguments); });
    bind("unpack", [](Impl& self, ValueSpan arguments, std::uint32_t) { return unpack(self, arguments); });
}

} // namespace korvel::lua
