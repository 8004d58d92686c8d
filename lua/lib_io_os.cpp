// io and os: files as user data, the two standard output streams, clocks, commands and exit.
#include "vm_internal.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#ifdef __unix__
#include <sys/wait.h>
#endif

namespace korvel::lua {

using Impl = LuaVM::Impl;

namespace {

constexpr const char* kFileTag = "file";
constexpr const char* kStreamTag = "stream";
// file:read with a byte count allocates at most this much at once.
constexpr std::int64_t kMaxReadChunk = std::int64_t{1} << 26;

struct FileCloser {
    void operator()(std::FILE* file) const {
        if (file) std::fclose(file);
    }
};

// A file opened by io.open; closed by file:close or when the script drops its last reference.
struct FileObject : UserDataObject {
    std::unique_ptr<std::FILE, FileCloser> file;
    Value read, write, flush, seek, close;
    Value field(Impl&, std::string_view name) override {
        if (name == "read") return read;
        if (name == "write") return write;
        if (name == "flush") return flush;
        if (name == "seek") return seek;
        if (name == "close") return close;
        return Value();
    }
    const char* typeTag() const override { return kFileTag; }
};

// io.stdout and io.stderr: not owned, only `write`.
struct StreamObject : UserDataObject {
    std::FILE* stream = nullptr;
    Value write;
    Value field(Impl&, std::string_view name) override { return name == "write" ? write : Value(); }
    const char* typeTag() const override { return kStreamTag; }
};

std::FILE* openFile(Impl& vm, std::string_view name, ValueSpan arguments) {
    auto* object = static_cast<FileObject*>(requireUserData(vm, name, arguments, 0, kFileTag));
    if (!object->file) vm.failRuntime(vm.m_currentLine, "file is not open");
    return object->file.get();
}

void writeValues(Impl& vm, std::FILE* stream, ValueSpan values, const char* failure) {
    // Every value is written in its text form (a table as "table: 0x..."), as io.write promises.
    for (const Value& value : values) {
        std::string text = value.kind() == Kind::String ? std::string(value.stringView()) : value.toString();
        if (std::fwrite(text.data(), 1, text.size(), stream) != text.size()) vm.failRuntime(vm.m_currentLine, failure);
    }
}

Value readLine(std::FILE* file, bool keepNewline) {
    std::string line;
    int c = 0;
    bool any = false;
    while ((c = std::fgetc(file)) != EOF) {
        any = true;
        if (c == '\n') {
            if (keepNewline) line += '\n';
            break;
        }
        line += static_cast<char>(c);
        if (line.size() > kMaxStringLength) break;
    }
    return any ? Value::string(line) : Value();
}

Value readFormat(Impl& vm, std::FILE* file, const Value& format) {
    if (format.isNumber()) {
        std::int64_t count = format.kind() == Kind::Integer ? format.asInteger() : static_cast<std::int64_t>(format.asFloat());
        if (count < 0) count = 0;
        if (count > kMaxReadChunk) count = kMaxReadChunk;
        std::string data(static_cast<std::size_t>(count), '\0');
        std::size_t got = std::fread(data.data(), 1, data.size(), file);
        if (got == 0 && count > 0) return Value();
        if (count == 0) {
            int c = std::fgetc(file);
            if (c == EOF) return Value();
            std::ungetc(c, file);
        }
        data.resize(got);
        return Value::string(data);
    }
    std::string_view mode = format.kind() == Kind::String ? format.stringView() : std::string_view("l");
    if (!mode.empty() && mode[0] == '*') mode.remove_prefix(1);
    if (mode.starts_with("l")) return readLine(file, false);
    if (mode.starts_with("L")) return readLine(file, true);
    if (mode.starts_with("a")) {
        std::string data;
        char buffer[4096];
        std::size_t got = 0;
        while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) {
            data.append(buffer, got);
            if (data.size() > kMaxStringLength) vm.failRuntime(vm.m_currentLine, "string is too large");
        }
        return Value::string(data);
    }
    if (mode.starts_with("n")) {
        double number = 0;
        if (std::fscanf(file, "%lf", &number) != 1) return Value();
        return numericResult(number);
    }
    vm.failRuntime(vm.m_currentLine, "file:read received an invalid format");
}

Value makeStream(Impl& vm, std::FILE* stream) {
    auto* object = new StreamObject();
    Value result = Value::object(object);
    object->stream = stream;
    object->write = vm.makeNative("stream:write", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        auto* streamObject = static_cast<StreamObject*>(requireUserData(self, "stream:write", arguments, 0, kStreamTag));
        if (!streamObject->stream) self.failRuntime(self.m_currentLine, "stream is not available");
        writeValues(self, streamObject->stream, arguments.subspan(1), "failed to write file");
        return MultiValue(arguments[0]);
    });
    return result;
}

} // namespace

