// Source parsing: line splitting, tokens, word analysis, pointer literals, string decoding,
// line kinds, scope prefixes and block links.
#include "core/parser_internal.h"

#include "tests/core/test_support.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdint>
#include <cctype>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {
namespace {

using testing_support::caseName;

using Tokens = std::vector<std::string>;

Tokens tokensOf(std::string_view text) {
    Tokens tokens;
    std::vector<std::uint32_t> columns;
    std::string error;
    std::uint32_t errorColumn = 0;
    EXPECT_TRUE(tokenise(text, 0, tokens, columns, error, errorColumn)) << text << ": " << error;
    EXPECT_EQ(tokens.size(), columns.size()) << text;
    return tokens;
}

ParsedScript parsed(std::string_view source) {
    ParsedScript script;
    ParseFailure failure;
    EXPECT_TRUE(parseScript(source, script, failure)) << source << ": " << failure.message;
    return script;
}

// --- tokenising ---------------------------------------------------------------------------

struct TokenCase {
    const char* text;
    Tokens tokens;
};
class Tokenising : public ::testing::TestWithParam<TokenCase> {};
TEST_P(Tokenising, CutsTheStatementIntoTokens) { EXPECT_EQ(tokensOf(GetParam().text), GetParam().tokens) << GetParam().text; }
INSTANTIATE_TEST_SUITE_P(Operators, Tokenising, ::testing::Values(
    TokenCase{"x = 1", {"x", "=", "1"}},
    TokenCase{"x=1", {"x", "=", "1"}},
    TokenCase{"a==b", {"a", "==", "b"}},
    TokenCase{"a!=b~=c", {"a", "!=", "b", "~=", "c"}},
    TokenCase{"a<=b>=c<d>e", {"a", "<=", "b", ">=", "c", "<", "d", ">", "e"}},
    TokenCase{"a&&b||c", {"a", "&&", "b", "||", "c"}},
    TokenCase{"a<-b->c", {"a", "<-", "b", "->", "c"}},
    TokenCase{"x+=1", {"x", "+=", "1"}},
    TokenCase{"x-=1", {"x", "-=", "1"}},
    TokenCase{"x*=1", {"x", "*=", "1"}},
    TokenCase{"x/=1", {"x", "/=", "1"}},
    TokenCase{"x\\=1", {"x", "\\=", "1"}},
    TokenCase{"x%=1", {"x", "%=", "1"}},
    TokenCase{"x^=1", {"x", "^=", "1"}},
    TokenCase{"a+b-c*d/e\\f%g^h", {"a", "+", "b", "-", "c", "*", "d", "/", "e", "\\", "f", "%", "g", "^", "h"}},
    TokenCase{"!x", {"!", "x"}},
    TokenCase{"#list", {"#", "list"}},
    TokenCase{"a = = b", {"a", "=", "=", "b"}},
    TokenCase{"a< -b", {"a", "<", "-", "b"}}),
    [](const ::testing::TestParamInfo<TokenCase>& info) { return caseName(info, &TokenCase::text); });
INSTANTIATE_TEST_SUITE_P(Punctuation, Tokenising, ::testing::Values(
    TokenCase{"f(a,b)", {"f", "(", "a", ",", "b", ")"}},
    TokenCase{"t[1][2]", {"t", "[", "1", "]", "[", "2", "]"}},
    TokenCase{"{a:1}", {"{", "a", ":", "1", "}"}},
    TokenCase{"  a \t b  ", {"a", "b"}},
    TokenCase{"1.5+2", {"1.5", "+", "2"}},
    TokenCase{"Mirel.getPixel(img)", {"Mirel.getPixel", "(", "img", ")"}},
    TokenCase{"string.sub", {"string.sub"}},
    TokenCase{"$ff", {"$ff"}},
    TokenCase{"1e5", {"1e5"}}),
    [](const ::testing::TestParamInfo<TokenCase>& info) { return caseName(info, &TokenCase::text); });
INSTANTIATE_TEST_SUITE_P(ScopeSuffixes, Tokenising, ::testing::Values(
    TokenCase{"x#1 = 2", {"x#1", "=", "2"}},
    TokenCase{"x#12", {"x#12"}},
    TokenCase{"a#b", {"a", "#", "b"}},
    TokenCase{"#x#0", {"#", "x#0"}},
    TokenCase{"n# 1", {"n", "#", "1"}}),
    [](const ::testing::TestParamInfo<TokenCase>& info) { return caseName(info, &TokenCase::text); });
INSTANTIATE_TEST_SUITE_P(Strings, Tokenising, ::testing::Values(
    TokenCase{"s = \"a b\"", {"s", "=", "\"a b\""}},
    TokenCase{"'it\\'s'", {"'it\\'s'"}},
    TokenCase{"\"say \\\"x\\\"\"", {"\"say \\\"x\\\"\""}},
    TokenCase{"\"it's\"", {"\"it's\""}},
    TokenCase{"'a\"b'", {"'a\"b'"}},
    TokenCase{"f(\"a,b\")", {"f", "(", "\"a,b\"", ")"}},
    TokenCase{"\"\"", {"\"\""}}),
    [](const ::testing::TestParamInfo<TokenCase>& info) { return caseName(info, &TokenCase::text); });

TEST(Tokenising, UnterminatedStringFails) {
    for (std::string_view text : {"print(\"abc", "'abc", "\"abc\\\"", "x = 'a\" "}) {
        Tokens tokens;
        std::vector<std::uint32_t> columns;
        std::string error;
        std::uint32_t errorColumn = 0;
        EXPECT_FALSE(tokenise(text, 0, tokens, columns, error, errorColumn)) << text;
        EXPECT_EQ(error, "Unterminated string literal") << text;
    }
}

TEST(Tokenising, RecordsEachTokensColumn) {
    Tokens tokens;
    std::vector<std::uint32_t> columns;
    std::string error;
    std::uint32_t errorColumn = 0;
    ASSERT_TRUE(tokenise("ab = f(\"x\")", 4, tokens, columns, error, errorColumn));
    EXPECT_EQ(columns, (std::vector<std::uint32_t>{4, 7, 9, 10, 11, 14}));
}

// --- word analysis ------------------------------------------------------------------------

struct WordCase {
    const char* word;
    bool isTrue;
    bool isFalse;
};
class TruthWords : public ::testing::TestWithParam<WordCase> {};
TEST_P(TruthWords, AcceptExactlyTheListedSpellings) {
    EXPECT_EQ(isTrueWord(GetParam().word), GetParam().isTrue) << GetParam().word;
    EXPECT_EQ(isFalseWord(GetParam().word), GetParam().isFalse) << GetParam().word;
    TokenAnalysis a = analyseToken(GetParam().word);
    EXPECT_EQ(a.isTrueWord, GetParam().isTrue) << GetParam().word;
    EXPECT_EQ(a.isFalseWord, GetParam().isFalse) << GetParam().word;
}
INSTANTIATE_TEST_SUITE_P(Listed, TruthWords, ::testing::Values(
    WordCase{"true", true, false}, WordCase{"ture", true, false}, WordCase{"tre", true, false},
    WordCase{"tue", true, false}, WordCase{"false", false, true}, WordCase{"flase", false, true},
    WordCase{"fasle", false, true}, WordCase{"flse", false, true}),
    [](const ::testing::TestParamInfo<WordCase>& info) { return caseName(info, &WordCase::word); });
INSTANTIATE_TEST_SUITE_P(NotListed, TruthWords, ::testing::Values(
    WordCase{"True", false, false}, WordCase{"TRUE", false, false}, WordCase{"tru", false, false},
    WordCase{"treu", false, false}, WordCase{"rtue", false, false}, WordCase{"truee", false, false},
    WordCase{"te", false, false}, WordCase{"t", false, false}, WordCase{"False", false, false},
    WordCase{"fals", false, false}, WordCase{"falsse", false, false}, WordCase{"flsae", false, false},
    WordCase{"fase", false, false}, WordCase{"fales", false, false}, WordCase{"f", false, false},
    WordCase{"\"true\"", false, false}, WordCase{"", false, false}),
    [](const ::testing::TestParamInfo<WordCase>& info) { return caseName(info, &WordCase::word); });

struct NumericCase {
    const char* token;
    bool looksNumeric;
    bool isFloat;
    bool isInt;
    std::int32_t intValue;
    float floatValue;
};
class NumericWords : public ::testing::TestWithParam<NumericCase> {};
TEST_P(NumericWords, AreClassifiedAndRead) {
    const NumericCase& c = GetParam();
    EXPECT_EQ(tokenLooksNumeric(c.token), c.looksNumeric) << c.token;
    TokenAnalysis a = analyseToken(c.token);
    EXPECT_EQ(a.looksNumeric, c.looksNumeric) << c.token;
    EXPECT_EQ(a.isFloatLiteral, c.isFloat) << c.token;
    EXPECT_EQ(a.isIntLiteral, c.isInt) << c.token;
    if (c.isInt) {
        EXPECT_EQ(a.intValue, c.intValue) << c.token;
    }
    if (c.isFloat) {
        EXPECT_FLOAT_EQ(a.floatValue, c.floatValue) << c.token;
    }
}
INSTANTIATE_TEST_SUITE_P(Numbers, NumericWords, ::testing::Values(
    NumericCase{"5", true, false, true, 5, 0},
    NumericCase{"-5", true, false, true, -5, 0},
    NumericCase{"+5", true, false, true, 5, 0},
    NumericCase{"007", true, false, true, 7, 0},
    NumericCase{"2147483647", true, false, true, INT_MAX, 0},
    NumericCase{"-2147483648", true, false, true, INT_MIN, 0},
    NumericCase{"2147483648", true, false, false, 0, 0},
    NumericCase{"-2147483649", true, false, false, 0, 0},
    NumericCase{"99999999999999999999", true, false, false, 0, 0},
    NumericCase{"1.5", true, true, false, 0, 1.5f},
    NumericCase{"-0.25", true, true, false, 0, -0.25f},
    NumericCase{".5", true, true, false, 0, 0.5f},
    NumericCase{"5.", true, true, false, 0, 5.0f}),
    [](const ::testing::TestParamInfo<NumericCase>& info) { return caseName(info, &NumericCase::token); });
INSTANTIATE_TEST_SUITE_P(NotNumbers, NumericWords, ::testing::Values(
    NumericCase{"-", false, false, false, 0, 0},
    NumericCase{"+", false, false, false, 0, 0},
    NumericCase{".", false, false, false, 0, 0},
    NumericCase{"-.", false, false, false, 0, 0},
    NumericCase{"1e5", false, false, false, 0, 0},
    NumericCase{"1E5", false, false, false, 0, 0},
    NumericCase{"1.2.3", false, false, false, 0, 0},
    NumericCase{"0x10", false, false, false, 0, 0},
    NumericCase{"12a", false, false, false, 0, 0},
    NumericCase{"--1", false, false, false, 0, 0},
    NumericCase{"1-", false, false, false, 0, 0},
    NumericCase{"1,5", false, false, false, 0, 0},
    NumericCase{"", false, false, false, 0, 0},
    NumericCase{"abc", false, false, false, 0, 0}),
    [](const ::testing::TestParamInfo<NumericCase>& info) { return caseName(info, &NumericCase::token); });

struct IdentifierCase {
    const char* token;
    bool identifier;
};
class Identifiers : public ::testing::TestWithParam<IdentifierCase> {};
TEST_P(Identifiers, StartWithLetterUnderscoreOrDollar) {
    EXPECT_EQ(isIdentifierToken(GetParam().token), GetParam().identifier) << GetParam().token;
    EXPECT_EQ(analyseToken(GetParam().token).isIdentifier, GetParam().identifier) << GetParam().token;
}
INSTANTIATE_TEST_SUITE_P(Words, Identifiers, ::testing::Values(
    IdentifierCase{"abc", true}, IdentifierCase{"_x", true}, IdentifierCase{"$y", true},
    IdentifierCase{"a1_$", true}, IdentifierCase{"x#1", true}, IdentifierCase{"x#0", true},
    IdentifierCase{"1a", false}, IdentifierCase{"5", false}, IdentifierCase{"", false},
    IdentifierCase{"#1", false}, IdentifierCase{"x#", false}, IdentifierCase{"x#a", false},
    IdentifierCase{"\"s\"", false}, IdentifierCase{"+", false}),
    [](const ::testing::TestParamInfo<IdentifierCase>& info) { return caseName(info, &IdentifierCase::token); });

struct ScopedCase {
    const char* token;
    const char* name;
    int scope;
};
class ScopedNames : public ::testing::TestWithParam<ScopedCase> {};
TEST_P(ScopedNames, SplitNameAndScope) {
    std::string_view name;
    int scope = 99;
    ASSERT_TRUE(parseScopedVariableToken(GetParam().token, name, scope)) << GetParam().token;
    EXPECT_EQ(name, GetParam().name);
    EXPECT_EQ(scope, GetParam().scope) << GetParam().token;
}
INSTANTIATE_TEST_SUITE_P(Suffixes, ScopedNames, ::testing::Values(
    ScopedCase{"plain", "plain", -1}, ScopedCase{"x#0", "x", 0}, ScopedCase{"x#1", "x", 1},
    ScopedCase{"long_name#3", "long_name", 3}),
    [](const ::testing::TestParamInfo<ScopedCase>& info) { return caseName(info, &ScopedCase::token); });

TEST(ScopedNames, SuffixAboveThreeStaysAboveThree) {
    std::string_view name;
    int scope = -1;
    ASSERT_TRUE(parseScopedVariableToken("x#12", name, scope));
    EXPECT_EQ(name, "x");
    EXPECT_GT(scope, 3);
    ASSERT_TRUE(parseScopedVariableToken("x#99999999999", name, scope));
    EXPECT_GT(scope, 3);
}

// --- pointer literals ---------------------------------------------------------------------

struct PointerCase {
    const char* token;
    bool ok;
    std::uintptr_t address;
};
class PointerLiterals : public ::testing::TestWithParam<PointerCase> {};
TEST_P(PointerLiterals, ReadHexAddresses) {
    void* pointer = reinterpret_cast<void*>(std::uintptr_t{0x1234});
    EXPECT_EQ(parsePointerLiteral(GetParam().token, pointer), GetParam().ok) << GetParam().token;
    if (GetParam().ok) {
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(pointer), GetParam().address) << GetParam().token;
    }
}
INSTANTIATE_TEST_SUITE_P(Forms, PointerLiterals, ::testing::Values(
    PointerCase{"$ff", true, 0xff}, PointerCase{"$FF", true, 0xff}, PointerCase{"$fF", true, 0xff},
    PointerCase{"$0", true, 0}, PointerCase{"$0000", true, 0}, PointerCase{"$DEADBEEF", true, 0xDEADBEEF},
    PointerCase{"$0000000000000001", true, 1},
    PointerCase{"$", false, 0}, PointerCase{"ff", false, 0}, PointerCase{"$g", false, 0},
    PointerCase{"$1g", false, 0}, PointerCase{"$-1", false, 0}, PointerCase{"$ 1", false, 0},
    PointerCase{"$1ffffffffffffffff", false, 0}),
    [](const ::testing::TestParamInfo<PointerCase>& info) { return caseName(info, &PointerCase::token); });

