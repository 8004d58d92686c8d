// Lua-style patterns for find, match, gmatch and gsub: character classes (%a %d %l %s %u %w %x
// %p %c %g and their upper-case negations), sets, the quantifiers * + - ?, anchors, captures,
// position captures, %b and %f. Matching backtracks, so a budget of steps stops runaway
// patterns and a depth limit keeps the recursion short.
#include "core/pattern.h"

#include "core/script_error.h"

#include <cctype>
#include <string>
#include <vector>

namespace korvel {

namespace {

constexpr int kMaxDepth = 200;
constexpr std::ptrdiff_t kUnfinished = -1;

[[noreturn]] void fail(const std::string& message) { throw ScriptError("malformed pattern: " + message); }

bool isLineBreak(char c) { return c == '\n' || c == '\r'; }

}  // namespace

PatternMatcher::PatternMatcher(std::string_view text, std::string_view pattern, PatternOptions options)
    : m_sourceBegin(text.data()),
      m_sourceEnd(text.data() + text.size()),
      m_patternBegin(pattern.data()),
      m_patternEnd(pattern.data() + pattern.size()),
      m_options(options) {
    m_anchored = !pattern.empty() && pattern[0] == '^';
    if (m_anchored) ++m_patternBegin;
}

bool PatternMatcher::sameLetter(unsigned char a, unsigned char b) const {
    if (a == b) return true;
    return m_options.ignoreCase && std::tolower(a) == std::tolower(b);
}

bool PatternMatcher::atLineStart(const char* s) const {
    return s == m_sourceBegin || (m_options.multiline && isLineBreak(s[-1]));
}

bool PatternMatcher::classMatches(unsigned char c, unsigned char cls) const {
    bool result;
    switch (std::tolower(cls)) {
    case 'a': result = std::isalpha(c); break;
    case 'c': result = std::iscntrl(c); break;
    case 'd': result = std::isdigit(c); break;
    case 'g': result = std::isgraph(c); break;
    case 'l': result = m_options.ignoreCase ? std::isalpha(c) : std::islower(c); break;
    case 'p': result = std::ispunct(c); break;
    case 's': result = std::isspace(c); break;
    case 'u': result = m_options.ignoreCase ? std::isalpha(c) : std::isupper(c); break;
    case 'w': result = std::isalnum(c); break;
    case 'x': result = std::isxdigit(c); break;
    default: return sameLetter(cls, c);
    }
    return std::isupper(cls) ? !result : result;
}

const char* PatternMatcher::classEnd(const char* p) const {
    char c = *p++;
    if (c == '%') {
        if (p >= m_patternEnd) fail("ends with '%'");
        return p + 1;
    }
    if (c == '[') {
        if (p < m_patternEnd && *p == '^') ++p;
        do {
            if (p >= m_patternEnd) fail("missing ']'");
            char d = *p++;
            if (d == '%' && p < m_patternEnd) ++p;
        } while (p >= m_patternEnd || *p != ']');
        return p + 1;
    }
    return p;
}

bool PatternMatcher::setMatches(unsigned char c, const char* p, const char* end) const {
    bool negate = false;
    ++p;  // '['
    if (*p == '^') {
        negate = true;
        ++p;
    }
    while (p < end) {
        if (*p == '%' && p + 1 < end) {
            ++p;
            if (classMatches(c, static_cast<unsigned char>(*p))) return !negate;
            ++p;
        } else if (p + 2 < end && p[1] == '-') {
            auto low = static_cast<unsigned char>(p[0]), high = static_cast<unsigned char>(p[2]);
            auto inRange = [&](int ch) { return low <= ch && ch <= high; };
            if (inRange(c) || (m_options.ignoreCase && (inRange(std::tolower(c)) || inRange(std::toupper(c)))))
                return !negate;
            p += 3;
        } else {
            if (sameLetter(static_cast<unsigned char>(*p), c)) return !negate;
            ++p;
        }
    }
    return negate;
}

bool PatternMatcher::singleMatches(const char* s, const char* p, const char* ep) const {
    if (s >= m_sourceEnd) return false;
    auto c = static_cast<unsigned char>(*s);
    switch (*p) {
    case '.': return true;
    case '%': return classMatches(c, static_cast<unsigned char>(p[1]));
    case '[': return setMatches(c, p, ep - 1);
    default: return sameLetter(static_cast<unsigned char>(*p), c);
    }
}

const char* PatternMatcher::matchHere(const char* s, const char* p) {
    if (++m_steps > m_options.stepBudget) throw ScriptError("pattern too complex");
    if (++m_depth > kMaxDepth) throw ScriptError("pattern too complex");
    struct DepthGuard {
        int& depth;
        ~DepthGuard() { --depth; }
    } guard{m_depth};
    while (true) {
        if (p >= m_patternEnd) return s;
        switch (*p) {
        case '(':
            if (p + 1 < m_patternEnd && p[1] == ')') return startCapture(s, p + 2, PatternMatch::kPositionCapture);
            return startCapture(s, p + 1, kUnfinished);
        case ')': return endCapture(s, p + 1);
        case '$':
            if (p + 1 == m_patternEnd) {
                bool atEnd = s == m_sourceEnd || (m_options.multiline && isLineBreak(*s));
                return atEnd ? s : nullptr;
            }
            break;
        case '%':
            if (p + 1 < m_patternEnd && p[1] == 'b') return matchBalance(s, p + 2);
            if (p + 1 < m_patternEnd && p[1] == 'f') {
                p += 2;
                if (p >= m_patternEnd || *p != '[') fail("missing '[' after '%f'");
                const char* ep = classEnd(p);
                unsigned char previous = s == m_sourceBegin ? '\0' : static_cast<unsigned char>(s[-1]);
                unsigned char currentChar = s < m_sourceEnd ? static_cast<unsigned char>(*s) : '\0';
                if (!setMatches(previous, p, ep - 1) && setMatches(currentChar, p, ep - 1)) {
                    p = ep;
                    continue;
                }
                return nullptr;
            }
            if (p + 1 < m_patternEnd && std::isdigit(static_cast<unsigned char>(p[1]))) {
                s = matchBackReference(s, p[1]);
                if (!s) return nullptr;
                p += 2;
                continue;
            }
            break;
        default: break;
        }
        const char* ep = classEnd(p);
        char quantifier = ep < m_patternEnd ? *ep : '\0';
        if (!singleMatches(s, p, ep)) {
            if (quantifier == '*' || quantifier == '?' || quantifier == '-') {
                p = ep + 1;
                continue;
            }
            return nullptr;
        }
        switch (quantifier) {
        case '?': {
            if (const char* r = matchHere(s + 1, ep + 1)) return r;
            p = ep + 1;
            continue;
        }
        case '+': return maxExpand(s + 1, p, ep);
        case '*': return maxExpand(s, p, ep);
        case '-': return minExpand(s, p, ep);
        default:
            ++s;
            p = ep;
            continue;
        }
    }
}

const char* PatternMatcher::maxExpand(const char* s, const char* p, const char* ep) {
    std::ptrdiff_t count = 0;
    while (singleMatches(s + count, p, ep)) ++count;
    while (count >= 0) {
        if (const char* r = matchHere(s + count, ep + 1)) return r;
        --count;
    }
    return nullptr;
}

const char* PatternMatcher::minExpand(const char* s, const char* p, const char* ep) {
    while (true) {
        if (const char* r = matchHere(s, ep + 1)) return r;
        if (singleMatches(s, p, ep)) {
            ++s;
        } else {
            return nullptr;
        }
    }
}

const char* PatternMatcher::startCapture(const char* s, const char* p, std::ptrdiff_t what) {
    if (m_level >= kMaxPatternCaptures) throw ScriptError("too many captures");
    m_captures[m_level].start = s;
    m_captures[m_level].length = what;
    ++m_level;
    const char* r = matchHere(s, p);
    if (!r) --m_level;
    return r;
}

const char* PatternMatcher::endCapture(const char* s, const char* p) {
    int open = -1;
    for (int i = m_level - 1; i >= 0; --i)
        if (m_captures[i].length == kUnfinished) {
            open = i;
            break;
        }
    if (open < 0) fail("invalid pattern capture");
    m_captures[open].length = s - m_captures[open].start;
    const char* r = matchHere(s, p);
    if (!r) m_captures[open].length = kUnfinished;
    return r;
}

const char* PatternMatcher::matchBalance(const char* s, const char* p) {
    if (p + 1 >= m_patternEnd) fail("missing arguments to '%b'");
    if (s >= m_sourceEnd || *s != *p) return nullptr;
    char open = p[0], close = p[1];
    int balance = 1;
    const char* cursor = s + 1;
    while (cursor < m_sourceEnd) {
        if (*cursor == close) {
            if (--balance == 0) return matchHere(cursor + 1, p + 2);
        } else if (*cursor == open) {
            ++balance;
        }
        ++cursor;
    }
    return nullptr;
}

const char* PatternMatcher::matchBackReference(const char* s, char digit) {
    int index = digit - '1';
    if (index < 0 || index >= m_level || m_captures[index].length == kUnfinished) fail("invalid capture index");
    if (m_captures[index].length < 0) return nullptr;  // a position capture has no text to repeat
    auto length = static_cast<std::size_t>(m_captures[index].length);
    if (static_cast<std::size_t>(m_sourceEnd - s) < length) return nullptr;
    for (std::size_t i = 0; i < length; ++i)
        if (!sameLetter(static_cast<unsigned char>(m_captures[index].start[i]), static_cast<unsigned char>(s[i])))
            return nullptr;
    return s + length;
}

bool PatternMatcher::find(std::size_t from, PatternMatch& match) {
    for (const char* s = m_sourceBegin + from; s <= m_sourceEnd; ++s) {
        bool tryHere = !m_anchored || (m_options.multiline ? atLineStart(s) : s == m_sourceBegin + from);
        if (tryHere) {
            m_level = 0;
            m_depth = 0;
            if (const char* e = matchHere(s, m_patternBegin)) {
                match.start = static_cast<std::size_t>(s - m_sourceBegin);
                match.end = static_cast<std::size_t>(e - m_sourceBegin);
                match.captureCount = m_level;
                for (int i = 0; i < m_level; ++i) {
                    if (m_captures[i].length == kUnfinished) fail("unfinished capture");
                    match.captures[i].start = static_cast<std::size_t>(m_captures[i].start - m_sourceBegin);
                    match.captures[i].length = m_captures[i].length;
                }
                return true;
            }
        }
        if (m_anchored && !m_options.multiline) return false;
    }
    return false;
}

Variable patternCaptureValue(std::string_view text, const PatternMatch& match, int index) {
    if (index >= match.captureCount) {
        if (index == 0) return Variable(text.substr(match.start, match.end - match.start));
        throw ScriptError("invalid capture index");
    }
    const PatternMatch::Capture& capture = match.captures[index];
    if (capture.length == PatternMatch::kPositionCapture) return Variable(static_cast<std::int32_t>(capture.start + 1));
    return Variable(text.substr(capture.start, static_cast<std::size_t>(capture.length)));
}

Variable PatternMatcher::captureValue(const PatternMatch& match, int index) const {
    return patternCaptureValue(std::string_view(m_sourceBegin, static_cast<std::size_t>(m_sourceEnd - m_sourceBegin)),
                               match, index);
}

Variable findPattern(PatternMatcher& matcher, std::size_t init, bool positions) {
    PatternMatch match;
    if (!matcher.find(init, match)) return Variable();
    std::vector<Variable> results;
    if (positions) {
        results.push_back(Variable(static_cast<std::int32_t>(match.start + 1)));
        results.push_back(Variable(static_cast<std::int32_t>(match.end)));
        for (int i = 0; i < match.captureCount; ++i) results.push_back(matcher.captureValue(match, i));
    } else {
        for (int i = 0; i < PatternMatcher::valueCount(match); ++i) results.push_back(matcher.captureValue(match, i));
    }
    if (results.size() == 1) return results[0];
    return Variable::makeMulti(std::move(results));
}

}  // namespace korvel
