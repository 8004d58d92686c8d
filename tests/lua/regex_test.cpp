// The pattern translation and the regular-expression engine under it: the text each pattern
// item becomes, the engine's ECMAScript results (captures of quantified groups, empty
// iterations, laziness), its limits, and a differential run against std::regex.

// GCC 12 reports std::function members inside the standard library's regex automaton as
// "maybe uninitialized" when optimising with the sanitizers on; the warning concerns library
// code instantiated here. It is judged at the library header's location, hence before includes.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include "pattern_internal.h"

#include <gtest/gtest.h>

#include <chrono>
#include <random>
#include <regex>

namespace korvel::lua {
namespace {

struct TranslationCase {
    const char* pattern;
    const char* regex;
};

class Translation : public ::testing::TestWithParam<TranslationCase> {};

TEST_P(Translation, WritesTheRegularExpression) {
    EXPECT_EQ(translateLuaPatternToRegex(GetParam().pattern), GetParam().regex) << GetParam().pattern;
}

INSTANTIATE_TEST_SUITE_P(Items, Translation, ::testing::Values(
    TranslationCase{"%a%A%d%D", "[A-Za-z][^A-Za-z][0-9][^0-9]"},
    TranslationCase{"%s%S", "[\\f\\n\\r\\t\\v ][^\\f\\n\\r\\t\\v ]"},
    TranslationCase{"%w%W", "[A-Za-z0-9_][^A-Za-z0-9_]"},
    TranslationCase{"[%a_]", "[A-Za-z_]"},
    TranslationCase{"[^%s,]", "[^\\f\\n\\r\\t\\v ,]"},
    // A negated class inside a set lists the other bytes; no range crosses 0x7f/0x80.
    TranslationCase{"[%D]", "[\\x00-/:-\\x7f\\x80-\\xff]"},
    TranslationCase{"[]]", "[\\]]"},
    TranslationCase{"[a-c^-]", "[a-c\\^\\-]"},
    TranslationCase{"[z-a]", "[^\\s\\S]"},
    TranslationCase{"[^z-a]", "[\\s\\S]"},
    TranslationCase{"%.%%%[%(%)%^%$", "\\.%\\[\\(\\)\\^\\$"},
    TranslationCase{"%l%1", "l1"},
    TranslationCase{"a.b", "a[\\s\\S]b"},
    TranslationCase{"^a$", "^a$"},
    TranslationCase{"a^$b", "a\\^\\$b"},
    TranslationCase{"a*b+c?d-", "a*b+c?d*?"},
    // A quantifier with nothing before it, or right after another, is a literal byte.
    TranslationCase{"*a**", "\\*a*\\*"},
    TranslationCase{"(%d+)*(x)?()+", "([0-9]+)*(x)?()+"},
    // After a capture '-' stays a hyphen.
    TranslationCase{"(%d+)-(%d+)", "([0-9]+)-([0-9]+)"},
    TranslationCase{"{|}\\", "\\{\\|\\}\\\\"},
    TranslationCase{"\t\x01\xe9", "\\x09\\x01\\xe9"}));

struct TranslationErrorCase {
    std::string pattern;
    const char* message;
};

class TranslationErrors : public ::testing::TestWithParam<TranslationErrorCase> {};

TEST_P(TranslationErrors, NameTheFault) {
    try {
        std::string regex = translateLuaPatternToRegex(GetParam().pattern);
        FAIL() << GetParam().pattern << " translated to " << regex;
    } catch (const PatternSyntaxError& error) {
        EXPECT_EQ(error.message, GetParam().message);
    }
}

INSTANTIATE_TEST_SUITE_P(Malformed, TranslationErrors, ::testing::Values(
    TranslationErrorCase{"(a", "unfinished capture"},
    TranslationErrorCase{"a)", "invalid pattern capture"},
    TranslationErrorCase{"a%", "malformed pattern (ends with '%')"},
    TranslationErrorCase{"[a", "malformed pattern (missing ']')"},
    TranslationErrorCase{"[%]", "malformed pattern (missing ']')"},
    TranslationErrorCase{[] {
        std::string many;
        for (int i = 0; i < 33; ++i) many += "()";
        return many;
    }(), "too many captures"},
    TranslationErrorCase{[] {
        std::string many;
        for (int i = 0; i < 201; ++i) many += "a?";
        return many;
    }(), "pattern too complex"},
    TranslationErrorCase{std::string(kMaxPatternLength + 1, '.'), "pattern too complex"}));

// "0-3 u 1-2": the whole match, then each group (u: took no part); "none" when nothing matched.
std::string describeSearch(const std::string& regex, const std::string& subject, std::size_t from) {
    RegexSyntaxError error;
    std::shared_ptr<const RegexProgram> program = compileRegex(regex, error);
    if (!program) return "syntax: " + error.message;
    RegexBudget budget;
    budget.stepLimit = std::size_t{1} << 22;
    RegexSpans spans;
    RegexOutcome outcome = searchRegex(*program, subject, from, budget, spans);
    if (outcome == RegexOutcome::NotFound) return "none";
    if (outcome == RegexOutcome::TooComplex) return "too complex";
    std::string text;
    for (std::size_t group = 0; group < spans.starts.size(); ++group) {
        if (!text.empty()) text += ' ';
        if (spans.starts[group] == RegexSpans::kUnset) {
            text += 'u';
        } else {
            text += std::to_string(spans.starts[group]);
            text += '-';
            text += std::to_string(spans.ends[group]);
        }
    }
    return text;
}

struct SearchCase {
    const char* regex;
    std::string subject;
    std::size_t from;
    const char* found;
};

class Search : public ::testing::TestWithParam<SearchCase> {};

TEST_P(Search, FindsWhatEcmaScriptFinds) {
    EXPECT_EQ(describeSearch(GetParam().regex, GetParam().subject, GetParam().from), GetParam().found)
        << GetParam().regex << " on '" << GetParam().subject << "'";
}

INSTANTIATE_TEST_SUITE_P(Semantics, Search, ::testing::Values(
    SearchCase{"b+", "abbbc", 0, "1-4"},
    SearchCase{"b+?", "abbbc", 0, "1-2"},
    SearchCase{"a*?c", "aac", 0, "0-3"},
    SearchCase{"[\\s\\S]*?c", "abcbc", 0, "0-3"},
    SearchCase{"x*", "", 0, "0-0"},
    SearchCase{"a$", "aa", 0, "1-2"},
    // "^" matches where the search starts.
    SearchCase{"^a", "ba", 1, "1-2"},
    SearchCase{"^a", "ba", 0, "none"},
    SearchCase{".", "\n", 0, "none"},
    SearchCase{"[^]", "\n", 0, "0-1"},
    SearchCase{"[]", "a", 0, "none"},
    SearchCase{"\\.\\x41[\\x30-\\x39]", "..A5", 0, "1-4"},
    SearchCase{"[\\d_]+\\w", "a_12b", 0, "1-5"},
    SearchCase{"[\\x80-\\xff]+", "a\xe9\xff!", 0, "1-3"},
    SearchCase{"(ab)+", "xababab", 0, "1-7 5-7"},
    SearchCase{"(a)*?b", "aab", 0, "0-3 1-2"},
    // A quantified group reports its last iteration; groups inside start each iteration unset.
    SearchCase{"(a(b)?)+", "aba", 0, "0-3 2-3 u"},
    // An iteration beyond the required ones that matches nothing ends the loop.
    SearchCase{"(a*)*", "b", 0, "0-0 u"},
    SearchCase{"(a*)+", "b", 0, "0-0 0-0"},
    SearchCase{"()?", "", 0, "0-0 u"},
    SearchCase{"(x)?y", "y", 0, "0-1 u"},
    SearchCase{"()a()", "ba", 0, "1-2 1-1 2-2"},
    SearchCase{"(a)(b(c))", "abc", 0, "0-3 0-1 1-3 2-3"}));

TEST(RegexSyntax, RejectsWhatItDoesNotSupport) {
    for (const char* text : {"(", ")", "a**", "*", "[b-a]", "\\q", "a{2}", "a|b", "(?:a)", "[a", "\\x4", "^*", "[\\d-z]"}) {
        RegexSyntaxError error;
        EXPECT_EQ(compileRegex(text, error), nullptr) << text;
        EXPECT_FALSE(error.message.empty()) << text;
    }
    std::string deep(kMaxRegexNesting + 1, '(');
    deep += std::string(kMaxRegexNesting + 1, ')');
    RegexSyntaxError error;
    EXPECT_EQ(compileRegex(deep, error), nullptr);
}

TEST(RegexLimits, ExponentialBacktrackingStopsWithinItsBudget) {
    RegexSyntaxError error;
    auto program = compileRegex("([ab]*[ab]*[ab]*)*c", error);
    ASSERT_NE(program, nullptr) << error.message;
    std::size_t blocks = 0;
    RegexBudget budget;
    budget.stepLimit = std::size_t{1} << 20;
    budget.onBlock = [](void* context) { ++*static_cast<std::size_t*>(context); };
    budget.context = &blocks;
    RegexSpans spans;
    auto started = std::chrono::steady_clock::now();
    EXPECT_EQ(searchRegex(*program, std::string(40, 'a') + "b", 0, budget, spans), RegexOutcome::TooComplex);
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(2));
    // The host hears about the work every 4096 steps.
    EXPECT_EQ(blocks, budget.stepLimit / 4096);
}

TEST(RegexLimits, LongSubjectsNeedNoNativeStack) {
    std::string subject(8 << 20, 'a');
    subject += 'b';
    EXPECT_EQ(describeSearch("[\\s\\S]*b", subject, 0), "0-" + std::to_string(subject.size()));
    std::string pairs;
    for (int i = 0; i < 100000; ++i) pairs += "ab";
    EXPECT_EQ(describeSearch("(ab)+$", pairs, 0), "0-200000 199998-200000");
}

// Random patterns of the dialect's items, run by this engine and by std::regex on the same
// translated text. The standard library departs from ECMAScript in two places, so the patterns
// stay out of them: it keeps captures of earlier iterations of a quantified group, and it lets
// a group that can match empty repeat emptily. A repeated group here holds no captures and
// starts with an item that consumes a byte.
class PatternGenerator {
public:
    explicit PatternGenerator(std::uint32_t seed) : m_random(seed) {}

