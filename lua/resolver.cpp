// Resolver: gives each function body (and the chunk) one environment. Every local, parameter and
// loop variable takes the next slot of its function's environment; a name records how many
// environments out it lies and its slot; the remaining names are bound to global slots.
#include "resolver_internal.h"

#include "error_internal.h"

#include <algorithm>
#include <string>
#include <vector>

namespace korvel::lua {

namespace {

// One environment may hold this many slots; an index must fit the 32-bit slot fields with room to spare.
constexpr std::uint32_t kMaxEnvironmentSlots = 4096;

bool expressionContainsFunction(const Expr* expr);

bool blockContainsFunction(const std::vector<Stmt*>& block);

bool anyContainsFunction(const std::vector<Expr*>& expressions) {
    return std::any_of(expressions.begin(), expressions.end(), [](const Expr* e) { return expressionContainsFunction(e); });
}

// Whether evaluating `expr` can make a closure (nested function bodies are not searched: their
// own environments are decided when they are resolved).
bool expressionContainsFunction(const Expr* expr) {
    if (!expr) return false;
    switch (expr->kind) {
    case ExprKind::Function: return true;
    case ExprKind::Negate:
    case ExprKind::Not:
    case ExprKind::Length: return expressionContainsFunction(static_cast<const UnaryExpr*>(expr)->operand);
    case ExprKind::Table:
        for (const TableField& field : static_cast<const TableExpr*>(expr)->fields) {
            if (expressionContainsFunction(field.key) || expressionContainsFunction(field.value)) return true;
        }
        return false;
    case ExprKind::Field: return expressionContainsFunction(static_cast<const FieldExpr*>(expr)->object);
    case ExprKind::Index:
        return expressionContainsFunction(static_cast<const IndexExpr*>(expr)->object) ||
               expressionContainsFunction(static_cast<const IndexExpr*>(expr)->key);
    case ExprKind::Call:
        return expressionContainsFunction(static_cast<const CallExpr*>(expr)->callee) ||
               anyContainsFunction(static_cast<const CallExpr*>(expr)->arguments);
    default: break;
    }
    if (expr->kind >= ExprKind::Add && expr->kind <= ExprKind::Or) {
        return expressionContainsFunction(static_cast<const BinaryExpr*>(expr)->left) ||
               expressionContainsFunction(static_cast<const BinaryExpr*>(expr)->right);
    }
    return false;
}

bool statementContainsFunction(const Stmt* statement) {
    switch (statement->kind) {
    case StmtKind::Expression: return expressionContainsFunction(static_cast<const ExpressionStmt*>(statement)->call);
    case StmtKind::Local:
    case StmtKind::LocalNumber: return anyContainsFunction(static_cast<const LocalStmt*>(statement)->values);
    case StmtKind::Assign:
    case StmtKind::AssignLocalNumber:
    case StmtKind::AssignFieldNumber: {
        auto* assign = static_cast<const AssignStmt*>(statement);
        return anyContainsFunction(assign->targets) || anyContainsFunction(assign->values);
    }
    case StmtKind::LocalFunction: return true;
    case StmtKind::If: {
        auto* branchy = static_cast<const IfStmt*>(statement);
        for (const IfStmt::Branch& branch : branchy->branches) {
            if (expressionContainsFunction(branch.condition) || blockContainsFunction(branch.block)) return true;
        }
        return blockContainsFunction(branchy->elseBlock);
    }
    case StmtKind::While: {
        auto* loop = static_cast<const WhileStmt*>(statement);
        return expressionContainsFunction(loop->condition) || blockContainsFunction(loop->body);
    }
    case StmtKind::NumericFor: {
        auto* loop = static_cast<const NumericForStmt*>(statement);
        return expressionContainsFunction(loop->start) || expressionContainsFunction(loop->limit) ||
               expressionContainsFunction(loop->step) || blockContainsFunction(loop->body);
    }
    case StmtKind::GenericFor: {
        auto* loop = static_cast<const GenericForStmt*>(statement);
        return anyContainsFunction(loop->iterators) || blockContainsFunction(loop->body);
    }
    case StmtKind::Return: return anyContainsFunction(static_cast<const ReturnStmt*>(statement)->values);
    case StmtKind::Break: return false;
    }
    return false;
}

bool blockContainsFunction(const std::vector<Stmt*>& block) {
    return std::any_of(block.begin(), block.end(), [](const Stmt* s) { return statementContainsFunction(s); });
}

class Resolver {
public:
    Resolver(Chunk& chunk, GlobalSlots& globals) : m_chunk(chunk), m_globals(globals) {}

    void resolveMain(FunctionExpr* main) { resolveFunction(main); }

private:
    // One function body being resolved: its environment's scopes and next free slot.
    struct Scope {
        std::vector<LocalInfo*> locals;
    };
    struct FunctionState {
        FunctionExpr* function = nullptr;
        FunctionState* parent = nullptr;
        std::vector<Scope> scopes;
        std::uint32_t nextSlot = 0;
    };

