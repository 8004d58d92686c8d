// Lexer: source bytes to tokens, with line and column of each token's first byte.
#include "lexer_internal.h"

#include "error_internal.h"

#include <cmath>
#include <cstdlib>
#include <string>

namespace korvel::lua {

namespace {

struct Keyword {
    std::string_view text;
    TokenKind kind;
};

constexpr Keyword kKeywords[] = {
    {"and", TokenKind::And},       {"break", TokenKind::Break},   {"do", TokenKind::Do},
    {"else", TokenKind::Else},     {"elseif", TokenKind::ElseIf}, {"end", TokenKind::End},
    {"false", TokenKind::False},   {"for", TokenKind::For},       {"function", TokenKind::Function},
    {"if", TokenKind::If},         {"in", TokenKind::In},         {"local", TokenKind::Local},
    {"nil", TokenKind::Nil},       {"not", TokenKind::Not},       {"or", TokenKind::Or},
    {"return", TokenKind::Return}, {"then", TokenKind::Then},     {"true", TokenKind::True},
    {"while", TokenKind::While},
};

bool isNameStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isHexDigit(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
int hexValue(char c) { return isDigit(c) ? c - '0' : (c | 0x20) - 'a' + 10; }

void appendUtf8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

} // namespace

void failParse(std::string_view chunkName, std::uint32_t line, std::uint32_t column, std::string_view message) {
    std::string text(chunkName);
    text += ':' + std::to_string(line) + ':' + std::to_string(column) + ": ";
    text += message;
    throw LuaError(std::move(text));
}

void Lexer::fail(std::uint32_t line, std::uint32_t column, std::string_view message) const {
    failParse(m_chunkName, line, column, message);
}

void Lexer::advance() {
    if (m_source[m_position] == '\n') {
        ++m_line;
        m_column = 1;
    } else {
        ++m_column;
    }
    ++m_position;
}

int Lexer::longBracketLevel() const {
    std::size_t ahead = 1;
    while (peek(ahead) == '=') ++ahead;
    return peek(ahead) == '[' ? static_cast<int>(ahead - 1) : -1;
}

std::string Lexer::readLongString(int level, std::uint32_t line, std::uint32_t column, bool isComment) {
    for (int i = 0; i < level + 2; ++i) advance();
    // A line break right after the opening bracket is not part of the string.
    if (peek() == '\r') advance();
    if (peek() == '\n') advance();
    std::string text;
    while (!atEnd()) {
        char c = peek();
        if (c == ']') {
            std::size_t ahead = 1;
            while (peek(ahead) == '=') ++ahead;
            if (peek(ahead) == ']' && static_cast<int>(ahead - 1) == level) {
                for (std::size_t i = 0; i <= ahead; ++i) advance();
                return text;
            }
        }
        text += c;
        advance();
    }
    fail(line, column, isComment ? "unterminated long comment" : "unterminated long string literal");
}

void Lexer::skipSpaceAndComments() {
    while (!atEnd()) {
        char c = peek();
        if (c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v') {
            advance();
        } else if (c == '-' && peek(1) == '-') {
            std::uint32_t line = m_line, column = m_column;
            advance();
            advance();
            if (peek() == '[' && longBracketLevel() >= 0) {
                readLongString(longBracketLevel(), line, column, true);
            } else {
                while (!atEnd() && peek() != '\n') advance();
            }
        } else if (c == '#' && m_position == 0 && peek(1) == '!') {
            while (!atEnd() && peek() != '\n') advance();   // a shebang line of an executable script
        } else {
            return;
        }
    }
}

void Lexer::readQuotedString(Token& token) {
    char quote = peek();
    advance();
    std::string text;
    while (true) {
        if (atEnd() || peek() == '\n' || peek() == '\r') fail(token.line, token.column, "unterminated string literal");
        char c = peek();
        if (c == quote) {
            advance();
            break;
        }
        if (c != '\\') {
            text += c;
            advance();
            continue;
        }
        std::uint32_t escapeLine = m_line, escapeColumn = m_column;
        advance();
        if (atEnd()) fail(escapeLine, escapeColumn, "unterminated string escape");
        char e = peek();
        switch (e) {
        case 'n': text += '\n'; advance(); break;
        case 't': text += '\t'; advance(); break;
        case 'r': text += '\r'; advance(); break;
        case 'a': text += '\a'; advance(); break;
        case 'b': text += '\b'; advance(); break;
        case 'f': text += '\f'; advance(); break;
        case 'v': text += '\v'; advance(); break;
        case '\\': text += '\\'; advance(); break;
        case '"': text += '"'; advance(); break;
        case '\'': text += '\''; advance(); break;
        case '\n': text += '\n'; advance(); break;
        case 'x': {
            advance();
            if (!isHexDigit(peek()) || !isHexDigit(peek(1))) fail(escapeLine, escapeColumn, "invalid hexadecimal escape");
            text += static_cast<char>(hexValue(peek()) * 16 + hexValue(peek(1)));
            advance();
            advance();
            break;
        }
        case 'z':
            advance();
            while (!atEnd() && (peek() == ' ' || peek() == '\n' || peek() == '\t' || peek() == '\r')) advance();
            break;
        case 'u': {
            advance();
            if (peek() != '{') fail(escapeLine, escapeColumn, "invalid unicode escape");
            advance();
            std::uint32_t code = 0;
            int digits = 0;
            while (isHexDigit(peek())) {
                code = code * 16 + static_cast<std::uint32_t>(hexValue(peek()));
                if (code > 0x10FFFF) fail(escapeLine, escapeColumn, "unicode escape is too large");
                advance();
                ++digits;
            }
            if (digits == 0 || peek() != '}') fail(escapeLine, escapeColumn, "invalid unicode escape");
            advance();
            appendUtf8(text, code);
            break;
        }
        default:
            if (isDigit(e)) {
                int code = 0;
                for (int i = 0; i < 3 && isDigit(peek()); ++i) {
                    code = code * 10 + (peek() - '0');
                    advance();
                }
                if (code > 255) fail(escapeLine, escapeColumn, "decimal escape is too large");
                text += static_cast<char>(code);
            } else {
                fail(escapeLine, escapeColumn, "invalid escape sequence");
            }
        }
    }
    token.kind = TokenKind::String;
    token.text = std::move(text);
}

void Lexer::readNumber(Token& token) {
    std::size_t start = m_position;
    if (peek() == '0' && (peek(1) == 'x' || peek(1) == 'X')) {
        advance();
        advance();
        std::uint64_t value = 0;
        int digits = 0;
        while (isHexDigit(peek())) {
            value = value * 16 + static_cast<std::uint64_t>(hexValue(peek()));   // wraps, as integer arithmetic does
            advance();
            ++digits;
        }
        if (digits == 0 || isNameStart(peek()) || peek() == '.') fail(token.line, token.column, "malformed number");
        token.kind = TokenKind::Integer;
        token.integer = static_cast<std::int64_t>(value);
        token.text = std::string(m_source.substr(start, m_position - start));
        return;
    }
    bool isFloat = false;
    while (isDigit(peek())) advance();
    // "1..2" is the concatenation of 1 and 2, not a malformed number.
    if (peek() == '.' && peek(1) != '.') {
        isFloat = true;
        advance();
        while (isDigit(peek())) advance();
    }
    if (peek() == 'e' || peek() == 'E') {
        std::size_t ahead = 1;
        if (peek(ahead) == '+' || peek(ahead) == '-') ++ahead;
        if (!isDigit(peek(ahead))) fail(token.line, token.column, "malformed number");
        isFloat = true;
        for (std::size_t i = 0; i < ahead; ++i) advance();
        while (isDigit(peek())) advance();
    }
    if (isNameStart(peek()) || (peek() == '.' && peek(1) != '.')) fail(token.line, token.column, "malformed number");
    token.text = std::string(m_source.substr(start, m_position - start));
    if (!isFloat) {
        // Decimal integers that do not fit 64 bits become floats.
        std::uint64_t value = 0;
        bool overflow = false;
        for (char c : token.text) {
            std::uint64_t digit = static_cast<std::uint64_t>(c - '0');
            if (value > (UINT64_MAX - digit) / 10) overflow = true;
            value = value * 10 + digit;
        }
        if (!overflow && value <= static_cast<std::uint64_t>(INT64_MAX)) {
            token.kind = TokenKind::Integer;
            token.integer = static_cast<std::int64_t>(value);
            return;
        }
    }
    token.kind = TokenKind::Float;
    token.number = std::strtod(token.text.c_str(), nullptr);
}

Token Lexer::next() {
    skipSpaceAndComments();
    Token token;
    token.line = m_line;
    token.column = m_column;
    if (atEnd()) {
        token.kind = TokenKind::EndOfInput;
        return token;
    }
    char c = peek();
    if (isNameStart(c)) {
        std::size_t start = m_position;
        while (isNameStart(peek()) || isDigit(peek())) advance();
        token.text = std::string(m_source.substr(start, m_position - start));
        token.kind = TokenKind::Name;
        for (const Keyword& keyword : kKeywords) {
            if (keyword.text == token.text) token.kind = keyword.kind;
        }
        return token;
    }
    if (isDigit(c) || (c == '.' && isDigit(peek(1)))) {
        readNumber(token);
        return token;
    }
    if (c == '"' || c == '\'') {
        readQuotedString(token);
        return token;
    }
    if (c == '[' && longBracketLevel() >= 0) {
        token.text = readLongString(longBracketLevel(), token.line, token.column, false);
        token.kind = TokenKind::String;
        return token;
    }
    auto single = [&](TokenKind kind, std::size_t length) {
        token.kind = kind;
        token.text = std::string(m_source.substr(m_position, length));
        for (std::size_t i = 0; i < length; ++i) advance();
        return token;
    };
    switch (c) {
    case '+': return single(TokenKind::Plus, 1);
    case '-': return single(TokenKind::Minus, 1);
    case '*': return single(TokenKind::Star, 1);
    case '/': return single(TokenKind::Slash, 1);
    case '%': return single(TokenKind::Percent, 1);
    case '#': return single(TokenKind::Hash, 1);
    case '(': return single(TokenKind::LeftParen, 1);
    case ')': return single(TokenKind::RightParen, 1);
    case '{': return single(TokenKind::LeftBrace, 1);
    case '}': return single(TokenKind::RightBrace, 1);
    case '[': return single(TokenKind::LeftBracket, 1);
    case ']': return single(TokenKind::RightBracket, 1);
    case ',': return single(TokenKind::Comma, 1);
    case ':': return single(TokenKind::Colon, 1);
    case ';': return single(TokenKind::Semicolon, 1);
    case '.': return peek(1) == '.' ? single(TokenKind::Concat, 2) : single(TokenKind::Dot, 1);
    case '=': return peek(1) == '=' ? single(TokenKind::Equal, 2) : single(TokenKind::Assign, 1);
    case '<': return peek(1) == '=' ? single(TokenKind::LessEqual, 2) : single(TokenKind::Less, 1);
    case '>': return peek(1) == '=' ? single(TokenKind::GreaterEqual, 2) : single(TokenKind::Greater, 1);
    case '~':
        if (peek(1) == '=') return single(TokenKind::NotEqual, 2);
        fail(token.line, token.column, "unexpected '~'");
    default:
        break;
    }
    fail(token.line, token.column, std::string("unexpected character '") + c + "'");
}

} // namespace korvel::lua
