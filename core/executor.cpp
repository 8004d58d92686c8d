// Runs compiled lines: blocks, loops, assignments, declarations, and error locating.
#include "core/interpreter_internal.h"

#include <cmath>

namespace korvel {

template <typename T>
T* SegmentedStack<T>::pushSlow(std::size_t count, StackMark& mark) {
    if (m_blocks.empty()) {
        m_blocks.emplace_back(new T[kBlock]);
        m_blockSizes.push_back(kBlock);
    }
    mark = (static_cast<StackMark>(m_block) << 32) | m_top;
    if (m_top + count > m_blockSizes[m_block]) {
        // Move on to the next block that is big enough, making one if needed.
        std::size_t next = m_block + 1;
        if (next >= m_blocks.size() || m_blockSizes[next] < count) {
            std::size_t size = std::max(kBlock, count);
            if (next < m_blocks.size()) {
                m_blocks[next].reset(new T[size]);
                m_blockSizes[next] = size;
            } else {
                m_blocks.emplace_back(new T[size]);
                m_blockSizes.push_back(size);
            }
        }
        if (m_leftTop.size() < m_blocks.size()) m_leftTop.resize(m_blocks.size());
        m_leftTop[m_block] = m_top;
        m_block = next;
        m_top = 0;
    }
    T* base = m_blocks[m_block].get() + m_top;
    m_top += count;
    return base;
}

template <typename T>
void SegmentedStack<T>::popSlow(StackMark mark) {
    auto block = static_cast<std::size_t>(mark >> 32);
    auto top = static_cast<std::size_t>(mark & 0xffffffffu);
    // Reset what is released so references it held are dropped now.
    while (m_block > block) {
        T* base = m_blocks[m_block].get();
        for (std::size_t i = 0; i < m_top; ++i) reset(base[i]);
        --m_block;
        m_top = m_leftTop[m_block];
    }
    T* base = m_blocks.empty() ? nullptr : m_blocks[m_block].get();
    for (std::size_t i = top; i < m_top; ++i) reset(base[i]);
    m_top = top;
}

template class SegmentedStack<Variable>;
template class SegmentedStack<ForState>;

namespace {

[[noreturn]] void fail(const std::string& message) { throw ScriptError(message); }

double numberOf(const Variable& v) {
    switch (v.type()) {
    case VarType::Int: return v.asInt();
    case VarType::Float: return v.asFloat();
    default: return v.asBool() ? 1.0 : 0.0;
    }
}

}  // namespace

void Interpreter::assignLoopVariable(const LValue& target, Variable value) {
    const NameRef& name = *target.name;
    if (target.scope == TargetScope::Plain && name.localSlot >= 0) {
        Variable& slot = current->slots[name.localSlot];
        if (!slot.isUnset()) {
            slot = std::move(value);
            return;
        }
    }
    assignVariable(name, target.scope, std::move(value));
}

void Interpreter::storeTarget(const LValue& target, const Variable* keys, std::size_t keyCount, Variable value) {
    if (keyCount == 0) {
        assignVariable(*target.name, target.scope, std::move(value));
        return;
    }
    Variable* container = resolveVariablePtr(*target.name);
    if (!container) {
        if (target.scope == TargetScope::Local || target.scope == TargetScope::Native) {
            fail(std::string("Cannot assign by index into a value of type not"));
        }
        fail("Cannot assign by index into a value of type not");
    }
    for (std::size_t i = 0; i + 1 < keyCount; ++i) {
        Variable* inner = indexedSlot(*container, keys[i]);
        if (!inner) {
            if (container->type() != VarType::Array && container->type() != VarType::Table)
                fail(std::string("Cannot assign by index into a value of type ") + typeName(container->type()));
            fail("Cannot assign by index into a value of type not");
        }
        container = inner;
    }
    setIndexedValue(*container, keys[keyCount - 1], std::move(value));
}

void Interpreter::executeAssignment(const CompiledLine& line) {
    if (line.targets.size() == 1 && line.targets[0].keys.size() == 1) {
        // t[k] = v and t.name = v: store straight into an existing table entry or array place.
        const LValue& target = line.targets[0];
        const FastExpression* keyNode = target.keys[0];
        Variable keyScratch;
        const Variable& key = keyNode->op == Op::Const ? keyNode->constant : (keyScratch = eval(keyNode));
        Variable value = eval(line.expr);
        errorToken = line.expr->token;
        Variable* container = resolveVariablePtr(*target.name);
        if (container) {
            if (container->type() == VarType::Table && key.type() == VarType::String) {
                container->table().getOrInsert(key.stringObject()) = std::move(value);
                return;
            }
            if (container->type() == VarType::Array && key.type() == VarType::Int) {
                auto& items = container->arrayItems();
                std::int32_t index = key.asInt();
                if (index >= 1 && static_cast<std::size_t>(index) <= items.size()) {
                    items[static_cast<std::size_t>(index - 1)] = std::move(value);
                    return;
                }
                if (index >= 1 && static_cast<std::size_t>(index) == items.size() + 1) {
                    items.push_back(std::move(value));  // the next place: the array grows by one
                    return;
                }
            }
        }
        storeTarget(target, &key, 1, std::move(value));
        return;
    }
    if (line.targets.size() == 1) {
        const LValue& target = line.targets[0];
        std::size_t keyCount = target.keys.size();
        if (keyCount <= 4) {
            Variable keys[4];
            for (std::size_t i = 0; i < keyCount; ++i) keys[i] = eval(target.keys[i]);
            Variable value = eval(line.expr);
            errorToken = line.expr->token;
            storeTarget(target, keys, keyCount, std::move(value));
            return;
        }
    }
    std::vector<std::vector<Variable>> keys(line.targets.size());
    for (std::size_t t = 0; t < line.targets.size(); ++t)
        for (const FastExpression* key : line.targets[t].keys) keys[t].push_back(eval(key));
    Variable value = eval(line.expr);
    if (line.targets.size() == 1) {
        storeTarget(line.targets[0], keys[0].data(), keys[0].size(), std::move(value));
        return;
    }
    if (value.type() == VarType::MultiValue) {
        std::vector<Variable> results = value.multiValues();
        for (std::size_t t = 0; t < line.targets.size(); ++t)
            storeTarget(line.targets[t], keys[t].data(), keys[t].size(), t < results.size() ? results[t] : Variable());
        return;
    }
    for (std::size_t t = 0; t < line.targets.size(); ++t)
        storeTarget(line.targets[t], keys[t].data(), keys[t].size(), t == 0 ? value : Variable());
}

namespace {

// Applies a compound operator to the stored value itself where the kinds allow it.
void tryApplyOperationInPlace(Variable& target, char op, const Variable& value) {
    if (target.type() == VarType::Int && value.type() == VarType::Int) {
        auto a = static_cast<std::uint32_t>(target.asInt()), b = static_cast<std::uint32_t>(value.asInt());
        switch (op) {
        case '+': target.setIntUnchecked(static_cast<std::int32_t>(a + b)); return;
        case '-': target.setIntUnchecked(static_cast<std::int32_t>(a - b)); return;
        case '*': target.setIntUnchecked(static_cast<std::int32_t>(a * b)); return;
        default: break;
        }
    } else if (target.type() == VarType::Float && value.type() == VarType::Float) {
        switch (op) {
        case '+': target.setFloatUnchecked(target.asFloat() + value.asFloat()); return;
        case '-': target.setFloatUnchecked(target.asFloat() - value.asFloat()); return;
        case '*': target.setFloatUnchecked(target.asFloat() * value.asFloat()); return;
        default: break;
        }
    } else if (op == '+' && target.type() == VarType::String) {
        if (value.type() == VarType::String && value.stringObject() == target.stringObject()) {
            std::string copy = value.asString();
            target.mutableString() += copy;
        } else {
            value.appendTo(target.mutableString());
        }
        return;
    }
    target = performOperation(target, op, value);
}

}  // namespace

void Interpreter::executeCompound(const CompiledLine& line) {
    const LValue& target = line.targets.front();
    std::vector<Variable> keys;
    keys.reserve(target.keys.size());
    for (const FastExpression* key : target.keys) keys.push_back(eval(key));
    Variable value = eval(line.expr);
    Variable* slot = resolveVariablePtr(*target.name);
    if (!slot) fail("Variable not found: " + target.name->name);
    for (std::size_t i = 0; i < keys.size(); ++i) {
        Variable* inner = indexedSlot(*slot, keys[i]);
        if (!inner) {
            if (slot->type() != VarType::Array && slot->type() != VarType::Table)
                fail(std::string("Indexing requires an array, table, or string"));
            fail("Table key not found: " + keys[i].toString());
        }
        slot = inner;
    }
    errorToken = line.expr->token;
    tryApplyOperationInPlace(*slot, line.compoundOp, value);
}

bool Interpreter::startForIn(const CompiledLine& line, ForState& state) {
    Variable container = eval(line.expr);
    bool isContainer = container.type() == VarType::Array || container.type() == VarType::Table;
    switch (line.iterKind) {
    case IterKind::Pairs:
        if (!isContainer) fail("pairs(container) expects an array or table");
        break;
    case IterKind::IPairs:
        if (!isContainer) fail("ipairs(container) expects an array or table");
        break;
    case IterKind::Array:
        // An array is walked in order; a function (such as gmatch's iterator) is called once per
        // pass until it returns nothing.
        if (container.type() != VarType::Array && container.type() != VarType::Function)
            fail("generic for loops expect an array iterator");
        break;
    }
    state.keys.clear();
    if (line.iterKind == IterKind::Pairs && container.type() == VarType::Table) {
        // Keys are taken when the loop starts; values are read as the loop reaches them.
        const auto& entries = container.table().entries();
        state.keys.reserve(container.table().size());
        for (const Table::Entry& entry : entries)
            if (entry.key) state.keys.push_back(Variable::fromString(entry.key));
    }
    state.container = std::move(container);
    state.position = 0;
    state.active = true;
    return advanceForIn(line, state);
}

bool Interpreter::advanceForIn(const CompiledLine& line, ForState& state) {
    Variable key, value;
    const Variable& container = state.container;
    bool found = false;
    if (container.type() == VarType::Function) return advanceFunctionIterator(line, state);
    if (container.type() == VarType::Array) {
        const auto& items = container.arrayItems();
        std::size_t index = ++state.position;
        if (index <= items.size() && !(line.iterKind == IterKind::IPairs && items[index - 1].isNil())) {
            key = Variable(static_cast<std::int32_t>(index));
            value = items[index - 1];
            found = true;
        }
    } else if (line.iterKind == IterKind::Pairs) {
        while (state.position < state.keys.size()) {
            const Variable& candidate = state.keys[state.position++];
            if (Variable* current = container.table().find(candidate.stringObject())) {
                key = candidate;
                value = *current;
                found = true;
                break;
            }
        }
    } else {
        std::size_t index = ++state.position;
        if (Variable* current = container.table().find(std::to_string(index))) {
            key = Variable(static_cast<std::int32_t>(index));
            value = *current;
            found = true;
        }
    }
    if (!found) {
        state.active = false;
        state.container = Variable();
        state.keys.clear();
        return false;
    }
    const auto& targets = line.targets;
    if (line.iterKind == IterKind::Array && targets.size() == 1) {
        assignLoopVariable(targets[0], std::move(value));
        return true;
    }
    assignLoopVariable(targets[0], std::move(key));
    if (targets.size() > 1) assignLoopVariable(targets[1], std::move(value));
    for (std::size_t i = 2; i < targets.size(); ++i) assignLoopVariable(targets[i], Variable());
    return true;
}

bool Interpreter::advanceFunctionIterator(const CompiledLine& line, ForState& state) {
    static const std::vector<Variable> noArguments;
    Variable iterator = state.container;  // the call may end the loop's hold on it
    Variable result = call(iterator, noArguments);
    const Variable* values = &result;
    std::size_t count = 1;
    if (result.type() == VarType::MultiValue) {
        values = result.multiValues().data();
        count = result.multiValues().size();
    }
    if (count == 0 || values[0].isNil()) {
        state.active = false;
        state.container = Variable();
        return false;
    }
    const auto& targets = line.targets;
    for (std::size_t i = 0; i < targets.size(); ++i) assignLoopVariable(targets[i], i < count ? values[i] : Variable());
    return true;
}

// The rest of an integer for loop whose body is one scalar assignment to a local
// (sum = sum + a[i]), without a trip through the statement loop per line: the same steps in the
// same order as the statement loop takes them. The loop variable already holds the value of the
// iteration about to run. Returns true when the loop has ended. Returns false, with the loop
// variable holding the value of the iteration whose body is next, when the statement loop
// must go on: a value that is not scalar (the general evaluator decides, errors included), or a
// collection due.
bool Interpreter::runScalarLoop(Activation& activation, const CompiledLine& body, ForState& state, const LValue& loopTarget) {
    if (body.kind != StmtKind::AssignLocal || !body.expr->scalar) return false;
    const LValue& target = body.targets[0];
    Variable& slot = activation.slots[target.name->localSlot];
    if (target.scope != TargetScope::Local && slot.isUnset()) return false;
    Variable& loopVariable = activation.slots[loopTarget.name->localSlot];
    while (true) {
        const std::uint64_t bits = body.expr->scalar(*this, body.expr);
        if (bits == Variable::kNotScalar) return false;
        slot.setScalarBits(bits);
        state.current += state.step;
        if (!(state.step > 0 ? state.current <= state.stop : state.current >= state.stop)) {
            state.active = false;
            return true;
        }
        if (loopVariable.type() != VarType::Int) {
            assignLoopVariable(loopTarget, Variable(static_cast<std::int32_t>(state.current)));
            return false;
        }
        loopVariable.setIntUnchecked(static_cast<std::int32_t>(state.current));
        if (g_collectionDue) return false;
    }
}

void Interpreter::executeParsedBlock(Activation& activation) {
    FunctionProto& proto = *activation.proto;
    Chunk& chunk = *proto.chunk;
    const CompiledLine* lines = chunk.lines.data();
    std::int32_t pc = proto.bodyBegin;
    const std::int32_t end = proto.bodyEnd;
    while (true) {
        try {
            while (pc < end) {
                const CompiledLine& line = lines[pc];
                errorToken = -1;
                if (stepBudget | static_cast<std::uint64_t>(g_collectionDue)) [[unlikely]] {
                    if (stepBudget && ++steps > stepBudget) fail("Step budget exhausted");
                    // Between statements every value in use is held by a Variable: a safe point.
                    if (g_collectionDue) collectCycles();
                }
                switch (line.kind) {
                case StmtKind::Empty:
                case StmtKind::Nest: ++pc; break;
                case StmtKind::Error:
                    errorToken = line.errorToken;
                    fail(line.message);
                case StmtKind::Expression:
                    eval(line.expr);
                    ++pc;
                    break;
                case StmtKind::AssignLocal: {
                    const LValue& target = line.targets[0];
                    if (line.expr->scalar) {
                        Variable& slot = activation.slots[target.name->localSlot];
                        if (target.scope == TargetScope::Local || !slot.isUnset()) {
                            std::uint64_t bits = line.expr->scalar(*this, line.expr);
                            if (bits != Variable::kNotScalar) {
                                slot.setScalarBits(bits);
                                ++pc;
                                break;
                            }
                        }
                    }
                    if (line.appendsToItself) {
                        // s = s + e on an unshared string appends in place, like s += e.
                        Variable& slot = activation.slots[target.name->localSlot];
                        if (slot.type() == VarType::String) {
                            Variable addition = eval(line.expr->right);
                            Variable& current = activation.slots[target.name->localSlot];
                            if (current.type() == VarType::String) {
                                if (addition.type() == VarType::String && addition.stringObject() == current.stringObject()) {
                                    std::string copy = addition.asString();
                                    current.mutableString() += copy;
                                } else {
                                    addition.appendTo(current.mutableString());
                                }
                                ++pc;
                                break;
                            }
                            Variable left = current;
                            errorToken = line.expr->token;
                            Variable result = performOperation(left, '+', addition);
                            assignLoopVariable(target, std::move(result));
                            ++pc;
                            break;
                        }
                    }
                    Variable value = eval(line.expr);
                    Variable& slot = activation.slots[target.name->localSlot];
                    if (target.scope == TargetScope::Local || !slot.isUnset()) {
                        slot = std::move(value);
                    } else {
                        assignVariable(*target.name, target.scope, std::move(value));
                    }
                    ++pc;
                    break;
                }
                case StmtKind::Assign:
                    executeAssignment(line);
                    ++pc;
                    break;
                case StmtKind::Compound:
                    executeCompound(line);
                    ++pc;
                    break;
                case StmtKind::Declare:
                    for (const LValue& target : line.targets) assignVariable(*target.name, target.scope, Variable());
                    ++pc;
                    break;
                case StmtKind::If: {
                    if (line.endIndex < 0) fail("Missing 'end' for if block");
                    std::int32_t branch = pc;
                    while (true) {
                        const CompiledLine& b = lines[branch];
                        if (b.kind == StmtKind::Else) {
                            pc = branch + 1;
                            break;
                        }
                        if (b.kind == StmtKind::Error) {
                            pc = branch;
                            errorToken = b.errorToken;
                            fail(b.message);
                        }
                        pc = branch;
                        if (evalCondition(b.expr)) {
                            pc = branch + 1;
                            break;
                        }
                        if (b.jump >= 0) {
                            branch = b.jump;
                        } else {
                            pc = line.endIndex + 1;
                            break;
                        }
                    }
                    break;
                }
                case StmtKind::ElseIf:
                case StmtKind::Else:
                    // Reached by finishing the previous branch: skip to the end of the if.
                    if (line.endIndex < 0) fail("Missing 'end' for if block");
                    pc = line.endIndex + 1;
                    break;
                case StmtKind::End: {
                    if (line.opener < 0) fail("Unexpected 'end' without an open block");
                    const CompiledLine& opener = lines[line.opener];
                    if (opener.kind == StmtKind::While) {
                        pc = line.opener;
                    } else if (opener.kind == StmtKind::ForNumeric) {
                        ForState& state = activation.loops[opener.loopSlot];
                        if (!state.active) {
                            ++pc;
                            break;
                        }
                        bool more;
                        if (state.isInt) {
                            state.current += state.step;
                            more = state.step > 0 ? state.current <= state.stop : state.current >= state.stop;
                        } else {
                            state.currentF += state.stepF;
                            more = state.stepF > 0 ? state.currentF <= state.stopF : state.currentF >= state.stopF;
                        }
                        if (!more) {
                            state.active = false;
                            ++pc;
                            break;
                        }
                        const LValue& target = opener.targets[0];
                        if (target.scope == TargetScope::Plain && target.name->localSlot >= 0) {
                            Variable& slot = activation.slots[target.name->localSlot];
                            if (state.isInt && slot.type() == VarType::Int) {
                                slot.setIntUnchecked(static_cast<std::int32_t>(state.current));
                                // A body of one line may run its remaining iterations at once.
                                const bool oneLineBody = pc == line.opener + 2;
                                if (oneLineBody && !stepBudget && runScalarLoop(activation, lines[line.opener + 1], state, target)) {
                                    ++pc;
                                } else {
                                    pc = line.opener + 1;
                                }
                                break;
                            }
                        }
                        assignLoopVariable(target, state.isInt ? Variable(static_cast<std::int32_t>(state.current))
                                                               : Variable(state.currentF));
                        pc = line.opener + 1;
                    } else if (opener.kind == StmtKind::ForIn) {
                        ForState& state = activation.loops[opener.loopSlot];
                        pc = state.active && advanceForIn(opener, state) ? line.opener + 1 : pc + 1;
                    } else {
                        ++pc;
                    }
                    break;
                }
                case StmtKind::While:
                    if (line.endIndex < 0) fail("Missing 'end' for while block");
                    pc = evalCondition(line.expr) ? pc + 1 : line.endIndex + 1;
                    break;
                case StmtKind::Repeat:
                    if (line.endIndex < 0) fail("Missing 'until' for repeat block");
                    ++pc;
                    break;
                case StmtKind::Until:
                    if (line.opener < 0) fail("Unexpected 'until' without a repeat block");
                    pc = evalCondition(line.expr) ? pc + 1 : line.opener + 1;
                    break;
                case StmtKind::ForNumeric: {
                    if (line.endIndex < 0) fail("Missing 'end' for block");
                    Variable start = eval(line.expr);
                    Variable stop = eval(line.stop);
                    Variable step = line.step ? eval(line.step) : Variable(1);
                    if (!start.isNumericLike()) fail("for loop start value must be numeric");
                    if (!stop.isNumericLike()) fail("for loop stop value must be numeric");
                    if (!step.isNumericLike()) fail("for loop step must be numeric");
                    ForState& state = activation.loops[line.loopSlot];
                    state.isInt = start.type() != VarType::Float && stop.type() != VarType::Float &&
                                  step.type() != VarType::Float;
                    bool enter;
                    if (state.isInt) {
                        state.current = static_cast<std::int32_t>(numberOf(start));
                        state.stop = static_cast<std::int32_t>(numberOf(stop));
                        state.step = static_cast<std::int32_t>(numberOf(step));
                        if (state.step == 0) fail("for loop step must not be 0");
                        enter = state.step > 0 ? state.current <= state.stop : state.current >= state.stop;
                    } else {
                        state.currentF = numberOf(start);
                        state.stopF = numberOf(stop);
                        state.stepF = numberOf(step);
                        if (state.stepF == 0) fail("for loop step must not be 0");
                        enter = state.stepF > 0 ? state.currentF <= state.stopF : state.currentF >= state.stopF;
                    }
                    if (!enter) {
                        state.active = false;
                        pc = line.endIndex + 1;
                        break;
                    }
                    state.active = true;
                    assignLoopVariable(line.targets[0], state.isInt ? Variable(static_cast<std::int32_t>(state.current))
                                                                    : Variable(state.currentF));
                    ++pc;
                    break;
                }
                case StmtKind::ForIn: {
                    if (line.endIndex < 0) fail("Missing 'end' for block");
                    ForState& state = activation.loops[line.loopSlot];
                    pc = startForIn(line, state) ? pc + 1 : line.endIndex + 1;
                    break;
                }
                case StmtKind::FunctionDecl: {
                    if (!line.proto || line.targets.empty()) fail("Missing 'end' for block");
                    auto* callable = new ScriptCallable;
                    callable->kind = ScriptCallable::Kind::Script;
                    callable->name = line.proto->name;
                    callable->proto = std::shared_ptr<FunctionProto>(chunk.shared_from_this(), line.proto);
                    Variable function = Variable::makeFunction(callable);
                    const LValue& target = line.targets[0];
                    if (target.keys.empty()) {
                        assignVariable(*target.name, target.scope, std::move(function));
                    } else {
                        std::vector<Variable> keys;
                        for (const FastExpression* key : target.keys) keys.push_back(eval(key));
                        storeTarget(target, keys.data(), keys.size(), std::move(function));
                    }
                    pc = line.endIndex + 1;
                    break;
                }
                case StmtKind::Return:
                    returnValue = line.expr ? eval(line.expr) : Variable();
                    return;
                case StmtKind::Break: {
                    if (line.breakTarget < 0) fail("break used outside a loop");
                    const CompiledLine& closing = lines[line.breakTarget];
                    if (closing.opener >= 0 && lines[closing.opener].loopSlot >= 0) {
                        ForState& state = activation.loops[lines[closing.opener].loopSlot];
                        state.active = false;
                        state.container = Variable();
                        state.keys.clear();
                    }
                    pc = line.breakTarget + 1;
                    break;
                }
                }
            }
            returnValue = Variable();
            return;
        } catch (ScriptError& error) {
            if (!error.located()) {
                const ParsedScriptLine& parsed = chunk.parsed.lines[static_cast<std::size_t>(pc)];
                std::int32_t token = error.tokenIndex() >= 0 ? error.tokenIndex() : errorToken;
                std::int32_t column = -1;
                std::string tokenText;
                if (token >= 0 && static_cast<std::size_t>(token) < parsed.tokens.size()) {
                    column = static_cast<std::int32_t>(parsed.columns[static_cast<std::size_t>(token)]);
                    tokenText = parsed.tokens[static_cast<std::size_t>(token)];
                } else if (!parsed.columns.empty()) {
                    column = static_cast<std::int32_t>(parsed.columns[0]);
                }
                error.locate(parsed.sourceLine, formatReport(chunk, parsed.sourceLine, column, tokenText, error.what()));
            }
            throw;
        } catch (JumpRequest& jump) {
            auto label = proto.labels.find(jump.label);
            if (label == proto.labels.end()) {
                ScriptError error("jumpTo(label): no nest label '" + jump.label + "' in this function");
                const ParsedScriptLine& parsed = chunk.parsed.lines[static_cast<std::size_t>(pc)];
                error.locate(parsed.sourceLine, formatReport(chunk, parsed.sourceLine,
                                                             parsed.columns.empty() ? -1 : static_cast<std::int32_t>(parsed.columns[0]),
                                                             "", error.what()));
                throw error;
            }
            pc = label->second + 1;
        }
    }
}

std::string Interpreter::formatReport(const Chunk& chunk, std::int32_t sourceLine, std::int32_t column,
                                      const std::string& token, const std::string& message) const {
    std::string report = "KorvelScript error: " + message + "\n  at ";
    if (chunk.parsed.name.empty()) {
        report += "line " + std::to_string(sourceLine);
    } else {
        report += chunk.parsed.name + ":" + std::to_string(sourceLine);
    }
    if (!token.empty()) report += ", near token '" + (token.size() > 60 ? token.substr(0, 60) + "..." : token) + "'";
    report += '\n';
    std::string text;
    if (sourceLine >= 1 && static_cast<std::size_t>(sourceLine) <= chunk.parsed.sourceLines.size())
        text = chunk.parsed.sourceLines[static_cast<std::size_t>(sourceLine - 1)];
    // A very long line is shown as a window around the failing column.
    constexpr std::size_t kShownWidth = 160;
    if (text.size() > kShownWidth) {
        std::size_t at = column >= 0 ? static_cast<std::size_t>(column) : 0;
        std::size_t start = at > kShownWidth / 2 ? at - kShownWidth / 2 : 0;
        std::string window = (start > 0 ? "..." : "") + text.substr(start, kShownWidth) +
                             (start + kShownWidth < text.size() ? "..." : "");
        if (column >= 0) column = static_cast<std::int32_t>(at - start + (start > 0 ? 3 : 0));
        text = std::move(window);
    }
    report += "  " + text + "\n  ";
    if (column >= 0) report.append(static_cast<std::size_t>(column), ' ');
    report += "^\n  hint: check spelling, operators, parentheses, and quote matching\n";
    return report;
}

}  // namespace korvel
