// Pattern matching for find, match, gmatch and gsub.
#pragma once

#include "vm_internal.h"

#include <string_view>

namespace korvel::lua {

constexpr int kMaxCaptures = 32;

struct PatternMatch {
    struct Capture {
        std::size_t start = 0;
        std::size_t length = 0;
        bool isPosition = false;       // "()" captures the position, not text
    };
    std::size_t start = 0;             // byte offsets into the subject, end exclusive
    std::size_t end = 0;
    int captureCount = 0;
    Capture captures[kMaxCaptures];
};

// True when the pattern has no special characters, so a plain substring search gives the same result.
bool isPlainPattern(std::string_view pattern);

// Searches `subject` from byte offset `init` for the first match. A leading '^' anchors the match
// at `init`. Malformed patterns raise runtime errors through `vm`.
bool findPattern(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, std::size_t init, PatternMatch& match);

// Tries a match starting exactly at `at` (the pattern without its leading '^').
bool matchPatternAt(LuaVM::Impl& vm, std::string_view subject, std::string_view pattern, std::size_t at, PatternMatch& match);

// The value of capture `index` (text or 1-based position); index 0 with no captures is the whole match.
Value captureValue(std::string_view subject, const PatternMatch& match, int index);
// All captures, or the whole match when the pattern has none.
void pushCaptures(std::string_view subject, const PatternMatch& match, MultiValue& out);

} // namespace korvel::lua
