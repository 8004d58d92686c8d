// Recursive-descent parser: tokens to the syntax tree of ast_internal.h. The first error ends the
// parse; there is no partial tree.
#include "ast_internal.h"
#include "error_internal.h"
#include "lexer_internal.h"
#include "resolver_internal.h"

#include <initializer_list>

namespace korvel::lua {

namespace {

// Nesting of blocks and expressions the parser accepts. The parser, the resolver and the evaluator
// all recurse over the tree, so this bound keeps every one of them well inside the native stack.
// Operator chains (a + b + c, a.b.c) count too: each link deepens the tree by one level.
constexpr int kMaxSyntaxDepth = 500;

class Parser {
public:
    Parser(std::string_view source, Chunk& chunk, GlobalSlots& globals)
        : m_lexer(source, chunk.name), m_chunk(chunk), m_globals(globals) {
        m_current = m_lexer.next();
        m_next = m_lexer.next();
    }

    FunctionExpr* parseChunk() {
        FunctionExpr* main = m_chunk.makeExpr<FunctionExpr>("main chunk", 1);
        main->body = parseBlock({});
        if (m_current.kind != TokenKind::EndOfInput) errorAt(m_current, "expected end of input");
        return main;
    }

private:
    [[noreturn]] void errorAt(const Token& token, std::string_view message) {
        failParse(m_chunk.name, token.line, token.column, message);
    }
    void advance() {
        m_current = std::move(m_next);
        if (m_current.kind != TokenKind::EndOfInput) m_next = m_lexer.next();
    }
    bool check(TokenKind kind) const { return m_current.kind == kind; }
    bool match(TokenKind kind) {
        if (!check(kind)) return false;
        advance();
        return true;
    }
    void expect(TokenKind kind, std::string_view message) {
        if (!match(kind)) errorAt(m_current, message);
    }
    std::string expectName(std::string_view message) {
        if (!check(TokenKind::Name)) errorAt(m_current, message);
        std::string name = std::move(m_current.text);
        advance();
        return name;
    }

    struct DepthGuard {
        Parser& parser;
        explicit DepthGuard(Parser& owner) : parser(owner) {
            if (++parser.m_depth > kMaxSyntaxDepth) parser.errorAt(parser.m_current, "chunk has too many syntax levels");
        }
        ~DepthGuard() { --parser.m_depth; }
    };

    // Counts the links of one left-associative chain against the same budget.
    struct ChainDepth {
        Parser& parser;
        int links = 0;
        explicit ChainDepth(Parser& owner) : parser(owner) {}
        void link() {
            ++links;
            if (++parser.m_depth > kMaxSyntaxDepth) parser.errorAt(parser.m_current, "chunk has too many syntax levels");
        }
        ~ChainDepth() { parser.m_depth -= links; }
    };

    // block -> { statement } up to one of `terminators` or the end of input
    std::vector<Stmt*> parseBlock(std::initializer_list<TokenKind> terminators) {
        DepthGuard guard(*this);
        std::vector<Stmt*> block;
        while (!check(TokenKind::EndOfInput)) {
            bool ends = false;
            for (TokenKind kind : terminators) ends = ends || check(kind);
            if (ends) break;
            if (match(TokenKind::Semicolon)) continue;
            block.push_back(parseStatement());
        }
        return block;
    }

    Stmt* parseStatement() {
        std::uint32_t line = m_current.line;
        switch (m_current.kind) {
        case TokenKind::If: return parseIf();
        case TokenKind::While: {
            advance();
            auto* loop = m_chunk.makeStmt<WhileStmt>(line);
            loop->condition = parseExpression();
            expect(TokenKind::Do, "expected 'do' after while condition");
            loop->body = parseBlock({TokenKind::End});
            expect(TokenKind::End, "expected 'end' after while loop");
            return loop;
        }
        case TokenKind::For: return parseFor();
        case TokenKind::Function: return parseFunctionStatement();
        case TokenKind::Local: return parseLocal();
        case TokenKind::Return: {
            advance();
            auto* statement = m_chunk.makeStmt<ReturnStmt>(line);
            if (startsExpression()) statement->values = parseExpressionList();
            return statement;
        }
        case TokenKind::Break:
            advance();
            return m_chunk.makeStmt<BreakStmt>(line);
        case TokenKind::Do:
            errorAt(m_current, "standalone 'do' blocks are not part of KorvelLua");
        default:
            return parseExpressionStatement();
        }
    }

