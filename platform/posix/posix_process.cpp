// POSIX pipes to shell commands: popen through /bin/sh, raw reads and writes on the pipe's
// descriptor (the caller does its own buffering), SIGPIPE held back while writing.
#include "platform/process.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <memory>
#include <sys/wait.h>
#include <unistd.h>

struct KorvelProcess {
    std::FILE* pipe = nullptr;
    int descriptor = -1;
    bool writing = false;
};

namespace {

// Blocks SIGPIPE on this thread for its lifetime; a SIGPIPE raised meanwhile is consumed, so
// a write to a command that has exited only reports EPIPE.
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

}  // namespace

KorvelProcess* korvel_popen(const char* command, const char* mode) {
    if (!command || !mode) return nullptr;
    bool writing = std::strcmp(mode, "w") == 0;
    if (!writing && std::strcmp(mode, "r") != 0) return nullptr;
    std::fflush(nullptr);  // what the caller wrote comes before the command's output
    std::FILE* pipe = popen(command, writing ? "w" : "r");
    if (!pipe) return nullptr;
    auto process = std::make_unique<KorvelProcess>();
    process->pipe = pipe;
    process->descriptor = fileno(pipe);
    process->writing = writing;
    // Commands started later must not inherit this pipe, or it would never see its end.
    fcntl(process->descriptor, F_SETFD, fcntl(process->descriptor, F_GETFD) | FD_CLOEXEC);
    return process.release();
}

std::size_t korvel_process_read(KorvelProcess* process, void* buffer, std::size_t size) {
    if (!process || process->writing || size == 0) return 0;
    while (true) {
        ssize_t count = read(process->descriptor, buffer, size);
        if (count >= 0) return static_cast<std::size_t>(count);
        if (errno != EINTR) return 0;
    }
}

std::size_t korvel_process_write(KorvelProcess* process, const void* data, std::size_t size) {
    if (!process || !process->writing) return 0;
    PipeSignalGuard guard;
    const auto* bytes = static_cast<const char*>(data);
    std::size_t written = 0;
    while (written < size) {
        ssize_t count = write(process->descriptor, bytes + written, size - written);
        if (count < 0) {
            if (errno == EINTR) continue;
            break;
        }
        written += static_cast<std::size_t>(count);
    }
    return written;
}

int korvel_pclose(KorvelProcess* process) {
    if (!process) return -1;
    std::unique_ptr<KorvelProcess> owned(process);
    int status = pclose(owned->pipe);
    if (status == -1 || !WIFEXITED(status)) return -1;
    return WEXITSTATUS(status);
}