    void declare(LocalInfo* local) {
        FunctionState& state = *m_current;
        if (state.nextSlot >= kMaxEnvironmentSlots) {
            failParse(m_chunk.name, 1, 1, "function has too many local variables");
        }
        local->slot = state.nextSlot++;
        state.function->environmentSize = std::max(state.function->environmentSize, state.nextSlot);
        state.scopes.back().locals.push_back(local);
    }

    void openScope() { m_current->scopes.emplace_back(); }
    void closeScope() {
        // Slots of a finished block are reused by the next one, but only where no closure can
        // have captured the environment: a closure made in the block still reads its slots.
        if (!m_current->function->ownsEnvironment) {
            m_current->nextSlot -= static_cast<std::uint32_t>(m_current->scopes.back().locals.size());
        }
        m_current->scopes.pop_back();
    }

    static LocalInfo* findLocal(FunctionState& state, const std::string& name) {
        for (auto scope = state.scopes.rbegin(); scope != state.scopes.rend(); ++scope) {
            for (auto local = scope->locals.rbegin(); local != scope->locals.rend(); ++local) {
                if ((*local)->name == name) return *local;
            }
        }
        return nullptr;
    }

    void resolveName(VariableExpr* expr) {
        std::uint32_t depth = 0;
        for (FunctionState* state = m_current; state; state = state->parent, ++depth) {
            if (LocalInfo* local = findLocal(*state, expr->name)) {
                expr->kind = depth == 0 ? ExprKind::Local : ExprKind::Outer;
                expr->index = local->slot;
                expr->depth = depth;
                return;
            }
        }
        expr->kind = ExprKind::Global;
        expr->index = m_globals.resolveGlobalSlot(expr->name);
    }

    void resolveFunction(FunctionExpr* function) {
        FunctionState state;
        state.function = function;
        state.parent = m_current;
        function->chunkName = &m_chunk.name;
        function->ownsEnvironment = blockContainsFunction(function->body);
        m_current = &state;
        openScope();
        for (LocalInfo* parameter : function->parameters) declare(parameter);
        resolveBlockInScope(function->body);
        closeScope();
        m_current = state.parent;
    }

    void resolveBlock(const std::vector<Stmt*>& block) {
        openScope();
        resolveBlockInScope(block);
        closeScope();
    }

    void resolveBlockInScope(const std::vector<Stmt*>& block) {
        for (Stmt* statement : block) resolveStatement(statement);
    }

    void resolveStatement(Stmt* statement) {
        switch (statement->kind) {
        case StmtKind::Expression:
            resolveExpression(static_cast<ExpressionStmt*>(statement)->call);
            return;
        case StmtKind::Local: {
            auto* local = static_cast<LocalStmt*>(statement);
            for (Expr* value : local->values) resolveExpression(value);
            for (const std::string& name : local->names) {
                LocalInfo* info = m_chunk.makeLocal(name);
                declare(info);
                local->locals.push_back(info);
            }
            return;
        }
        case StmtKind::Assign: {
            auto* assign = static_cast<AssignStmt*>(statement);
            for (Expr* value : assign->values) resolveExpression(value);
            for (Expr* target : assign->targets) resolveExpression(target);
            return;
        }
        case StmtKind::LocalFunction: {
            auto* declaration = static_cast<LocalFunctionStmt*>(statement);
            // Declared before its body, so the function can call itself.
            declaration->local = m_chunk.makeLocal(declaration->name);
            declare(declaration->local);
            resolveExpression(declaration->function);
            return;
        }
        case StmtKind::If: {
            auto* branchy = static_cast<IfStmt*>(statement);
            for (IfStmt::Branch& branch : branchy->branches) {
                resolveExpression(branch.condition);
                resolveBlock(branch.block);
            }
            resolveBlock(branchy->elseBlock);
            return;
        }
        case StmtKind::While: {
            auto* loop = static_cast<WhileStmt*>(statement);
            resolveExpression(loop->condition);
            resolveBlock(loop->body);
            return;
        }
        case StmtKind::NumericFor: {
            auto* loop = static_cast<NumericForStmt*>(statement);
            resolveExpression(loop->start);
            resolveExpression(loop->limit);
            if (loop->step) resolveExpression(loop->step);
            openScope();
            loop->variable = m_chunk.makeLocal(loop->name);
            declare(loop->variable);
            resolveBlock(loop->body);
            closeScope();
            return;
        }
        case StmtKind::GenericFor: {
            auto* loop = static_cast<GenericForStmt*>(statement);
            for (Expr* iterator : loop->iterators) resolveExpression(iterator);
            openScope();
            for (const std::string& name : loop->names) {
                LocalInfo* info = m_chunk.makeLocal(name);
                declare(info);
                loop->variables.push_back(info);
            }
            resolveBlock(loop->body);
            closeScope();
            return;
        }
        case StmtKind::Return:
            for (Expr* value : static_cast<ReturnStmt*>(statement)->values) resolveExpression(value);
            return;
        case StmtKind::Break:
            return;
        case StmtKind::LocalNumber:
        case StmtKind::AssignLocalNumber:
        case StmtKind::AssignFieldNumber:
            break;   // made only after resolution
        }
        failParse(m_chunk.name, statement->line, 1, "unable to resolve statement");
    }