    bool startsExpression() const {
        switch (m_current.kind) {
        case TokenKind::Name: case TokenKind::Integer: case TokenKind::Float: case TokenKind::String:
        case TokenKind::Nil: case TokenKind::True: case TokenKind::False: case TokenKind::Function:
        case TokenKind::LeftParen: case TokenKind::LeftBrace: case TokenKind::Minus: case TokenKind::Not:
        case TokenKind::Hash:
            return true;
        default:
            return false;
        }
    }

    // if -> 'if' cond 'then' block { 'elseif' cond 'then' block } [ 'else' block ] 'end'
    Stmt* parseIf() {
        auto* statement = m_chunk.makeStmt<IfStmt>(m_current.line);
        advance();
        Expr* condition = parseExpression();
        expect(TokenKind::Then, "expected 'then' after if condition");
        statement->branches.push_back({condition, parseBlock({TokenKind::End, TokenKind::ElseIf, TokenKind::Else})});
        while (match(TokenKind::ElseIf)) {
            Expr* elseCondition = parseExpression();
            expect(TokenKind::Then, "expected 'then' after elseif condition");
            statement->branches.push_back(
                {elseCondition, parseBlock({TokenKind::End, TokenKind::ElseIf, TokenKind::Else})});
        }
        if (match(TokenKind::Else)) {
            statement->hasElse = true;
            statement->elseBlock = parseBlock({TokenKind::End});
        }
        expect(TokenKind::End, "expected 'end' after if statement");
        return statement;
    }

    // for -> 'for' name '=' start ',' limit [',' step] 'do' block 'end'
    //      | 'for' name {',' name} 'in' exprlist 'do' block 'end'
    Stmt* parseFor() {
        std::uint32_t line = m_current.line;
        advance();
        std::string first = expectName("expected loop variable name");
        if (match(TokenKind::Assign)) {
            auto* loop = m_chunk.makeStmt<NumericForStmt>(line);
            loop->name = std::move(first);
            loop->start = parseExpression();
            expect(TokenKind::Comma, "expected ',' after numeric for start value");
            loop->limit = parseExpression();
            if (match(TokenKind::Comma)) loop->step = parseExpression();
            expect(TokenKind::Do, "expected 'do' after numeric for range");
            loop->body = parseBlock({TokenKind::End});
            expect(TokenKind::End, "expected 'end' after numeric for loop");
            return loop;
        }
        auto* loop = m_chunk.makeStmt<GenericForStmt>(line);
        loop->names.push_back(std::move(first));
        while (match(TokenKind::Comma)) loop->names.push_back(expectName("expected loop variable name"));
        expect(TokenKind::In, "expected 'in' in generic for loop");
        loop->iterators = parseExpressionList();
        expect(TokenKind::Do, "expected 'do' after generic for iterator");
        loop->body = parseBlock({TokenKind::End});
        expect(TokenKind::End, "expected 'end' after generic for loop");
        return loop;
    }

    // funcbody -> '(' [ name { ',' name } ] ')' block 'end'
    FunctionExpr* parseFunctionBody(std::string name, std::uint32_t line, bool isMethod) {
        DepthGuard guard(*this);
        auto* function = m_chunk.makeExpr<FunctionExpr>(std::move(name), line);
        if (isMethod) function->parameters.push_back(m_chunk.makeLocal("self"));
        expect(TokenKind::LeftParen, "expected '(' after function name");
        if (!check(TokenKind::RightParen)) {
            do {
                function->parameters.push_back(m_chunk.makeLocal(expectName("expected parameter name")));
            } while (match(TokenKind::Comma));
        }
        expect(TokenKind::RightParen, "expected ')' after parameter list");
        function->body = parseBlock({TokenKind::End});
        expect(TokenKind::End, "expected 'end' after function body");
        return function;
    }