    std::string pattern() {
        int groups = 0;
        std::string text = sequence(0, groups, true);
        if (pick(6) == 0) text.insert(0, 1, '^');
        if (pick(6) == 0) text += "$";
        return text;
    }

    std::string subject() {
        std::string text;
        int length = static_cast<int>(pick(9));
        for (int i = 0; i < length; ++i) text += "ab1 _.\n"[pick(7)];
        return text;
    }

    std::size_t pick(std::uint32_t count) { return m_random() % count; }

private:
    std::string item() {
        static const char* const kItems[] = {"a", "b", ".", "%a", "%d", "%s", "%w", "%A", "%S", "%W",
                                             "[ab]", "[^a]", "[a-c]", "[%d_]", "[^%s1]", "%.", "1", " "};
        return kItems[pick(sizeof kItems / sizeof *kItems)];
    }

    std::string sequence(int depth, int& groups, bool allowGroups) {
        std::string text;
        int length = static_cast<int>(pick(4)) + 1;
        for (int i = 0; i < length; ++i) {
            if (allowGroups && depth < 3 && groups < 6 && pick(5) == 0) {
                ++groups;
                std::size_t quantifier = pick(4);
                if (pick(5) == 0) {
                    text += "()";
                } else if (quantifier < 3) {
                    text += '(';
                    text += item();
                    text += sequence(depth + 1, groups, false);
                    text += ')';
                    text += "*+?"[quantifier];
                } else {
                    text += '(';
                    text += sequence(depth + 1, groups, true);
                    text += ')';
                }
            } else {
                text += item();
                std::size_t quantifier = pick(7);
                if (quantifier < 4) text += "*+?-"[quantifier];
            }
        }
        return text;
    }

