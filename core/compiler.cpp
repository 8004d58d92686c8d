// Turns parsed lines into compiled lines and expression trees, once per chunk.
//
// Every function declaration gets its own prototype with a slot for each name the function
// declares local (its parameters first). A line that fails to compile becomes an Error line
// that raises its message when it runs, so a script fails exactly where a line-by-line
// interpreter would.
#include "core/interpreter_internal.h"

#include <cmath>
#include <unordered_map>

namespace korvel {

namespace {

// Deeper nesting than this is refused, so the evaluator's recursion stays bounded.
constexpr int kMaxExpressionDepth = 400;

struct CompileError {
    std::string message;
    std::int32_t token;
};

int binaryClass(const std::string& t) {
    switch (t.size()) {
    case 1:
        switch (t[0]) {
        case '<': return 5;
        case '>': return 6;
        case '+': return 9;
        case '-': return 10;
        case '*': return 11;
        case '/': return 12;
        case '\\': return 13;
        case '%': return 14;
        case '^': return 15;
        default: return 0;
        }
    case 2:
        if (t == "or" || t == "||") return 1;
        if (t == "&&") return 2;
        if (t == "==") return 3;
        if (t == "!=" || t == "~=") return 4;
        if (t == "<=") return 7;
        if (t == ">=") return 8;
        if (t == "<-") return 16;
        if (t == "->") return 17;
        return 0;
    case 3: return t == "and" ? 2 : 0;
    default: return 0;
    }
}

constexpr int kStrength[18] = {0, 1, 2, 3, 3, 4, 4, 4, 4, 5, 5, 6, 6, 6, 6, 7, 7, 7};
constexpr Op kClassOp[18] = {Op::Const, Op::Or,  Op::And, Op::Eq,  Op::Ne,   Op::Lt,   Op::Gt,
                             Op::Le,    Op::Ge,  Op::Add, Op::Sub, Op::Mul,  Op::Div,  Op::IDiv,
                             Op::Mod,   Op::Pow, Op::Tetration, Op::Pentation};

bool isCompoundOperator(const std::string& t) {
    return t.size() == 2 && t[1] == '=' && std::string_view("+-*/\\%^").find(t[0]) != std::string_view::npos;
}

// Splits a dotted word ("string.sub") into its parts; false when it is not one.
bool splitDotted(const std::string& token, std::vector<std::string_view>& parts) {
    if (token.find('.') == std::string::npos) return false;
    parts.clear();
    std::string_view rest(token);
    while (true) {
        std::size_t dot = rest.find('.');
        std::string_view part = rest.substr(0, dot);
        if (part.empty()) return false;
        parts.push_back(part);
        if (dot == std::string_view::npos) break;
        rest.remove_prefix(dot + 1);
    }
    if (!isIdentifierToken(parts[0])) return false;
    for (std::size_t i = 1; i < parts.size(); ++i)
        for (char c : parts[i])
            if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '$')) return false;
    return true;
}

// ".name.more" after a value: its parts, or false when the token is not of that form.
bool dottedSuffix(const std::string& token, std::vector<std::string>& parts) {
    if (token.size() < 2 || token[0] != '.' || std::isdigit(static_cast<unsigned char>(token[1]))) return false;
    std::string rooted = "x" + token;
    std::vector<std::string_view> views;
    if (!splitDotted(rooted, views)) return false;
    parts.assign(views.begin() + 1, views.end());
    return true;
}

class LineCompiler {
public:
    LineCompiler(Interpreter& vm, Chunk& chunk, FunctionProto& proto, const ParsedScriptLine& line)
        : m_vm(vm), m_chunk(chunk), m_proto(proto), m_line(line), m_tokens(line.tokens) {}

    std::size_t pos = 0;

    bool atEnd() const { return pos >= m_tokens.size(); }
    const std::string& peek() const { return m_tokens[pos]; }
    std::int32_t here() const {
        return static_cast<std::int32_t>(pos < m_tokens.size() ? pos : (m_tokens.empty() ? 0 : m_tokens.size() - 1));
    }
    [[noreturn]] void fail(const std::string& message) { throw CompileError{message, here()}; }
    [[noreturn]] void failAt(const std::string& message, std::size_t token) {
        throw CompileError{message, static_cast<std::int32_t>(token)};
    }

    // A node's height from its children's, once they are attached.
    static FastExpression* measured(FastExpression* n) {
        std::uint32_t h = 0;
        if (n->left) h = std::max(h, n->left->height);
        if (n->right) h = std::max(h, n->right->height);
        for (const FastExpression* item : n->items) h = std::max(h, item->height);
        n->height = h + 1;
        return n;
    }

    FastExpression* node(Op op, std::int32_t token) {
        FastExpression& n = m_chunk.nodes.emplace_back();
        n.op = op;
        n.token = token;
        return &n;
    }

