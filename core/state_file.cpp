// State files ("KSST"): exportState and importState save and restore a running game's globals.
//
// Layout, little-endian: "KSST", u32 format version, u32 checksum (FNV-1a of the body), then
// the body: the compiled chunks that saved functions come from (in the bytecode image's chunk
// form), the objects (arrays, tables, functions: created first, filled after, so shared
// references and cycles come back as they were), and the globals, each a name and a value.
//
// Saved: nothing, ints, floats, strings, raw bytes, booleans, arrays, tables and functions.
// Script functions and loaded chunks are saved in their compiled form; native functions by
// name, and found again by that name when the state is imported (nothing if the importing
// interpreter has no native of that name). Pointers, coroutines and multiple results cannot
// mean anything in another run: they are saved as nothing. The interpreter's own library
// globals are not saved while they still hold what the interpreter put there.
#include "core/bytecode_internal.h"
#include "core/file_io.h"
#include "core/library_internal.h"

#include <unordered_map>

namespace korvel {

namespace {

constexpr char kMagic[4] = {'K', 'S', 'S', 'T'};
constexpr std::uint32_t kFormatVersion = 1;
constexpr std::size_t kHeaderSize = kFileHeaderSize;

enum class ValueTag : std::uint8_t { Nil, Int, Float, String, Raw, Bool, Object };
enum class ObjectKind : std::uint8_t { Array, Table, ScriptFunction, LoadedChunk, NativeFunction };

const void* identityOf(const Variable& value) {
    switch (value.type()) {
    case VarType::Array: return &value.arrayItems();
    case VarType::Table: return &value.table();
    case VarType::Function: return &value.callable();
    default: return nullptr;
    }
}

bool sameValue(const Variable& a, const Variable& b) {
    if (a.type() != b.type()) return false;
    if (const void* identity = identityOf(a)) return identity == identityOf(b);
    if (a.type() == VarType::String) return a.asString() == b.asString();
    if (a.type() == VarType::Raw) return a.asRaw() == b.asRaw();
    return a.scalarBits() == b.scalarBits();
}

class StateWriter {
public:
    explicit StateWriter(Interpreter& vm) : m_vm(vm) {}

    std::vector<std::uint8_t> write() {
        // Globals in slot order, so the same state always gives the same bytes.
        std::vector<const std::string*> names(m_vm.globals.size(), nullptr);
        for (const auto& [name, slot] : m_vm.globalIndex) names[static_cast<std::size_t>(slot)] = &name;
        std::vector<std::pair<const std::string*, const Variable*>> saved;
        for (std::size_t slot = 0; slot < m_vm.globals.size(); ++slot) {
            const Variable& value = m_vm.globals[slot];
            if (!names[slot] || value.isUnset()) continue;
            if (slot < m_vm.libraryGlobals.size() && sameValue(value, m_vm.libraryGlobals[slot])) continue;
            saved.emplace_back(names[slot], &value);
            discover(value);
        }
        ByteWriter out;
        out.raw(kMagic, sizeof kMagic);
        out.u32(kFormatVersion);
        out.u32(0);
        out.varint(m_chunks.size());
        for (const Chunk* chunk : m_chunks) writeChunkBytes(out, *chunk);
        out.varint(m_objects.size());
        for (const Variable& object : m_objects) writeObjectHead(out, object);
        for (const Variable& object : m_objects) writeObjectBody(out, object);
        out.varint(saved.size());
        for (const auto& [name, value] : saved) {
            out.text(*name);
            writeValue(out, *value);
        }
        std::vector<std::uint8_t>& bytes = out.bytes();
        sealChecksum(bytes);
        return std::move(bytes);
    }

private:
    static bool savable(const Variable& value) {
        if (value.type() == VarType::Function) return !value.callable().coroutine;
        return value.type() == VarType::Array || value.type() == VarType::Table;
    }