    // function -> 'function' name { '.' name } [ ':' name ] funcbody
    Stmt* parseFunctionStatement() {
        std::uint32_t line = m_current.line;
        advance();
        if (!check(TokenKind::Name)) errorAt(m_current, "expected function name");
        std::string fullName = m_current.text;
        Expr* target = m_chunk.makeExpr<VariableExpr>(m_current.text, m_current.line);
        advance();
        bool isMethod = false;
        while (check(TokenKind::Dot) || check(TokenKind::Colon)) {
            bool colon = check(TokenKind::Colon);
            advance();
            if (!check(TokenKind::Name)) errorAt(m_current, "invalid function target");
            fullName += (colon ? ":" : ".") + m_current.text;
            target = m_chunk.makeExpr<FieldExpr>(target, m_globals.internConstant(m_current.text), m_current.line);
            advance();
            if (colon) {
                isMethod = true;
                break;
            }
        }
        auto* statement = m_chunk.makeStmt<AssignStmt>(line);
        statement->targets.push_back(target);
        statement->values.push_back(parseFunctionBody(std::move(fullName), line, isMethod));
        return statement;
    }

    // local -> 'local' 'function' name funcbody | 'local' name { ',' name } [ '=' exprlist ]
    Stmt* parseLocal() {
        std::uint32_t line = m_current.line;
        advance();
        if (match(TokenKind::Function)) {
            auto* statement = m_chunk.makeStmt<LocalFunctionStmt>(line);
            statement->name = expectName("expected local function name");
            statement->function = parseFunctionBody(statement->name, line, false);
            return statement;
        }
        auto* statement = m_chunk.makeStmt<LocalStmt>(line);
        do {
            statement->names.push_back(expectName("expected local variable name"));
        } while (match(TokenKind::Comma));
        if (match(TokenKind::Assign)) statement->values = parseExpressionList();
        return statement;
    }

    static bool isAssignTarget(const Expr* expr) {
        return expr->kind == ExprKind::Name || expr->kind == ExprKind::Field || expr->kind == ExprKind::Index;
    }

    // exprstat -> call | target { ',' target } '=' exprlist
    Stmt* parseExpressionStatement() {
        Token start = m_current;
        Expr* first = parsePrefixExpression();
        if (check(TokenKind::Assign) || check(TokenKind::Comma)) {
            auto* statement = m_chunk.makeStmt<AssignStmt>(start.line);
            if (!isAssignTarget(first)) errorAt(start, "invalid assignment target");
            statement->targets.push_back(first);
            while (match(TokenKind::Comma)) {
                Token targetToken = m_current;
                Expr* target = parsePrefixExpression();
                if (!isAssignTarget(target)) errorAt(targetToken, "invalid assignment target");
                statement->targets.push_back(target);
            }
            expect(TokenKind::Assign, "expected '=' in assignment");
            statement->values = parseExpressionList();
            return statement;
        }
        if (first->kind != ExprKind::Call) errorAt(start, "expected function call");
        return m_chunk.makeStmt<ExpressionStmt>(static_cast<CallExpr*>(first), start.line);
    }

    std::vector<Expr*> parseExpressionList() {
        std::vector<Expr*> list;
        do {
            list.push_back(parseExpression());
        } while (match(TokenKind::Comma));
        return list;
    }

    // expr -> and { 'or' and }
    Expr* parseExpression() {
        DepthGuard guard(*this);
        Expr* left = parseAnd();
        ChainDepth chain(*this);
        while (check(TokenKind::Or)) {
            chain.link();
            std::uint32_t line = m_current.line;
            advance();
            left = m_chunk.makeExpr<BinaryExpr>(ExprKind::Or, left, parseAnd(), line);
        }
        return left;
    }

    // and -> comparison { 'and' comparison }
    Expr* parseAnd() {
        Expr* left = parseComparison();
        ChainDepth chain(*this);
        while (check(TokenKind::And)) {
            chain.link();
            std::uint32_t line = m_current.line;
            advance();
            left = m_chunk.makeExpr<BinaryExpr>(ExprKind::And, left, parseComparison(), line);
        }
        return left;
    }

    // comparison -> concat { ('==' | '~=' | '<' | '<=' | '>' | '>=') concat }
    Expr* parseComparison() {
        Expr* left = parseConcat();
        ChainDepth chain(*this);
        while (true) {
            ExprKind op;
            switch (m_current.kind) {
            case TokenKind::Equal: op = ExprKind::Equal; break;
            case TokenKind::NotEqual: op = ExprKind::NotEqual; break;
            case TokenKind::Less: op = ExprKind::Less; break;
            case TokenKind::LessEqual: op = ExprKind::LessEqual; break;
            case TokenKind::Greater: op = ExprKind::Greater; break;
            case TokenKind::GreaterEqual: op = ExprKind::GreaterEqual; break;
            default: return left;
            }
            chain.link();
            std::uint32_t line = m_current.line;
            advance();
            left = m_chunk.makeExpr<BinaryExpr>(op, left, parseConcat(), line);
        }
    }

