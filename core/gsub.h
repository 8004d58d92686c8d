// gsub's pattern compilation and substitution, apart from the interpreter so that tests can
// drive each matching engine directly.
//
// A gsub pattern is a Lua-style pattern, optionally led by regex flags in the form "(?i)",
// "(?m)" or "(?im)". It is translated once into an ECMAScript regular expression. Two engines
// run it and give the same results:
//   - the regular expression, for patterns it can express on subjects small enough that its
//     backtracking (recursive in the standard library) stays within the stack and a work bound;
//   - the pattern matcher of find and match (step-limited), for everything else: long
//     subjects, %b and %f, and sets that a regular expression cannot state.
// A pattern without special characters and without flags is replaced as plain text.
#pragma once

#include "core/pattern.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <regex>
#include <string>
#include <vector>

namespace korvel {

struct GsubPattern {
    std::string source;      // as the script gave it, flags included
    std::string luaPattern;  // without the flags
    PatternOptions options;
    bool plain = false;      // replaced as plain text, no engine at all
    bool anchored = false;   // a leading "^"
    bool hasRegex = false;   // false when only the matcher can run it
    std::string translation; // the regular expression's text
    std::regex regex;
    int captureCount = 0;
    std::vector<bool> positionCaptures;  // per capture: "()"
    // For estimating the regular expression's backtracking.
    int items = 0;           // single-character items
    int repeats = 0;         // items under * + -
    int optionals = 0;       // items under ?
    int backReferences = 0;
};

enum class GsubEngine { Automatic, RegularExpression, Matcher };

// Parses the flags, checks and translates the pattern. Throws ScriptError "gsub: unsupported
// regex flag '...' (supported: i, m)" or "gsub: invalid regex pattern '..." on bad input.
std::shared_ptr<const GsubPattern> compileGsubPattern(const std::string& pattern);

// Calls a function replacement with the captures (or the whole match).
using GsubCall = std::function<Variable(const std::vector<Variable>&)>;

// What one substitution may spend, and what it spent.
struct GsubBudget {
    std::size_t stackRoom = 0;             // stack the regular expression may use
    long matcherSteps = 50'000'000;        // the matcher's steps ("pattern too complex" past them)
    double regexWork = 4e6;                // the regular expression's worst-case backtracking
    std::uint64_t spent = 0;               // filled in, also when the substitution fails
};

// The text with every match replaced (Lua 5.4 rules: an empty match right after the previous
// match is skipped). replacement is a string, table or function. Automatic picks the engine,
// the others force one (a forced RegularExpression on a pattern without one uses the matcher).
std::string substituteMatches(const GsubPattern& pattern, const std::string& text, const Variable& replacement,
                              const GsubCall& call, GsubEngine engine, GsubBudget& budget);

}  // namespace korvel
