// gsub: the pattern translation into a regular expression, the choice of engine, the
// substitution loop and the replacement forms (string with %0-%9, table, function).

// GCC 12 reports std::function members inside the standard library's regex automaton as
// "maybe uninitialized" when optimising with the sanitizers on; the warning is about
// library code instantiated here, not about this file. Placed before every include, because
// GCC judges the warning by the location in the library header.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "core/gsub.h"

#include "core/library_internal.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstring>

namespace korvel {

namespace {

constexpr const char* kArgumentsMessage = "gsub(string, pattern, replacement)";
constexpr int kMaxRegexItems = 1024;          // longer patterns: the regex compiler recurses per item
constexpr std::size_t kCachedPatternLength = 4096;
constexpr std::size_t kPatternCacheSize = 64;
#if defined(KORVEL_SANITIZE) || defined(__SANITIZE_ADDRESS__)
constexpr double kRegexStackPerStep = 4096;   // the regex executor recurses about once per byte
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr double kRegexStackPerStep = 4096;
#else
constexpr double kRegexStackPerStep = 1024;
#endif
#else
constexpr double kRegexStackPerStep = 1024;
#endif

// The class letters and the ranges they stand for; upper case negates. Inside a set the bare
// ranges are inserted.
const char* classRanges(char letter) {
    switch (std::tolower(static_cast<unsigned char>(letter))) {
    case 'a': return "A-Za-z";
    case 'u': return "A-Z";
    case 'l': return "a-z";
    case 'x': return "A-Fa-f0-9";
    case 'p': return "!-/:-@\\[-`\\{-~";
    case 'd': return "0-9";
    case 's': return " \\t\\n\\v\\f\\r";
    case 'w': return "A-Za-z0-9";
    case 'c': return "\\x00-\\x1f\\x7f";
    case 'g': return "!-~";
    default: return nullptr;
    }
}

void appendHexEscape(std::string& out, unsigned char c) {
    static const char digits[] = "0123456789abcdef";
    out += "\\x";
    out += digits[c >> 4];
    out += digits[c & 15];
}

void appendLiteral(std::string& out, unsigned char c, bool inSet) {
    if (c < 0x20 || c >= 0x7f) {
        appendHexEscape(out, c);
    } else if (std::strchr(inSet ? "\\]^-[" : "\\^$.|?*+()[]{}", c)) {
        out += '\\';
        out += static_cast<char>(c);
    } else {
        out += static_cast<char>(c);
    }
}

// Walks a Lua pattern once: checks it as the matcher would, counts what the engine choice
// needs, and writes the equivalent regular expression where one exists.
class PatternTranslator {
public:
    PatternTranslator(GsubPattern& out, std::string_view pattern) : m_out(out), m_pattern(pattern) {}

    void translate() {
        std::size_t i = 0;
        std::string& regex = m_out.translation;
        if (!m_pattern.empty() && m_pattern[0] == '^') {
            m_out.anchored = true;
            regex += '^';
            i = 1;
        }
        std::vector<int> open;
        std::vector<bool> closed;
        while (i < m_pattern.size()) {
            char c = m_pattern[i];
            if (c == '(') {
                if (m_out.captureCount >= kMaxPatternCaptures) invalid();
                bool position = i + 1 < m_pattern.size() && m_pattern[i + 1] == ')';
                m_out.positionCaptures.push_back(position);
                closed.push_back(position);
                if (!position) open.push_back(m_out.captureCount);
                ++m_out.captureCount;
                regex += position ? "()" : "(";
                i += position ? 2 : 1;
                continue;
            }
            if (c == ')') {
                if (open.empty()) invalid();
                closed[static_cast<std::size_t>(open.back())] = true;
                open.pop_back();
                regex += ')';
                ++i;
                continue;
            }
            if (c == '$' && i + 1 == m_pattern.size()) {
                regex += '$';
                ++i;
                continue;
            }
            if (c == '%' && i + 1 < m_pattern.size()) {
                char next = m_pattern[i + 1];
                if (next == 'b') {  // %bxy: balanced text, beyond a regular expression
                    if (i + 3 >= m_pattern.size()) invalid();
                    m_out.hasRegex = false;
                    i += 4;
                    continue;
                }
                if (next == 'f') {  // %f[set]: a frontier, needs look-behind
                    if (i + 2 >= m_pattern.size() || m_pattern[i + 2] != '[') invalid();
                    m_out.hasRegex = false;
                    i = itemEnd(i + 2);
                    continue;
                }
                if (std::isdigit(static_cast<unsigned char>(next))) {
                    int index = next - '0';
                    if (index == 0 || index > m_out.captureCount || !closed[static_cast<std::size_t>(index - 1)] ||
                        m_out.positionCaptures[static_cast<std::size_t>(index - 1)])
                        invalid();
                    regex += '\\';
                    regex += next;
                    ++m_out.backReferences;
                    i += 2;
                    continue;
                }
            }
            std::size_t end = itemEnd(i);
            translateItem(i, end);
            ++m_out.items;
            char quantifier = end < m_pattern.size() ? m_pattern[end] : '\0';
            i = end;
            switch (quantifier) {
            case '*': regex += '*'; break;
            case '+': regex += '+'; break;
            case '-': regex += "*?"; break;
            case '?': regex += '?'; break;
            default: continue;
            }
            ++(quantifier == '?' ? m_out.optionals : m_out.repeats);
            ++i;
        }
        if (!open.empty()) invalid();  // an unfinished capture
        if (m_out.items > kMaxRegexItems) m_out.hasRegex = false;
    }

private:
    [[noreturn]] void invalid() const { throw ScriptError("gsub: invalid regex pattern '" + m_out.source); }

