// The host queries and shell pipes on Win32. A pipe is an anonymous pipe to a child started
// through the command interpreter; the parent's end becomes a C stream, and the stream is
// recorded with the child's process handle so that closing it can wait for that child.
#include "platform/host_platform.h"
#include "platform/host_platform_internal.h"

#include <windows.h>

#include <fcntl.h>
#include <io.h>
#include <lmcons.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <unordered_map>
#include <vector>

using korvel::platform::copyText;
using korvel::platform::noText;

namespace {

std::mutex gPipeMutex;
std::unordered_map<std::FILE*, HANDLE> gPipeProcesses;  // guarded by gPipeMutex

// Held from creating a pipe until its child has been started: the child's end is inheritable
// in between, and a child started by another thread then would inherit it too and keep the
// pipe open past the end of our own child.
std::mutex gSpawnMutex;

struct HandleCloser {
    void operator()(HANDLE handle) const {
        if (handle && handle != INVALID_HANDLE_VALUE) CloseHandle(handle);
    }
};
using OwnedHandle = std::unique_ptr<std::remove_pointer_t<HANDLE>, HandleCloser>;

// COMSPEC (read into 260 bytes, as the interpreter's own path never needs more) and " /c ",
// else "cmd.exe /c ", followed by the command.
std::string commandLineFor(const char* command) {
    char interpreter[260] = {};
    DWORD length = GetEnvironmentVariableA("COMSPEC", interpreter, sizeof interpreter);
    std::string line = length > 0 && length < sizeof interpreter ? std::string(interpreter, length) + " /c "
                                                                 : std::string("cmd.exe /c ");
    return line + command;
}

// An inheritable copy of the host's standard error, or null when it has none.
OwnedHandle inheritableStandardError() {
    HANDLE error = GetStdHandle(STD_ERROR_HANDLE);
    if (!error || error == INVALID_HANDLE_VALUE) return nullptr;
    HANDLE copy = nullptr;
    HANDLE self = GetCurrentProcess();
    if (!DuplicateHandle(self, error, self, &copy, 0, TRUE, DUPLICATE_SAME_ACCESS)) return nullptr;
    return OwnedHandle(copy);
}

// Starts the command with childEnd as its standard input (writing) or output (reading);
// returns the child's process handle, or null.
OwnedHandle startChild(const char* command, HANDLE childEnd, bool writing) {
    SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
    OwnedHandle nullDevice(CreateFileA("NUL", GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE,
                                       &inheritable, OPEN_EXISTING, 0, nullptr));
    if (nullDevice.get() == INVALID_HANDLE_VALUE) {
        nullDevice.release();
        return nullptr;
    }
    OwnedHandle error = inheritableStandardError();
    STARTUPINFOA startup{};
    startup.cb = sizeof startup;
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = writing ? childEnd : nullDevice.get();
    startup.hStdOutput = writing ? nullDevice.get() : childEnd;
    startup.hStdError = error ? error.get() : nullDevice.get();
    std::string line = commandLineFor(command);
    std::vector<char> mutableLine(line.begin(), line.end());
    mutableLine.push_back('\0');
    PROCESS_INFORMATION started{};
    if (!CreateProcessA(nullptr, mutableLine.data(), nullptr, nullptr, TRUE, CREATE_NO_WINDOW, nullptr, nullptr,
                        &startup, &started))
        return nullptr;
    CloseHandle(started.hThread);
    return OwnedHandle(started.hProcess);
}

}  // namespace

std::FILE* wm_windows_popen(const char* command, const char* mode) {
    if (!command) return nullptr;
    bool writing = mode && std::strchr(mode, 'w');
    OwnedHandle parentEnd;
    OwnedHandle child;
    {
        std::lock_guard spawning(gSpawnMutex);
        SECURITY_ATTRIBUTES inheritable{sizeof(SECURITY_ATTRIBUTES), nullptr, TRUE};
        HANDLE readEnd = nullptr, writeEnd = nullptr;
        if (!CreatePipe(&readEnd, &writeEnd, &inheritable, 0)) return nullptr;
        parentEnd.reset(writing ? writeEnd : readEnd);
        OwnedHandle childEnd(writing ? readEnd : writeEnd);
        if (!SetHandleInformation(parentEnd.get(), HANDLE_FLAG_INHERIT, 0)) return nullptr;
        child = startChild(command, childEnd.get(), writing);
        // The child's end closes here, so the child alone holds it.
    }
    if (!child) return nullptr;
    int descriptor = _open_osfhandle(reinterpret_cast<intptr_t>(parentEnd.get()), writing ? _O_WRONLY | _O_BINARY
                                                                                         : _O_RDONLY | _O_BINARY);
    std::FILE* stream = nullptr;
    if (descriptor != -1) {
        parentEnd.release();  // the descriptor owns the handle now
        stream = _fdopen(descriptor, writing ? "wb" : "rb");
        if (!stream) _close(descriptor);
    }
    if (!stream) {
        TerminateProcess(child.get(), 1);
        return nullptr;
    }
    std::lock_guard lock(gPipeMutex);
    gPipeProcesses[stream] = child.release();
    return stream;
}

