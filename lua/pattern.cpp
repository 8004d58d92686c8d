// Patterns: the dialect's pattern text becomes a regular expression, which the engine in
// regex.cpp compiles and searches. The dialect has the classes %a %d %s %w (and their negations),
// '.', sets, the anchors, the quantifiers * + ? and the lazy '-', and captures; '%' before any
// other character makes it literal. Compiled patterns are cached per thread by their text, so a
// loop calling string.find with the same pattern translates and compiles it once.
#include "pattern_internal.h"

#include <algorithm>
#include <bitset>
#include <unordered_map>

namespace korvel::lua {

namespace {

// Matching steps one search may take: enough for linear scans of any subject, while exponential
// backtracking on a short subject stops within a fraction of a second.
constexpr std::size_t kMinimumMatchWork = std::size_t{1} << 22;
constexpr std::size_t kMatchWorkPerByte = 64;
// Compiled patterns kept per thread; past this the cache starts over. Longer patterns are
// compiled for each call rather than kept.
constexpr std::size_t kPatternCacheEntries = 128;
constexpr std::size_t kLongestCachedPattern = 1024;

using ByteSet = std::bitset<256>;

// A class letter's members as bracket-expression text ("A-Za-z"), or null for other letters.
const char* classRangeText(char letter) {
    switch (letter) {
    case 'a': case 'A': return "A-Za-z";
    case 'd': case 'D': return "0-9";
    case 's': case 'S': return "\\f\\n\\r\\t\\v ";
    case 'w': case 'W': return "A-Za-z0-9_";
    default: return nullptr;
    }
}

ByteSet classBytes(char letter) {
    ByteSet set;
    for (int c = 0; c < 256; ++c) {
        bool alpha = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        bool digit = c >= '0' && c <= '9';
        bool space = c == ' ' || (c >= '\t' && c <= '\r');
        switch (letter) {
        case 'a': case 'A': set[static_cast<std::size_t>(c)] = alpha; break;
        case 'd': case 'D': set[static_cast<std::size_t>(c)] = digit; break;
        case 's': case 'S': set[static_cast<std::size_t>(c)] = space; break;
        default: set[static_cast<std::size_t>(c)] = alpha || digit || c == '_'; break;
        }
    }
    return letter >= 'A' && letter <= 'Z' ? ~set : set;
}

// The members of `set` as ranges of bracket-expression text. Ranges stop at 0x7f so that no
// range mixes ASCII with the high half (libraries that order bytes as signed would reject it).
void appendRanges(const ByteSet& set, std::string& out) {
    int c = 0;
    while (c < 256) {
        if (!set.test(static_cast<std::size_t>(c))) {
            ++c;
            continue;
        }
        int last = c;
        while (last + 1 < 256 && last + 1 != 0x80 && set.test(static_cast<std::size_t>(last + 1))) ++last;
        escapeRegexLiteralChar(static_cast<unsigned char>(c), true, out);
        if (last > c) {
            if (last > c + 1) out += '-';
            escapeRegexLiteralChar(static_cast<unsigned char>(last), true, out);
        }
        c = last + 1;
    }
}

// Walks a pattern once, checking it as it goes, and writes the regular expression.
class PatternTranslator {
public:
    explicit PatternTranslator(std::string_view pattern) : m_pattern(pattern) {}

    std::string translate() {
        // Compiling takes memory in proportion to the pattern; no script needs more than this.
        if (m_pattern.size() > kMaxPatternLength) fail("pattern too complex");
        std::size_t i = 0;
        if (!m_pattern.empty() && m_pattern[0] == '^') {
            m_out += '^';
            i = 1;
        }
        int openCaptures = 0;
        // Right after an item * + ? - repeat it, and after a capture * + ? repeat the capture;
        // elsewhere they are literal. A '-' after a capture stays a hyphen, as in "(%d+)-(%d+)".
        enum class After { Nothing, Item, Capture } after = After::Nothing;
        while (i < m_pattern.size()) {
            char c = m_pattern[i];
            bool repeats = (after != After::Nothing && (c == '*' || c == '+' || c == '?')) || (after == After::Item && c == '-');
            if (repeats) {
                m_out += c == '-' ? "*?" : std::string(1, c);
                countItem();
                after = After::Nothing;
                ++i;
                continue;
            }
            if (c == '(') {
                if (++m_captures > kMaxCaptures) fail("too many captures");
                countItem();
                if (i + 1 < m_pattern.size() && m_pattern[i + 1] == ')') {
                    m_out += "()";
                    i += 2;
                    after = After::Capture;
                } else {
                    m_out += '(';
                    ++openCaptures;
                    ++i;
                    after = After::Nothing;
                }
                continue;
            }
            if (c == ')') {
                if (openCaptures == 0) fail("invalid pattern capture");
                --openCaptures;
                m_out += ')';
                ++i;
                after = After::Capture;
                continue;
            }
            if (c == '$' && i + 1 == m_pattern.size()) {
                m_out += '$';
                ++i;
                continue;
            }
            i = translateItem(i);
            after = After::Item;
        }
        if (openCaptures > 0) fail("unfinished capture");
        return std::move(m_out);
    }

private:
    [[noreturn]] static void fail(const char* message) { throw PatternSyntaxError{message}; }

