// Line splitting, tokenising, word analysis and block linking.
#include "core/parser_internal.h"

#include <cstdlib>
#include <cstring>

namespace korvel {

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\v' || c == '\f' || c == '\0'; }
bool isBlank(unsigned char c) { return c <= ' ' || c == 0x7f; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }
bool isLetter(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); }
bool isHex(char c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool isPunctuation(char c) { return c != '\0' && std::strchr("()[]{},:;=<>+-*/\\%^!#", c) != nullptr; }

// The length of a two-character operator starting at text[i], or 0.
std::size_t twoCharOperator(std::string_view text, std::size_t i) {
    if (i + 1 >= text.size()) return 0;
    char a = text[i], b = text[i + 1];
    if (b == '=' && std::strchr("=!~<>+-*/\\%^", a) != nullptr) return 2;
    if ((a == '&' && b == '&') || (a == '|' && b == '|') || (a == '<' && b == '-') || (a == '-' && b == '>'))
        return 2;
    return 0;
}

}  // namespace

bool tokenise(std::string_view text, std::uint32_t baseColumn, std::vector<std::string>& tokens,
              std::vector<std::uint32_t>& columns, std::string& error, std::uint32_t& errorColumn) {
    std::size_t i = 0;
    while (i < text.size()) {
        char c = text[i];
        if (isBlank(static_cast<unsigned char>(c))) {
            ++i;
            continue;
        }
        std::size_t start = i;
        if (c == '"' || c == '\'') {
            ++i;
            bool closed = false;
            while (i < text.size()) {
                if (text[i] == '\\') {
                    i += 2;
                    continue;
                }
                if (text[i] == c) {
                    closed = true;
                    ++i;
                    break;
                }
                ++i;
            }
            if (!closed) {
                error = "Unterminated string literal";
                errorColumn = baseColumn + static_cast<std::uint32_t>(start);
                return false;
            }
            if (i > text.size()) i = text.size();
        } else if (std::size_t n = twoCharOperator(text, i)) {
            i += n;
        } else if (isPunctuation(c)) {
            ++i;
        } else {
            // A word runs to whitespace, a quote, punctuation or a two-character operator; a '#'
            // followed by a digit stays inside the word (an explicit scope suffix).
            while (i < text.size()) {
                char d = text[i];
                if (isBlank(static_cast<unsigned char>(d)) || d == '"' || d == '\'') break;
                if (d == '#' && i + 1 < text.size() && isDigit(text[i + 1])) {
                    i += 2;
                    continue;
                }
                if (isPunctuation(d) || twoCharOperator(text, i)) break;
                ++i;
            }
        }
        tokens.emplace_back(text.substr(start, i - start));
        columns.push_back(baseColumn + static_cast<std::uint32_t>(start));
    }
    return true;
}

bool isTrueWord(std::string_view t) { return t == "true" || t == "ture" || t == "tre" || t == "tue"; }
bool isFalseWord(std::string_view t) { return t == "false" || t == "flase" || t == "fasle" || t == "flse"; }

bool tokenLooksNumeric(std::string_view t) {
    std::size_t i = 0;
    if (!t.empty() && (t[0] == '+' || t[0] == '-')) i = 1;
    bool digit = false, point = false;
    for (; i < t.size(); ++i) {
        if (isDigit(t[i])) {
            digit = true;
        } else if (t[i] == '.' && !point) {
            point = true;
        } else {
            return false;
        }
    }
    return digit;
}

bool parseScopedVariableToken(std::string_view token, std::string_view& name, int& scope) {
    std::size_t hash = token.find('#');
    if (hash == std::string_view::npos) {
        name = token;
        scope = -1;
        return true;
    }
    if (hash == 0 || hash + 1 >= token.size()) return false;
    int value = 0;
    for (std::size_t i = hash + 1; i < token.size(); ++i) {
        if (!isDigit(token[i])) return false;
        value = value * 10 + (token[i] - '0');
        if (value > 1000) value = 1000;  // any code above 3 finds nothing
    }
    name = token.substr(0, hash);
    scope = value;
    return true;
}

bool isIdentifierToken(std::string_view token) {
    std::string_view name;
    int scope = -1;
    if (!parseScopedVariableToken(token, name, scope) || name.empty()) return false;
    if (!(isLetter(name[0]) || name[0] == '_' || name[0] == '$')) return false;
    for (char c : name)
        if (!(isLetter(c) || isDigit(c) || c == '_' || c == '$')) return false;
    return true;
}

