// Bytecode images ("KSBC"): the parsed lines (for reports), the function records and every
// compiled statement and expression tree of a chunk.
//
// Layout, little-endian: "KSBC", u32 format version, u32 checksum (FNV-1a of everything after
// the header), then the chunk: source name and directory, the physical source lines, the
// logical lines (tokens, token columns, physical line number), the function records (name,
// parameter count, slot names), the name references, the expression nodes (children always
// before their parents) and one statement record per logical line.
//
// Loading trusts nothing it can check: block links, function bodies, loop numbers and break
// targets are rebuilt from the lines as the compiler builds them; every index, slot, kind and
// tree shape in the statements is validated, and trees too deep to evaluate safely are refused,
// all before the program can run.
#include "core/bytecode_internal.h"

#include "core/byte_stream.h"
#include "core/korvel_script.h"

#include <algorithm>
#include <unordered_map>

namespace korvel {

namespace {

constexpr char kMagic[4] = {'K', 'S', 'B', 'C'};
constexpr std::uint32_t kFormatVersion = 1;
constexpr std::size_t kHeaderSize = kFileHeaderSize;
// How deep an image's expression may make the evaluator recurse; the compiler's own limits
// stay far below it.
constexpr std::uint32_t kMaxEvaluationDepth = 4096;

enum class ConstantTag : std::uint8_t { Nil, Int, Float, String, Bool, Pointer };

bool isBinary(Op op) { return op >= Op::Or && op <= Op::Pentation; }
bool isUnary(Op op) { return op >= Op::Neg && op <= Op::Plus; }

// ---------------------------------------------------------------- writing

class ChunkWriter {
public:
    ChunkWriter(ByteWriter& out, const Chunk& chunk) : m_out(out), m_chunk(chunk) {}

    void write() {
        const ParsedScript& parsed = m_chunk.parsed;
        m_out.text(parsed.name);
        m_out.text(parsed.directory);
        m_out.varint(parsed.sourceLines.size());
        for (const std::string& line : parsed.sourceLines) m_out.text(line);
        m_out.varint(parsed.lines.size());
        for (const ParsedScriptLine& line : parsed.lines) {
            m_out.svarint(line.sourceLine);
            m_out.varint(line.tokens.size());
            std::string_view physical;
            if (line.sourceLine >= 1 && static_cast<std::size_t>(line.sourceLine) <= parsed.sourceLines.size())
                physical = parsed.sourceLines[static_cast<std::size_t>(line.sourceLine - 1)];
            for (std::size_t k = 0; k < line.tokens.size(); ++k) {
                std::uint32_t column = k < line.columns.size() ? line.columns[k] : 0;
                m_out.varint(column);
                // Most tokens are their source text at their column: then only the length.
                const std::string& token = line.tokens[k];
                bool verbatim = column <= physical.size() && physical.substr(column, token.size()) == token;
                m_out.varint(token.size() * 2 + (verbatim ? 1 : 0));
                if (!verbatim) m_out.raw(token.data(), token.size());
            }
        }
        m_out.varint(m_chunk.protos.size());
        for (const auto& proto : m_chunk.protos) {
            m_out.text(proto->name);
            m_out.varint(static_cast<std::uint64_t>(proto->paramCount));
            m_out.varint(proto->slotNames.size());
            for (const std::string& slot : proto->slotNames) m_out.text(slot);
        }
        numberEverything();
        m_out.varint(m_names.size());
        for (const NameRef* name : m_names) {
            m_out.text(name->name);
            m_out.svarint(name->scope);
            m_out.svarint(name->localSlot);
        }
        m_out.varint(m_nodes.size());
        for (const FastExpression* node : m_nodes) writeNode(*node);
        for (const CompiledLine& line : m_chunk.lines) writeLine(line);
    }

private:
    // Names in order of first use; nodes in post-order (children first), walked without
    // recursion because operator chains can be very long.
    void numberEverything() {
        for (const CompiledLine& line : m_chunk.lines) {
            for (const FastExpression* root : {line.expr, line.stop, line.step}) numberTree(root);
            for (const LValue& target : line.targets) {
                numberName(target.name);
                for (const FastExpression* key : target.keys) numberTree(key);
            }
        }
    }