// --- string decoding ----------------------------------------------------------------------

struct DecodeCase {
    const char* token;
    std::string text;
};
class StringDecoding : public ::testing::TestWithParam<DecodeCase> {};
TEST_P(StringDecoding, RemovesQuotesAndEscapes) { EXPECT_EQ(decodeStringToken(GetParam().token), GetParam().text) << GetParam().token; }
INSTANTIATE_TEST_SUITE_P(Escapes, StringDecoding, ::testing::Values(
    DecodeCase{"\"plain\"", "plain"},
    DecodeCase{"'single'", "single"},
    DecodeCase{"\"\"", ""},
    DecodeCase{"\"a\\tb\"", "a\tb"},
    DecodeCase{"\"a\\nb\"", "a\nb"},
    DecodeCase{"\"a\\rb\"", "a\rb"},
    DecodeCase{"\"a\\\\b\"", "a\\b"},
    DecodeCase{"\"\\\"q\\\"\"", "\"q\""},
    DecodeCase{"'it\\'s'", "it's"},
    DecodeCase{"\"\\q\\0\"", "q0"},
    DecodeCase{"\"\\T\\N\"", "TN"},
    DecodeCase{"\"ab\\\"", "ab\\"},
    DecodeCase{"\"@@;\"", "@@;"}),
    [](const ::testing::TestParamInfo<DecodeCase>& info) { return caseName(info, &DecodeCase::token); });

