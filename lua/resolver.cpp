// Resolver: gives every local a slot of its function's frame, turns references to locals of
// enclosing functions into upvalues (marking those locals as captured, so they live in boxes), and
// binds the remaining names to global slots.
#include "resolver_internal.h"

#include "error_internal.h"

#include <algorithm>
#include <string>
#include <vector>

namespace korvel::lua {

namespace {

// One frame may hold this many slots; an index must fit the 32-bit slot fields with room to spare.
constexpr std::uint32_t kMaxFrameSlots = 4096;

class Resolver {
public:
    Resolver(Chunk& chunk, GlobalSlots& globals) : m_chunk(chunk), m_globals(globals) {}

    void resolveMain(FunctionExpr* main) { resolveFunction(main); }

private:
    struct FunctionState {
        FunctionExpr* function = nullptr;
        FunctionState* parent = nullptr;
        std::vector<std::vector<LocalInfo*>> scopes;
        std::uint32_t nextSlot = 0;
        std::vector<LocalInfo*> upvalueLocals;      // the enclosing local behind each upvalue
    };

    struct Reference {
        VariableExpr* expr;
        LocalInfo* local;
    };

    void declare(LocalInfo* local) {
        FunctionState& state = *m_current;
        if (state.nextSlot >= kMaxFrameSlots) {
            failParse(m_chunk.name, 1, 1, "function has too many local variables");
        }
        local->slot = state.nextSlot++;
        state.function->frameSize = std::max(state.function->frameSize, state.nextSlot);
        state.scopes.back().push_back(local);
    }

    void openScope() { m_current->scopes.emplace_back(); }
    void closeScope() {
        // Slots of a finished block are reused by the next one.
        m_current->nextSlot -= static_cast<std::uint32_t>(m_current->scopes.back().size());
        m_current->scopes.pop_back();
    }

    static LocalInfo* findLocal(FunctionState& state, const std::string& name) {
        for (auto scope = state.scopes.rbegin(); scope != state.scopes.rend(); ++scope) {
            for (auto local = scope->rbegin(); local != scope->rend(); ++local) {
                if ((*local)->name == name) return *local;
            }
        }
        return nullptr;
    }

    // Index of the upvalue of `state` that reaches `name`, or -1 when the name is global.
    int findUpvalue(FunctionState& state, const std::string& name) {
        if (!state.parent) return -1;
        if (LocalInfo* local = findLocal(*state.parent, name)) {
            local->captured = true;
            return addUpvalue(state, local, UpvalueSource{true, local->slot});
        }
        int outer = findUpvalue(*state.parent, name);
        if (outer < 0) return -1;
        return addUpvalue(state, state.parent->upvalueLocals[static_cast<std::size_t>(outer)],
                          UpvalueSource{false, static_cast<std::uint32_t>(outer)});
    }

    static int addUpvalue(FunctionState& state, LocalInfo* local, UpvalueSource source) {
        for (std::size_t i = 0; i < state.upvalueLocals.size(); ++i) {
            if (state.upvalueLocals[i] == local) return static_cast<int>(i);
        }
        state.upvalueLocals.push_back(local);
        state.function->upvalues.push_back(source);
        return static_cast<int>(state.upvalueLocals.size() - 1);
    }

    void resolveName(VariableExpr* expr) {
        if (LocalInfo* local = findLocal(*m_current, expr->name)) {
            expr->kind = ExprKind::Local;
            expr->index = local->slot;
            m_references.push_back({expr, local});
            return;
        }
        int upvalue = findUpvalue(*m_current, expr->name);
        if (upvalue >= 0) {
            expr->kind = ExprKind::Upvalue;
            expr->index = static_cast<std::uint32_t>(upvalue);
            return;
        }
        expr->kind = ExprKind::Global;
        expr->index = m_globals.resolveGlobalSlot(expr->name);
    }

    void resolveFunction(FunctionExpr* function) {
        FunctionState state;
        state.function = function;
        state.parent = m_current;
        function->chunkName = &m_chunk.name;
        m_functions.push_back(function);
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

public:
    // A local found to be captured after some references were resolved: those become box reads.
    void finish() {
        for (const Reference& reference : m_references) {
            if (reference.local->captured) reference.expr->kind = ExprKind::BoxedLocal;
        }
        for (FunctionExpr* function : m_functions) {
            for (const LocalInfo* parameter : function->parameters) function->boxesParameters |= parameter->captured;
        }
    }

private:
    Chunk& m_chunk;
    GlobalSlots& m_globals;
    FunctionState* m_current = nullptr;
    std::vector<Reference> m_references;
    std::vector<FunctionExpr*> m_functions;
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
        case ExprKind::BoxedLocal:
        case ExprKind::Upvalue:
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

// Picks the numeric store forms once captures and purity are known.
void specialiseStatements(Chunk& chunk) {
    for (auto& node : chunk.statements) {
        Stmt* statement = node.get();
        if (statement->kind == StmtKind::Local) {
            auto* local = static_cast<LocalStmt*>(statement);
            if (local->locals.size() == 1 && local->values.size() == 1 && !local->locals[0]->captured &&
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
    resolver.finish();
    markPureExpressions(chunk);
    specialiseStatements(chunk);
}

} // namespace korvel::lua