    // concat -> factor { ('+' | '-') factor } [ '..' concat ]
    // Additive operators and concatenation share this level on purpose; '..' groups to the right.
    Expr* parseConcat() {
        DepthGuard guard(*this);
        Expr* left = parseFactor();
        ChainDepth chain(*this);
        while (true) {
            chain.link();
            std::uint32_t line = m_current.line;
            if (match(TokenKind::Plus)) {
                left = m_chunk.makeExpr<BinaryExpr>(ExprKind::Add, left, parseFactor(), line);
            } else if (match(TokenKind::Minus)) {
                left = m_chunk.makeExpr<BinaryExpr>(ExprKind::Subtract, left, parseFactor(), line);
            } else if (match(TokenKind::Concat)) {
                return m_chunk.makeExpr<BinaryExpr>(ExprKind::Concat, left, parseConcat(), line);
            } else {
                return left;
            }
        }
    }

    // factor -> unary { ('*' | '/' | '%') unary }
    Expr* parseFactor() {
        Expr* left = parseUnary();
        ChainDepth chain(*this);
        while (true) {
            ExprKind op;
            switch (m_current.kind) {
            case TokenKind::Star: op = ExprKind::Multiply; break;
            case TokenKind::Slash: op = ExprKind::Divide; break;
            case TokenKind::Percent: op = ExprKind::Modulo; break;
            default: return left;
            }
            chain.link();
            std::uint32_t line = m_current.line;
            advance();
            left = m_chunk.makeExpr<BinaryExpr>(op, left, parseUnary(), line);
        }
    }

    // unary -> ('-' | 'not' | '#') unary | prefix
    Expr* parseUnary() {
        std::uint32_t line = m_current.line;
        ExprKind op;
        switch (m_current.kind) {
        case TokenKind::Minus: op = ExprKind::Negate; break;
        case TokenKind::Not: op = ExprKind::Not; break;
        case TokenKind::Hash: op = ExprKind::Length; break;
        default: return parsePrefixExpression();
        }
        DepthGuard guard(*this);
        advance();
        Expr* operand = parseUnary();
        // Fold "-<number>" so that negative literals cost nothing at run time.
        if (op == ExprKind::Negate && operand->kind == ExprKind::Constant) {
            const Value& constant = static_cast<ConstantExpr*>(operand)->value;
            if (constant.kind() == Kind::Integer) {
                return m_chunk.makeExpr<ConstantExpr>(
                    Value::integer(static_cast<std::int64_t>(0ULL - static_cast<std::uint64_t>(constant.asInteger()))), line);
            }
            if (constant.kind() == Kind::Float) return m_chunk.makeExpr<ConstantExpr>(Value::number(-constant.asFloat()), line);
        }
        return m_chunk.makeExpr<UnaryExpr>(op, operand, line);
    }