// --- lines, kinds and scope prefixes ------------------------------------------------------

TEST(LineSplitting, SemicolonsSplitStatementsAndCommentsAreDropped) {
    ParsedScript s = parsed("x = 1; y = 2 @@ note; z = 3");
    ASSERT_EQ(s.lines.size(), 2u);
    EXPECT_EQ(s.lines[0].tokens, (Tokens{"x", "=", "1"}));
    EXPECT_EQ(s.lines[1].tokens, (Tokens{"y", "=", "2"}));
    EXPECT_EQ(s.lines[0].sourceLine, 1);
    EXPECT_EQ(s.lines[1].sourceLine, 1);
}

TEST(LineSplitting, SemicolonsInsideStringsAndBracketsDoNotSplit) {
    struct Case {
        const char* source;
        std::size_t lines;
    };
    for (Case c : {Case{"s = \"a;b\"", 1}, Case{"s = 'a;b'; t = 1", 2}, Case{"f(a; b)", 1}, Case{"t = [1; 2]", 1},
                   Case{"t = {a: 1; b: 2}", 1}, Case{"f((1); 2); g()", 2}, Case{"s = \"@@\"; t = 1", 2},
                   Case{"s = '\\';'; t = 1", 2}, Case{";;x = 1;;", 1}}) {
        ParsedScript s = parsed(c.source);
        EXPECT_EQ(s.lines.size(), c.lines) << c.source;
    }
}