    NameRef* nameRef(std::string_view token) {
        std::string_view name;
        int scope = -1;
        parseScopedVariableToken(token, name, scope);
        NameRef& ref = m_chunk.names.emplace_back();
        ref.name = std::string(name);
        ref.scope = scope;
        auto found = m_proto.slotIndex.find(ref.name);
        if (found != m_proto.slotIndex.end()) ref.localSlot = found->second;
        if (scope == -1 || scope == 1) ref.globalSlot = m_vm.globalSlot(ref.name);
        return &ref;
    }

    FastExpression* nameNode(std::string_view token, std::int32_t tokenIndex) {
        NameRef* ref = nameRef(token);
        Op op = ref->scope != -1 ? Op::ScopedName : (ref->localSlot >= 0 ? Op::Local : Op::Global);
        FastExpression* n = node(op, tokenIndex);
        n->name = ref;
        return n;
    }

    StringObject* constantKey(std::string_view text) {
        StringObject* key = m_vm.internString(text);
        m_chunk.ownedKeys.push_back(key);
        return key;
    }
    Variable constantString(std::string_view text) { return Variable::fromString(constantKey(text)); }

    FastExpression* keyNode(FastExpression* container, std::string_view key, std::int32_t token) {
        FastExpression* n = node(Op::IndexKey, token);
        n->left = container;
        StringObject* object = constantKey(key);
        n->constant = Variable::fromString(object);
        return measured(n);
    }

    // expression -> unary { binop expression }   (precedence climbing)
    FastExpression* expression(int minStrength = 0) {
        if (++m_depth > kMaxExpressionDepth) fail("Expression nested too deeply");
        FastExpression* left = unary();
        while (!atEnd()) {
            int cls = binaryClass(peek());
            if (cls == 0 || kStrength[cls] < minStrength) break;
            std::int32_t opToken = static_cast<std::int32_t>(pos);
            ++pos;
            int next = cls <= 14 ? kStrength[cls] + 1 : kStrength[cls];
            FastExpression* right = expression(next);
            FastExpression* n = node(kClassOp[cls], opToken);
            n->left = left;
            n->right = right;
            left = measured(n);
        }
        --m_depth;
        return left;
    }

    // unary -> ('-' | '+' | '!' | '#') expression(7) | postfix
    FastExpression* unary() {
        if (atEnd()) fail("Unexpected end of expression");
        const std::string& t = peek();
        if (t.size() == 1 && (t[0] == '-' || t[0] == '+' || t[0] == '!' || t[0] == '#')) {
            std::int32_t opToken = static_cast<std::int32_t>(pos);
            ++pos;
            Op op = t[0] == '-' ? Op::Neg : t[0] == '+' ? Op::Plus : t[0] == '!' ? Op::Not : Op::Len;
            FastExpression* operand = expression(7);
            if (op == Op::Neg && operand->op == Op::Const && operand->constant.type() == VarType::Int &&
                operand->constant.asInt() != INT32_MIN) {
                operand->constant = Variable(-operand->constant.asInt());
                return operand;
            }
            if (op == Op::Neg && operand->op == Op::Const && operand->constant.type() == VarType::Float) {
                operand->constant = Variable(-operand->constant.asFloat());
                return operand;
            }
            FastExpression* n = node(op, opToken);
            n->left = operand;
            return measured(n);
        }
        return postfix(primary());
    }

    // postfix -> primary { '[' expression ']' | '(' arguments ')' }
    FastExpression* postfix(FastExpression* value) {
        int suffixes = 0;  // each one is a level of evaluation
        std::vector<std::string> dottedParts;
        while (!atEnd()) {
            const std::string& t = peek();
            if (t == "[") {
                std::int32_t open = static_cast<std::int32_t>(pos);
                ++pos;
                FastExpression* key = expression();
                if (atEnd() || peek() != "]") fail("Expected closing bracket");
                ++pos;
                if (key->op == Op::Const && key->constant.type() == VarType::String) {
                    FastExpression* n = node(Op::IndexKey, open);
                    n->left = value;
                    StringObject* object = constantKey(key->constant.asString());
                    n->constant = Variable::fromString(object);
                    value = measured(n);
                } else {
                    FastExpression* n = node(Op::Index, open);
                    n->left = value;
                    n->right = key;
                    value = measured(n);
                }
            } else if (dottedSuffix(t, dottedParts)) {
                // a[1].name and f().x: a dotted word right after a value indexes it.
                std::int32_t at = static_cast<std::int32_t>(pos);
                ++pos;
                for (const std::string& part : dottedParts) value = keyNode(value, part, at);
            } else if (t == "(") {
                FastExpression* n = node(Op::Call, static_cast<std::int32_t>(pos));
                ++pos;
                n->left = value;
                n->builtin = builtinIdFromName(calleeName(value));
                if (!atEnd() && peek() == ")") {
                    ++pos;
                } else {
                    while (true) {
                        n->items.push_back(expression());
                        if (atEnd()) fail("Expected ',' or ')' after function argument");
                        if (peek() == ",") {
                            ++pos;
                            continue;
                        }
                        if (peek() == ")") {
                            ++pos;
                            break;
                        }
                        fail("Expected ',' or ')' after function argument");
                    }
                }
                value = measured(n);
            } else {
                break;
            }
            if (++suffixes > kMaxExpressionDepth) fail("Expression nested too deeply");
        }
        return value;
    }