    // Numbers every object reachable from value, without recursion (containers nest deeply).
    void discover(const Variable& root) {
        std::vector<Variable> pending{root};
        while (!pending.empty()) {
            Variable value = std::move(pending.back());
            pending.pop_back();
            if (!savable(value)) continue;
            const void* identity = identityOf(value);
            if (!m_objectIndex.emplace(identity, m_objects.size()).second) continue;
            m_objects.push_back(value);
            if (value.type() == VarType::Array) {
                for (const Variable& item : value.arrayItems()) pending.push_back(item);
            } else if (value.type() == VarType::Table) {
                for (const Table::Entry& entry : value.table().entries())
                    if (entry.key) pending.push_back(entry.value);
            } else if (value.callable().proto) {
                Chunk* chunk = value.callable().proto->chunk;
                if (m_chunkIndex.emplace(chunk, m_chunks.size()).second) m_chunks.push_back(chunk);
            }
        }
    }

    void writeObjectHead(ByteWriter& out, const Variable& object) {
        if (object.type() == VarType::Array) {
            out.u8(static_cast<std::uint8_t>(ObjectKind::Array));
            return;
        }
        if (object.type() == VarType::Table) {
            out.u8(static_cast<std::uint8_t>(ObjectKind::Table));
            return;
        }
        const ScriptCallable& callable = object.callable();
        if (callable.kind == ScriptCallable::Kind::Native || !callable.proto) {
            out.u8(static_cast<std::uint8_t>(ObjectKind::NativeFunction));
            out.text(callable.name);
            return;
        }
        const FunctionProto* proto = callable.proto.get();
        const Chunk* chunk = proto->chunk;
        std::size_t protoIndex = 0;
        while (protoIndex < chunk->protos.size() && chunk->protos[protoIndex].get() != proto) ++protoIndex;
        bool loaded = callable.kind == ScriptCallable::Kind::Chunk;
        out.u8(static_cast<std::uint8_t>(loaded ? ObjectKind::LoadedChunk : ObjectKind::ScriptFunction));
        out.varint(m_chunkIndex.at(chunk));
        out.varint(protoIndex);
        out.text(callable.name);
    }

    void writeObjectBody(ByteWriter& out, const Variable& object) {
        if (object.type() == VarType::Array) {
            out.varint(object.arrayItems().size());
            for (const Variable& item : object.arrayItems()) writeValue(out, item);
        } else if (object.type() == VarType::Table) {
            const Table& table = object.table();
            out.varint(table.size());
            for (const Table::Entry& entry : table.entries()) {
                if (!entry.key) continue;
                out.text(entry.key->text);
                writeValue(out, entry.value);
            }
        }
    }

    void writeValue(ByteWriter& out, const Variable& value) {
        switch (value.type()) {
        case VarType::Int:
            out.u8(static_cast<std::uint8_t>(ValueTag::Int));
            out.svarint(value.asInt());
            return;
        case VarType::Float: {
            out.u8(static_cast<std::uint8_t>(ValueTag::Float));
            float f = value.asFloat();
            std::uint32_t bits = 0;
            std::memcpy(&bits, &f, sizeof bits);
            out.u32(bits);
            return;
        }
        case VarType::String:
            out.u8(static_cast<std::uint8_t>(ValueTag::String));
            out.text(value.asString());
            return;
        case VarType::Raw:
            out.u8(static_cast<std::uint8_t>(ValueTag::Raw));
            out.varint(value.asRaw().size());
            out.raw(value.asRaw().data(), value.asRaw().size());
            return;
        case VarType::Bool:
            out.u8(static_cast<std::uint8_t>(ValueTag::Bool));
            out.u8(value.asBool() ? 1 : 0);
            return;
        default:
            if (savable(value)) {
                out.u8(static_cast<std::uint8_t>(ValueTag::Object));
                out.varint(m_objectIndex.at(identityOf(value)));
                return;
            }
            out.u8(static_cast<std::uint8_t>(ValueTag::Nil));  // nothing, pointers, coroutines, multiple results
            return;
        }
    }

    Interpreter& m_vm;
    std::vector<const Chunk*> m_chunks;
    std::unordered_map<const Chunk*, std::size_t> m_chunkIndex;
    std::vector<Variable> m_objects;
    std::unordered_map<const void*, std::size_t> m_objectIndex;
};

class StateReader {
public:
    StateReader(Interpreter& vm, ByteReader& in) : m_vm(vm), m_in(in) {}

