// The string group: format, find, match, gmatch, sub, upper, lower, len, rep, byte, char (gsub
// lives in lib_gsub.cpp).
#include "core/library_internal.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace korvel {

namespace {

constexpr int kMaxFormatWidth = 4096;

// Lua-style 1-based positions: negative counts from the end; the result is clamped to [1, len+1].
std::int64_t startPosition(std::int64_t i, std::size_t length) {
    if (i > 0) return i;
    if (i == 0) return 1;
    if (static_cast<std::size_t>(-i) > length) return 1;
    return static_cast<std::int64_t>(length) + i + 1;
}

std::int64_t endPosition(std::int64_t j, std::size_t length) {
    if (j > static_cast<std::int64_t>(length)) return static_cast<std::int64_t>(length);
    if (j >= 0) return j;
    if (static_cast<std::size_t>(-j) > length) return 0;
    return static_cast<std::int64_t>(length) + j + 1;
}

// A numeric argument as an integer, floored. Floats far out are clamped to +-2^53, so that
// the position and count arithmetic after it (negation, adding a length) cannot overflow;
// positions and counts that far out behave as if infinitely far.
std::int64_t integerArgument(const Variable& v) {
    if (v.type() == VarType::Int) return v.asInt();
    constexpr double kLimit = 9007199254740992.0;
    double value = std::floor(toDouble(v));
    if (std::isnan(value)) return 0;
    return static_cast<std::int64_t>(std::clamp(value, -kLimit, kLimit));
}

// Whether %d, %x and the like can print the value as the integer it names.
bool formatsAsInteger(const Variable& v) {
    if (!v.isNumericLike()) return false;
    if (v.type() != VarType::Float) return true;
    double value = std::floor(static_cast<double>(v.asFloat()));
    return std::isfinite(value) && std::fabs(value) < 9007199254740992.0;
}

bool hasPatternSpecials(const std::string& pattern) {
    return pattern.find_first_of("^$*+?.([%-") != std::string::npos;
}

Variable formatString(Interpreter&, Arguments args) {
    if (args.empty() || args[0].type() != VarType::String)
        throw ScriptError("string['format'](format, ...) requires a format string");
    const std::string& format = args[0].asString();
    std::string out;
    out.reserve(format.size() + 16);
    std::size_t next = 1;
    for (std::size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            std::size_t percent = format.find('%', i);
            if (percent == std::string::npos) percent = format.size();
            out.append(format, i, percent - i);
            i = percent - 1;
            continue;
        }
        if (i + 1 >= format.size()) throw ScriptError("string['format']: incomplete format specifier");
        if (format[i + 1] == '%') {
            out += '%';
            ++i;
            continue;
        }
        std::size_t start = i++;
        std::string spec = "%";
        while (i < format.size() && std::string_view("-+ #0").find(format[i]) != std::string_view::npos) spec += format[i++];
        int width = 0, precision = -1;
        while (i < format.size() && std::isdigit(static_cast<unsigned char>(format[i]))) {
            width = std::min(width * 10 + (format[i] - '0'), kMaxFormatWidth + 1);
            spec += format[i++];
        }
        if (i < format.size() && format[i] == '.') {
            spec += format[i++];
            precision = 0;
            while (i < format.size() && std::isdigit(static_cast<unsigned char>(format[i]))) {
                precision = std::min(precision * 10 + (format[i] - '0'), kMaxFormatWidth + 1);
                spec += format[i++];
            }
        }
        while (i < format.size() && std::string_view("hlLzjt").find(format[i]) != std::string_view::npos) ++i;
        if (i >= format.size()) throw ScriptError("string['format']: incomplete format specifier");
        char conversion = format[i];
        if (std::string_view("diuoxXcfFeEgGaAsq").find(conversion) == std::string_view::npos)
            throw ScriptError(std::string("string['format']: unsupported specifier %") + conversion);
        if (next >= args.size())
            throw ScriptError("string['format']: missing argument for format specifier " + format.substr(start, i - start + 1));
        if (width > kMaxFormatWidth || precision > kMaxFormatWidth) throw ScriptError("string['format']: failed to format value");
        const Variable& value = args[next++];
        // The common bare "%s" and "%d" skip the C formatter; they give what it gives.
        if (spec.size() == 1 && conversion == 's') {
            if (value.type() == VarType::String) {
                const std::string& text = value.asString();
                out.append(text.c_str());  // as "%s" does, up to a zero byte
            } else {
                out.append(value.toString().c_str());
            }
            continue;
        }
        if (spec.size() == 1 && (conversion == 'd' || conversion == 'i') && formatsAsInteger(value)) {
            char digits[24];
            auto converted = std::to_chars(digits, digits + sizeof digits, integerArgument(value));
            out.append(digits, converted.ptr);
            continue;
        }
        char buffer[512];
        int written = -1;
        switch (conversion) {
        case 'd':
        case 'i': {
            if (!formatsAsInteger(value)) throw ScriptError("string['format']: failed to format value");
            spec += "lld";
            written = std::snprintf(buffer, sizeof buffer, spec.c_str(), static_cast<long long>(integerArgument(value)));
            break;
        }
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
            if (!formatsAsInteger(value)) throw ScriptError("string['format']: failed to format value");
            spec += "ll";
            spec += conversion;
            auto bits = static_cast<unsigned long long>(integerArgument(value));
            if (integerArgument(value) < 0 && value.type() == VarType::Int) bits &= 0xffffffffull;
            written = std::snprintf(buffer, sizeof buffer, spec.c_str(), bits);
            break;
        }
        case 'c': {
            if (!formatsAsInteger(value)) throw ScriptError("string['format']: failed to format value");
            spec += 'c';
            written = std::snprintf(buffer, sizeof buffer, spec.c_str(), static_cast<int>(integerArgument(value)) & 0xff);
            break;
        }
        case 's': {
            std::string text = value.toString();
            spec += 's';
            int n = std::snprintf(nullptr, 0, spec.c_str(), text.c_str());
            if (n < 0) throw ScriptError("string['format']: failed to format string");
            std::string piece(static_cast<std::size_t>(n) + 1, '\0');
            std::snprintf(piece.data(), piece.size(), spec.c_str(), text.c_str());
            piece.pop_back();
            out += piece;
            continue;
        }
        case 'q': {
            std::string text = value.toString();
            out += '"';
            for (char ch : text) {
                if (ch == '"' || ch == '\\') out += '\\';
                if (ch == '\n') {
                    out += "\\n";
                    continue;
                }
                out += ch;
            }
            out += '"';
            continue;
        }
        default: {
            if (!value.isNumericLike()) throw ScriptError("string['format']: failed to format value");
            spec += conversion;
            double number = toDouble(value);
            int n = std::snprintf(nullptr, 0, spec.c_str(), number);
            if (n < 0) throw ScriptError("string['format']: failed to format value");
            std::string piece(static_cast<std::size_t>(n) + 1, '\0');
            std::snprintf(piece.data(), piece.size(), spec.c_str(), number);
            piece.pop_back();
            out += piece;
            continue;
        }
        }
        if (written < 0) throw ScriptError("string['format']: failed to format value");
        out.append(buffer, std::min<std::size_t>(static_cast<std::size_t>(written), sizeof buffer - 1));
    }
    return Variable(std::move(out));
}