    // References to the same name in the same way share one record.
    void numberName(const NameRef* name) {
        if (!name || m_nameIndex.count(name)) return;
        std::string key = name->name + '\0' + std::to_string(name->scope) + '\0' + std::to_string(name->localSlot);
        auto [found, added] = m_sameName.emplace(std::move(key), m_names.size());
        if (added) m_names.push_back(name);
        m_nameIndex.emplace(name, found->second);
    }

    void numberTree(const FastExpression* root) {
        if (!root || m_nodeIndex.count(root)) return;
        struct Visit {
            const FastExpression* node;
            std::size_t next;  // which child to visit next
        };
        std::vector<Visit> stack{{root, 0}};
        while (!stack.empty()) {
            Visit& visit = stack.back();
            const FastExpression* child = childAt(*visit.node, visit.next);
            if (visit.next < childCount(*visit.node)) {
                ++visit.next;
                if (child && !m_nodeIndex.count(child)) stack.push_back({child, 0});
                continue;
            }
            const FastExpression* done = visit.node;
            stack.pop_back();
            if (m_nodeIndex.count(done)) continue;
            numberName(done->name);
            m_nodeIndex.emplace(done, m_nodes.size());
            m_nodes.push_back(done);
        }
    }

    static std::size_t childCount(const FastExpression& node) { return 2 + node.items.size(); }
    static const FastExpression* childAt(const FastExpression& node, std::size_t i) {
        if (i == 0) return node.left;
        if (i == 1) return node.right;
        return i - 2 < node.items.size() ? node.items[i - 2] : nullptr;
    }

    void reference(const FastExpression* node) { m_out.varint(node ? m_nodeIndex.at(node) + 1 : 0); }

    void writeConstant(const Variable& value) {
        switch (value.type()) {
        case VarType::Nil: m_out.u8(static_cast<std::uint8_t>(ConstantTag::Nil)); break;
        case VarType::Int:
            m_out.u8(static_cast<std::uint8_t>(ConstantTag::Int));
            m_out.svarint(value.asInt());
            break;
        case VarType::Float: {
            m_out.u8(static_cast<std::uint8_t>(ConstantTag::Float));
            float f = value.asFloat();
            std::uint32_t bits = 0;
            std::memcpy(&bits, &f, sizeof bits);
            m_out.u32(bits);
            break;
        }
        case VarType::String:
            m_out.u8(static_cast<std::uint8_t>(ConstantTag::String));
            m_out.text(value.asString());
            break;
        case VarType::Bool:
            m_out.u8(static_cast<std::uint8_t>(ConstantTag::Bool));
            m_out.u8(value.asBool() ? 1 : 0);
            break;
        case VarType::Pointer:
            m_out.u8(static_cast<std::uint8_t>(ConstantTag::Pointer));
            m_out.u64(reinterpret_cast<std::uintptr_t>(value.asPointer()));
            break;
        default: throw ScriptError("Cannot store a constant of kind " + std::string(typeName(value.type())) + " in bytecode");
        }
    }

    void writeNode(const FastExpression& node) {
        m_out.u8(static_cast<std::uint8_t>(node.op));
        m_out.svarint(node.token);
        m_out.varint(node.name ? m_nameIndex.at(node.name) + 1 : 0);
        reference(node.left);
        reference(node.right);
        m_out.varint(node.items.size());
        for (const FastExpression* item : node.items) reference(item);
        m_out.varint(node.keys.size());
        for (const StringObject* key : node.keys) {
            m_out.u8(key ? 1 : 0);
            if (key) m_out.text(key->text);
        }
        writeConstant(node.constant);
    }

    void writeLine(const CompiledLine& line) {
        m_out.u8(static_cast<std::uint8_t>(line.kind));
        m_out.svarint(line.errorToken);
        m_out.text(line.message);
        reference(line.expr);
        reference(line.stop);
        reference(line.step);
        m_out.u8(static_cast<std::uint8_t>(line.compoundOp));
        m_out.u8(line.appendsToItself ? 1 : 0);
        m_out.u8(static_cast<std::uint8_t>(line.iterKind));
        m_out.varint(line.targets.size());
        for (const LValue& target : line.targets) {
            m_out.varint(target.name ? m_nameIndex.at(target.name) + 1 : 0);
            m_out.u8(static_cast<std::uint8_t>(target.scope));
            m_out.varint(target.keys.size());
            for (const FastExpression* key : target.keys) reference(key);
        }
    }