    void resolveExpression(Expr* expr) {
        switch (expr->kind) {
        case ExprKind::Constant:
            return;
        case ExprKind::Name:
            resolveName(static_cast<VariableExpr*>(expr));
            return;
        case ExprKind::Negate:
        case ExprKind::Not:
        case ExprKind::Length:
            resolveExpression(static_cast<UnaryExpr*>(expr)->operand);
            return;
        case ExprKind::Table:
            for (TableField& field : static_cast<TableExpr*>(expr)->fields) {
                if (field.key) resolveExpression(field.key);
                resolveExpression(field.value);
            }
            return;
        case ExprKind::Field:
            resolveExpression(static_cast<FieldExpr*>(expr)->object);
            return;
        case ExprKind::Index:
            resolveExpression(static_cast<IndexExpr*>(expr)->object);
            resolveExpression(static_cast<IndexExpr*>(expr)->key);
            return;
        case ExprKind::Call: {
            auto* call = static_cast<CallExpr*>(expr);
            resolveExpression(call->callee);
            for (Expr* argument : call->arguments) resolveExpression(argument);
            return;
        }
        case ExprKind::Function:
            resolveFunction(static_cast<FunctionExpr*>(expr));
            return;
        default:
            break;
        }
        if (expr->kind >= ExprKind::Add && expr->kind <= ExprKind::Or) {
            resolveExpression(static_cast<BinaryExpr*>(expr)->left);
            resolveExpression(static_cast<BinaryExpr*>(expr)->right);
            return;
        }
        // Already resolved (a node is never shared, so this does not happen for parsed trees).
    }

private:
    Chunk& m_chunk;
    GlobalSlots& m_globals;
    FunctionState* m_current = nullptr;
};

} // namespace

// Marks side-effect-free subtrees. Nodes are created children first, so one pass in creation
// order sees every child before its parent.
void markPureExpressions(Chunk& chunk) {
    for (auto& node : chunk.expressions) {
        Expr* expr = node.get();
        switch (expr->kind) {
        case ExprKind::Constant:
        case ExprKind::Local:
        case ExprKind::Outer:
        case ExprKind::Global: expr->pure = true; break;
        case ExprKind::Field: expr->pure = static_cast<FieldExpr*>(expr)->object->pure; break;
        case ExprKind::Index:
            expr->pure = static_cast<IndexExpr*>(expr)->object->pure && static_cast<IndexExpr*>(expr)->key->pure;
            break;
        case ExprKind::Negate: expr->pure = static_cast<UnaryExpr*>(expr)->operand->pure; break;
        case ExprKind::Add:
        case ExprKind::Subtract:
        case ExprKind::Multiply:
        case ExprKind::Divide:
        case ExprKind::Modulo:
            expr->pure = static_cast<BinaryExpr*>(expr)->left->pure && static_cast<BinaryExpr*>(expr)->right->pure;
            break;
        default: expr->pure = false; break;
        }
    }
}

bool isArithmeticNode(const Expr* expr) {
    switch (expr->kind) {
    case ExprKind::Negate: case ExprKind::Add: case ExprKind::Subtract: case ExprKind::Multiply:
    case ExprKind::Divide: case ExprKind::Modulo:
        return true;
    default:
        return false;
    }
}

// Picks the numeric store forms once slots and purity are known.
void specialiseStatements(Chunk& chunk) {
    for (auto& node : chunk.statements) {
        Stmt* statement = node.get();
        if (statement->kind == StmtKind::Local) {
            auto* local = static_cast<LocalStmt*>(statement);
            if (local->locals.size() == 1 && local->values.size() == 1 &&
                local->values[0]->pure && isArithmeticNode(local->values[0])) {
                statement->kind = StmtKind::LocalNumber;
            }
        } else if (statement->kind == StmtKind::Assign) {
            auto* assign = static_cast<AssignStmt*>(statement);
            if (assign->targets.size() == 1 && assign->values.size() == 1 && assign->targets[0]->kind == ExprKind::Local &&
                assign->values[0]->pure && isArithmeticNode(assign->values[0])) {
                statement->kind = StmtKind::AssignLocalNumber;
            } else if (assign->targets.size() == 1 && assign->values.size() == 1 && assign->targets[0]->kind == ExprKind::Field &&
                       assign->values[0]->pure && isArithmeticNode(assign->values[0])) {
                statement->kind = StmtKind::AssignFieldNumber;
            }
        }
    }
}

void resolveChunk(Chunk& chunk, GlobalSlots& globals) {
    Resolver resolver(chunk, globals);
    resolver.resolveMain(chunk.main);
    markPureExpressions(chunk);
    specialiseStatements(chunk);
}

} // namespace korvel::lua
