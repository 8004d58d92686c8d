// Syntax tree of a chunk. The parser builds it, the resolver fills in slots and specialises
// variable nodes, the evaluator walks it. Nodes live in the chunk's arena and never change after
// resolution, so closures share them through the chunk's shared pointer.
#pragma once

#include "value_internal.h"

#include <deque>
#include <memory>
#include <string>
#include <vector>

namespace korvel::lua {

enum class ExprKind : std::uint8_t {
    Constant,
    Name,          // unresolved; the resolver turns it into one of the next three
    Local, Outer, Global,   // Local: this environment; Outer: `depth` environments out
    Negate, Not, Length,
    Add, Subtract, Multiply, Divide, Modulo, Concat,
    Equal, NotEqual, Less, LessEqual, Greater, GreaterEqual,
    And, Or,
    Table, Field, Index, Call, Function,
};

struct Expr {
    ExprKind kind;
    // Reads and arithmetic only (no calls, no constructors): evaluating it has no side effects, so
    // the evaluator may try a numbers-only path first and fall back to the general one.
    bool pure = false;
    std::uint32_t line;
    Expr(ExprKind exprKind, std::uint32_t sourceLine) : kind(exprKind), line(sourceLine) {}
};

struct ConstantExpr : Expr {
    Value value;
    ConstantExpr(Value constant, std::uint32_t sourceLine) : Expr(ExprKind::Constant, sourceLine), value(std::move(constant)) {}
};

// A name; after resolution `index` is the environment slot (of the environment `depth` out) or
// the global slot.
struct VariableExpr : Expr {
    std::string name;
    std::uint32_t index = 0;
    std::uint32_t depth = 0;
    VariableExpr(std::string variableName, std::uint32_t sourceLine)
        : Expr(ExprKind::Name, sourceLine), name(std::move(variableName)) {}
};

struct UnaryExpr : Expr {
    Expr* operand;
    UnaryExpr(ExprKind op, Expr* operandExpr, std::uint32_t sourceLine) : Expr(op, sourceLine), operand(operandExpr) {}
};

struct BinaryExpr : Expr {
    Expr* left;
    Expr* right;
    BinaryExpr(ExprKind op, Expr* leftExpr, Expr* rightExpr, std::uint32_t sourceLine)
        : Expr(op, sourceLine), left(leftExpr), right(rightExpr) {}
};

struct TableField {
    enum class Form : std::uint8_t { Positional, Named, Keyed } form = Form::Positional;
    Expr* key = nullptr;       // Named: a constant string; Keyed: any expression
    Expr* value = nullptr;
};

struct TableExpr : Expr {
    std::vector<TableField> fields;
    std::uint32_t positionalCount = 0;
    explicit TableExpr(std::uint32_t sourceLine) : Expr(ExprKind::Table, sourceLine) {}
};

struct FieldExpr : Expr {
    Expr* object;
    Value name;                // string constant, shared with every lookup of this node
    mutable std::uint32_t cacheHint = ~std::uint32_t{0};   // entry index of the last table looked up
    FieldExpr(Expr* objectExpr, Value fieldName, std::uint32_t sourceLine)
        : Expr(ExprKind::Field, sourceLine), object(objectExpr), name(std::move(fieldName)) {}
};

struct IndexExpr : Expr {
    Expr* object;
    Expr* key;
    IndexExpr(Expr* objectExpr, Expr* keyExpr, std::uint32_t sourceLine)
        : Expr(ExprKind::Index, sourceLine), object(objectExpr), key(keyExpr) {}
};

struct CallExpr : Expr {
    Expr* callee;
    std::vector<Expr*> arguments;
    Value method;              // nil, or the method name of `o:m(...)`
    mutable std::uint32_t cacheHint = ~std::uint32_t{0};
    bool parenthesised = false; // `(f())` gives exactly one value
    CallExpr(Expr* calleeExpr, std::uint32_t sourceLine) : Expr(ExprKind::Call, sourceLine), callee(calleeExpr) {}
};

struct LocalInfo {
    std::string name;
    std::uint32_t slot = 0;
};

struct Stmt;

struct FunctionExpr : Expr {
    std::string name;              // for messages; empty for an anonymous function
    std::vector<LocalInfo*> parameters;
    std::vector<Stmt*> body;
    std::uint32_t environmentSize = 0;   // slots of one activation's environment
    // The body contains a function expression, so its activations' environments may be captured:
    // they are made on the heap. Otherwise they live on the native stack.
    bool ownsEnvironment = false;
    const std::string* chunkName = nullptr;
    FunctionExpr(std::string functionName, std::uint32_t sourceLine)
        : Expr(ExprKind::Function, sourceLine), name(std::move(functionName)) {}
};

enum class StmtKind : std::uint8_t {
    Expression, Local, Assign, LocalFunction, If, While, NumericFor, GenericFor, Return, Break,
    // Set by the resolver: one local of this environment (declared or assigned) takes one pure arithmetic
    // value, which the evaluator computes on plain numbers straight into the slot.
    LocalNumber, AssignLocalNumber,
    // `object.name = <pure arithmetic>`: the number is computed on the numbers-only path.
    AssignFieldNumber,
};

struct Stmt {
    StmtKind kind;
    std::uint32_t line;
    Stmt(StmtKind stmtKind, std::uint32_t sourceLine) : kind(stmtKind), line(sourceLine) {}
};

struct ExpressionStmt : Stmt {
    CallExpr* call;
    ExpressionStmt(CallExpr* callExpr, std::uint32_t sourceLine) : Stmt(StmtKind::Expression, sourceLine), call(callExpr) {}
};

struct LocalStmt : Stmt {
    std::vector<std::string> names;
    std::vector<LocalInfo*> locals;
    std::vector<Expr*> values;
    explicit LocalStmt(std::uint32_t sourceLine) : Stmt(StmtKind::Local, sourceLine) {}
};

// Targets are variable, field or index expressions; function declarations to a name or a dotted
// path become assignments of a function expression.
struct AssignStmt : Stmt {
    std::vector<Expr*> targets;
    std::vector<Expr*> values;
    explicit AssignStmt(std::uint32_t sourceLine) : Stmt(StmtKind::Assign, sourceLine) {}
};

struct LocalFunctionStmt : Stmt {
    std::string name;
    LocalInfo* local = nullptr;
    FunctionExpr* function = nullptr;
    explicit LocalFunctionStmt(std::uint32_t sourceLine) : Stmt(StmtKind::LocalFunction, sourceLine) {}
};

struct IfStmt : Stmt {
    struct Branch {
        Expr* condition;
        std::vector<Stmt*> block;
    };
    std::vector<Branch> branches;
    std::vector<Stmt*> elseBlock;
    bool hasElse = false;
    explicit IfStmt(std::uint32_t sourceLine) : Stmt(StmtKind::If, sourceLine) {}
};

struct WhileStmt : Stmt {
    Expr* condition = nullptr;
    std::vector<Stmt*> body;
    explicit WhileStmt(std::uint32_t sourceLine) : Stmt(StmtKind::While, sourceLine) {}
};

struct NumericForStmt : Stmt {
    std::string name;
    LocalInfo* variable = nullptr;
    Expr* start = nullptr;
    Expr* limit = nullptr;
    Expr* step = nullptr;
    std::vector<Stmt*> body;
    explicit NumericForStmt(std::uint32_t sourceLine) : Stmt(StmtKind::NumericFor, sourceLine) {}
};

struct GenericForStmt : Stmt {
    std::vector<std::string> names;
    std::vector<LocalInfo*> variables;
    std::vector<Expr*> iterators;
    std::vector<Stmt*> body;
    explicit GenericForStmt(std::uint32_t sourceLine) : Stmt(StmtKind::GenericFor, sourceLine) {}
};

struct ReturnStmt : Stmt {
    std::vector<Expr*> values;
    explicit ReturnStmt(std::uint32_t sourceLine) : Stmt(StmtKind::Return, sourceLine) {}
};

struct BreakStmt : Stmt {
    explicit BreakStmt(std::uint32_t sourceLine) : Stmt(StmtKind::Break, sourceLine) {}
};

// Owns every node of one chunk. The main function is the chunk's top level.
struct Chunk {
    std::string name;
    std::string source;
    FunctionExpr* main = nullptr;
    std::vector<std::unique_ptr<Expr, void (*)(Expr*)>> expressions;
    std::vector<std::unique_ptr<Stmt, void (*)(Stmt*)>> statements;
    std::deque<LocalInfo> locals;

    template <typename Node, typename... Args> Node* makeExpr(Args&&... args) {
        Node* node = new Node(std::forward<Args>(args)...);
        expressions.emplace_back(node, [](Expr* e) { delete static_cast<Node*>(e); });
        return node;
    }
    template <typename Node, typename... Args> Node* makeStmt(Args&&... args) {
        Node* node = new Node(std::forward<Args>(args)...);
        statements.emplace_back(node, [](Stmt* s) { delete static_cast<Node*>(s); });
        return node;
    }
    LocalInfo* makeLocal(std::string localName) {
        locals.push_back(LocalInfo{std::move(localName), 0});
        return &locals.back();
    }
};

// Lexes, parses and resolves; global names get slots through `resolveGlobal`. Throws LuaError.
class GlobalSlots;
std::shared_ptr<Chunk> parseScript(std::string_view source, std::string_view chunkName, GlobalSlots& globals);

} // namespace korvel::lua