int wm_windows_pclose(std::FILE* stream) {
    if (!stream) return -1;
    HANDLE child = nullptr;
    {
        std::lock_guard lock(gPipeMutex);
        auto entry = gPipeProcesses.find(stream);
        if (entry != gPipeProcesses.end()) {
            child = entry->second;
            gPipeProcesses.erase(entry);
        }
    }
    std::fclose(stream);
    if (!child) return -1;
    OwnedHandle owned(child);
    WaitForSingleObject(child, INFINITE);
    DWORD code = 0;
    if (!GetExitCodeProcess(child, &code)) return -1;
    return static_cast<int>(code);
}

int windows_platform_name(char* buffer, std::size_t capacity) {
    SYSTEM_INFO system{};
    GetNativeSystemInfo(&system);
    return copyText(std::string("Windows ") + korvel::platform::architectureName(system.wProcessorArchitecture), buffer,
                    capacity);
}

int windows_version_string(char* buffer, std::size_t capacity) {
    // GetVersionEx answers what the application's manifest claims to support; RtlGetVersion
    // tells the truth, but only ntdll has it, so it is looked up at run time.
    using RtlGetVersionFunction = LONG(WINAPI*)(PRTL_OSVERSIONINFOW);
    HMODULE ntdll = GetModuleHandleA("ntdll.dll");
    FARPROC address = ntdll ? GetProcAddress(ntdll, "RtlGetVersion") : nullptr;
    if (!address) return korvel::platform::copyUnknownVersion(buffer, capacity);
    // Through void(*)(), which converts to any function type without a cast warning.
    auto getVersion = reinterpret_cast<RtlGetVersionFunction>(reinterpret_cast<void (*)()>(address));
    RTL_OSVERSIONINFOW version{};
    version.dwOSVersionInfoSize = sizeof version;
    if (getVersion(&version) != 0) return korvel::platform::copyUnknownVersion(buffer, capacity);
    std::string text = std::to_string(version.dwMajorVersion) + "." + std::to_string(version.dwMinorVersion) + "." +
                       std::to_string(version.dwBuildNumber);
    return copyText(text, buffer, capacity);
}

int windows_processor_name(char* buffer, std::size_t capacity) {
    HKEY key = nullptr;
    if (RegOpenKeyExA(HKEY_LOCAL_MACHINE, "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0", 0, KEY_READ, &key) !=
        ERROR_SUCCESS)
        return noText(buffer, capacity);
    DWORD type = 0;
    DWORD size = 0;
    std::vector<char> value;
    LONG status = RegQueryValueExA(key, "ProcessorNameString", nullptr, &type, nullptr, &size);
    if (status == ERROR_SUCCESS && type == REG_SZ && size > 0) {
        value.resize(size + 1);  // the stored value need not end in a zero
        status = RegQueryValueExA(key, "ProcessorNameString", nullptr, &type, reinterpret_cast<BYTE*>(value.data()),
                                  &size);
    }
    RegCloseKey(key);
    if (status != ERROR_SUCCESS || type != REG_SZ || value.empty()) return noText(buffer, capacity);
    std::string_view name = korvel::platform::trimmed(std::string_view(value.data(), strnlen(value.data(), size)));
    if (name.empty()) return noText(buffer, capacity);
    return copyText(name, buffer, capacity);
}

int windows_user_name(char* buffer, std::size_t capacity) {
    char name[UNLEN + 1] = {};
    DWORD size = sizeof name;
    if (!GetUserNameA(name, &size) || name[0] == '\0') return noText(buffer, capacity);
    return copyText(name, buffer, capacity);
}

int windows_temp_directory(char* buffer, std::size_t capacity) {
    char directory[MAX_PATH + 1] = {};
    DWORD length = GetTempPathA(sizeof directory, directory);
    if (length == 0 || length >= sizeof directory) return noText(buffer, capacity);
    return copyText(korvel::platform::forwardSlashes({directory, length}), buffer, capacity);
}

int windows_executable_directory(char* buffer, std::size_t capacity) {
    std::vector<char> path(MAX_PATH);
    while (true) {
        DWORD length = GetModuleFileNameA(nullptr, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) return noText(buffer, capacity);
        if (length < path.size()) {
            std::string directory = korvel::platform::directoryWithSeparator({path.data(), length});
            if (directory.empty()) return noText(buffer, capacity);
            return copyText(directory, buffer, capacity);
        }
        // Truncated: long paths ("\\?\" prefixed) reach 32,767 characters.
        if (path.size() >= 32768) return noText(buffer, capacity);
        path.resize(path.size() * 2);
    }
}

void wm_sleep_ms(unsigned milliseconds) { Sleep(milliseconds); }