    // "len" for a global callee, "string.find" for a member of a global group, else "".
    static std::string calleeName(const FastExpression* callee) {
        if (callee->op == Op::Global) return callee->name->name;
        if (callee->op == Op::IndexKey && callee->left->op == Op::Global)
            return callee->left->name->name + "." + callee->constant.asString();
        return {};
    }

    FastExpression* constant(Variable value, std::int32_t token) {
        FastExpression* n = node(Op::Const, token);
        n->constant = std::move(value);
        return n;
    }

    FastExpression* primary() {
        if (atEnd()) fail("Unexpected end of expression");
        std::int32_t index = static_cast<std::int32_t>(pos);
        const std::string& t = peek();
        const TokenAnalysis& a = m_line.analyses[pos];
        if (isStringToken(t)) {
            ++pos;
            return constant(constantString(decodeStringToken(t)), index);
        }
        if (a.isTrueWord || a.isFalseWord) {
            ++pos;
            return constant(Variable(a.isTrueWord), index);
        }
        if (a.looksNumeric) {
            if (a.isIntLiteral) {
                ++pos;
                return constant(Variable(a.intValue), index);
            }
            if (!std::isfinite(a.floatValue)) fail("Invalid numeric format");  // beyond the float range
            ++pos;
            return constant(Variable(a.floatValue), index);
        }
        void* pointer = nullptr;
        if (parsePointerLiteral(t, pointer)) {
            ++pos;
            return constant(Variable::fromPointer(pointer), index);
        }
        if (t == "(") {
            ++pos;
            FastExpression* inner = expression();
            if (atEnd() || peek() != ")") fail("Expected closing parenthesis");
            ++pos;
            return inner;
        }
        if (t == "[") return arrayLiteral();
        if (t == "{") return tableLiteral();
        if (a.isIdentifier) {
            ++pos;
            return nameNode(t, index);
        }
        std::vector<std::string_view> parts;
        if (splitDotted(t, parts)) {
            ++pos;
            FastExpression* value = nameNode(parts[0], index);
            for (std::size_t i = 1; i < parts.size(); ++i) value = keyNode(value, parts[i], index);
            return value;
        }
        fail("Unknown token: " + t);
    }

    // array -> '[' [ expression { ',' expression } [','] ] ']'
    FastExpression* arrayLiteral() {
        FastExpression* n = node(Op::ArrayLiteral, static_cast<std::int32_t>(pos));
        ++pos;
        while (true) {
            if (atEnd()) fail("Expected ',' or ']' in array literal");
            if (peek() == "]") {
                ++pos;
                return measured(n);
            }
            n->items.push_back(expression());
            if (atEnd()) fail("Expected ',' or ']' in array literal");
            if (peek() == ",") {
                ++pos;
                continue;
            }
            if (peek() == "]") {
                ++pos;
                return measured(n);
            }
            fail("Expected ',' or ']' in array literal");
        }
    }

    // table -> '{' [ key ':' expression { ',' key ':' expression } [','] ] '}'
    // key   -> NAME | STRING | '[' expression ']'
    FastExpression* tableLiteral() {
        FastExpression* n = node(Op::TableLiteral, static_cast<std::int32_t>(pos));
        ++pos;
        while (true) {
            if (atEnd()) fail("Unexpected end of table literal");
            if (peek() == "}") {
                ++pos;
                return measured(n);
            }
            const std::string& k = peek();
            if (k == "[") {
                ++pos;
                FastExpression* key = expression();
                if (atEnd() || peek() != "]") fail("Expected ']' after table key");
                ++pos;
                n->keys.push_back(nullptr);
                n->items.push_back(key);
            } else if (isStringToken(k)) {
                n->keys.push_back(constantKey(decodeStringToken(k)));
                ++pos;
            } else if (m_line.analyses[pos].isIdentifier) {
                n->keys.push_back(constantKey(k));
                ++pos;
            } else {
                fail("Invalid table key");
            }
            if (atEnd()) fail("Unexpected end of table literal");
            if (peek() != ":") fail("Expected ':' after table key");
            ++pos;
            if (atEnd()) fail("Unexpected end of table literal");
            n->items.push_back(expression());
            if (atEnd()) fail("Unexpected end of table literal");
            if (peek() == ",") {
                ++pos;
                continue;
            }
            if (peek() == "}") {
                ++pos;
                return measured(n);
            }
            fail("Expected ',' or '}' in table literal");
        }
    }