    std::mt19937 m_random;
};

std::string describeStandardSearch(const std::regex& regex, const std::string& subject, std::size_t from) {
    std::smatch match;
    std::string rest = subject.substr(from);
    if (!std::regex_search(rest, match, regex)) return "none";
    std::string text;
    for (std::size_t group = 0; group < match.size(); ++group) {
        if (!text.empty()) text += ' ';
        if (!match[group].matched) {
            text += 'u';
        } else {
            auto start = static_cast<std::size_t>(match.position(group)) + from;
            text += std::to_string(start);
            text += '-';
            text += std::to_string(start + static_cast<std::size_t>(match.length(group)));
        }
    }
    return text;
}

TEST(RegexDifferential, AgreesWithTheStandardLibrary) {
    PatternGenerator generator(20260522);
    int compared = 0;
    for (int round = 0; round < 1000; ++round) {
        std::string pattern = generator.pattern();
        std::string regex = translateLuaPatternToRegex(pattern);
        std::regex standard(regex, std::regex::ECMAScript);
        for (int i = 0; i < 6; ++i) {
            std::string subject = generator.subject();
            std::size_t from = generator.pick(3) == 0 ? generator.pick(static_cast<std::uint32_t>(subject.size()) + 1) : 0;
            ASSERT_EQ(describeSearch(regex, subject, from), describeStandardSearch(standard, subject, from))
                << "pattern " << pattern << ", regex " << regex << ", subject '" << subject << "' from " << from;
            ++compared;
        }
    }
    EXPECT_EQ(compared, 6000);
}

} // namespace
} // namespace korvel::lua
