// Lua-style patterns for find and match: character classes (%a %d %l %s %u %w %x %p %c %g and
// their upper-case negations), sets, the quantifiers * + - ?, anchors, captures, position
// captures, %b and %f. Matching backtracks, so a budget of steps stops runaway patterns.
#include "core/library_internal.h"

#include <cctype>

namespace korvel {

namespace {

constexpr int kMaxCaptures = 32;
constexpr int kMaxDepth = 200;
constexpr long kMaxSteps = 20'000'000;
constexpr std::ptrdiff_t kUnfinished = -1;
constexpr std::ptrdiff_t kPosition = -2;

struct Matcher {
    const char* sourceBegin = nullptr;
    const char* sourceEnd = nullptr;
    const char* patternEnd = nullptr;
    int level = 0;
    int depth = 0;
    long steps = 0;
    struct Capture {
        const char* start = nullptr;
        std::ptrdiff_t length = 0;
    } captures[kMaxCaptures] = {};

    [[noreturn]] static void fail(const std::string& message) { throw ScriptError("malformed pattern: " + message); }

    static bool classMatches(unsigned char c, unsigned char cls) {
        bool result;
        switch (std::tolower(cls)) {
        case 'a': result = std::isalpha(c); break;
        case 'c': result = std::iscntrl(c); break;
        case 'd': result = std::isdigit(c); break;
        case 'g': result = std::isgraph(c); break;
        case 'l': result = std::islower(c); break;
        case 'p': result = std::ispunct(c); break;
        case 's': result = std::isspace(c); break;
        case 'u': result = std::isupper(c); break;
        case 'w': result = std::isalnum(c); break;
        case 'x': result = std::isxdigit(c); break;
        default: return cls == c;
        }
        return std::isupper(cls) ? !result : result;
    }

    const char* classEnd(const char* p) {
        char c = *p++;
        if (c == '%') {
            if (p >= patternEnd) fail("ends with '%'");
            return p + 1;
        }
        if (c == '[') {
            if (p < patternEnd && *p == '^') ++p;
            do {
                if (p >= patternEnd) fail("missing ']'");
                char d = *p++;
                if (d == '%' && p < patternEnd) ++p;
            } while (p >= patternEnd || *p != ']');
            return p + 1;
        }
        return p;
    }

    bool setMatches(unsigned char c, const char* p, const char* end) {
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
                if (static_cast<unsigned char>(p[0]) <= c && c <= static_cast<unsigned char>(p[2])) return !negate;
                p += 3;
            } else {
                if (static_cast<unsigned char>(*p) == c) return !negate;
                ++p;
            }
        }
        return negate;
    }

    bool singleMatches(const char* s, const char* p, const char* ep) {
        if (s >= sourceEnd) return false;
        auto c = static_cast<unsigned char>(*s);
        switch (*p) {
        case '.': return true;
        case '%': return classMatches(c, static_cast<unsigned char>(p[1]));
        case '[': return setMatches(c, p, ep - 1);
        default: return static_cast<unsigned char>(*p) == c;
        }
    }