    // A whole expression that must use every token up to `end`.
    FastExpression* fullExpression(std::size_t end, const char* trailingMessage) {
        FastExpression* e = expression();
        if (pos < end) failAt(trailingMessage, pos);
        return e;
    }

    // target -> (NAME | DOTTED) { '[' expression ']' }
    LValue target(std::size_t end, TargetScope scope) {
        LValue result;
        result.scope = scope;
        if (pos >= end) fail("Expected assignment target");
        const std::string& t = peek();
        std::vector<std::string_view> parts;
        std::int32_t tokenIndex = static_cast<std::int32_t>(pos);
        if (m_line.analyses[pos].isIdentifier) {
            result.name = nameRef(t);
        } else if (splitDotted(t, parts)) {
            result.name = nameRef(parts[0]);
            for (std::size_t i = 1; i < parts.size(); ++i) {
                result.keys.push_back(constant(constantString(parts[i]), tokenIndex));
            }
        } else {
            fail("Invalid assignment target: " + t);
        }
        ++pos;
        if (result.name->scope != -1 && scope == TargetScope::Plain) result.scope = TargetScope::Explicit;
        std::vector<std::string> dottedParts;
        while (pos < end) {
            if (peek() == "[") {
                ++pos;
                result.keys.push_back(expression());
                if (atEnd() || peek() != "]") fail("Expected closing bracket");
                ++pos;
            } else if (dottedSuffix(peek(), dottedParts)) {
                for (const std::string& part : dottedParts)
                    result.keys.push_back(constant(constantString(part), static_cast<std::int32_t>(pos)));
                ++pos;
            } else {
                break;
            }
        }
        return result;
    }

private:
    Interpreter& m_vm;
    Chunk& m_chunk;
    FunctionProto& m_proto;
    const ParsedScriptLine& m_line;
    const std::vector<std::string>& m_tokens;
    int m_depth = 0;
};

// Finds the first top-level "=" or compound operator, or npos.
std::size_t findAssignment(const std::vector<std::string>& tokens, std::size_t from) {
    int depth = 0;
    for (std::size_t i = from; i < tokens.size(); ++i) {
        const std::string& t = tokens[i];
        if (t == "(" || t == "[" || t == "{") {
            ++depth;
        } else if (t == ")" || t == "]" || t == "}") {
            if (depth > 0) --depth;
        } else if (depth == 0 && (t == "=" || isCompoundOperator(t))) {
            return i;
        }
    }
    return std::string::npos;
}

TargetScope scopeOfPrefix(ScopePrefix prefix) {
    switch (prefix) {
    case ScopePrefix::Native: return TargetScope::Native;
    case ScopePrefix::Local: return TargetScope::Local;
    case ScopePrefix::External: return TargetScope::External;
    default: return TargetScope::Plain;
    }
}

class ChunkCompiler {
public:
    ChunkCompiler(Interpreter& vm, Chunk& chunk) : m_vm(vm), m_chunk(chunk) {}

    void compile() {
        makePrototypes();
        for (auto& proto : m_chunk.protos) compileProto(*proto);
    }

private:
    // Assigns lines to prototypes; a function body's lines belong to its own prototype.
    // Nested declarations are followed with an explicit stack, however deep they go.
    void buildProto(FunctionProto& root) {
        auto& lines = m_chunk.parsed.lines;
        struct Pending {
            FunctionProto* proto;
            std::int32_t next;
        };
        std::vector<Pending> stack{{&root, root.bodyBegin}};
        while (!stack.empty()) {
            FunctionProto* proto = stack.back().proto;
            std::int32_t i = stack.back().next;
            if (i >= proto->bodyEnd) {
                stack.pop_back();
                continue;
            }
            m_owner[static_cast<std::size_t>(i)] = proto;
            proto->ownLines.push_back(i);
            const ParsedScriptLine& line = lines[static_cast<std::size_t>(i)];
            if (isFunctionKind(line.kind) && line.endIndex > i && line.endIndex <= proto->bodyEnd) {
                auto child = std::make_unique<FunctionProto>();
                child->chunk = &m_chunk;
                child->declLine = i;
                child->bodyBegin = i + 1;
                child->bodyEnd = line.endIndex;
                FunctionProto* raw = child.get();
                m_chunk.protos.push_back(std::move(child));
                m_chunk.lines[static_cast<std::size_t>(i)].proto = raw;
                stack.back().next = line.endIndex;  // the end line itself belongs to this prototype
                stack.push_back({raw, i + 1});
            } else {
                stack.back().next = i + 1;
            }
        }
    }

