// Whole-file reading and crash-safe writing.
#include "core/file_io.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>

#if defined(_WIN32)
#include <io.h>
#include <process.h>
#include <windows.h>
#else
#include <unistd.h>
#endif

namespace korvel {

namespace {

std::atomic<long long> g_failAfterBytes{-1};
std::atomic<unsigned> g_temporaryCounter{0};

std::string temporaryPathFor(const std::string& path) {
#if defined(_WIN32)
    unsigned long process = static_cast<unsigned long>(_getpid());
#else
    unsigned long process = static_cast<unsigned long>(getpid());
#endif
    return path + ".tmp" + std::to_string(process) + "-" + std::to_string(g_temporaryCounter.fetch_add(1));
}

bool flushToDisk(std::FILE* file) {
    if (std::fflush(file) != 0) return false;
#if defined(_WIN32)
    return _commit(_fileno(file)) == 0;
#else
    return fsync(fileno(file)) == 0;
#endif
}

// Puts the finished temporary file in the target's place in one step; on failure error says why.
bool replaceFile(const std::string& from, const std::string& to, std::string& error) {
#if defined(_WIN32)
    // rename() will not replace an existing file on Windows; MoveFileEx does, and WRITE_THROUGH
    // returns only once the move is on disk.
    if (MoveFileExA(from.c_str(), to.c_str(), MOVEFILE_REPLACE_EXISTING | MOVEFILE_WRITE_THROUGH)) return true;
    DWORD code = GetLastError();
    char text[256] = {};
    DWORD length = FormatMessageA(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, nullptr, code, 0, text,
                                  sizeof text, nullptr);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == '\r' || text[length - 1] == '.')) --length;
    error = length > 0 ? std::string(text, length) : "system error " + std::to_string(code);
    return false;
#else
    if (std::rename(from.c_str(), to.c_str()) == 0) return true;
    error = std::strerror(errno);
    return false;
#endif
}

}  // namespace

bool readFileBytes(const std::string& path, std::vector<std::uint8_t>& out) {
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file) return false;
    out.clear();
    std::uint8_t buffer[65536];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0) out.insert(out.end(), buffer, buffer + got);
    bool ok = !std::ferror(file);
    std::fclose(file);
    return ok;
}

void setWriteFailureAfterBytesForTesting(long long bytes) { g_failAfterBytes = bytes; }

bool writeFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes, std::string& error) {
    std::string temporary = temporaryPathFor(path);
    std::FILE* file = std::fopen(temporary.c_str(), "wb");
    if (!file) {
        error = std::strerror(errno);
        return false;
    }
    std::size_t wanted = bytes.size();
    long long failAfter = g_failAfterBytes.load();
    bool simulatedFailure = failAfter >= 0 && static_cast<unsigned long long>(failAfter) < wanted;
    if (simulatedFailure) wanted = static_cast<std::size_t>(failAfter);
    // An empty file is written by writing nothing (fwrite of an empty vector's null data is not allowed).
    bool ok = (wanted == 0 || std::fwrite(bytes.data(), 1, wanted, file) == wanted) && !simulatedFailure;
    if (!ok) error = simulatedFailure ? "No space left on device" : std::strerror(errno);
    if (ok && !flushToDisk(file)) {
        ok = false;
        error = std::strerror(errno);
    }
    if (std::fclose(file) != 0 && ok) {
        ok = false;
        error = std::strerror(errno);
    }
    if (ok && !replaceFile(temporary, path, error)) ok = false;
    if (!ok) std::remove(temporary.c_str());
    return ok;
}

}  // namespace korvel