    const char* match(const char* s, const char* p) {
        if (++steps > kMaxSteps) throw ScriptError("pattern too complex");
        if (++depth > kMaxDepth) throw ScriptError("pattern too complex");
        struct DepthGuard {
            int& d;
            ~DepthGuard() { --d; }
        } guard{depth};
        while (true) {
            if (p >= patternEnd) return s;
            switch (*p) {
            case '(':
                if (p + 1 < patternEnd && p[1] == ')') return startCapture(s, p + 2, kPosition);
                return startCapture(s, p + 1, kUnfinished);
            case ')': return endCapture(s, p + 1);
            case '$':
                if (p + 1 == patternEnd) return s == sourceEnd ? s : nullptr;
                break;
            case '%':
                if (p + 1 < patternEnd && p[1] == 'b') return matchBalance(s, p + 2);
                if (p + 1 < patternEnd && p[1] == 'f') {
                    p += 2;
                    if (p >= patternEnd || *p != '[') fail("missing '[' after '%f'");
                    const char* ep = classEnd(p);
                    unsigned char previous = s == sourceBegin ? '\0' : static_cast<unsigned char>(s[-1]);
                    unsigned char currentChar = s < sourceEnd ? static_cast<unsigned char>(*s) : '\0';
                    if (!setMatches(previous, p, ep - 1) && setMatches(currentChar, p, ep - 1)) {
                        p = ep;
                        continue;
                    }
                    return nullptr;
                }
                if (p + 1 < patternEnd && std::isdigit(static_cast<unsigned char>(p[1]))) {
                    s = matchBackReference(s, p[1]);
                    if (!s) return nullptr;
                    p += 2;
                    continue;
                }
                break;
            default: break;
            }
            const char* ep = classEnd(p);
            char quantifier = ep < patternEnd ? *ep : '\0';
            if (!singleMatches(s, p, ep)) {
                if (quantifier == '*' || quantifier == '?' || quantifier == '-') {
                    p = ep + 1;
                    continue;
                }
                return nullptr;
            }
            switch (quantifier) {
            case '?': {
                if (const char* r = match(s + 1, ep + 1)) return r;
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

    const char* maxExpand(const char* s, const char* p, const char* ep) {
        std::ptrdiff_t count = 0;
        while (singleMatches(s + count, p, ep)) ++count;
        while (count >= 0) {
            if (const char* r = match(s + count, ep + 1)) return r;
            --count;
        }
        return nullptr;
    }

    const char* minExpand(const char* s, const char* p, const char* ep) {
        while (true) {
            if (const char* r = match(s, ep + 1)) return r;
            if (singleMatches(s, p, ep)) {
                ++s;
            } else {
                return nullptr;
            }
        }
    }

    const char* startCapture(const char* s, const char* p, std::ptrdiff_t what) {
        if (level >= kMaxCaptures) throw ScriptError("too many captures");
        captures[level].start = s;
        captures[level].length = what;
        ++level;
        const char* r = match(s, p);
        if (!r) --level;
        return r;
    }

    const char* endCapture(const char* s, const char* p) {
        int open = -1;
        for (int i = level - 1; i >= 0; --i)
            if (captures[i].length == kUnfinished) {
                open = i;
                break;
            }
        if (open < 0) fail("invalid pattern capture");
        captures[open].length = s - captures[open].start;
        const char* r = match(s, p);
        if (!r) captures[open].length = kUnfinished;
        return r;
    }

    const char* matchBalance(const char* s, const char* p) {
        if (p + 1 >= patternEnd) fail("missing arguments to '%b'");
        if (s >= sourceEnd || *s != *p) return nullptr;
        char open = p[0], close = p[1];
        int balance = 1;
        const char* cursor = s + 1;
        while (cursor < sourceEnd) {
            if (*cursor == close) {
                if (--balance == 0) return match(cursor + 1, p + 2);
            } else if (*cursor == open) {
                ++balance;
            }
            ++cursor;
        }
        return nullptr;
    }

    const char* matchBackReference(const char* s, char digit) {
        int index = digit - '1';
        if (index < 0 || index >= level || captures[index].length == kUnfinished) fail("invalid capture index");
        std::size_t length = static_cast<std::size_t>(captures[index].length);
        if (static_cast<std::size_t>(sourceEnd - s) >= length &&
            std::string_view(captures[index].start, length) == std::string_view(s, length))
            return s + length;
        return nullptr;
    }

    Variable captureValue(int i, const char* s, const char* e) const {
        if (i >= level) {
            if (i == 0) return Variable(std::string_view(s, static_cast<std::size_t>(e - s)));
            throw ScriptError("invalid capture index");
        }
        if (captures[i].length == kPosition)
            return Variable(static_cast<std::int32_t>(captures[i].start - sourceBegin + 1));
        return Variable(std::string_view(captures[i].start, static_cast<std::size_t>(captures[i].length)));
    }
};

}  // namespace

Variable findPattern(const std::string& text, const std::string& pattern, std::size_t init, bool positions) {
    Matcher m{};
    m.sourceBegin = text.data();
    m.sourceEnd = text.data() + text.size();
    m.patternEnd = pattern.data() + pattern.size();
    const char* p = pattern.data();
    bool anchored = !pattern.empty() && pattern[0] == '^';
    if (anchored) ++p;
    const char* s = text.data() + init;
    do {
        m.level = 0;
        m.depth = 0;
        if (const char* e = m.match(s, p)) {
            std::vector<Variable> results;
            if (positions) {
                results.push_back(Variable(static_cast<std::int32_t>(s - text.data() + 1)));
                results.push_back(Variable(static_cast<std::int32_t>(e - text.data())));
                for (int i = 0; i < m.level; ++i) results.push_back(m.captureValue(i, s, e));
            } else {
                int count = m.level == 0 ? 1 : m.level;
                for (int i = 0; i < count; ++i) results.push_back(m.captureValue(i, s, e));
            }
            if (results.size() == 1) return results[0];
            return Variable::makeMulti(std::move(results));
        }
        ++s;
    } while (s <= m.sourceEnd && !anchored);
    return Variable();
}

}  // namespace korvel