    void addSlot(FunctionProto& proto, std::string_view name) {
        std::string key(name);
        if (proto.slotIndex.count(key)) return;
        proto.slotIndex.emplace(key, static_cast<std::int32_t>(proto.slotNames.size()));
        proto.slotNames.push_back(key);
    }

    // Parameters and every name the body declares local get slots.
    void collectSlots(FunctionProto& proto) {
        auto& lines = m_chunk.parsed.lines;
        for (std::int32_t i : proto.ownLines) {
            const ParsedScriptLine& line = lines[static_cast<std::size_t>(i)];
            for (std::size_t k = 0; k < line.tokens.size(); ++k) {
                std::string_view name;
                int scope = -1;
                if (line.tokens[k].find('#') != std::string::npos && line.analyses[k].isIdentifier &&
                    parseScopedVariableToken(line.tokens[k], name, scope) && (scope == 2 || scope == 3))
                    addSlot(proto, name);
            }
            if (line.kind == LineKind::LocalFunction && line.tokens.size() > 2) {
                std::string_view root = line.tokens[2];
                root = root.substr(0, root.find_first_of(".#"));
                if (isIdentifierToken(root)) addSlot(proto, root);
            }
            if (line.kind == LineKind::Statement &&
                (line.scopePrefix == ScopePrefix::Local || line.scopePrefix == ScopePrefix::External)) {
                std::size_t end = findAssignment(line.tokens, 1);
                if (end == std::string::npos) end = line.tokens.size();
                int depth = 0;
                bool expectName = true;
                for (std::size_t k = 1; k < end; ++k) {
                    const std::string& t = line.tokens[k];
                    if (t == "(" || t == "[" || t == "{") ++depth;
                    else if (t == ")" || t == "]" || t == "}") depth = depth > 0 ? depth - 1 : 0;
                    else if (depth == 0 && t == ",") {
                        expectName = true;
                        continue;
                    }
                    if (expectName && depth == 0) {
                        std::string_view root = t;
                        root = root.substr(0, root.find('.'));
                        std::string_view name;
                        int scope = -1;
                        if (isIdentifierToken(root) && parseScopedVariableToken(root, name, scope) && scope == -1)
                            addSlot(proto, name);
                    }
                    expectName = false;
                }
            }
        }
    }

    // Parameters come from the declaration line; errors there are kept for when it runs.
    void collectParameters(FunctionProto& proto, CompiledLine& decl, const ParsedScriptLine& line,
                           FunctionProto& outer) {
        const auto& t = line.tokens;
        std::size_t pos = line.kind == LineKind::Function ? 1 : 2;
        LineCompiler lc(m_vm, m_chunk, outer, line);
        try {
            lc.pos = pos;
            if (pos >= t.size()) lc.fail("Expected function target");
            std::vector<std::string_view> parts;
            LValue target;
            target.scope = TargetScope::Plain;
            if (line.kind == LineKind::NativeFunction) target.scope = TargetScope::Native;
            if (line.kind == LineKind::LocalFunction) target.scope = TargetScope::Local;
            if (line.kind == LineKind::DecayFunction) target.scope = TargetScope::Decay;
            std::int32_t targetToken = static_cast<std::int32_t>(lc.pos);
            if (line.analyses[lc.pos].isIdentifier) {
                target.name = lc.nameRef(t[lc.pos]);
                proto.name = t[lc.pos];
            } else if (splitDotted(t[lc.pos], parts)) {
                target.name = lc.nameRef(parts[0]);
                for (std::size_t i = 1; i < parts.size(); ++i)
                    target.keys.push_back(lc.constant(lc.constantString(parts[i]), targetToken));
                proto.name = t[lc.pos];
            } else {
                lc.fail("Expected function target");
            }
            ++lc.pos;
            if (target.name->scope != -1 && target.scope != TargetScope::Decay) target.scope = TargetScope::Explicit;
            while (!lc.atEnd() && lc.peek() == "[") {
                ++lc.pos;
                target.keys.push_back(lc.expression());
                if (lc.atEnd() || lc.peek() != "]") lc.fail("Expected closing bracket in function target");
                ++lc.pos;
            }
            if (lc.atEnd() || lc.peek() != "(") lc.fail("Expected '(' after function target");
            ++lc.pos;
            if (!lc.atEnd() && lc.peek() == ")") {
                ++lc.pos;
            } else {
                while (true) {
                    if (lc.atEnd()) lc.fail("Expected ')' after function parameters");
                    if (!line.analyses[lc.pos].isIdentifier || t[lc.pos].find('#') != std::string::npos)
                        lc.fail("Expected function parameter name");
                    addSlot(proto, t[lc.pos]);
                    ++lc.pos;
                    if (lc.atEnd()) lc.fail("Expected ')' after function parameters");
                    if (lc.peek() == ",") {
                        ++lc.pos;
                        continue;
                    }
                    if (lc.peek() == ")") {
                        ++lc.pos;
                        break;
                    }
                    lc.fail("Expected ',' or ')' after function parameter");
                }
            }
            if (!lc.atEnd()) lc.fail("Unexpected token after function declaration");
            proto.paramCount = static_cast<std::int32_t>(proto.slotNames.size());
            decl.kind = StmtKind::FunctionDecl;
            decl.targets.push_back(std::move(target));
        } catch (const CompileError& error) {
            decl.kind = StmtKind::Error;
            decl.message = error.message;
            decl.errorToken = error.token;
            proto.paramCount = static_cast<std::int32_t>(proto.slotNames.size());
        }
    }