TEST(LineSplitting, CommentInsideStringIsText) {
    ParsedScript s = parsed("print(\"a@@b\") @@ c");
    ASSERT_EQ(s.lines.size(), 1u);
    EXPECT_EQ(s.lines[0].tokens, (Tokens{"print", "(", "\"a@@b\"", ")"}));
}

TEST(LineSplitting, EmptyAndCommentLinesMakeNoStatementsButCountForLineNumbers) {
    ParsedScript s = parsed("\n   \n@@ only a comment\n\tx = 1\r\ny = 2\r\n");
    ASSERT_EQ(s.lines.size(), 2u);
    EXPECT_EQ(s.lines[0].tokens, (Tokens{"x", "=", "1"}));
    EXPECT_EQ(s.lines[0].sourceLine, 4);
    EXPECT_EQ(s.lines[1].tokens, (Tokens{"y", "=", "2"}));
    EXPECT_EQ(s.lines[1].sourceLine, 5);
}

TEST(LineSplitting, UnterminatedStringFailsWithItsLine) {
    ParsedScript script;
    ParseFailure failure;
    EXPECT_FALSE(parseScript("x = 1\ny = \"open\nz = 2", script, failure));
    EXPECT_EQ(failure.message, "Unterminated string literal");
    EXPECT_EQ(failure.sourceLine, 2);
}

