// A small regular-expression engine for the ECMAScript subset that patterns are translated to:
// literals and escapes, bracket expressions, "^", "$", the quantifiers * + ? (greedy, or lazy
// with a trailing "?") and capturing groups, quantified or not. No alternation, look-around or
// back-references: the translation never produces them.
//
// Matching is backtracking with ECMAScript's priorities (leftmost start, then the first
// alternative in priority order), run on an explicit stack so that no subject length can
// exhaust the native stack. Every step counts against a budget, so no search runs unbounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korvel::lua {

class RegexProgram;

// Deepest group nesting the parser accepts, and the longest text it reads.
constexpr int kMaxRegexNesting = 200;
constexpr std::size_t kMaxRegexLength = std::size_t{1} << 22;
// Saved backtracking points one search may hold (12 bytes each).
constexpr std::size_t kMaxRegexFrames = std::size_t{1} << 23;

// Why compiling failed; the message is for a developer ("unbalanced ')'"), not a script author.
struct RegexSyntaxError {
    std::string message;
};

// Parses and compiles `text`. Returns null and fills `error` when the text is not in the subset
// or nests deeper than kMaxRegexNesting or is longer than kMaxRegexLength. A program is immutable, so one may serve many searches.
std::shared_ptr<const RegexProgram> compileRegex(std::string_view text, RegexSyntaxError& error);

// Captured groups: group i (1-based) spans [starts[i], ends[i]); kUnset when it took no part.
struct RegexSpans {
    static constexpr std::size_t kUnset = ~std::size_t{0};
    std::vector<std::size_t> starts;   // index 0 is the whole match
    std::vector<std::size_t> ends;
};

// The work one search may do. Every 4096 steps `onBlock` runs (it may throw to stop the
// search, as the host's step budget does); past `stepLimit` steps the search gives up.
struct RegexBudget {
    std::size_t stepLimit = 0;
    void (*onBlock)(void* context) = nullptr;
    void* context = nullptr;
};

enum class RegexOutcome { Matched, NotFound, TooComplex };

// Searches `subject` for the first match starting at or after `from`. "^" matches only at
// `from` (the search treats the text before it as absent) and "$" only at the subject's end.
RegexOutcome searchRegex(const RegexProgram& program, std::string_view subject, std::size_t from,
                         const RegexBudget& budget, RegexSpans& spans);

// Number of capturing groups.
int regexGroupCount(const RegexProgram& program);
// True when group `index` (1-based) is written "()", so that it records a position.
bool regexGroupIsEmpty(const RegexProgram& program, int index);

} // namespace korvel::lua