    // Where the single-character item at i ends (as the matcher's classEnd).
    std::size_t itemEnd(std::size_t i) const {
        char c = m_pattern[i++];
        if (c == '%') {
            if (i >= m_pattern.size()) invalid();
            return i + 1;
        }
        if (c == '[') {
            if (i < m_pattern.size() && m_pattern[i] == '^') ++i;
            do {
                if (i >= m_pattern.size()) invalid();
                char d = m_pattern[i++];
                if (d == '%' && i < m_pattern.size()) ++i;
            } while (i >= m_pattern.size() || m_pattern[i] != ']');
            return i + 1;
        }
        return i;
    }

    void translateItem(std::size_t i, std::size_t end) {
        std::string& regex = m_out.translation;
        auto c = static_cast<unsigned char>(m_pattern[i]);
        if (c == '.') {
            regex += "[\\s\\S]";
        } else if (c == '%') {
            char letter = m_pattern[i + 1];
            if (const char* ranges = classRanges(letter)) {
                regex += std::isupper(static_cast<unsigned char>(letter)) ? "[^" : "[";
                regex += ranges;
                regex += ']';
            } else {
                appendLiteral(regex, static_cast<unsigned char>(letter), false);
            }
        } else if (c == '[') {
            translateSet(i, end);
        } else {
            appendLiteral(regex, c, false);
        }
    }

    // [set]: members, ranges and classes as the matcher's setMatches reads them.
    void translateSet(std::size_t i, std::size_t end) {
        std::string members;
        std::size_t p = i + 1;
        bool negate = m_pattern[p] == '^';
        if (negate) ++p;
        std::size_t close = end - 1;
        while (p < close) {
            auto c = static_cast<unsigned char>(m_pattern[p]);
            if (c == '%' && p + 1 < close) {
                char letter = m_pattern[p + 1];
                const char* ranges = classRanges(letter);
                if (ranges && std::islower(static_cast<unsigned char>(letter))) {
                    members += ranges;
                } else if (ranges && (letter == 'S' || letter == 'D')) {
                    members += letter == 'S' ? "\\S" : "\\D";
                } else if (ranges) {
                    m_out.hasRegex = false;  // a negated class inside a set
                } else {
                    appendLiteral(members, static_cast<unsigned char>(letter), true);
                }
                p += 2;
            } else if (p + 2 < close && m_pattern[p + 1] == '-') {
                auto low = c, high = static_cast<unsigned char>(m_pattern[p + 2]);
                if (high >= 0x80) {
                    m_out.hasRegex = false;  // the library orders chars as signed: no such range
                } else if (low <= high) {
                    appendLiteral(members, low, true);
                    members += '-';
                    appendLiteral(members, high, true);
                }
                p += 3;
            } else {
                appendLiteral(members, c, true);
                ++p;
            }
        }
        if (members.empty()) {
            m_out.translation += negate ? "[\\s\\S]" : "[^\\s\\S]";
            return;
        }
        m_out.translation += negate ? "[^" : "[";
        m_out.translation += members;
        m_out.translation += ']';
    }