    ByteWriter& m_out;
    const Chunk& m_chunk;
    std::vector<const NameRef*> m_names;
    std::unordered_map<const NameRef*, std::size_t> m_nameIndex;
    std::unordered_map<std::string, std::size_t> m_sameName;
    std::vector<const FastExpression*> m_nodes;
    std::unordered_map<const FastExpression*, std::size_t> m_nodeIndex;
};

// ---------------------------------------------------------------- reading

[[noreturn]] void refuse(const std::string& what) { throw ByteReadError{what}; }

class ChunkReader {
public:
    ChunkReader(Interpreter& vm, ByteReader& in) : m_vm(vm), m_in(in) {}

    std::shared_ptr<Chunk> read() {
        m_chunk = std::make_shared<Chunk>();
        readParsedLines();
        m_owner = buildChunkStructure(m_vm, *m_chunk);
        readProtos();
        readNames();
        readNodes();
        readLines();
        finish();
        return m_chunk;
    }

private:
    void readParsedLines() {
        ParsedScript& parsed = m_chunk->parsed;
        parsed.name = m_in.text();
        parsed.directory = m_in.text();
        std::size_t sourceCount = m_in.count(1, "source line");
        parsed.sourceLines.reserve(sourceCount);
        for (std::size_t i = 0; i < sourceCount; ++i) parsed.sourceLines.emplace_back(m_in.textView());
        std::size_t lineCount = m_in.count(2, "line");
        if (lineCount > static_cast<std::size_t>(INT32_MAX / 2)) refuse("too many lines");
        parsed.lines.resize(lineCount);
        for (ParsedScriptLine& line : parsed.lines) {
            line.sourceLine = m_in.ranged(0, INT32_MAX, "source line number");
            std::string_view physical;
            if (line.sourceLine >= 1 && static_cast<std::size_t>(line.sourceLine) <= parsed.sourceLines.size())
                physical = parsed.sourceLines[static_cast<std::size_t>(line.sourceLine - 1)];
            std::size_t tokenCount = m_in.count(2, "token");
            // Sized once from the checked count; each token is made once, in place.
            line.tokens.reserve(tokenCount);
            line.columns.resize(tokenCount);
            for (std::size_t k = 0; k < tokenCount; ++k) {
                std::uint64_t column = m_in.varint();
                if (column > INT32_MAX) refuse("token column out of range");
                line.columns[k] = static_cast<std::uint32_t>(column);
                std::uint64_t lengthAndFlag = m_in.varint();
                std::uint64_t length = lengthAndFlag >> 1;
                if (lengthAndFlag & 1) {
                    if (column > physical.size() || length > physical.size() - column) refuse("token outside its line");
                    line.tokens.emplace_back(physical.data() + column, static_cast<std::size_t>(length));
                } else {
                    if (length > m_in.remaining()) refuse("truncated");
                    line.tokens.emplace_back(m_in.view(static_cast<std::size_t>(length)));
                }
            }
        }
        // Kinds and block links come from the tokens, exactly as when the source is parsed.
        prepareParsedLines(parsed.lines);
    }

    void readProtos() {
        std::size_t count = m_in.count(3, "function record");
        if (count != m_chunk->protos.size()) refuse("function records do not match the program's functions");
        for (auto& proto : m_chunk->protos) {
            proto->name = m_in.text();
            std::uint64_t params = m_in.varint();
            std::size_t slots = m_in.count(1, "slot");
            if (params > slots) refuse("more parameters than slots");
            proto->paramCount = static_cast<std::int32_t>(params);
            proto->slotNames.reserve(slots);
            for (std::size_t i = 0; i < slots; ++i) {
                proto->slotNames.push_back(m_in.text());
                proto->slotIndex.emplace(proto->slotNames.back(), static_cast<std::int32_t>(i));
            }
        }
    }

    void readNames() {
        std::size_t count = m_in.count(3, "name");
        for (std::size_t i = 0; i < count; ++i) {
            NameRef& name = m_chunk->names.emplace_back();
            name.name = m_in.text();
            name.scope = m_in.ranged(-1, INT32_MAX, "name scope");
            name.localSlot = m_in.ranged(-1, INT32_MAX - 1, "local slot");
            m_nameList.push_back(&name);
        }
    }

    NameRef* nameAt(std::uint64_t reference) {
        if (reference == 0) return nullptr;
        if (reference > m_nameList.size()) refuse("name reference out of range");
        return m_nameList[reference - 1];
    }

