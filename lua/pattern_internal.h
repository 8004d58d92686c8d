// Pattern matching for find, match, gmatch and gsub: patterns are translated into regular
// expressions (regex_internal.h), compiled once per pattern text and searched.
#pragma once

#include "regex_internal.h"
#include "vm_internal.h"

#include <memory>
#include <string>
#include <string_view>

namespace korvel::lua {

constexpr int kMaxCaptures = 32;
// Items under a quantifier plus captures that one pattern may have, and the longest pattern
// (other than plain text) that is compiled.
constexpr int kMaxPatternItems = 200;
constexpr std::size_t kMaxPatternLength = 65536;

struct PatternMatch {
    struct Capture {
        std::size_t start = 0;
        std::size_t length = 0;
        bool isPosition = false;       // "()" captures the position, not text
        bool isSet = false;            // false when the capture took no part in the match
    };
    std::size_t start = 0;             // byte offsets into the subject, end exclusive
    std::size_t end = 0;
    int captureCount = 0;
    Capture captures[kMaxCaptures];
};

// A malformed pattern; the message is the script-facing one ("unfinished capture").
struct PatternSyntaxError {
    std::string message;
};

// Writes byte `c` so that a regular expression matches it literally: inside a bracket
// expression (`inBracket`) or outside one.
void escapeRegexLiteralChar(unsigned char c, bool inBracket, std::string& out);

// The regular expression (ECMAScript grammar) that matches what `pattern` matches. Throws
// PatternSyntaxError for a malformed pattern.
std::string translateLuaPatternToRegex(std::string_view pattern);

// True when the pattern has no special characters, so a plain substring search gives the same result.
bool isPlainPattern(std::string_view pattern);

// The compiled pattern, from the thread's cache when it was used recently. Malformed patterns
// raise runtime errors through `vm`.
std::shared_ptr<const RegexProgram> compilePattern(LuaVM::Impl& vm, std::string_view pattern);

// Searches `subject` from byte offset `init` for the first match. A leading '^' anchors the
// match at `init`. Errors (a malformed pattern, too much work) are raised through `vm`.
bool findPattern(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, std::size_t init, PatternMatch& match);
bool findCompiledPattern(LuaVM::Impl& vm, const RegexProgram& program, std::string_view subject, std::size_t init,
                         PatternMatch& match);

// The value of capture `index` (text, 1-based position, or nil when it took no part);
// index 0 with no captures is the whole match.
Value captureValue(std::string_view subject, const PatternMatch& match, int index);
// All captures, or the whole match when the pattern has none.
void pushCaptures(std::string_view subject, const PatternMatch& match, MultiValue& out);

} // namespace korvel::lua