    GsubPattern& m_out;
    std::string_view m_pattern;
};

bool hasPatternSpecials(std::string_view pattern) { return pattern.find_first_of("^$*+?.([%-") != std::string_view::npos; }

// "(?im)" in front of the pattern: the flags and where the Lua pattern starts.
std::size_t parseFlags(const std::string& pattern, PatternOptions& options) {
    if (pattern.size() < 4 || pattern[0] != '(' || pattern[1] != '?') return 0;
    std::size_t end = 2;
    while (end < pattern.size() && std::isalpha(static_cast<unsigned char>(pattern[end]))) ++end;
    if (end == 2 || end >= pattern.size() || pattern[end] != ')') return 0;
    for (std::size_t i = 2; i < end; ++i) {
        char flag = pattern[i];
        if (flag == 'i') {
            options.ignoreCase = true;
        } else if (flag == 'm') {
            options.multiline = true;
        } else {
            throw ScriptError(std::string("gsub: unsupported regex flag '") + flag + "' (supported: i, m)");
        }
    }
    return end + 1;
}

// --- finding matches ----------------------------------------------------------------------

class PlainFinder {
public:
    PlainFinder(const std::string& text, std::string_view needle) : m_text(text), m_needle(needle) {}
    bool find(std::size_t from, PatternMatch& match) {
        std::size_t at = m_text.find(m_needle, from);
        if (at == std::string::npos) return false;
        match.start = at;
        match.end = at + m_needle.size();
        match.captureCount = 0;
        return true;
    }

private:
    std::string_view m_text;
    std::string_view m_needle;
};

class RegexFinder {
public:
    RegexFinder(const GsubPattern& pattern, const std::string& text) : m_pattern(pattern), m_text(text) {}
    bool find(std::size_t from, PatternMatch& match) {
        auto flags = from > 0 ? std::regex_constants::match_prev_avail : std::regex_constants::match_default;
        std::cmatch found;
        const char* begin = m_text.data() + from;
        if (!std::regex_search(begin, m_text.data() + m_text.size(), found, m_pattern.regex, flags)) return false;
        match.start = from + static_cast<std::size_t>(found.position(0));
        match.end = match.start + static_cast<std::size_t>(found.length(0));
        match.captureCount = m_pattern.captureCount;
        for (int i = 0; i < m_pattern.captureCount; ++i) {
            auto group = static_cast<std::size_t>(i + 1);
            match.captures[i].start = from + static_cast<std::size_t>(found.position(group));
            match.captures[i].length = m_pattern.positionCaptures[static_cast<std::size_t>(i)]
                                           ? PatternMatch::kPositionCapture
                                           : static_cast<std::ptrdiff_t>(found.length(group));
        }
        return true;
    }

private:
    const GsubPattern& m_pattern;
    const std::string& m_text;
};

class MatcherFinder {
public:
    MatcherFinder(const GsubPattern& pattern, const std::string& text, long steps)
        : m_matcher(text, pattern.luaPattern, withBudget(pattern.options, steps)) {}
    bool find(std::size_t from, PatternMatch& match) { return m_matcher.find(from, match); }
    long stepsUsed() const { return m_matcher.stepsUsed(); }

private:
    static PatternOptions withBudget(PatternOptions options, long steps) {
        options.stepBudget = steps;
        return options;
    }
    PatternMatcher m_matcher;
};

// The regular expression's worst-case backtracking on a subject of this length: every split
// of the subject among the repeated items, at every start.
double regexWork(const GsubPattern& pattern, std::size_t length) {
    double positions = static_cast<double>(length) + 1.0;
    double starts = pattern.anchored && !pattern.options.multiline ? 1.0 : positions;
    return starts * (pattern.items + 1.0) * std::pow(positions, pattern.repeats + pattern.backReferences) *
           std::pow(2.0, pattern.optionals);
}

// Whether the regular expression can run: its recursion (about once per byte a repeat
// consumes) must fit the stack, and its worst case the work budget.
bool regexIsSafe(const GsubPattern& pattern, std::size_t length, const GsubBudget& budget) {
    if (!pattern.hasRegex) return false;
    bool unbounded = pattern.repeats + pattern.backReferences > 0;
    double depth = (unbounded ? static_cast<double>(length) + 1.0 : 0.0) + pattern.items + pattern.captureCount + 1.0;
    if (depth * kRegexStackPerStep > static_cast<double>(budget.stackRoom) / 2) return false;
    return regexWork(pattern, length) <= budget.regexWork;
}

// --- replacements -------------------------------------------------------------------------

class Replacer {
public:
    Replacer(const std::string& text, const Variable& replacement, const GsubCall& call)
        : m_text(text), m_replacement(replacement), m_call(call) {}