    // A reference to an already read node (0 for none).
    FastExpression* nodeAt(std::uint64_t reference, std::size_t limit) {
        if (reference == 0) return nullptr;
        if (reference > limit) refuse("expression reference out of range");
        return m_nodeList[reference - 1];
    }
    // A child of the node being read; its index is kept for measuring.
    FastExpression* readReference(std::size_t limit) {
        std::uint64_t reference = m_in.varint();
        FastExpression* node = nodeAt(reference, limit);
        if (node) m_children.push_back(static_cast<std::size_t>(reference - 1));
        return node;
    }
    // A statement's expression: checked against the slots of the function running it.
    FastExpression* readRoot(std::size_t slots) {
        std::uint64_t reference = m_in.varint();
        FastExpression* node = nodeAt(reference, m_nodeList.size());
        if (node && m_maxSlot[reference - 1] >= static_cast<std::int32_t>(slots)) refuse("local slot out of range");
        return node;
    }

    StringObject* key(std::string_view text) {
        StringObject* object = m_vm.internString(text);
        m_chunk->ownedKeys.push_back(object);
        return object;
    }

    Variable readConstant() {
        switch (static_cast<ConstantTag>(m_in.u8())) {
        case ConstantTag::Nil: return Variable();
        case ConstantTag::Int: return Variable(m_in.ranged(INT32_MIN, INT32_MAX, "integer constant"));
        case ConstantTag::Float: {
            std::uint32_t bits = m_in.u32();
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            return Variable(value);
        }
        case ConstantTag::String: return Variable::fromString(key(m_in.text()));
        case ConstantTag::Bool: {
            std::uint8_t value = m_in.u8();
            if (value > 1) refuse("bad boolean constant");
            return Variable(value == 1);
        }
        case ConstantTag::Pointer: return Variable::fromPointer(reinterpret_cast<void*>(static_cast<std::uintptr_t>(m_in.u64())));
        }
        refuse("unknown constant kind");
    }

    void readNodes() {
        std::size_t count = m_in.count(8, "expression node");
        m_nodeList.reserve(count);
        m_cost.reserve(count);
        m_chainCost.reserve(count);
        m_maxSlot.reserve(count);
        for (std::size_t i = 0; i < count; ++i) {
            FastExpression& node = m_chunk->nodes.emplace_back();
            std::uint8_t op = m_in.u8();
            if (op > static_cast<std::uint8_t>(Op::Call)) refuse("unknown expression kind");
            node.op = static_cast<Op>(op);
            node.token = m_in.ranged(-1, INT32_MAX, "token index");
            node.name = nameAt(m_in.varint());
            m_children.clear();
            node.left = readReference(i);
            node.right = readReference(i);
            std::size_t items = m_in.count(1, "expression item");
            node.items.reserve(items);
            for (std::size_t k = 0; k < items; ++k) node.items.push_back(readReference(i));
            std::size_t keys = m_in.count(1, "table key");
            node.keys.reserve(keys);
            for (std::size_t k = 0; k < keys; ++k) node.keys.push_back(m_in.u8() ? key(m_in.text()) : nullptr);
            node.constant = readConstant();
            checkShape(node);
            measure(node);
            m_nodeList.push_back(&node);
        }
    }

    void checkShape(FastExpression& node) {
        for (const FastExpression* item : node.items)
            if (!item) refuse("missing expression item");
        bool named = node.name != nullptr;
        bool ok = true;
        switch (node.op) {
        case Op::Const:
            ok = !named && !node.left && !node.right && node.items.empty() && node.keys.empty();
            node.constantBits = node.constant.scalarBits();
            break;
        case Op::Local:
            ok = named && node.name->scope == -1 && node.name->localSlot >= 0;
            break;
        case Op::Global: ok = named && node.name->scope == -1 && node.name->localSlot < 0; break;
        case Op::ScopedName: ok = named && node.name->scope != -1; break;
        case Op::ArrayLiteral: ok = !node.left && !node.right && node.keys.empty(); break;
        case Op::TableLiteral: {
            std::size_t wanted = 0;
            for (const StringObject* key : node.keys) wanted += key ? 1 : 2;
            ok = wanted == node.items.size() && !node.left && !node.right;
            break;
        }
        case Op::Index: ok = node.left && node.right; break;
        case Op::IndexKey: ok = node.left && node.constant.type() == VarType::String; break;
        case Op::Call: ok = node.left != nullptr; break;
        default:
            if (isBinary(node.op)) ok = node.left && node.right;
            else if (isUnary(node.op)) ok = node.left != nullptr;
            break;
        }
        if (!ok) refuse("malformed expression");
    }