Variable searchPattern(Interpreter& vm, const std::string& text, const std::string& pattern, std::size_t init,
                       bool positions) {
    PatternMatcher matcher(text, pattern, budgetedPatternOptions(vm));
    PatternStepCharge charge{vm, matcher};
    return findPattern(matcher, init, positions);
}

Variable findString(Interpreter& vm, Arguments args) {
    if (args.size() < 2 || args[0].type() != VarType::String || args[1].type() != VarType::String)
        throw ScriptError("string['find'](s, pattern[, init[, plain]]) requires a string and a pattern");
    const std::string& text = args[0].asString();
    const std::string& pattern = args[1].asString();
    std::int64_t init = args.size() > 2 && !args[2].isNil() ? startPosition(integerArgument(args[2]), text.size()) : 1;
    bool plain = args.size() > 3 && isTruthy(args[3]);
    if (init > static_cast<std::int64_t>(text.size()) + 1) return Variable();
    if (!plain && hasPatternSpecials(pattern)) return searchPattern(vm, text, pattern, static_cast<std::size_t>(init - 1), true);
    std::size_t at = text.find(pattern, static_cast<std::size_t>(init - 1));
    if (at == std::string::npos) return Variable();
    return Variable::makeMulti(std::vector<Variable>{Variable(static_cast<std::int32_t>(at + 1)),
                                                     Variable(static_cast<std::int32_t>(at + pattern.size()))});
}

