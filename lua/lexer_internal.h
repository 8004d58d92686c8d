// Tokens of the dialect and the lexer that makes them.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace korvel::lua {

enum class TokenKind : std::uint8_t {
    Name, Integer, Float, String,
    // keywords
    And, Break, Do, Else, ElseIf, End, False, For, Function, If, In, Local, Nil, Not, Or, Return,
    Then, True, While,
    // operators and punctuation
    Plus, Minus, Star, Slash, Percent, Concat, Equal, NotEqual, Less, LessEqual, Greater,
    GreaterEqual, Assign, Hash, LeftParen, RightParen, LeftBrace, RightBrace, LeftBracket,
    RightBracket, Comma, Dot, Colon, Semicolon,
    EndOfInput,
};

struct Token {
    TokenKind kind = TokenKind::EndOfInput;
    std::string text;              // name, string contents, or the lexeme
    std::int64_t integer = 0;
    double number = 0.0;
    std::uint32_t line = 1;
    std::uint32_t column = 1;
};

class Lexer {
public:
    Lexer(std::string_view source, std::string_view chunkName) : m_source(source), m_chunkName(chunkName) {}
    // The next token; throws LuaError on malformed input.
    Token next();

private:
    char peek(std::size_t ahead = 0) const {
        return m_position + ahead < m_source.size() ? m_source[m_position + ahead] : '\0';
    }
    bool atEnd() const { return m_position >= m_source.size(); }
    void advance();
    [[noreturn]] void fail(std::uint32_t line, std::uint32_t column, std::string_view message) const;

    void skipSpaceAndComments();
    // Level of a long bracket at the current '[' ("[[" is 0, "[==[" is 2), or -1 when none.
    int longBracketLevel() const;
    std::string readLongString(int level, std::uint32_t line, std::uint32_t column, bool isComment);
    void readQuotedString(Token& token);
    void readNumber(Token& token);

    std::string_view m_source;
    std::string_view m_chunkName;
    std::size_t m_position = 0;
    std::uint32_t m_line = 1;
    std::uint32_t m_column = 1;
};

} // namespace korvel::lua