    // Height as the compiler gives it, how deep evaluating the node recurses, and the highest
    // local slot the tree reads.
    void measure(FastExpression& node) {
        std::uint32_t height = 0, cost = 0;
        std::int32_t maxSlot = node.name ? node.name->localSlot : -1;
        for (std::size_t index : m_children) {
            height = std::max(height, m_nodeList[index]->height);
            cost = std::max(cost, m_cost[index]);
            maxSlot = std::max(maxSlot, m_maxSlot[index]);
        }
        node.height = height + 1;
        std::uint32_t chainCost = 0;
        if (isChainOperator(node.op) && node.height > kChainHeight) {
            // Walked in a loop: the left spine adds no depth. Binary nodes read left, then right.
            std::size_t left = m_children[0], right = m_children[1];
            bool leftChains = isChainOperator(node.left->op) && node.left->height > kChainHeight;
            chainCost = std::max(leftChains ? m_chainCost[left] : m_cost[left], m_cost[right]);
            cost = chainCost;
        }
        ++cost;
        if (cost > kMaxEvaluationDepth) refuse("expression too deep");
        m_cost.push_back(cost);
        m_chainCost.push_back(chainCost);
        m_maxSlot.push_back(maxSlot);
    }

    static bool statementFits(StmtKind kind, LineKind line) {
        if (kind == StmtKind::Error) return true;
        switch (line) {
        case LineKind::Statement:
            return kind == StmtKind::Empty || kind == StmtKind::Expression || kind == StmtKind::Assign ||
                   kind == StmtKind::AssignLocal || kind == StmtKind::Compound || kind == StmtKind::Declare;
        case LineKind::If: return kind == StmtKind::If;
        case LineKind::ElseIf: return kind == StmtKind::ElseIf;
        case LineKind::Else: return kind == StmtKind::Else;
        case LineKind::End: return kind == StmtKind::End;
        case LineKind::While: return kind == StmtKind::While;
        case LineKind::Repeat: return kind == StmtKind::Repeat;
        case LineKind::Until: return kind == StmtKind::Until;
        case LineKind::For: return kind == StmtKind::ForNumeric || kind == StmtKind::ForIn;
        case LineKind::Return: return kind == StmtKind::Return;
        case LineKind::Break: return kind == StmtKind::Break;
        case LineKind::Nest: return kind == StmtKind::Nest;
        default: return isFunctionKind(line) && kind == StmtKind::FunctionDecl;
        }
    }

    void readLines() {
        for (std::size_t i = 0; i < m_chunk->lines.size(); ++i) {
            CompiledLine& line = m_chunk->lines[i];
            const FunctionProto* owner = m_owner[i];
            std::size_t slots = owner ? owner->slotNames.size() : 0;
            std::uint8_t kind = m_in.u8();
            if (kind > static_cast<std::uint8_t>(StmtKind::Nest)) refuse("unknown statement kind");
            line.kind = static_cast<StmtKind>(kind);
            line.errorToken = m_in.ranged(-1, INT32_MAX, "token index");
            line.message = m_in.text();
            line.expr = readRoot(slots);
            line.stop = readRoot(slots);
            line.step = readRoot(slots);
            line.compoundOp = static_cast<char>(m_in.u8());
            std::uint8_t appends = m_in.u8();
            std::uint8_t iterKind = m_in.u8();
            if (appends > 1 || iterKind > static_cast<std::uint8_t>(IterKind::Array)) refuse("bad statement flags");
            line.appendsToItself = appends == 1;
            line.iterKind = static_cast<IterKind>(iterKind);
            std::size_t targets = m_in.count(3, "target");
            for (std::size_t t = 0; t < targets; ++t) {
                LValue& target = line.targets.emplace_back();
                target.name = nameAt(m_in.varint());
                std::uint8_t scope = m_in.u8();
                if (!target.name || scope > static_cast<std::uint8_t>(TargetScope::Decay)) refuse("bad assignment target");
                target.scope = static_cast<TargetScope>(scope);
                // A plain target without a scope suffix may fall back to its global slot.
                if (target.scope == TargetScope::Plain && target.name->scope != -1) refuse("bad assignment target");
                std::size_t keys = m_in.count(1, "target key");
                for (std::size_t k = 0; k < keys; ++k) {
                    FastExpression* key = readRoot(slots);
                    if (!key) refuse("missing target key");
                    target.keys.push_back(key);
                }
            }
            checkLine(line, slots);
        }
    }