    void compileProto(FunctionProto& proto) {
        auto& lines = m_chunk.parsed.lines;
        if (proto.declLine >= 0) {
            FunctionProto& outer = *m_owner[static_cast<std::size_t>(proto.declLine)];
            collectParameters(proto, m_chunk.lines[static_cast<std::size_t>(proto.declLine)],
                              lines[static_cast<std::size_t>(proto.declLine)], outer);
        }
        collectSlots(proto);
        linkLines(proto, true);
    }

    // Copies the block links into the compiled lines, numbers the loops, finds break targets
    // and labels; with compileBodies, compiles each line as well.
    void linkLines(FunctionProto& proto, bool compileBodies) {
        auto& lines = m_chunk.parsed.lines;
        // Loops open around each line, for break targets.
        std::vector<std::int32_t> loops;
        for (std::int32_t i : proto.ownLines) {
            while (!loops.empty() && lines[static_cast<std::size_t>(loops.back())].endIndex >= 0 &&
                   lines[static_cast<std::size_t>(loops.back())].endIndex < i)
                loops.pop_back();
            const ParsedScriptLine& line = lines[static_cast<std::size_t>(i)];
            CompiledLine& out = m_chunk.lines[static_cast<std::size_t>(i)];
            out.lineKind = line.kind;
            out.endIndex = line.endIndex;
            out.opener = line.openerIndex;
            out.jump = line.elseIndex;
            if (line.kind == LineKind::Nest && line.tokens.size() > 1)
                proto.labels.emplace(line.tokens[1], i);
            if (line.kind == LineKind::Break) out.breakTarget = loops.empty() ? -1 : lines[static_cast<std::size_t>(loops.back())].endIndex;
            if (line.kind == LineKind::For) out.loopSlot = proto.loopCount++;
            if (isFunctionKind(line.kind) && out.proto) continue;  // compiled with its parameters
            if (compileBodies) {
                compileLine(proto, line, out);
                assignScalarFunctions(out.expr);
                assignScalarFunctions(out.stop);
                assignScalarFunctions(out.step);
                for (LValue& target : out.targets)
                    for (FastExpression* key : target.keys) assignScalarFunctions(key);
            }
            if (line.kind == LineKind::While || line.kind == LineKind::Repeat || line.kind == LineKind::For)
                loops.push_back(i);
        }
    }

public:
    // The structure alone, for a chunk whose statements come from elsewhere (a bytecode image):
    // prototypes with their bodies, block links, loop numbers, break targets and labels.
    std::vector<FunctionProto*> buildStructure() {
        makePrototypes();
        for (auto& proto : m_chunk.protos) linkLines(*proto, false);
        return m_owner;
    }

private:
    // The whole chunk's prototype, then one per function declaration, with every line's owner.
    void makePrototypes() {
        auto& lines = m_chunk.parsed.lines;
        m_owner.assign(lines.size(), nullptr);
        m_chunk.lines.assign(lines.size(), CompiledLine{});
        auto top = std::make_unique<FunctionProto>();
        top->chunk = &m_chunk;
        top->isChunk = true;
        top->name = m_chunk.parsed.name;
        top->bodyBegin = 0;
        top->bodyEnd = static_cast<std::int32_t>(lines.size());
        FunctionProto* root = top.get();
        m_chunk.protos.push_back(std::move(top));
        buildProto(*root);
    }