    void countItem() {
        if (++m_items > kMaxPatternItems) fail("pattern too complex");
    }

    // One single-byte item at i: '.', %x, [set] or a literal byte. Returns where it ends.
    std::size_t translateItem(std::size_t i) {
        char c = m_pattern[i];
        if (c == '.') {
            m_out += "[\\s\\S]";
            return i + 1;
        }
        if (c == '%') {
            if (i + 1 >= m_pattern.size()) fail("malformed pattern (ends with '%')");
            char letter = m_pattern[i + 1];
            if (const char* ranges = classRangeText(letter)) {
                m_out += letter >= 'A' && letter <= 'Z' ? "[^" : "[";
                m_out += ranges;
                m_out += ']';
            } else {
                escapeRegexLiteralChar(static_cast<unsigned char>(letter), false, m_out);
            }
            return i + 2;
        }
        if (c == '[') return translateSet(i);
        escapeRegexLiteralChar(static_cast<unsigned char>(c), false, m_out);
        return i + 1;
    }

    // [set] at i. The first member may be ']'; '%' escapes the next byte or names a class; a
    // range is "x-y" (nothing when x > y).
    std::size_t translateSet(std::size_t i) {
        std::size_t p = i + 1;
        bool negated = p < m_pattern.size() && m_pattern[p] == '^';
        if (negated) ++p;
        std::size_t close = p;
        do {
            if (close >= m_pattern.size()) fail("malformed pattern (missing ']')");
            char member = m_pattern[close++];
            if (member == '%') {
                if (close >= m_pattern.size()) fail("malformed pattern (missing ']')");
                ++close;
            }
        } while (close >= m_pattern.size() || m_pattern[close] != ']');
        std::string members;
        while (p < close) {
            auto c = static_cast<unsigned char>(m_pattern[p]);
            if (c == '%') {
                char letter = m_pattern[p + 1];
                const char* ranges = classRangeText(letter);
                if (ranges && letter >= 'a' && letter <= 'z') {
                    members += ranges;
                } else if (ranges) {
                    appendRanges(classBytes(letter), members);
                } else {
                    escapeRegexLiteralChar(static_cast<unsigned char>(letter), true, members);
                }
                p += 2;
            } else if (p + 2 < close && m_pattern[p + 1] == '-') {
                auto high = static_cast<unsigned char>(m_pattern[p + 2]);
                if (c <= high) {
                    ByteSet range;
                    for (int byte = c; byte <= high; ++byte) range.set(static_cast<std::size_t>(byte));
                    appendRanges(range, members);
                }
                p += 3;
            } else {
                escapeRegexLiteralChar(c, true, members);
                ++p;
            }
        }
        if (members.empty()) {
            m_out += negated ? "[\\s\\S]" : "[^\\s\\S]";
        } else {
            m_out += negated ? "[^" : "[";
            m_out += members;
            m_out += ']';
        }
        return close + 1;
    }

    std::string_view m_pattern;
    std::string m_out;
    int m_captures = 0;
    int m_items = 0;
};

struct TextHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const { return std::hash<std::string_view>{}(text); }
};

struct PatternCache {
    std::unordered_map<std::string, std::shared_ptr<const RegexProgram>, TextHash, std::equal_to<>> programs;
    std::string lastPattern;
    std::shared_ptr<const RegexProgram> lastProgram;
};

void countMatchWork(void* context) { static_cast<LuaVM::Impl*>(context)->countStep(); }

} // namespace