void bindIoOsLibrary(Impl& vm) {
    Table* io = vm.makeLibraryTable("io");
    Value stdoutStream = makeStream(vm, stdout);
    io->set(vm.m_globals.internConstant("stdout"), stdoutStream);
    io->set(vm.m_globals.internConstant("stderr"), makeStream(vm, stderr));

    // The file methods are made once and shared by every file object.
    Value read = vm.makeNative("file:read", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        std::FILE* file = openFile(self, "file:read", arguments);
        MultiValue results;
        if (arguments.size() < 2) {
            results.push(readLine(file, false));
            return results;
        }
        for (std::size_t i = 1; i < arguments.size(); ++i) {
            Value value = readFormat(self, file, arguments[i]);
            bool end = value.isNil();
            results.push(std::move(value));
            if (end) break;
        }
        return results;
    });
    Value write = vm.makeNative("file:write", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        std::FILE* file = openFile(self, "file:write", arguments);
        writeValues(self, file, arguments.subspan(1), "failed to write file");
        return MultiValue(arguments[0]);
    });
    Value flush = vm.makeNative("file:flush", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        std::FILE* file = openFile(self, "file:flush", arguments);
        if (std::fflush(file) != 0) self.failRuntime(self.m_currentLine, "flush failed");
        return MultiValue(arguments[0]);
    });
    Value seek = vm.makeNative("file:seek", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        std::FILE* file = openFile(self, "file:seek", arguments);
        std::string_view mode = arguments.size() > 1 && !arguments[1].isNil() ? requireString(self, "file:seek", arguments, 1) : "cur";
        long offset = arguments.size() > 2 ? static_cast<long>(requireInteger(self, "file:seek", arguments, 2)) : 0;
        int whence = mode == "set" ? SEEK_SET : mode == "cur" ? SEEK_CUR : mode == "end" ? SEEK_END : -1;
        if (whence < 0) self.failRuntime(self.m_currentLine, "invalid seek mode");
        if (std::fseek(file, offset, whence) != 0) self.failRuntime(self.m_currentLine, "seek failed");
        long position = std::ftell(file);
        if (position < 0) self.failRuntime(self.m_currentLine, "seek failed");
        return MultiValue(Value::integer(position));
    });
    Value close = vm.makeNative("file:close", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        openFile(self, "file:close", arguments);
        static_cast<FileObject*>(arguments[0].asUserData())->file.reset();
        return MultiValue(Value::boolean(true));
    });

    vm.bindTableFunction(io, "io", "open", [read, write, flush, seek, close](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "io.open", arguments.size(), 1, 2);
        std::string path(requireString(self, "io.open", arguments, 0));
        std::string mode = arguments.size() > 1 ? std::string(requireString(self, "io.open", arguments, 1)) : "r";
        static const char* const kModes[] = {"r", "w", "a", "r+", "w+", "a+", "rb", "wb", "ab", "r+b", "w+b", "a+b"};
        bool valid = false;
        for (const char* candidate : kModes) valid = valid || mode == candidate;
        if (!valid) self.failRuntime(self.m_currentLine, "io.open received an invalid mode");
        // Always binary: a script reads and seeks over the same bytes on every platform (Windows'
        // text mode would turn "\n" into "\r\n" and shift every position after it).
        if (mode.back() != 'b') mode += 'b';
        std::FILE* handle = std::fopen(path.c_str(), mode.c_str());
        if (!handle) {
            MultiValue failure;
            failure.push(Value());
            failure.push(Value::string(path + ": cannot open file"));
            return failure;
        }
        auto* object = new FileObject();
        Value result = Value::object(object);
        object->file.reset(handle);
        object->read = read;
        object->write = write;
        object->flush = flush;
        object->seek = seek;
        object->close = close;
        return MultiValue(result);
    });
    vm.bindTableFunction(io, "io", "write", [stdoutStream](Impl& self, ValueSpan arguments, std::uint32_t) {
        writeValues(self, stdout, arguments, "failed to write file");
        return MultiValue(stdoutStream);
    });

    Table* os = vm.makeLibraryTable("os");
    vm.bindTableFunction(os, "os", "clock", [](Impl&, ValueSpan, std::uint32_t) {
        return MultiValue(Value::number(static_cast<double>(std::clock()) / CLOCKS_PER_SEC));
    });
    vm.bindTableFunction(os, "os", "time", [](Impl&, ValueSpan, std::uint32_t) {
        auto now = std::chrono::system_clock::now().time_since_epoch();
        return MultiValue(Value::integer(std::chrono::duration_cast<std::chrono::seconds>(now).count()));
    });
    vm.bindTableFunction(os, "os", "difftime", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        requireArgumentCount(self, "os.difftime", arguments.size(), 1, 2);
        double later = requireNumber(self, "os.difftime", arguments, 0);
        double earlier = arguments.size() > 1 ? requireNumber(self, "os.difftime", arguments, 1) : 0.0;
        return MultiValue(Value::number(later - earlier));
    });
    vm.bindTableFunction(os, "os", "execute", [](Impl& self, ValueSpan arguments, std::uint32_t) {
        if (arguments.empty() || arguments[0].isNil()) return MultiValue(Value::boolean(std::system(nullptr) != 0));
        std::string command(requireString(self, "os.execute", arguments, 0));
        std::fflush(stdout);
        int status = std::system(command.c_str());
#ifdef __unix__
        // POSIX returns a wait status; scripts want the command's exit code, as on Windows.
        if (status != -1 && WIFEXITED(status)) status = WEXITSTATUS(status);
#endif
        return MultiValue(Value::integer(status));
    });
    vm.bindTableFunction(os, "os", "exit", [](Impl& self, ValueSpan arguments, std::uint32_t) -> MultiValue {
        int code = arguments.empty() || !arguments[0].isNumber() ? 0 : static_cast<int>(requireInteger(self, "os.exit", arguments, 0));
        throw ExitSignal{code};
    });
}

} // namespace korvel::lua