struct KindCase {
    const char* line;
    LineKind kind;
    ScopePrefix prefix;
};
class LineKinds : public ::testing::TestWithParam<KindCase> {};
TEST_P(LineKinds, FollowTheFirstTokens) {
    ParsedScript s = parsed(GetParam().line);
    ASSERT_FALSE(s.lines.empty()) << GetParam().line;
    EXPECT_EQ(s.lines[0].kind, GetParam().kind) << GetParam().line;
    EXPECT_EQ(s.lines[0].scopePrefix, GetParam().prefix) << GetParam().line;
}
INSTANTIATE_TEST_SUITE_P(Keywords, LineKinds, ::testing::Values(
    KindCase{"x = 1", LineKind::Statement, ScopePrefix::None},
    KindCase{"print(1)", LineKind::Statement, ScopePrefix::None},
    KindCase{"if x\nend", LineKind::If, ScopePrefix::None},
    KindCase{"elseif x", LineKind::ElseIf, ScopePrefix::None},
    KindCase{"else", LineKind::Else, ScopePrefix::None},
    KindCase{"end", LineKind::End, ScopePrefix::None},
    KindCase{"while x\nend", LineKind::While, ScopePrefix::None},
    KindCase{"repeat\nuntil x", LineKind::Repeat, ScopePrefix::None},
    KindCase{"until x", LineKind::Until, ScopePrefix::None},
    KindCase{"for i = 1, 2\nend", LineKind::For, ScopePrefix::None},
    KindCase{"function f()\nend", LineKind::Function, ScopePrefix::None},
    KindCase{"decay function f()\nend", LineKind::DecayFunction, ScopePrefix::None},
    KindCase{"native function f()\nend", LineKind::NativeFunction, ScopePrefix::None},
    KindCase{"local function f()\nend", LineKind::LocalFunction, ScopePrefix::None},
    KindCase{"nest top", LineKind::Nest, ScopePrefix::None},
    KindCase{"return 1", LineKind::Return, ScopePrefix::None},
    KindCase{"break", LineKind::Break, ScopePrefix::None}),
    [](const ::testing::TestParamInfo<KindCase>& info) { return caseName(info, &KindCase::line); });
