// The host queries and shell pipes on Linux. Pipes start /bin/sh -c through posix_spawn (safe
// in a threaded process, and it reports a shell that cannot be started); each stream is
// recorded with the child's process id so that closing it can wait for exactly that child.
#include "platform/host_platform.h"
#include "platform/host_platform_internal.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fstream>
#include <iterator>
#include <mutex>
#include <pwd.h>
#include <spawn.h>
#include <string>
#include <sys/types.h>
#include <sys/utsname.h>
#include <sys/wait.h>
#include <unistd.h>
#include <unordered_map>
#include <vector>

extern char** environ;

using korvel::platform::copyText;
using korvel::platform::noText;

namespace {

std::mutex gPipeMutex;
std::unordered_map<std::FILE*, pid_t> gPipeProcesses;  // guarded by gPipeMutex

// Blocks SIGPIPE on this thread for its lifetime; a SIGPIPE raised meanwhile is consumed, so
// a write to a command that has exited fails with EPIPE instead of ending the host.
class PipeSignalGuard {
public:
    PipeSignalGuard() {
        sigemptyset(&m_pipeOnly);
        sigaddset(&m_pipeOnly, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        m_wasPending = sigismember(&pending, SIGPIPE) == 1;
        m_blocked = pthread_sigmask(SIG_BLOCK, &m_pipeOnly, &m_previous) == 0;
    }
    ~PipeSignalGuard() {
        if (!m_blocked) return;
        if (!m_wasPending) {
            sigset_t pending;
            sigpending(&pending);
            if (sigismember(&pending, SIGPIPE) == 1) {
                timespec zero{0, 0};
                while (sigtimedwait(&m_pipeOnly, nullptr, &zero) == -1 && errno == EINTR) {}
            }
        }
        pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
    }
    PipeSignalGuard(const PipeSignalGuard&) = delete;
    PipeSignalGuard& operator=(const PipeSignalGuard&) = delete;

private:
    sigset_t m_pipeOnly{};
    sigset_t m_previous{};
    bool m_wasPending = false;
    bool m_blocked = false;
};

// The writing stream is a stdio cookie stream over the pipe, so that every write the caller
// makes through stdio runs with SIGPIPE held back (the cookie holds the descriptor).
ssize_t writeToPipe(void* cookie, const char* data, std::size_t size) {
    int descriptor = static_cast<int>(reinterpret_cast<std::intptr_t>(cookie));
    PipeSignalGuard guard;
    while (true) {
        ssize_t count = write(descriptor, data, size);
        if (count >= 0 || errno != EINTR) return count;
    }
}

int closePipe(void* cookie) { return close(static_cast<int>(reinterpret_cast<std::intptr_t>(cookie))); }

std::FILE* writingStream(int descriptor) {
    cookie_io_functions_t functions{};
    functions.write = writeToPipe;
    functions.close = closePipe;
    return fopencookie(reinterpret_cast<void*>(static_cast<std::intptr_t>(descriptor)), "w", functions);
}

// Starts /bin/sh -c command with childEnd as its standard input (writing) or output
// (reading) and /dev/null as the other; standard error is the caller's. 0 on failure.
pid_t spawnShell(const char* command, int childEnd, bool writing) {
    int nullDevice = open("/dev/null", O_RDWR | O_CLOEXEC);
    if (nullDevice < 0) return 0;
    posix_spawn_file_actions_t actions;
    if (posix_spawn_file_actions_init(&actions) != 0) {
        close(nullDevice);
        return 0;
    }
    // dup2 clears close-on-exec on the copies; every other descriptor of ours is close-on-exec.
    posix_spawn_file_actions_adddup2(&actions, childEnd, writing ? STDIN_FILENO : STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, nullDevice, writing ? STDOUT_FILENO : STDIN_FILENO);
    std::string commandText(command);
    char shell[] = "/bin/sh";
    char option[] = "-c";
    char* arguments[] = {shell, option, commandText.data(), nullptr};
    pid_t child = 0;
    int error = posix_spawn(&child, shell, &actions, nullptr, arguments, environ);
    posix_spawn_file_actions_destroy(&actions);
    close(nullDevice);
    return error == 0 ? child : 0;
}

}  // namespace

std::FILE* wm_windows_popen(const char* command, const char* mode) {
    if (!command) return nullptr;
    bool writing = mode && std::strchr(mode, 'w');
    int ends[2] = {-1, -1};
    // Close-on-exec from the start, so no other command, started now or later by any thread,
    // holds a copy of this pipe and keeps it from seeing its end.
    if (pipe2(ends, O_CLOEXEC) != 0) return nullptr;
    int parentEnd = writing ? ends[1] : ends[0];
    int childEnd = writing ? ends[0] : ends[1];
    pid_t child = spawnShell(command, childEnd, writing);
    close(childEnd);
    if (child == 0) {
        close(parentEnd);
        return nullptr;
    }
    std::FILE* stream = writing ? writingStream(parentEnd) : fdopen(parentEnd, "r");
    if (!stream) {
        close(parentEnd);
        kill(child, SIGKILL);
        while (waitpid(child, nullptr, 0) == -1 && errno == EINTR) {}
        return nullptr;
    }
    std::lock_guard lock(gPipeMutex);
    gPipeProcesses[stream] = child;
    return stream;
}

int wm_windows_pclose(std::FILE* stream) {
    if (!stream) return -1;
    pid_t child = 0;
    {
        std::lock_guard lock(gPipeMutex);
        auto entry = gPipeProcesses.find(stream);
        if (entry != gPipeProcesses.end()) {
            child = entry->second;
            gPipeProcesses.erase(entry);
        }
    }
    std::fclose(stream);
    if (child == 0) return -1;
    int status = 0;
    pid_t waited;
    while ((waited = waitpid(child, &status, 0)) == -1 && errno == EINTR) {}
    if (waited != child || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}

int windows_platform_name(char* buffer, std::size_t capacity) {
    utsname system{};
    unsigned code = korvel::platform::kArchitectureUnknown;
    if (uname(&system) == 0) code = korvel::platform::architectureCodeForMachine(system.machine);
    return copyText(std::string("Linux ") + korvel::platform::architectureName(code), buffer, capacity);
}

int windows_version_string(char* buffer, std::size_t capacity) {
    utsname system{};
    if (uname(&system) != 0 || system.release[0] == '\0') return korvel::platform::copyUnknownVersion(buffer, capacity);
    return copyText(system.release, buffer, capacity);
}

int windows_processor_name(char* buffer, std::size_t capacity) {
    std::ifstream file("/proc/cpuinfo", std::ios::binary);
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::string name = korvel::platform::processorNameFromCpuinfo(text);
    if (name.empty()) return noText(buffer, capacity);
    return copyText(name, buffer, capacity);
}

int windows_user_name(char* buffer, std::size_t capacity) {
    long suggested = sysconf(_SC_GETPW_R_SIZE_MAX);
    std::vector<char> storage(suggested > 0 ? static_cast<std::size_t>(suggested) : 16384);
    passwd entry{};
    passwd* found = nullptr;
    while (getpwuid_r(geteuid(), &entry, storage.data(), storage.size(), &found) == ERANGE && storage.size() < (1u << 20))
        storage.resize(storage.size() * 2);
    if (!found || !found->pw_name || found->pw_name[0] == '\0') return noText(buffer, capacity);
    return copyText(found->pw_name, buffer, capacity);
}

int windows_temp_directory(char* buffer, std::size_t capacity) {
    return copyText(korvel::platform::temporaryDirectoryFor(std::getenv("TMPDIR")), buffer, capacity);
}

int windows_executable_directory(char* buffer, std::size_t capacity) {
    std::vector<char> path(4096);
    while (true) {
        ssize_t length = readlink("/proc/self/exe", path.data(), path.size());
        if (length < 0) return noText(buffer, capacity);
        if (static_cast<std::size_t>(length) < path.size()) {
            std::string directory = korvel::platform::directoryWithSeparator({path.data(), static_cast<std::size_t>(length)});
            if (directory.empty()) break;
            return copyText(directory, buffer, capacity);
        }
        if (path.size() >= (1u << 16)) break;
        path.resize(path.size() * 2);
    }
    return noText(buffer, capacity);
}

void wm_sleep_ms(unsigned milliseconds) {
    timespec remaining{static_cast<time_t>(milliseconds / 1000), static_cast<long>(milliseconds % 1000) * 1000000L};
    while (nanosleep(&remaining, &remaining) == -1 && errno == EINTR) {}
}