    // primary -> nil | true | false | number | string | function funcbody | table | name | '(' expr ')'
    // prefix -> primary { '.' name | '[' expr ']' | ':' name args | args }
    Expr* parsePrefixExpression() {
        DepthGuard guard(*this);
        Expr* expr = nullptr;
        std::uint32_t line = m_current.line;
        switch (m_current.kind) {
        case TokenKind::Nil: advance(); expr = m_chunk.makeExpr<ConstantExpr>(Value(), line); break;
        case TokenKind::True: advance(); expr = m_chunk.makeExpr<ConstantExpr>(Value::boolean(true), line); break;
        case TokenKind::False: advance(); expr = m_chunk.makeExpr<ConstantExpr>(Value::boolean(false), line); break;
        case TokenKind::Integer:
            expr = m_chunk.makeExpr<ConstantExpr>(Value::integer(m_current.integer), line);
            advance();
            break;
        case TokenKind::Float:
            expr = m_chunk.makeExpr<ConstantExpr>(Value::number(m_current.number), line);
            advance();
            break;
        case TokenKind::String:
            expr = m_chunk.makeExpr<ConstantExpr>(m_globals.internConstant(m_current.text), line);
            advance();
            break;
        case TokenKind::Function:
            advance();
            expr = parseFunctionBody("", line, false);
            break;
        case TokenKind::LeftBrace: expr = parseTable(); break;
        case TokenKind::Name:
            expr = m_chunk.makeExpr<VariableExpr>(m_current.text, line);
            advance();
            break;
        case TokenKind::LeftParen:
            advance();
            expr = parseExpression();
            expect(TokenKind::RightParen, "expected ')' after expression");
            if (expr->kind == ExprKind::Call) static_cast<CallExpr*>(expr)->parenthesised = true;
            break;
        default:
            errorAt(m_current, "expected expression");
        }
        ChainDepth chain(*this);
        while (true) {
            chain.link();
            std::uint32_t suffixLine = m_current.line;
            if (match(TokenKind::Dot)) {
                if (!check(TokenKind::Name)) errorAt(m_current, "expected field name after '.'");
                expr = m_chunk.makeExpr<FieldExpr>(expr, m_globals.internConstant(m_current.text), suffixLine);
                advance();
            } else if (match(TokenKind::LeftBracket)) {
                Expr* key = parseExpression();
                expect(TokenKind::RightBracket, "expected ']' after index expression");
                expr = m_chunk.makeExpr<IndexExpr>(expr, key, suffixLine);
            } else if (match(TokenKind::Colon)) {
                if (!check(TokenKind::Name)) errorAt(m_current, "expected method name after ':'");
                auto* call = m_chunk.makeExpr<CallExpr>(expr, suffixLine);
                call->method = m_globals.internConstant(m_current.text);
                advance();
                call->arguments = parseArguments();
                expr = call;
            } else if (check(TokenKind::LeftParen)) {
                auto* call = m_chunk.makeExpr<CallExpr>(expr, suffixLine);
                call->arguments = parseArguments();
                expr = call;
            } else {
                return expr;
            }
        }
    }

    // args -> '(' [ exprlist ] ')'
    std::vector<Expr*> parseArguments() {
        expect(TokenKind::LeftParen, "expected '(' before arguments");
        std::vector<Expr*> arguments;
        if (!check(TokenKind::RightParen)) arguments = parseExpressionList();
        expect(TokenKind::RightParen, "expected ')' after arguments");
        return arguments;
    }

    // table -> '{' [ field { (',' | ';') field } [',' | ';'] ] '}'
    // field -> '[' expr ']' '=' expr | name '=' expr | expr
    Expr* parseTable() {
        DepthGuard guard(*this);
        auto* table = m_chunk.makeExpr<TableExpr>(m_current.line);
        advance();
        while (!check(TokenKind::RightBrace)) {
            TableField field;
            if (match(TokenKind::LeftBracket)) {
                field.form = TableField::Form::Keyed;
                field.key = parseExpression();
                expect(TokenKind::RightBracket, "expected ']' after table key");
                expect(TokenKind::Assign, "expected '=' after table key");
                field.value = parseExpression();
            } else if (check(TokenKind::Name) && m_next.kind == TokenKind::Assign) {
                field.form = TableField::Form::Named;
                field.key = m_chunk.makeExpr<ConstantExpr>(m_globals.internConstant(m_current.text), m_current.line);
                advance();
                expect(TokenKind::Assign, "expected '=' after table field name");
                field.value = parseExpression();
            } else {
                field.value = parseExpression();
                ++table->positionalCount;
            }
            table->fields.push_back(field);
            if (!match(TokenKind::Comma) && !match(TokenKind::Semicolon)) break;
        }
        expect(TokenKind::RightBrace, "expected '}' after table constructor");
        return table;
    }

    Lexer m_lexer;
    Chunk& m_chunk;
    GlobalSlots& m_globals;
    Token m_current;
    Token m_next;
    int m_depth = 0;
};

} // namespace

std::shared_ptr<Chunk> parseScript(std::string_view source, std::string_view chunkName, GlobalSlots& globals) {
    auto chunk = std::make_shared<Chunk>();
    chunk->name = std::string(chunkName);
    chunk->source = std::string(source);
    Parser parser(chunk->source, *chunk, globals);
    chunk->main = parser.parseChunk();
    resolveChunk(*chunk, globals);
    return chunk;
}

} // namespace korvel::lua