INSTANTIATE_TEST_SUITE_P(Prefixes, LineKinds, ::testing::Values(
    KindCase{"local x = 1", LineKind::Statement, ScopePrefix::Local},
    KindCase{"native x = 1", LineKind::Statement, ScopePrefix::Native},
    KindCase{"external x = 1", LineKind::Statement, ScopePrefix::External},
    KindCase{"local a, b", LineKind::Statement, ScopePrefix::Local},
    KindCase{"decay x = 1", LineKind::Statement, ScopePrefix::None},
    KindCase{"localx = 1", LineKind::Statement, ScopePrefix::None}),
    [](const ::testing::TestParamInfo<KindCase>& info) { return caseName(info, &KindCase::line); });
INSTANTIATE_TEST_SUITE_P(CaseMatters, LineKinds, ::testing::Values(
    KindCase{"If = 1", LineKind::Statement, ScopePrefix::None},
    KindCase{"END = 1", LineKind::Statement, ScopePrefix::None},
    KindCase{"Function = 1", LineKind::Statement, ScopePrefix::None},
    KindCase{"Local x = 1", LineKind::Statement, ScopePrefix::None},
    KindCase{"ends = 1", LineKind::Statement, ScopePrefix::None}),
    [](const ::testing::TestParamInfo<KindCase>& info) { return caseName(info, &KindCase::line); });

// --- block links --------------------------------------------------------------------------

TEST(BlockLinks, IfChainLinksEachBranchToTheNextAndAllToTheEnd) {
    ParsedScript s = parsed("if a\nx = 1\nelseif b\nx = 2\nelse\nx = 3\nend");
    ASSERT_EQ(s.lines.size(), 7u);
    EXPECT_EQ(s.lines[0].elseIndex, 2);
    EXPECT_EQ(s.lines[2].elseIndex, 4);
    EXPECT_EQ(s.lines[0].endIndex, 6);
    EXPECT_EQ(s.lines[2].endIndex, 6);
    EXPECT_EQ(s.lines[4].endIndex, 6);
}

TEST(BlockLinks, EndClosesTheInnermostBlock) {
    ParsedScript s = parsed(
        "while a\n"        // 0
        "  for i = 1, 2\n" // 1
        "    if b\n"       // 2
        "    end\n"        // 3
        "  end\n"          // 4
        "  repeat\n"       // 5
        "    function f()\n"  // 6
        "    end\n"        // 7
        "  until c\n"      // 8
        "end");            // 9
    ASSERT_EQ(s.lines.size(), 10u);
    EXPECT_EQ(s.lines[0].endIndex, 9);
    EXPECT_EQ(s.lines[1].endIndex, 4);
    EXPECT_EQ(s.lines[2].endIndex, 3);
    EXPECT_EQ(s.lines[2].elseIndex, -1);
    EXPECT_EQ(s.lines[5].endIndex, 8);
    EXPECT_EQ(s.lines[6].endIndex, 7);
}

TEST(BlockLinks, UnclosedBlocksStayUnlinked) {
    ParsedScript s = parsed("if a\nwhile b\nend");
    ASSERT_EQ(s.lines.size(), 3u);
    EXPECT_EQ(s.lines[1].endIndex, 2);
    EXPECT_EQ(s.lines[0].endIndex, -1);

    ParsedScript r = parsed("repeat\nx = 1");
    ASSERT_EQ(r.lines.size(), 2u);
    EXPECT_EQ(r.lines[0].endIndex, -1);
}

TEST(BlockLinks, SemicolonSeparatedBlocksLinkLikeSeparateLines) {
    ParsedScript s = parsed("if a; x = 1; else; x = 2; end");
    ASSERT_EQ(s.lines.size(), 5u);
    EXPECT_EQ(s.lines[0].elseIndex, 2);
    EXPECT_EQ(s.lines[0].endIndex, 4);
}

}  // namespace
}  // namespace korvel