    // Everything is read and built before the caller changes a single global.
    std::vector<std::pair<std::string, Variable>> read() {
        std::size_t chunkCount = m_in.count(8, "chunk");
        for (std::size_t i = 0; i < chunkCount; ++i) m_chunks.push_back(readChunkBytes(m_vm, m_in));
        std::size_t objectCount = m_in.count(1, "object");
        m_objects.reserve(objectCount);
        for (std::size_t i = 0; i < objectCount; ++i) m_objects.push_back(readObjectHead());
        for (Variable& object : m_objects) readObjectBody(object);
        std::size_t globalCount = m_in.count(2, "global");
        std::vector<std::pair<std::string, Variable>> globals;
        globals.reserve(globalCount);
        for (std::size_t i = 0; i < globalCount; ++i) {
            std::string name = m_in.text();
            if (!isIdentifierToken(name)) throw ByteReadError{"bad global name"};
            globals.emplace_back(std::move(name), readValue());
        }
        if (!m_in.atEnd()) throw ByteReadError{"unexpected bytes after the globals"};
        return globals;
    }

    // An abandoned import empties the objects it made, so cycles among them cannot outlive it.
    ~StateReader() {
        if (completed) return;
        for (Variable& object : m_objects) {
            if (object.type() == VarType::Array) object.arrayItems().clear();
            if (object.type() == VarType::Table) object.table().clear();
        }
    }

    bool completed = false;

private:
    Variable readObjectHead() {
        auto kind = static_cast<ObjectKind>(m_in.u8());
        switch (kind) {
        case ObjectKind::Array: return Variable::makeArray();
        case ObjectKind::Table: return Variable::makeTable();
        case ObjectKind::ScriptFunction:
        case ObjectKind::LoadedChunk: {
            std::uint64_t chunkIndex = m_in.varint();
            std::uint64_t protoIndex = m_in.varint();
            std::string name = m_in.text();
            if (chunkIndex >= m_chunks.size()) throw ByteReadError{"function chunk out of range"};
            const std::shared_ptr<Chunk>& chunk = m_chunks[chunkIndex];
            if (protoIndex >= chunk->protos.size()) throw ByteReadError{"function record out of range"};
            if (kind == ObjectKind::LoadedChunk && protoIndex != 0) throw ByteReadError{"bad loaded chunk"};
            auto* callable = new ScriptCallable;
            callable->kind = kind == ObjectKind::LoadedChunk ? ScriptCallable::Kind::Chunk : ScriptCallable::Kind::Script;
            callable->name = std::move(name);
            callable->proto = std::shared_ptr<FunctionProto>(chunk, chunk->protos[protoIndex].get());
            return Variable::makeFunction(callable);
        }
        case ObjectKind::NativeFunction: return nativeNamed(m_in.text());
        }
        throw ByteReadError{"unknown object kind"};
    }

    // The importing interpreter's native of that name: a global, or a member of a global table.
    Variable nativeNamed(const std::string& name) {
        if (!m_nativesIndexed) {
            m_nativesIndexed = true;
            auto note = [this](const Variable& value) {
                if (value.type() == VarType::Function && value.callable().kind == ScriptCallable::Kind::Native &&
                    !value.callable().coroutine)
                    m_natives.emplace(value.callable().name, value);
            };
            for (const Variable& global : m_vm.globals) {
                note(global);
                if (global.type() == VarType::Table)
                    for (const Table::Entry& entry : global.table().entries())
                        if (entry.key) note(entry.value);
            }
        }
        auto found = m_natives.find(name);
        return found == m_natives.end() ? Variable() : found->second;
    }

    void readObjectBody(Variable& object) {
        if (object.type() == VarType::Array) {
            std::size_t count = m_in.count(1, "array item");
            auto& items = object.arrayItems();
            items.reserve(count);
            for (std::size_t i = 0; i < count; ++i) items.push_back(readValue());
        } else if (object.type() == VarType::Table) {
            std::size_t count = m_in.count(2, "table entry");
            Table& table = object.table();
            table.reserve(count);
            for (std::size_t i = 0; i < count; ++i) {
                std::string key = m_in.text();
                table.set(key, readValue());
            }
        }
    }