    void checkLine(const CompiledLine& line, std::size_t slots) {
        if (!statementFits(line.kind, line.lineKind)) refuse("statement does not fit its line");
        for (const LValue& target : line.targets)
            if (target.name->localSlot >= static_cast<std::int32_t>(slots)) refuse("local slot out of range");
        bool ok = true;
        switch (line.kind) {
        case StmtKind::Expression:
        case StmtKind::If:
        case StmtKind::ElseIf:
        case StmtKind::While:
        case StmtKind::Until: ok = line.expr != nullptr; break;
        case StmtKind::Assign: ok = line.expr && !line.targets.empty(); break;
        case StmtKind::AssignLocal: {
            const LValue* target = line.targets.size() == 1 ? &line.targets[0] : nullptr;
            ok = line.expr && target && target->keys.empty() && target->name->localSlot >= 0 &&
                 (target->scope == TargetScope::Plain || target->scope == TargetScope::Local);
            if (ok && line.appendsToItself)
                ok = line.expr->op == Op::Add && line.expr->left->op == Op::Local &&
                     line.expr->left->name->localSlot == target->name->localSlot;
            break;
        }
        case StmtKind::Compound:
            ok = line.expr && !line.targets.empty() && line.compoundOp != 0 &&
                 std::string_view("+-*/\\%^").find(line.compoundOp) != std::string_view::npos;
            break;
        case StmtKind::Declare: ok = !line.targets.empty(); break;
        case StmtKind::ForNumeric: ok = line.expr && line.stop && line.targets.size() == 1 && line.loopSlot >= 0; break;
        case StmtKind::ForIn: ok = line.expr && !line.targets.empty() && line.loopSlot >= 0; break;
        case StmtKind::FunctionDecl: ok = line.proto ? line.targets.size() == 1 : true; break;
        default: break;
        }
        if (line.kind != StmtKind::AssignLocal && line.appendsToItself) ok = false;
        if (!ok) refuse("malformed statement");
    }

    // Only now, with everything checked, does the image touch the interpreter's globals.
    void finish() {
        for (NameRef* name : m_nameList)
            if (name->scope == -1 || name->scope == 1) name->globalSlot = m_vm.globalSlot(name->name);
        // The compiler gives scalar functions to the trees of every statement but function
        // declarations. When those hold nothing but constants ("function a.b()"), for which
        // there is nothing to give, every other node is in a statement's tree (or in none,
        // and never runs), and one pass in the image's order does the same work.
        bool declarationTrees = false;
        for (const CompiledLine& line : m_chunk->lines) {
            if (!(isFunctionKind(line.lineKind) && line.proto)) continue;
            if (line.expr || line.stop || line.step) declarationTrees = true;
            for (const LValue& target : line.targets)
                for (const FastExpression* key : target.keys)
                    if (key->op != Op::Const) declarationTrees = true;
        }
        if (!declarationTrees) {
            assignScalarFunctionsInOrder(m_nodeList);
            return;
        }
        for (CompiledLine& line : m_chunk->lines) {
            if (isFunctionKind(line.lineKind) && line.proto) continue;
            assignScalarFunctions(line.expr);
            assignScalarFunctions(line.stop);
            assignScalarFunctions(line.step);
            for (LValue& target : line.targets)
                for (FastExpression* key : target.keys) assignScalarFunctions(key);
        }
    }

