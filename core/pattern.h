// Lua-style pattern matching shared by find, match, gmatch and gsub.
#pragma once

#include "core/variable.h"

#include <cstddef>
#include <string_view>

namespace korvel {

constexpr int kMaxPatternCaptures = 32;
constexpr long kDefaultPatternSteps = 20'000'000;

struct PatternOptions {
    // Letters match in either case; a range or class matches a letter when either case of it
    // is inside (as a regular expression with the icase flag does).
    bool ignoreCase = false;
    // "^" at the start of the pattern also matches after a line break, "$" at the end also
    // before one ("\n" or "\r").
    bool multiline = false;
    // Matching steps allowed over the matcher's whole life; past them a search fails with
    // "pattern too complex".
    long stepBudget = kDefaultPatternSteps;
};

struct PatternMatch {
    static constexpr std::ptrdiff_t kPositionCapture = -2;
    struct Capture {
        std::size_t start = 0;
        std::ptrdiff_t length = 0;  // kPositionCapture for "()"
    };
    std::size_t start = 0;  // byte offsets of the whole match, end exclusive
    std::size_t end = 0;
    int captureCount = 0;
    Capture captures[kMaxPatternCaptures] = {};
};

// One subject text and one pattern; both must outlive the matcher. Malformed patterns fail
// with ScriptError "malformed pattern: ..." when a search reaches the bad part.
class PatternMatcher {
public:
    PatternMatcher(std::string_view text, std::string_view pattern, PatternOptions options = {});

    bool anchored() const { return m_anchored; }
    // The first match that starts at `from` or later. An anchored pattern is tried at `from`
    // only, or in multiline mode at every line start from `from` on.
    bool find(std::size_t from, PatternMatch& match);
    // Capture `index` as a value: its text, or its 1-based position for "()". With no
    // captures, index 0 is the whole match.
    Variable captureValue(const PatternMatch& match, int index) const;
    // Matching steps spent so far (they count against options.stepBudget).
    long stepsUsed() const { return m_steps; }
    // How many values a match yields: its captures, or one for the whole match.
    static int valueCount(const PatternMatch& match) { return match.captureCount == 0 ? 1 : match.captureCount; }

private:
    const char* matchHere(const char* s, const char* p);
    const char* maxExpand(const char* s, const char* p, const char* ep);
    const char* minExpand(const char* s, const char* p, const char* ep);
    const char* startCapture(const char* s, const char* p, std::ptrdiff_t what);
    const char* endCapture(const char* s, const char* p);
    const char* matchBalance(const char* s, const char* p);
    const char* matchBackReference(const char* s, char digit);
    const char* classEnd(const char* p) const;
    bool classMatches(unsigned char c, unsigned char cls) const;
    bool setMatches(unsigned char c, const char* p, const char* end) const;
    bool singleMatches(const char* s, const char* p, const char* ep) const;
    bool sameLetter(unsigned char a, unsigned char b) const;
    bool atLineStart(const char* s) const;

    struct OpenCapture {
        const char* start = nullptr;
        std::ptrdiff_t length = 0;
    };

    const char* m_sourceBegin;
    const char* m_sourceEnd;
    const char* m_patternBegin;  // after a leading "^"
    const char* m_patternEnd;
    PatternOptions m_options;
    bool m_anchored = false;
    int m_level = 0;
    int m_depth = 0;
    long m_steps = 0;
    OpenCapture m_captures[kMaxPatternCaptures] = {};
};

// Capture `index` of a match in text: its text, or its 1-based position for "()". With no
// captures, index 0 is the whole match; other indices fail with "invalid capture index".
Variable patternCaptureValue(std::string_view text, const PatternMatch& match, int index);

// Searches the matcher's text from byte offset init. With positions, returns the start and
// end (1-based) and the captures; otherwise the captures or the whole match. Nil when
// nothing matches.
Variable findPattern(PatternMatcher& matcher, std::size_t init, bool positions);

}  // namespace korvel