    void compileLine(FunctionProto& proto, const ParsedScriptLine& line, CompiledLine& out) {
        LineCompiler lc(m_vm, m_chunk, proto, line);
        const auto& t = line.tokens;
        try {
            switch (line.kind) {
            case LineKind::If:
            case LineKind::ElseIf:
                lc.pos = 1;
                out.kind = line.kind == LineKind::If ? StmtKind::If : StmtKind::ElseIf;
                out.expr = lc.fullExpression(t.size(), "Unexpected token after if condition");
                break;
            case LineKind::Else:
                out.kind = StmtKind::Else;
                if (t.size() > 1) lc.failAt("Unexpected trailing token", 1);
                break;
            case LineKind::End:
                out.kind = StmtKind::End;
                if (t.size() > 1) lc.failAt("Unexpected trailing token", 1);
                break;
            case LineKind::While:
                lc.pos = 1;
                out.kind = StmtKind::While;
                out.expr = lc.fullExpression(t.size(), "Unexpected token after while condition");
                break;
            case LineKind::Repeat:
                out.kind = StmtKind::Repeat;
                if (t.size() > 1) lc.failAt("Unexpected trailing token", 1);
                break;
            case LineKind::Until:
                lc.pos = 1;
                out.kind = StmtKind::Until;
                if (t.size() < 2) lc.failAt("Missing until condition", 0);
                out.expr = lc.fullExpression(t.size(), "Unexpected token after until condition");
                break;
            case LineKind::For: compileFor(lc, line, out); break;
            case LineKind::Return:
                out.kind = StmtKind::Return;
                if (t.size() > 1) {
                    lc.pos = 1;
                    out.expr = lc.fullExpression(t.size(), "Unexpected token after return value");
                }
                break;
            case LineKind::Break:
                out.kind = StmtKind::Break;
                if (t.size() > 1) lc.failAt("Unexpected trailing token", 1);
                break;
            case LineKind::Nest:
                out.kind = StmtKind::Nest;
                if (t.size() < 2) lc.failAt("nest requires a label name", 0);
                if (t.size() > 2) lc.failAt("Unexpected trailing token", 2);
                break;
            case LineKind::Function:
            case LineKind::DecayFunction:
            case LineKind::NativeFunction:
            case LineKind::LocalFunction: {
                // A declaration without a body: its own mistakes first, then the missing end.
                FunctionProto scratch;
                collectParameters(scratch, out, line, proto);
                out.targets.clear();
                break;
            }
            default: compileStatement(lc, line, out); break;
            }
        } catch (const CompileError& error) {
            out.kind = StmtKind::Error;
            out.message = error.message;
            out.errorToken = error.token;
        }
    }

    void compileFor(LineCompiler& lc, const ParsedScriptLine& line, CompiledLine& out) {
        const auto& t = line.tokens;
        if (t.size() < 2 || !line.analyses[1].isIdentifier) lc.failAt("Expected loop variable name", t.size() > 1 ? 1 : 0);
        if (t.size() > 2 && t[2] == "=") {
            out.kind = StmtKind::ForNumeric;
            LValue loopVar;
            loopVar.name = lc.nameRef(t[1]);
            loopVar.scope = loopVar.name->scope != -1 ? TargetScope::Explicit : TargetScope::Plain;
            out.targets.push_back(loopVar);
            lc.pos = 3;
            out.expr = lc.expression();
            if (lc.atEnd() || lc.peek() != ",") lc.fail("Expected ',' after for start value");
            ++lc.pos;
            out.stop = lc.expression();
            if (!lc.atEnd() && lc.peek() == ",") {
                ++lc.pos;
                out.step = lc.expression();
            }
            if (!lc.atEnd()) lc.fail("Unexpected token after for clause");
            return;
        }
        out.kind = StmtKind::ForIn;
        lc.pos = 1;
        while (true) {
            if (lc.atEnd() || !line.analyses[lc.pos].isIdentifier) lc.fail("Expected loop variable name");
            LValue name;
            name.name = lc.nameRef(t[lc.pos]);
            name.scope = name.name->scope != -1 ? TargetScope::Explicit : TargetScope::Plain;
            out.targets.push_back(name);
            ++lc.pos;
            if (!lc.atEnd() && lc.peek() == ",") {
                ++lc.pos;
                continue;
            }
            break;
        }
        if (lc.atEnd() || lc.peek() != "in") lc.fail("Expected 'in' in generic for loop");
        ++lc.pos;
        std::size_t start = lc.pos;
        if (start + 2 < t.size() && (t[start] == "pairs" || t[start] == "ipairs") && t[start + 1] == "(") {
            out.iterKind = t[start] == "pairs" ? IterKind::Pairs : IterKind::IPairs;
            lc.pos = start + 2;
            out.expr = lc.expression();
            if (lc.atEnd() || lc.peek() != ")") {
                const char* which = out.iterKind == IterKind::Pairs ? "pairs" : "ipairs";
                lc.fail(std::string(which) + "(container) requires exactly 1 argument");
            }
            ++lc.pos;
            if (!lc.atEnd()) lc.fail("Unexpected token after for iterator");
            return;
        }
        out.iterKind = IterKind::Array;
        out.expr = lc.fullExpression(t.size(), "Unexpected token after for iterator");
    }