    Interpreter& m_vm;
    ByteReader& m_in;
    std::shared_ptr<Chunk> m_chunk;
    std::vector<FunctionProto*> m_owner;
    std::vector<NameRef*> m_nameList;
    std::vector<FastExpression*> m_nodeList;
    std::vector<std::size_t> m_children;  // indices of the children of the node being read
    std::vector<std::uint32_t> m_cost;
    std::vector<std::uint32_t> m_chainCost;
    std::vector<std::int32_t> m_maxSlot;
};

}  // namespace

void writeChunkBytes(ByteWriter& out, const Chunk& chunk) { ChunkWriter(out, chunk).write(); }

std::shared_ptr<Chunk> readChunkBytes(Interpreter& vm, ByteReader& in) { return ChunkReader(vm, in).read(); }

std::vector<std::uint8_t> encodeBytecodeImage(const Chunk& chunk) {
    ByteWriter out;
    out.raw(kMagic, sizeof kMagic);
    out.u32(kFormatVersion);
    out.u32(0);  // the checksum, filled in below
    writeChunkBytes(out, chunk);
    std::vector<std::uint8_t>& bytes = out.bytes();
    sealChecksum(bytes);
    return std::move(bytes);
}

std::shared_ptr<Chunk> decodeBytecodeImage(Interpreter& vm, const std::uint8_t* data, std::size_t size) {
    auto invalid = [](const std::string& why) { return ScriptError("Invalid bytecode image: " + why); };
    if (size < kHeaderSize || std::memcmp(data, kMagic, sizeof kMagic) != 0) throw invalid("not a KSBC image");
    ByteReader header(data + 4, kHeaderSize - 4);
    std::uint32_t version = header.u32();
    if (version != kFormatVersion)
        throw invalid("format version " + std::to_string(version) + " (this engine reads version " +
                      std::to_string(kFormatVersion) + ")");
    std::uint32_t sum = header.u32();
    if (sum != byteChecksum(data + kHeaderSize, size - kHeaderSize)) throw invalid("checksum mismatch (the file is damaged)");
    ByteReader in(data + kHeaderSize, size - kHeaderSize);
    try {
        std::shared_ptr<Chunk> chunk = readChunkBytes(vm, in);
        if (!in.atEnd()) throw invalid("unexpected bytes after the program");
        return chunk;
    } catch (const ByteReadError& error) {
        throw invalid(error.message);
    }
}

std::string sourceDirectoryOf(const std::string& path) {
    std::string normalised = KorvelScript::normalisePath(path);
    std::size_t slash = normalised.find_last_of('/');
    return slash == std::string::npos ? std::string() : normalised.substr(0, slash + 1);
}

std::vector<std::uint8_t> KorvelScript::serialiseBytecode(std::string_view source, std::string_view sourcePath) {
    Interpreter& vm = impl().vm;
    ScriptError parseError("");
    std::shared_ptr<Chunk> chunk = vm.compileChunk(source, sourcePath, &parseError);
    if (!chunk) throw parseError;
    chunk->parsed.directory = sourceDirectoryOf(std::string(sourcePath));
    return encodeBytecodeImage(*chunk);
}

BytecodeProgram KorvelScript::deserialiseBytecode(const std::vector<std::uint8_t>& bytes, std::string_view sourcePath) {
    Interpreter& vm = impl().vm;
    BytecodeProgram program;
    program.chunk = decodeBytecodeImage(vm, bytes.data(), bytes.size());
    Chunk& chunk = *program.chunk;
    if (!sourcePath.empty()) {
        program.sourcePath = std::string(sourcePath);
        program.sourceDirectory = sourceDirectoryOf(program.sourcePath);
    } else {
        program.sourcePath = chunk.parsed.name;
        program.sourceDirectory = chunk.parsed.directory;
    }
    for (const auto& proto : chunk.protos)
        program.records.push_back({proto->name, program.sourcePath, program.sourceDirectory});
    return program;
}

RunResult KorvelScript::runBytecode(const BytecodeProgram& program) {
    Interpreter& vm = impl().vm;
    if (!program.chunk) {
        RunResult result;
        result.ok = false;
        result.errorMessage = "runBytecode: the program holds no code";
        result.errorReport = "KorvelScript error: " + result.errorMessage + "\n";
        return result;
    }
    Chunk& chunk = *program.chunk;
    chunk.parsed.name = program.sourcePath;
    chunk.parsed.directory = program.sourceDirectory;
    if (!chunk.protos.empty()) chunk.protos.front()->name = program.sourcePath;
    bool pushed = !program.sourceDirectory.empty();
    if (pushed) vm.scriptDirectories.push_back(program.sourceDirectory);
    RunResult result = vm.run(program.chunk);
    if (pushed) vm.scriptDirectories.pop_back();
    return result;
}

}  // namespace korvel