    void append(std::string& out, const PatternMatch& match) {
        switch (m_replacement.type()) {
        case VarType::String: appendTemplate(out, match); return;
        case VarType::Table: {
            Variable key = patternCaptureValue(m_text, match, 0);
            std::string buffer;
            std::string_view keyString = key.type() == VarType::String ? std::string_view(key.asString()) : keyText(key, buffer);
            Variable* value = m_replacement.table().find(keyString);
            if (!value) throw ScriptError("gsub replacement table missing key: " + std::string(keyString));
            appendValue(out, *value, match);
            return;
        }
        default: {
            std::vector<Variable> arguments;
            for (int i = 0; i < PatternMatcher::valueCount(match); ++i) arguments.push_back(patternCaptureValue(m_text, match, i));
            Variable result = m_call(arguments);
            if (result.type() == VarType::MultiValue)
                result = result.multiValues().empty() ? Variable() : Variable(result.multiValues()[0]);
            appendValue(out, result, match);
            return;
        }
        }
    }

private:
    // "%1".."%9" a capture, "%0" the whole match, "%%" a percent sign.
    void appendTemplate(std::string& out, const PatternMatch& match) const {
        const std::string& form = m_replacement.asString();
        for (std::size_t i = 0; i < form.size(); ++i) {
            char c = form[i];
            if (c != '%') {
                out += c;
                continue;
            }
            if (++i >= form.size()) throw ScriptError("gsub: invalid use of '%' in replacement string");
            char d = form[i];
            if (d == '%') {
                out += '%';
            } else if (d == '0') {
                out.append(m_text, match.start, match.end - match.start);
            } else if (std::isdigit(static_cast<unsigned char>(d))) {
                int index = d - '1';
                if (index >= match.captureCount && !(index == 0 && match.captureCount == 0))
                    throw ScriptError(std::string("gsub: invalid capture index %") + d + " in replacement string");
                patternCaptureValue(m_text, match, index).appendTo(out);
            } else {
                throw ScriptError("gsub: invalid use of '%' in replacement string");
            }
        }
    }

    // A looked-up or returned value: nothing or false keeps the match, text and numbers replace it.
    void appendValue(std::string& out, const Variable& value, const PatternMatch& match) const {
        switch (value.type()) {
        case VarType::Nil: out.append(m_text, match.start, match.end - match.start); return;
        case VarType::Bool:
            if (!value.asBool()) {
                out.append(m_text, match.start, match.end - match.start);
                return;
            }
            break;
        case VarType::String:
        case VarType::Int:
        case VarType::Float: value.appendTo(out); return;
        default: break;
        }
        throw ScriptError(std::string("gsub: invalid replacement value (a ") + typeName(value.type()) + ")");
    }