bool parsePointerLiteral(std::string_view token, void*& pointer) {
    if (token.size() < 2 || token[0] != '$') return false;
    std::uintptr_t value = 0;
    for (std::size_t i = 1; i < token.size(); ++i) {
        char c = token[i];
        if (!isHex(c)) return false;
        unsigned digit = isDigit(c) ? unsigned(c - '0') : unsigned((c | 0x20) - 'a' + 10);
        if (value > (UINTPTR_MAX >> 4)) return false;
        value = (value << 4) | digit;
    }
    pointer = reinterpret_cast<void*>(value);
    return true;
}

TokenAnalysis analyseToken(std::string_view token) {
    TokenAnalysis a;
    a.isTrueWord = isTrueWord(token);
    a.isFalseWord = isFalseWord(token);
    a.looksNumeric = tokenLooksNumeric(token);
    if (a.looksNumeric) {
        std::string text(token);
        if (token.find('.') != std::string_view::npos) {
            a.isFloatLiteral = true;
            a.floatValue = std::strtof(text.c_str(), nullptr);
        } else {
            char* end = nullptr;
            errno = 0;
            long long value = std::strtoll(text.c_str(), &end, 10);
            if (errno == 0 && end && *end == '\0' && value >= INT32_MIN && value <= INT32_MAX) {
                a.isIntLiteral = true;
                a.intValue = static_cast<std::int32_t>(value);
            }
            a.floatValue = std::strtof(text.c_str(), nullptr);
        }
    }
    a.isIdentifier = !a.looksNumeric && isIdentifierToken(token);
    return a;
}

std::string decodeStringToken(std::string_view token) {
    std::string out;
    if (token.size() < 2) return out;
    std::string_view body = token.substr(1, token.size() - 2);
    out.reserve(body.size());
    for (std::size_t i = 0; i < body.size(); ++i) {
        char c = body[i];
        if (c != '\\' || i + 1 >= body.size()) {
            out += c;
            continue;
        }
        char next = body[++i];
        switch (next) {
        case 't': out += '\t'; break;
        case 'r': out += '\r'; break;
        case 'n': out += '\n'; break;
        default: out += next; break;
        }
    }
    return out;
}

namespace {

LineKind classifyLine(const std::vector<std::string>& t, ScopePrefix& prefix) {
    prefix = ScopePrefix::None;
    if (t.empty()) return LineKind::Statement;
    std::string_view first = t[0];
    auto secondIsFunction = [&] { return t.size() > 1 && t[1] == "function"; };
    // By length first: every line is classified, and most start with a plain name.
    switch (first.size()) {
    case 2:
        if (first == "if") return LineKind::If;
        break;
    case 3:
        if (first == "end") return LineKind::End;
        if (first == "for") return LineKind::For;
        break;
    case 4:
        if (first == "else") return LineKind::Else;
        if (first == "nest") return LineKind::Nest;
        break;
    case 5:
        if (first == "while") return LineKind::While;
        if (first == "until") return LineKind::Until;
        if (first == "break") return LineKind::Break;
        if (first == "decay" && secondIsFunction()) return LineKind::DecayFunction;
        if (first == "local") {
            if (secondIsFunction()) return LineKind::LocalFunction;
            prefix = ScopePrefix::Local;
        }
        break;
    case 6:
        if (first == "elseif") return LineKind::ElseIf;
        if (first == "repeat") return LineKind::Repeat;
        if (first == "return") return LineKind::Return;
        if (first == "native") {
            if (secondIsFunction()) return LineKind::NativeFunction;
            prefix = ScopePrefix::Native;
        }
        break;
    case 8:
        if (first == "function") return LineKind::Function;
        if (first == "external") prefix = ScopePrefix::External;
        break;
    default: break;
    }
    return LineKind::Statement;
}

}  // namespace

bool isFunctionKind(LineKind kind) {
    return kind == LineKind::Function || kind == LineKind::DecayFunction || kind == LineKind::NativeFunction ||
           kind == LineKind::LocalFunction;
}

bool opensBlock(LineKind kind) {
    switch (kind) {
    case LineKind::If:
    case LineKind::While:
    case LineKind::Repeat:
    case LineKind::For:
    case LineKind::Function:
    case LineKind::DecayFunction:
    case LineKind::NativeFunction:
    case LineKind::LocalFunction: return true;
    default: return false;
    }
}

