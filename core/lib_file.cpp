// io.open and io.popen. A handle is a table whose read, write and close functions share one
// stream; a script calls them with the handle first: f.read(f, "l"), f.write(f, "text"),
// f.close(f). The stream belongs to those functions, so it is closed when the last of them
// dies (the handle was dropped and no function of it was kept), and at the latest when the
// interpreter goes away: no FILE or pipe outlives the script that opened it.
#include "core/library_internal.h"

#include "platform/host_platform.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace korvel {

namespace {

constexpr std::size_t kReadChunk = 65536;

// A file from io.open or a pipe from io.popen; both are C streams, a pipe only differs in how
// it is closed (the command is waited for) and in that each write goes out at once, so a
// command sees its input as the script writes it.
class FileStream {
public:
    enum class Kind { File, Pipe };

    FileStream(std::FILE* file, Kind kind, bool readable, bool writable)
        : m_file(file), m_kind(kind), m_readable(readable), m_writable(writable) {}
    ~FileStream() { close(); }
    FileStream(const FileStream&) = delete;
    FileStream& operator=(const FileStream&) = delete;

    bool isOpen() const { return m_file != nullptr; }
    bool isProcess() const { return m_kind == Kind::Pipe; }
    bool readable() const { return m_readable; }
    bool writable() const { return m_writable; }

    // The next byte, or EOF.
    int get() {
        prepare(Direction::Reading);
        return std::getc(m_file);
    }
    int peek() {
        int c = get();
        if (c != EOF) std::ungetc(c, m_file);
        return c;
    }
    // Up to size bytes; fewer only at the end.
    std::size_t read(char* out, std::size_t size) {
        prepare(Direction::Reading);
        return std::fread(out, 1, size, m_file);
    }
    bool write(std::string_view bytes) {
        prepare(Direction::Writing);
        bool written = std::fwrite(bytes.data(), 1, bytes.size(), m_file) == bytes.size();
        if (m_kind == Kind::Pipe) written = std::fflush(m_file) == 0 && written;
        return written;
    }
    // Closes the stream. Files give 0 on success; processes their exit code (or -1).
    int close() {
        if (!m_file) return 0;
        int result = m_kind == Kind::Pipe ? wm_windows_pclose(m_file) : (std::fclose(m_file) == 0 ? 0 : -1);
        m_file = nullptr;
        return result;
    }

private:
    enum class Direction { None, Reading, Writing };

    // A file open for both must be repositioned between reading and writing.
    void prepare(Direction direction) {
        if (m_direction != Direction::None && m_direction != direction) std::fseek(m_file, 0, SEEK_CUR);
        m_direction = direction;
    }

    std::FILE* m_file = nullptr;
    Kind m_kind = Kind::File;
    bool m_readable = false;
    bool m_writable = false;
    Direction m_direction = Direction::None;
};

[[noreturn]] void tooLarge() { throw ScriptError("file['read']: result is too large"); }

Variable readLine(FileStream& stream, bool keepBreak) {
    std::string line;
    int c = stream.get();
    if (c == EOF) return Variable();
    while (c != EOF) {
        if (c == '\n') {
            if (keepBreak) line += '\n';
            else if (!line.empty() && line.back() == '\r') line.pop_back();
            break;
        }
        line += static_cast<char>(c);
        if (line.size() > kMaxStringResult) tooLarge();
        c = stream.get();
    }
    return Variable(std::move(line));
}

Variable readAll(FileStream& stream) {
    std::string text;
    char chunk[kReadChunk];
    while (std::size_t count = stream.read(chunk, sizeof chunk)) {
        text.append(chunk, count);
        if (text.size() > kMaxStringResult) tooLarge();
    }
    return Variable(std::move(text));
}

Variable readBytes(FileStream& stream, std::int64_t count) {
    if (count == 0) return stream.peek() == EOF ? Variable() : Variable("");
    if (static_cast<std::uint64_t>(count) > kMaxStringResult) tooLarge();
    std::string bytes(static_cast<std::size_t>(count), '\0');
    bytes.resize(stream.read(bytes.data(), bytes.size()));
    if (bytes.empty()) return Variable();
    return Variable(std::move(bytes));
}

// A decimal number ("-12", "3.5", "1e3") after any white space; nothing when none is there.
Variable readNumber(FileStream& stream) {
    while (stream.peek() != EOF && std::isspace(stream.peek())) stream.get();
    std::string text;
    auto takeIf = [&](const char* accepted) {
        int c = stream.peek();
        if (c == EOF || c == '\0' || !std::strchr(accepted, c) || text.size() > 200) return false;
        text += static_cast<char>(stream.get());
        return true;
    };
    takeIf("+-");
    while (takeIf("0123456789")) {}
    if (takeIf(".")) while (takeIf("0123456789")) {}
    if (takeIf("eE")) {
        takeIf("+-");
        while (takeIf("0123456789")) {}
    }
    return parseNumberText(text, 10);
}

// A handle's functions hold its stream; any of them identifies the handle.
struct FileMethod {
    enum class Kind { Read, Write, Close };
    Kind kind = Kind::Read;
    std::shared_ptr<FileStream> stream;