    const std::string& m_text;
    const Variable& m_replacement;
    const GsubCall& m_call;
};

template <typename Finder>
std::string substituteWith(Finder& finder, const GsubPattern& pattern, const std::string& text, Replacer& replacer) {
    std::string out;
    std::size_t source = 0;
    std::size_t lastMatch = std::string::npos;
    bool once = pattern.anchored && !pattern.options.multiline;
    PatternMatch match;
    while (finder.find(source, match)) {
        if (match.start == match.end && match.start == lastMatch) {
            // An empty match where the previous match ended does not count: move on one byte.
            if (match.start >= text.size()) break;
            out.append(text, source, match.start + 1 - source);
            source = match.start + 1;
        } else {
            out.append(text, source, match.start - source);
            replacer.append(out, match);
            source = lastMatch = match.end;
        }
        if (out.size() > kMaxStringResult) throw ScriptError("gsub: result string is too large");
        if (once) break;
    }
    out.append(text, source, std::string::npos);
    if (out.size() > kMaxStringResult) throw ScriptError("gsub: result string is too large");
    return out;
}

}  // namespace

std::shared_ptr<const GsubPattern> compileGsubPattern(const std::string& pattern) {
    auto compiled = std::make_shared<GsubPattern>();
    compiled->source = pattern;
    std::size_t start = parseFlags(pattern, compiled->options);
    compiled->luaPattern = pattern.substr(start);
    bool flagged = start > 0;
    if (!flagged && !hasPatternSpecials(compiled->luaPattern)) {
        compiled->plain = true;
        return compiled;
    }
    compiled->hasRegex = true;
    PatternTranslator(*compiled, compiled->luaPattern).translate();
    if (compiled->hasRegex) {
        auto syntax = std::regex::ECMAScript;
        if (compiled->options.ignoreCase) syntax |= std::regex::icase;
        if (compiled->options.multiline) syntax |= std::regex::multiline;
        try {
            compiled->regex.assign(compiled->translation, syntax);
        } catch (const std::regex_error&) {
            throw ScriptError("gsub: invalid regex pattern '" + pattern);
        }
    }
    return compiled;
}

std::string substituteMatches(const GsubPattern& pattern, const std::string& text, const Variable& replacement,
                              const GsubCall& call, GsubEngine engine, GsubBudget& budget) {
    Replacer replacer(text, replacement, call);
    budget.spent = text.size() / 16;  // one pass over the subject at least
    if (pattern.plain) {
        PlainFinder finder(text, pattern.luaPattern);
        return substituteWith(finder, pattern, text, replacer);
    }
    bool useRegex = pattern.hasRegex && (engine == GsubEngine::RegularExpression ||
                                         (engine == GsubEngine::Automatic && regexIsSafe(pattern, text.size(), budget)));
    if (useRegex) {
        budget.spent += static_cast<std::uint64_t>(std::min(regexWork(pattern, text.size()), 1e18));
        RegexFinder finder(pattern, text);
        return substituteWith(finder, pattern, text, replacer);
    }
    MatcherFinder finder(pattern, text, budget.matcherSteps);
    struct Spent {
        GsubBudget& budget;
        const MatcherFinder& finder;
        ~Spent() { budget.spent += static_cast<std::uint64_t>(finder.stepsUsed()); }
    } spent{budget, finder};
    return substituteWith(finder, pattern, text, replacer);
}

std::shared_ptr<const GsubPattern> Interpreter::getCachedGsubPattern(const std::string& pattern) {
    auto found = gsubPatterns.find(pattern);
    if (found != gsubPatterns.end()) return found->second;
    std::shared_ptr<const GsubPattern> compiled = compileGsubPattern(pattern);
    if (pattern.size() <= kCachedPatternLength) {
        if (gsubPatterns.size() >= kPatternCacheSize) gsubPatterns.clear();
        gsubPatterns.emplace(pattern, compiled);
    }
    return compiled;
}

Variable gsubBuiltin(Interpreter& vm, Arguments args) {
    if (args.size() != 3) throw ScriptError(std::string(kArgumentsMessage) + " requires exactly 3 arguments");
    if (args[0].type() != VarType::String)
        throw ScriptError(std::string(kArgumentsMessage) + ": first argument must be a string");
    if (args[1].type() != VarType::String)
        throw ScriptError(std::string(kArgumentsMessage) + ": second argument must be a string pattern");
    VarType kind = args[2].type();
    if (kind != VarType::String && kind != VarType::Table && kind != VarType::Function)
        throw ScriptError(std::string(kArgumentsMessage) + ": replacement must be a string or table");
    std::shared_ptr<const GsubPattern> pattern = vm.getCachedGsubPattern(args[1].asString());
    Variable function = args[2];
    GsubCall call = [&vm, &function](const std::vector<Variable>& arguments) { return vm.call(function, arguments); };
    GsubBudget budget;
    budget.stackRoom = vm.stackRoom();
    budget.matcherSteps = vm.patternStepLimit(budget.matcherSteps);
    budget.regexWork = std::min(budget.regexWork, static_cast<double>(budget.matcherSteps));
    struct Charge {
        Interpreter& vm;
        const GsubBudget& budget;
        ~Charge() { vm.patternSteps += budget.spent; }
    } charge{vm, budget};
    return Variable(substituteMatches(*pattern, args[0].asString(), args[2], call, GsubEngine::Automatic, budget));
}

}  // namespace korvel