void prepareParsedLines(std::vector<ParsedScriptLine>& lines) {
    struct Open {
        std::int32_t opener;
        std::int32_t lastBranch;
    };
    std::vector<Open> open;
    for (std::size_t n = 0; n < lines.size(); ++n) {
        auto i = static_cast<std::int32_t>(n);
        ParsedScriptLine& line = lines[n];
        line.kind = classifyLine(line.tokens, line.scopePrefix);
        line.elseIndex = line.endIndex = line.openerIndex = -1;
        if (opensBlock(line.kind)) {
            open.push_back({i, i});
            continue;
        }
        if (line.kind == LineKind::ElseIf || line.kind == LineKind::Else) {
            if (!open.empty() && lines[static_cast<std::size_t>(open.back().opener)].kind == LineKind::If) {
                lines[static_cast<std::size_t>(open.back().lastBranch)].elseIndex = i;
                line.openerIndex = open.back().opener;
                open.back().lastBranch = i;
            }
            continue;
        }
        if (line.kind == LineKind::End || line.kind == LineKind::Until) {
            bool wantRepeat = line.kind == LineKind::Until;
            for (std::size_t k = open.size(); k-- > 0;) {
                bool isRepeat = lines[static_cast<std::size_t>(open[k].opener)].kind == LineKind::Repeat;
                if (isRepeat != wantRepeat) continue;
                std::int32_t opener = open[k].opener;
                line.openerIndex = opener;
                lines[static_cast<std::size_t>(opener)].endIndex = i;
                // Every branch of an if learns where the block ends.
                for (std::int32_t b = lines[static_cast<std::size_t>(opener)].elseIndex; b >= 0;
                     b = lines[static_cast<std::size_t>(b)].elseIndex)
                    lines[static_cast<std::size_t>(b)].endIndex = i;
                open.resize(k);
                break;
            }
        }
    }
}

bool parseScript(std::string_view source, ParsedScript& out, ParseFailure& failure) {
    std::size_t lineCount = 1;
    for (char c : source)
        if (c == '\n') ++lineCount;
    out.sourceLines.clear();
    out.sourceLines.reserve(lineCount);
    out.lines.clear();
    out.lines.reserve(lineCount);

    std::size_t pos = 0;
    std::int32_t lineNumber = 0;
    while (pos <= source.size()) {
        std::size_t eol = source.find('\n', pos);
        if (eol == std::string_view::npos) eol = source.size();
        std::string_view physical = source.substr(pos, eol - pos);
        if (!physical.empty() && physical.back() == '\r') physical.remove_suffix(1);
        ++lineNumber;
        out.sourceLines.emplace_back(physical);

        // Cut the physical line at comments and top-level semicolons.
        std::size_t pieceStart = 0;
        int depth = 0;
        char quote = 0;
        auto emitPiece = [&](std::size_t from, std::size_t to) -> bool {
            while (from < to && isSpace(physical[from])) ++from;
            while (to > from && isSpace(physical[to - 1])) --to;
            if (from == to) return true;
            ParsedScriptLine line;
            line.sourceLine = lineNumber;
            std::string error;
            std::uint32_t errorColumn = 0;
            if (!tokenise(physical.substr(from, to - from), static_cast<std::uint32_t>(from), line.tokens,
                          line.columns, error, errorColumn)) {
                failure.message = error;
                failure.sourceLine = lineNumber;
                failure.column = static_cast<std::int32_t>(errorColumn);
                return false;
            }
            if (line.tokens.empty()) return true;
            line.analyses.reserve(line.tokens.size());
            for (const std::string& token : line.tokens) line.analyses.push_back(analyseToken(token));
            out.lines.push_back(std::move(line));
            return true;
        };
        std::size_t end = physical.size();
        for (std::size_t i = 0; i < physical.size(); ++i) {
            char c = physical[i];
            if (quote) {
                if (c == '\\') {
                    ++i;
                } else if (c == quote) {
                    quote = 0;
                }
                continue;
            }
            if (c == '"' || c == '\'') {
                quote = c;
            } else if (c == '@' && i + 1 < physical.size() && physical[i + 1] == '@') {
                end = i;
                break;
            } else if (c == '(' || c == '[' || c == '{') {
                ++depth;
            } else if (c == ')' || c == ']' || c == '}') {
                if (depth > 0) --depth;
            } else if (c == ';' && depth == 0) {
                if (!emitPiece(pieceStart, i)) return false;
                pieceStart = i + 1;
            }
        }
        if (!emitPiece(pieceStart, end)) return false;
        if (eol == source.size()) break;
        pos = eol + 1;
    }
    prepareParsedLines(out.lines);
    return true;
}

}  // namespace korvel