void escapeRegexLiteralChar(unsigned char c, bool inBracket, std::string& out) {
    static constexpr char kDigits[] = "0123456789abcdef";
    if (c < 0x20 || c >= 0x7f) {
        out += "\\x";
        out += kDigits[c >> 4];
        out += kDigits[c & 15];
        return;
    }
    std::string_view special = inBracket ? "\\]^-[" : "\\^$.|?*+()[]{}";
    if (special.find(static_cast<char>(c)) != std::string_view::npos) out += '\\';
    out += static_cast<char>(c);
}

std::string translateLuaPatternToRegex(std::string_view pattern) { return PatternTranslator(pattern).translate(); }

bool isPlainPattern(std::string_view pattern) {
    return pattern.find_first_of("^$*+?.([%-") == std::string_view::npos;
}

std::shared_ptr<const RegexProgram> compilePattern(LuaVM::Impl& vm, std::string_view pattern) {
    thread_local PatternCache cache;
    if (cache.lastProgram && cache.lastPattern == pattern) return cache.lastProgram;
    auto found = cache.programs.find(pattern);
    if (found != cache.programs.end()) {
        cache.lastPattern = pattern;
        cache.lastProgram = found->second;
        return found->second;
    }
    std::string regex;
    try {
        regex = translateLuaPatternToRegex(pattern);
    } catch (const PatternSyntaxError& error) {
        vm.failRuntime(vm.m_currentLine, error.message);
    }
    RegexSyntaxError syntaxError;
    std::shared_ptr<const RegexProgram> program = compileRegex(regex, syntaxError);
    // The translation only writes what the engine reads; a failure here is a fault in one of them.
    if (!program) vm.failRuntime(vm.m_currentLine, "malformed pattern (" + syntaxError.message + ")");
    if (pattern.size() <= kLongestCachedPattern) {
        if (cache.programs.size() >= kPatternCacheEntries) cache.programs.clear();
        cache.programs.emplace(std::string(pattern), program);
        cache.lastPattern = pattern;
        cache.lastProgram = program;
    }
    return program;
}

bool findCompiledPattern(LuaVM::Impl& vm, const RegexProgram& program, std::string_view subject, std::size_t init,
                         PatternMatch& match) {
    if (init > subject.size()) return false;
    RegexBudget budget;
    budget.stepLimit = std::max(kMinimumMatchWork, subject.size() * kMatchWorkPerByte);
    budget.onBlock = countMatchWork;
    budget.context = &vm;
    thread_local RegexSpans spans;
    RegexOutcome outcome = searchRegex(program, subject, init, budget, spans);
    if (outcome == RegexOutcome::TooComplex) vm.failRuntime(vm.m_currentLine, "pattern matching is too complex");
    if (outcome == RegexOutcome::NotFound) return false;
    match.start = spans.starts[0];
    match.end = spans.ends[0];
    match.captureCount = regexGroupCount(program);
    for (int i = 0; i < match.captureCount; ++i) {
        auto group = static_cast<std::size_t>(i + 1);
        PatternMatch::Capture& capture = match.captures[i];
        capture.isSet = spans.starts[group] != RegexSpans::kUnset;
        capture.isPosition = regexGroupIsEmpty(program, i + 1);
        capture.start = capture.isSet ? spans.starts[group] : 0;
        capture.length = capture.isSet ? spans.ends[group] - spans.starts[group] : 0;
    }
    return true;
}

bool findPattern(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, std::size_t init, PatternMatch& match) {
    std::shared_ptr<const RegexProgram> program = compilePattern(vm, pattern);
    return findCompiledPattern(vm, *program, subject, init, match);
}

Value captureValue(std::string_view subject, const PatternMatch& match, int index) {
    if (index == 0 && match.captureCount == 0) return Value::string(subject.substr(match.start, match.end - match.start));
    const PatternMatch::Capture& capture = match.captures[index == 0 ? 0 : index - 1];
    if (!capture.isSet) return Value();
    if (capture.isPosition) return Value::integer(static_cast<std::int64_t>(capture.start) + 1);
    return Value::string(subject.substr(capture.start, capture.length));
}

void pushCaptures(std::string_view subject, const PatternMatch& match, MultiValue& out) {
    if (match.captureCount == 0) {
        out.push(captureValue(subject, match, 0));
        return;
    }
    for (int i = 1; i <= match.captureCount; ++i) out.push(captureValue(subject, match, i));
}

} // namespace korvel::lua