    void compileStatement(LineCompiler& lc, const ParsedScriptLine& line, CompiledLine& out) {
        const auto& t = line.tokens;
        std::size_t start = line.scopePrefix == ScopePrefix::None ? 0 : 1;
        TargetScope scope = scopeOfPrefix(line.scopePrefix);
        std::size_t op = findAssignment(t, start);
        if (op == std::string::npos) {
            if (line.scopePrefix != ScopePrefix::None && declaresOnly(line, start)) {
                out.kind = StmtKind::Declare;
                lc.pos = start;
                while (!lc.atEnd()) {
                    out.targets.push_back(lc.target(t.size(), scope));
                    if (!lc.atEnd()) ++lc.pos;  // the comma
                }
                return;
            }
            lc.pos = start;
            out.kind = StmtKind::Expression;
            out.expr = lc.fullExpression(t.size(), "Unexpected trailing token");
            return;
        }
        lc.pos = start;
        if (start == op) lc.fail("Expected assignment target");
        while (lc.pos < op) {
            out.targets.push_back(lc.target(op, scope));
            if (lc.pos < op) {
                if (lc.peek() != ",") lc.fail("Unexpected trailing token");
                ++lc.pos;
            }
        }
        lc.pos = op + 1;
        out.expr = lc.fullExpression(t.size(), "Unexpected trailing token");
        if (t[op] != "=") {
            out.kind = StmtKind::Compound;
            out.compoundOp = t[op][0];
            return;
        }
        out.kind = StmtKind::Assign;
        const LValue& first = out.targets.front();
        if (out.targets.size() == 1 && first.keys.empty() && first.name->localSlot >= 0 &&
            (first.scope == TargetScope::Plain || first.scope == TargetScope::Local))
            out.kind = StmtKind::AssignLocal;
        if (out.kind == StmtKind::AssignLocal && out.expr->op == Op::Add && out.expr->left->op == Op::Local &&
            out.expr->left->name->localSlot == first.name->localSlot)
            out.appendsToItself = true;
    }

    static bool declaresOnly(const ParsedScriptLine& line, std::size_t start) {
        if (start >= line.tokens.size()) return false;
        for (std::size_t k = start; k < line.tokens.size(); ++k) {
            bool wantName = (k - start) % 2 == 0;
            if (wantName ? !line.analyses[k].isIdentifier : line.tokens[k] != ",") return false;
        }
        return (line.tokens.size() - start) % 2 == 1;
    }

    Interpreter& m_vm;
    Chunk& m_chunk;
    std::vector<FunctionProto*> m_owner;
};

}  // namespace

StringObject* Interpreter::internString(std::string_view text) {
    auto found = internedStrings.find(text);
    if (found != internedStrings.end()) {
        ++found->second->refCount;
        return found->second;
    }
    // Chunks come and go (load in a loop): drop the strings only this cache still holds once
    // it has doubled since the last time.
    if (internedStrings.size() >= 2 * std::max<std::size_t>(internedAfterPruning, 1024)) pruneDeadTableCacheEntries();
    StringObject* object = newStringObject(text);
    object->hashValue();
    internedStrings.emplace(std::string_view(object->text), object);
    ++object->refCount;  // one for the table, one for the caller
    return object;
}

std::vector<FunctionProto*> buildChunkStructure(Interpreter& vm, Chunk& chunk) {
    return ChunkCompiler(vm, chunk).buildStructure();
}

std::size_t Interpreter::pruneDeadTableCacheEntries() {
    std::size_t dropped = 0;
    for (auto entry = internedStrings.begin(); entry != internedStrings.end();) {
        StringObject* string = entry->second;
        if (string->refCount == 1) {
            entry = internedStrings.erase(entry);  // the key points into the string: erase first
            releaseString(string);
            ++dropped;
        } else {
            ++entry;
        }
    }
    internedAfterPruning = internedStrings.size();
    return dropped;
}

Chunk::~Chunk() {
    for (StringObject* key : ownedKeys) releaseString(key);
}

std::shared_ptr<Chunk> Interpreter::compileChunk(std::string_view source, std::string_view name,
                                                 ScriptError* parseError) {
    auto chunk = std::make_shared<Chunk>();
    chunk->parsed.name = std::string(name);
    ParseFailure failure;
    if (!parseScript(source, chunk->parsed, failure)) {
        if (parseError) {
            ScriptError error(failure.message);
            std::string token;
            const auto& sourceLines = chunk->parsed.sourceLines;
            if (failure.sourceLine >= 1 && static_cast<std::size_t>(failure.sourceLine) <= sourceLines.size() &&
                failure.column >= 0)
                token = sourceLines[static_cast<std::size_t>(failure.sourceLine - 1)].substr(
                    static_cast<std::size_t>(failure.column));
            std::string report = formatReport(*chunk, failure.sourceLine, failure.column, token, failure.message);
            error.locate(failure.sourceLine, report);
            *parseError = error;
        }
        return nullptr;
    }
    ChunkCompiler(*this, *chunk).compile();
    return chunk;
}

}  // namespace korvel