// gmatch's iterator: each call gives the next match's captures (or the whole match), then
// nothing. An empty match right where the previous one ended is skipped, as in gsub.
struct GmatchState {
    Interpreter* vm = nullptr;
    Variable text;
    Variable pattern;
    std::size_t position = 0;
    std::size_t lastMatch = std::string::npos;
    bool finished = false;

    Variable next() {
        const std::string& subject = text.asString();
        PatternMatcher matcher(subject, pattern.asString(), budgetedPatternOptions(*vm));
        PatternStepCharge charge{*vm, matcher};
        PatternMatch match;
        while (!finished) {
            bool found = position <= subject.size() && !(matcher.anchored() && position > 0) &&
                         matcher.find(position, match);
            if (!found) break;
            if (match.start == match.end && match.start == lastMatch) {
                position = match.start + 1;
                continue;
            }
            position = lastMatch = match.end;
            int count = PatternMatcher::valueCount(match);
            if (count == 1) return matcher.captureValue(match, 0);
            std::vector<Variable> values;
            for (int i = 0; i < count; ++i) values.push_back(matcher.captureValue(match, i));
            return Variable::makeMulti(std::move(values));
        }
        finished = true;
        return Variable();
    }
};

Variable gmatchString(Interpreter& vm, Arguments args) {
    if (args.size() != 2 || args[0].type() != VarType::String || args[1].type() != VarType::String)
        throw ScriptError("string['gmatch'](s, pattern) requires a string and a pattern");
    auto state = std::make_shared<GmatchState>();
    state->vm = &vm;
    state->text = args[0];
    state->pattern = args[1];
    return vm.owner.createNativeCallable([state](const Args&) { return state->next(); }, "gmatch iterator");
}

Variable matchString(Interpreter& vm, Arguments args) {
    if (args.size() < 2 || args[0].type() != VarType::String || args[1].type() != VarType::String)
        throw ScriptError("string['match'](s, pattern[, init]) requires a string and a pattern");
    const std::string& text = args[0].asString();
    std::int64_t init = args.size() > 2 && !args[2].isNil() ? startPosition(integerArgument(args[2]), text.size()) : 1;
    if (init > static_cast<std::int64_t>(text.size()) + 1) return Variable();
    return searchPattern(vm, text, args[1].asString(), static_cast<std::size_t>(init - 1), false);
}

Variable subString(Interpreter&, Arguments args) {
    if (args.size() < 2 || args.size() > 3 || args[0].type() != VarType::String || !args[1].isNumericLike() ||
        (args.size() == 3 && !args[2].isNumericLike()))
        throw ScriptError("string['sub'](s, i[, j]) requires a string and 1-2 numeric indices");
    const std::string& text = args[0].asString();
    std::int64_t i = startPosition(integerArgument(args[1]), text.size());
    std::int64_t j = endPosition(args.size() == 3 ? integerArgument(args[2]) : -1, text.size());
    if (i > j) return Variable("");
    return Variable(std::string_view(text).substr(static_cast<std::size_t>(i - 1), static_cast<std::size_t>(j - i + 1)));
}

Variable upperString(Interpreter&, Arguments args) {
    if (args.size() != 1 || args[0].type() != VarType::String)
        throw ScriptError("string['upper'](s) requires exactly 1 string argument");
    std::string text = args[0].asString();
    for (char& c : text)
        if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 32);
    return Variable(std::move(text));
}

