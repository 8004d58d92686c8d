// Source parsing: logical lines, tokens, token analysis and block links.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace korvel {

enum class LineKind : std::uint8_t {
    Statement = 1,
    If = 2,
    ElseIf = 3,
    Else = 4,
    End = 5,
    While = 6,
    Repeat = 7,
    Until = 8,
    For = 9,
    Function = 10,
    DecayFunction = 11,
    NativeFunction = 12,
    LocalFunction = 13,
    Nest = 14,
    Return = 15,
    Break = 16,
};

enum class ScopePrefix : std::uint8_t { None = 0, Native = 1, Local = 2, External = 3 };

struct TokenAnalysis {
    bool isIdentifier = false;
    bool isTrueWord = false;
    bool isFalseWord = false;
    bool looksNumeric = false;
    bool isFloatLiteral = false;
    bool isIntLiteral = false;
    std::int32_t intValue = 0;
    float floatValue = 0.0f;
};

struct ParsedScriptLine {
    std::vector<std::string> tokens;
    std::vector<std::uint32_t> columns;      // byte column of each token in its source line
    std::vector<TokenAnalysis> analyses;
    LineKind kind = LineKind::Statement;
    ScopePrefix scopePrefix = ScopePrefix::None;
    std::int32_t elseIndex = -1;    // next elseif/else of an if branch
    std::int32_t endIndex = -1;     // matching end (or until)
    std::int32_t openerIndex = -1;  // for else/elseif/end/until: the line that opened the block
    std::int32_t sourceLine = 0;    // 1-based physical line number
};

// A whole script's parsed form plus what error reports need.
struct ParsedScript {
    std::string name;                      // "" for unnamed text
    std::string directory;                 // for resolving relative paths
    std::vector<std::string> sourceLines;  // physical lines, for the report
    std::vector<ParsedScriptLine> lines;
};

// Parse failures carry the physical line and the column of the offending token.
struct ParseFailure {
    std::string message;
    std::int32_t sourceLine = 0;
    std::int32_t column = -1;
};

// Splits, tokenises, analyses and links. Returns false and fills failure on a parse error.
bool parseScript(std::string_view source, ParsedScript& out, ParseFailure& failure);

// One statement's tokens; throws ParseFailure-style messages via the return value.
bool tokenise(std::string_view statement, std::uint32_t baseColumn, std::vector<std::string>& tokens,
              std::vector<std::uint32_t>& columns, std::string& error, std::uint32_t& errorColumn);
TokenAnalysis analyseToken(std::string_view token);
bool tokenLooksNumeric(std::string_view token);
bool isTrueWord(std::string_view token);
bool isFalseWord(std::string_view token);
bool isIdentifierToken(std::string_view token);
// "name#3" gives name and scope 3; a plain name gives scope -1.
bool parseScopedVariableToken(std::string_view token, std::string_view& name, int& scope);
bool parsePointerLiteral(std::string_view token, void*& pointer);
std::string decodeStringToken(std::string_view token);
inline bool isStringToken(std::string_view token) {
    return !token.empty() && (token[0] == '"' || token[0] == '\'');
}
void prepareParsedLines(std::vector<ParsedScriptLine>& lines);
// Whether a line of this kind opens a block that an end or until closes.
bool opensBlock(LineKind kind);
// Whether a line of this kind declares a function.
bool isFunctionKind(LineKind kind);

}  // namespace korvel
