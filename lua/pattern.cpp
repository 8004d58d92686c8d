// Pattern matcher. The dialect's patterns are the regular-expression subset the library promises:
// the classes %a %d %s %w (and their negations), '.', sets, anchors, the quantifiers * + ? and the
// lazy '-', and captures; '%' before any other character makes it literal. A direct backtracking
// matcher gives exactly those results without a regular-expression engine, whose recursion grows
// with the subject's length; here recursion is bounded by the pattern (kMaxMatchDepth).
#include "pattern_internal.h"

#include <algorithm>

namespace korvel::lua {

namespace {

constexpr int kMaxMatchDepth = 200;
// Matching steps one search may take: enough for linear scans of any subject, while exponential
// backtracking on a short subject stops within a fraction of a second.
constexpr std::size_t kMinimumMatchWork = std::size_t{1} << 22;
constexpr std::size_t kMatchWorkPerByte = 64;
constexpr std::size_t kUnfinished = ~std::size_t{0};

bool isSpaceByte(unsigned char c) { return c == ' ' || c == '\f' || c == '\n' || c == '\r' || c == '\t' || c == '\v'; }
bool isAlphaByte(unsigned char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isDigitByte(unsigned char c) { return c >= '0' && c <= '9'; }

// A '%x' item: one of the eight classes, or the character itself.
bool classMatches(unsigned char c, unsigned char classLetter) {
    switch (classLetter) {
    case 'a': return isAlphaByte(c);
    case 'A': return !isAlphaByte(c);
    case 'd': return isDigitByte(c);
    case 'D': return !isDigitByte(c);
    case 's': return isSpaceByte(c);
    case 'S': return !isSpaceByte(c);
    case 'w': return isAlphaByte(c) || isDigitByte(c) || c == '_';
    case 'W': return !(isAlphaByte(c) || isDigitByte(c) || c == '_');
    default: return c == classLetter;
    }
}

class Matcher {
public:
    Matcher(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, PatternMatch& result)
        : m_vm(vm), m_subject(subject), m_pattern(pattern), m_result(result),
          m_workLimit(std::max(kMinimumMatchWork, subject.size() * kMatchWorkPerByte)) {}

    // Returns the end offset of a match starting at `s`, or npos.
    std::size_t matchFrom(std::size_t s, std::size_t p) {
        m_result.captureCount = 0;
        m_depth = 0;
        return match(s, p);
    }

    // Long subjects can make matching quadratic; the work counts against the host's step budget.
    // Backtracking can take exponential time ("a?a?a?...aaa"); one search may do at most
    // m_workLimit steps, so a library call always ends.
    void tick() {
        if (++m_work >= 4096) {
            m_work = 0;
            m_vm.countStep();
            if (++m_workBlocks > m_workLimit / 4096) fail("pattern matching is too complex");
        }
    }

private:
    [[noreturn]] void fail(const char* message) { m_vm.failRuntime(m_vm.m_currentLine, message); }

    std::size_t classEnd(std::size_t p) {
        char c = m_pattern[p++];
        if (c == '%') {
            if (p >= m_pattern.size()) fail("malformed pattern (ends with '%')");
            return p + 1;
        }
        if (c == '[') {
            if (p < m_pattern.size() && m_pattern[p] == '^') ++p;
            // The first ']' of a set is a member, not its end.
            do {
                if (p >= m_pattern.size()) fail("malformed pattern (missing ']')");
                char member = m_pattern[p++];
                if (member == '%') {
                    if (p >= m_pattern.size()) fail("malformed pattern (missing ']')");
                    ++p;
                }
            } while (p >= m_pattern.size() || m_pattern[p] != ']');
            return p + 1;
        }
        return p;
    }

    bool setMatches(unsigned char c, std::size_t p, std::size_t setEnd) const {
        // p is at '[', setEnd at the closing ']'.
        bool negated = false;
        ++p;
        if (m_pattern[p] == '^') {
            negated = true;
            ++p;
        }
        bool first = true;
        while (p < setEnd && (first || m_pattern[p] != ']')) {
            first = false;
            unsigned char member = static_cast<unsigned char>(m_pattern[p]);
            if (member == '%' && p + 1 < setEnd) {
                if (classMatches(c, static_cast<unsigned char>(m_pattern[p + 1]))) return !negated;
                p += 2;
            } else if (p + 2 < setEnd && m_pattern[p + 1] == '-') {
                if (static_cast<unsigned char>(m_pattern[p]) <= c && c <= static_cast<unsigned char>(m_pattern[p + 2])) {
                    return !negated;
                }
                p += 3;
            } else {
                if (member == c) return !negated;
                ++p;
            }
        }
        return negated;
    }

    bool singleMatch(std::size_t s, std::size_t p, std::size_t ep) const {
        if (s >= m_subject.size()) return false;
        unsigned char c = static_cast<unsigned char>(m_subject[s]);
        switch (m_pattern[p]) {
        case '.': return true;
        case '%': return classMatches(c, static_cast<unsigned char>(m_pattern[p + 1]));
        case '[': return setMatches(c, p, ep - 1);
        default: return static_cast<unsigned char>(m_pattern[p]) == c;
        }
    }

    std::size_t maxExpand(std::size_t s, std::size_t p, std::size_t ep) {
        std::size_t count = 0;
        while (singleMatch(s + count, p, ep)) {
            ++count;
            tick();
        }
        while (true) {
            tick();
            std::size_t result = match(s + count, ep + 1);
            if (result != std::string_view::npos) return result;
            if (count == 0) return std::string_view::npos;
            --count;
        }
    }

    std::size_t minExpand(std::size_t s, std::size_t p, std::size_t ep) {
        while (true) {
            tick();
            std::size_t result = match(s, ep + 1);
            if (result != std::string_view::npos) return result;
            if (!singleMatch(s, p, ep)) return std::string_view::npos;
            ++s;
        }
    }

    std::size_t startCapture(std::size_t s, std::size_t p, bool isPosition) {
        if (m_result.captureCount >= kMaxCaptures) fail("too many captures");
        PatternMatch::Capture& capture = m_result.captures[m_result.captureCount++];
        capture.start = s;
        capture.length = isPosition ? 0 : kUnfinished;
        capture.isPosition = isPosition;
        std::size_t result = match(s, p);
        if (result == std::string_view::npos) --m_result.captureCount;
        return result;
    }

    std::size_t endCapture(std::size_t s, std::size_t p) {
        int open = -1;
        for (int i = m_result.captureCount - 1; i >= 0; --i) {
            if (m_result.captures[i].length == kUnfinished && !m_result.captures[i].isPosition) {
                open = i;
                break;
            }
        }
        if (open < 0) fail("invalid pattern capture");
        PatternMatch::Capture& capture = m_result.captures[open];
        capture.length = s - capture.start;
        std::size_t result = match(s, p);
        if (result == std::string_view::npos) capture.length = kUnfinished;
        return result;
    }

    std::size_t match(std::size_t s, std::size_t p) {
        if (++m_depth > kMaxMatchDepth) fail("pattern too complex");
        tick();
        struct Leave {
            int& depth;
            ~Leave() { --depth; }
        } leave{m_depth};
        while (true) {
            if (p >= m_pattern.size()) return s;
            char c = m_pattern[p];
            if (c == '(') {
                if (p + 1 < m_pattern.size() && m_pattern[p + 1] == ')') return startCapture(s, p + 2, true);
                return startCapture(s, p + 1, false);
            }
            if (c == ')') return endCapture(s, p + 1);
            if (c == '$' && p + 1 == m_pattern.size()) return s == m_subject.size() ? s : std::string_view::npos;
            std::size_t ep = classEnd(p);
            char quantifier = ep < m_pattern.size() ? m_pattern[ep] : '\0';
            if (quantifier == '?') {
                if (singleMatch(s, p, ep)) {
                    std::size_t result = match(s + 1, ep + 1);
                    if (result != std::string_view::npos) return result;
                }
                p = ep + 1;
                continue;
            }
            if (quantifier == '+') return singleMatch(s, p, ep) ? maxExpand(s + 1, p, ep) : std::string_view::npos;
            if (quantifier == '*') return maxExpand(s, p, ep);
            if (quantifier == '-') return minExpand(s, p, ep);
            if (!singleMatch(s, p, ep)) return std::string_view::npos;
            ++s;
            p = ep;
        }
    }

    LuaVM::Impl& m_vm;
    std::string_view m_subject;
    std::string_view m_pattern;
    PatternMatch& m_result;
    int m_depth = 0;
    std::size_t m_work = 0;
    std::size_t m_workBlocks = 0;
    std::size_t m_workLimit;
};

void finishCaptures(LuaVM::Impl& vm, PatternMatch& match) {
    for (int i = 0; i < match.captureCount; ++i) {
        if (match.captures[i].length == kUnfinished) vm.failRuntime(vm.m_currentLine, "unfinished capture");
    }
}

} // namespace

bool isPlainPattern(std::string_view pattern) {
    return pattern.find_first_of("^$*+?.([%-") == std::string_view::npos;
}

bool matchPatternAt(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, std::size_t at, PatternMatch& match) {
    Matcher matcher(vm, subject, pattern, match);
    std::size_t end = matcher.matchFrom(at, 0);
    if (end == std::string_view::npos) return false;
    finishCaptures(vm, match);
    match.start = at;
    match.end = end;
    return true;
}

bool findPattern(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, std::size_t init, PatternMatch& match) {
    if (init > subject.size()) return false;
    bool anchored = !pattern.empty() && pattern[0] == '^';
    if (anchored) pattern.remove_prefix(1);
    Matcher matcher(vm, subject, pattern, match);
    for (std::size_t at = init;; ++at) {
        matcher.tick();
        std::size_t end = matcher.matchFrom(at, 0);
        if (end != std::string_view::npos) {
            finishCaptures(vm, match);
            match.start = at;
            match.end = end;
            return true;
        }
        if (anchored || at >= subject.size()) return false;
    }
}

Value captureValue(std::string_view subject, const PatternMatch& match, int index) {
    if (index == 0 && match.captureCount == 0) return Value::string(subject.substr(match.start, match.end - match.start));
    const PatternMatch::Capture& capture = match.captures[index == 0 ? 0 : index - 1];
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