Variable lengthOfString(Interpreter&, Arguments args) {
    if (args.size() != 1 || args[0].type() != VarType::String)
        throw ScriptError("string['len'](s) requires exactly 1 string argument");
    return Variable(static_cast<std::int32_t>(args[0].asString().size()));
}

Variable byteString(Interpreter&, Arguments args) {
    if (args.empty() || args[0].type() != VarType::String || (args.size() > 1 && !args[1].isNumericLike()) ||
        (args.size() > 2 && !args[2].isNumericLike()))
        throw ScriptError("string['byte'](s[, i[, j]]) requires a string");
    const std::string& text = args[0].asString();
    std::int64_t i = startPosition(args.size() > 1 ? integerArgument(args[1]) : 1, text.size());
    std::int64_t j = endPosition(args.size() > 2 ? integerArgument(args[2]) : i, text.size());
    std::vector<Variable> bytes;
    for (std::int64_t k = i; k <= j; ++k)
        bytes.push_back(Variable(static_cast<std::int32_t>(static_cast<unsigned char>(text[static_cast<std::size_t>(k - 1)]))));
    if (bytes.empty()) return Variable();
    if (bytes.size() == 1) return bytes[0];
    return Variable::makeMulti(std::move(bytes));
}

}  // namespace

void Interpreter::registerStringLibrary() {
    Library lib(*this);
    Variable string = lib.group("string");
    stringLibrary = string;
    lib.builtin(BuiltinId::StringFormat, string, "string", "format", formatString, true);
    lib.builtin(BuiltinId::StringFind, string, "string", "find", findString, true);
    lib.builtin(BuiltinId::StringMatch, string, "string", "match", matchString, true);
    lib.builtin(BuiltinId::StringGmatch, string, "string", "gmatch", gmatchString, true);
    lib.builtin(BuiltinId::StringGsub, string, "string", "gsub", gsubBuiltin, true);
    lib.builtin(BuiltinId::StringSub, string, "string", "sub", subString);
    lib.builtin(BuiltinId::StringUpper, string, "string", "upper", upperString, true);
    lib.builtin(BuiltinId::StringLen, string, "string", "len", lengthOfString);
    lib.builtin(BuiltinId::StringByte, string, "string", "byte", byteString, true);
    lib.member(string, "string", "lower", [](const Args& args) {
        if (args.size() != 1 || args[0].type() != VarType::String)
            throw ScriptError("string['lower'](s) requires exactly 1 string argument");
        std::string text = args[0].asString();
        for (char& c : text)
            if (c >= 'A' && c <= 'Z') c = static_cast<char>(c + 32);
        return Variable(std::move(text));
    }, true);
    lib.member(string, "string", "rep", [](const Args& args) {
        if (args.size() < 2 || args.size() > 3 || args[0].type() != VarType::String || !args[1].isNumericLike() ||
            (args.size() == 3 && args[2].type() != VarType::String))
            throw ScriptError("string['rep'](s, n[, sep]) requires a string, count, and optional separator");
        const std::string& text = args[0].asString();
        std::int64_t count = integerArgument(args[1]);
        std::string separator = args.size() == 3 ? args[2].asString() : std::string();
        if (count <= 0) return Variable("");
        long double total = static_cast<long double>(text.size() + separator.size()) * static_cast<long double>(count);
        if (total > static_cast<long double>(kMaxStringResult)) throw ScriptError("string['rep'] result is too large");
        std::string out;
        out.reserve(static_cast<std::size_t>(total));
        for (std::int64_t i = 0; i < count; ++i) {
            if (i) out += separator;
            out += text;
        }
        return Variable(std::move(out));
    });
    lib.member(string, "string", "char", [](const Args& args) {
        std::string out;
        for (const Variable& value : args) {
            if (!value.isNumericLike()) throw ScriptError("string['char'] requires numeric byte values");
            std::int64_t code = integerArgument(value);
            if (code < 0 || code > 255) throw ScriptError("string['char'] byte value out of range");
            out += static_cast<char>(code);
        }
        return Variable(std::move(out));
    }, true);
}

}  // namespace korvel