    Variable readValue() {
        switch (static_cast<ValueTag>(m_in.u8())) {
        case ValueTag::Nil: return Variable();
        case ValueTag::Int: return Variable(m_in.ranged(INT32_MIN, INT32_MAX, "integer"));
        case ValueTag::Float: {
            std::uint32_t bits = m_in.u32();
            float value = 0;
            std::memcpy(&value, &bits, sizeof value);
            return Variable(value);
        }
        case ValueTag::String: return Variable(m_in.text());
        case ValueTag::Raw: {
            std::size_t size = m_in.count(1, "raw byte");
            std::vector<std::uint8_t> bytes(size);
            m_in.raw(bytes.data(), size);
            return Variable::makeRaw(std::move(bytes));
        }
        case ValueTag::Bool: {
            std::uint8_t value = m_in.u8();
            if (value > 1) throw ByteReadError{"bad boolean"};
            return Variable(value == 1);
        }
        case ValueTag::Object: {
            std::uint64_t index = m_in.varint();
            if (index >= m_objects.size()) throw ByteReadError{"object reference out of range"};
            return m_objects[index];
        }
        }
        throw ByteReadError{"unknown value kind"};
    }

    Interpreter& m_vm;
    ByteReader& m_in;
    std::vector<std::shared_ptr<Chunk>> m_chunks;
    std::vector<Variable> m_objects;
    bool m_nativesIndexed = false;
    std::unordered_map<std::string, Variable> m_natives;
};

}  // namespace

std::vector<std::uint8_t> Interpreter::exportState() { return StateWriter(*this).write(); }

void Interpreter::importState(const std::uint8_t* data, std::size_t size, const std::string& source) {
    auto invalid = [&](const std::string& why) {
        return ScriptError("importState: " + source + " is not a usable state file (" + why + ")");
    };
    if (size < kHeaderSize || std::memcmp(data, kMagic, sizeof kMagic) != 0) throw invalid("no KSST header");
    ByteReader header(data + 4, kHeaderSize - 4);
    std::uint32_t version = header.u32();
    if (version != kFormatVersion)
        throw invalid("format version " + std::to_string(version) + ", this engine reads version " + std::to_string(kFormatVersion));
    if (header.u32() != byteChecksum(data + kHeaderSize, size - kHeaderSize)) throw invalid("checksum mismatch: the file is damaged");
    ByteReader in(data + kHeaderSize, size - kHeaderSize);
    std::vector<std::pair<std::string, Variable>> restored;
    try {
        StateReader reader(*this, in);
        restored = reader.read();
        reader.completed = true;
    } catch (const ByteReadError& error) {
        throw invalid(error.message);
    } catch (const ScriptError& error) {
        throw invalid(error.what());
    }
    for (auto& [name, value] : restored) setGlobal(name, std::move(value));
}

void Interpreter::registerStateLibrary() {
    Library lib(*this);
    lib.global("exportState", [this](const Args& args) -> Variable {
        if (args.size() > 1) throw ScriptError("exportState([path]) expects zero or one argument");
        if (!args.empty() && args[0].type() != VarType::String) throw ScriptError("exportState(path) expects a path string");
        if (args.empty()) return Variable::makeRaw(exportState());
        requireUnsandboxed("exportState(path)");
        std::vector<std::uint8_t> bytes = exportState();
        std::string why;
        if (!writeFileAtomically(args[0].asString(), bytes, why))
            throw ScriptError("Failed to open state file for writing: " + args[0].asString() + " (" + why + ")");
        return Variable(true);
    });
    lib.global("importState", [this](const Args& args) -> Variable {
        if (args.size() != 1) throw ScriptError("importState(rawOrPath) expects exactly one argument");
        if (args[0].type() == VarType::Raw) {
            const std::vector<std::uint8_t>& bytes = args[0].asRaw();
            importState(bytes.data(), bytes.size(), "the raw value");
            return Variable(true);
        }
        if (args[0].type() != VarType::String) throw ScriptError("importState(rawOrPath) expects raw bytes or a path string");
        requireUnsandboxed("importState(path)");
        std::vector<std::uint8_t> bytes;
        if (!readFileBytes(args[0].asString(), bytes)) throw ScriptError("Failed to open state file: " + args[0].asString());
        importState(bytes.data(), bytes.size(), args[0].asString());
        return Variable(true);
    });
}

}  // namespace korvel