    Variable operator()(const std::vector<Variable>& args) const {
        switch (kind) {
        case Kind::Read: return read(args);
        case Kind::Write: return write(args);
        case Kind::Close: return close(args);
        }
        return Variable();
    }

    static FileStream* openStreamOf(const std::vector<Variable>& args) {
        if (args.empty() || args[0].type() != VarType::Table) return nullptr;
        for (const char* name : {"read", "write", "close"}) {
            Variable* entry = args[0].table().find(name);
            if (!entry || entry->type() != VarType::Function) continue;
            if (const auto* method = entry->callable().native.target<FileMethod>())
                return method->stream->isOpen() ? method->stream.get() : nullptr;
        }
        return nullptr;
    }

    static Variable read(const std::vector<Variable>& args) {
        FileStream* stream = openStreamOf(args);
        if (!stream) throw ScriptError("file['read'] requires a valid file handle");
        if (!stream->readable()) throw ScriptError("file['read'] requires a readable file handle");
        std::vector<Variable> results;
        std::size_t formats = std::max<std::size_t>(args.size(), 2);
        for (std::size_t i = 1; i < formats; ++i) {
            Variable value = readOne(*stream, i < args.size() ? args[i] : Variable("l"));
            bool failed = value.isNil();
            results.push_back(std::move(value));
            if (failed) break;  // later formats are not read
        }
        if (results.size() == 1) return results[0];
        return Variable::makeMulti(std::move(results));
    }

    static Variable readOne(FileStream& stream, const Variable& format) {
        if (format.type() == VarType::Int) {
            if (format.asInt() < 0) throw ScriptError("file['read']: invalid format");
            return readBytes(stream, format.asInt());
        }
        if (format.type() == VarType::String) {
            std::string_view text = format.asString();
            if (!text.empty() && text[0] == '*') text.remove_prefix(1);
            if (!text.empty()) {
                switch (text[0]) {
                case 'l': return readLine(stream, false);
                case 'L': return readLine(stream, true);
                case 'a': return readAll(stream);
                case 'n': return readNumber(stream);
                default: break;
                }
            }
        }
        throw ScriptError("file['read']: invalid format");
    }

    static Variable write(const std::vector<Variable>& args) {
        FileStream* stream = args.size() >= 2 ? openStreamOf(args) : nullptr;
        if (!stream) throw ScriptError("file['write'] requires a valid file handle and at least one value");
        if (!stream->writable()) throw ScriptError("file['write'] requires a writable file handle");
        std::string text;
        for (std::size_t i = 1; i < args.size(); ++i) args[i].appendTo(text);
        if (!stream->write(text))
            return Variable::makeMulti(std::vector<Variable>{Variable(), Variable("write failed")});
        return args[0];
    }

    static Variable close(const std::vector<Variable>& args) {
        FileStream* stream = openStreamOf(args);
        if (!stream) throw ScriptError("file['close'] requires a valid file handle");
        bool process = stream->isProcess();
        int result = stream->close();
        if (process) {
            // As a shell reports it: whether the command succeeded, how it ended, its exit code.
            return Variable::makeMulti(std::vector<Variable>{Variable(result == 0), Variable("exit"), Variable(result)});
        }
        if (result != 0) return Variable::makeMulti(std::vector<Variable>{Variable(), Variable("close failed")});
        return Variable(true);
    }
};

Variable makeHandle(Interpreter& vm, const std::shared_ptr<FileStream>& stream) {
    Variable handle = Variable::makeTable();
    handle.table().set("read", vm.owner.createNativeCallable(FileMethod{FileMethod::Kind::Read, stream}, "file.read"));
    handle.table().set("write", vm.owner.createNativeCallable(FileMethod{FileMethod::Kind::Write, stream}, "file.write"));
    handle.table().set("close", vm.owner.createNativeCallable(FileMethod{FileMethod::Kind::Close, stream}, "file.close"));
    return handle;
}

// "r", "w", "a", each optionally with "+", then any number of "b".
bool validFileMode(std::string_view mode) {
    if (mode.empty() || mode[0] == '\0' || !std::strchr("rwa", mode[0])) return false;
    std::size_t i = 1;
    if (i < mode.size() && mode[i] == '+') ++i;
    while (i < mode.size() && mode[i] == 'b') ++i;
    return i == mode.size();
}

Variable failure(std::string message) {
    return Variable::makeMulti(std::vector<Variable>{Variable(), Variable(std::move(message))});
}

// The optional mode argument: nothing gives the default; anything but text is refused.
bool modeArgument(const Args& args, std::string& mode) {
    if (args.size() < 2 || args[1].isNil()) return true;
    if (args[1].type() != VarType::String) return false;
    mode = args[1].asString();
    return true;
}

}  // namespace

void Interpreter::registerFileLibrary() {
    Library lib(*this);
    Variable io = lib.group("io");
    lib.member(io, "io", "open", [this](const Args& args) {
        requireUnsandboxed("io['open']");
        std::string mode = "r";
        if (args.empty() || args.size() > 2 || args[0].type() != VarType::String || !modeArgument(args, mode))
            throw ScriptError("io['open'](path[, mode]) requires a path string");
        if (!validFileMode(mode)) throw ScriptError("io['open']: invalid mode '" + mode + "'");
        std::string path = KorvelScript::normalisePath(args[0].asString());
        std::FILE* file = std::fopen(path.c_str(), mode.c_str());
        if (!file) return failure(path + ": " + std::strerror(errno));
        bool update = mode.find('+') != std::string::npos;
        auto stream = std::make_shared<FileStream>(file, FileStream::Kind::File, mode[0] == 'r' || update,
                                                   mode[0] != 'r' || update);
        return makeHandle(*this, stream);
    });
    lib.member(io, "io", "popen", [this](const Args& args) {
        requireUnsandboxed("io['popen']");
        std::string mode = "r";
        if (args.empty() || args.size() > 2 || args[0].type() != VarType::String || !modeArgument(args, mode))
            throw ScriptError("io['popen'](path[, mode]) requires a path string");
        if (mode != "r" && mode != "w") throw ScriptError("io['popen']: invalid mode '" + mode + "'");
        std::fflush(nullptr);  // what the script wrote so far comes before the command's output
        std::FILE* pipe = wm_windows_popen(args[0].asString().c_str(), mode.c_str());
        if (!pipe) return failure("cannot run command: " + args[0].asString());
        bool writing = mode == "w";
        return makeHandle(*this, std::make_shared<FileStream>(pipe, FileStream::Kind::Pipe, !writing, writing));
    });
}

}  // namespace korvel
