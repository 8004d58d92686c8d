// Platform-free helpers behind the host queries: the architecture table, trimming, the
// capacity rule every text query follows, and the small text transformations of each backend.
#include "platform/host_platform_internal.h"

#include <array>
#include <cstring>

namespace korvel::platform {

namespace {

// Indexed by the Windows architecture code; codes without an entry of their own (MIPS, Alpha,
// PowerPC, IA-64 and the rest) report "Unknown", as does anything past the table.
constexpr std::array<const char*, 13> kArchitectureNames = {
    "x86", "Unknown", "Unknown", "Unknown", "Unknown", "arm", "Unknown",
    "Unknown", "Unknown", "x86_64", "Unknown", "Unknown", "arm64",
};

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f'; }

bool startsWith(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }

// The value of a "key<tabs/spaces>: value" line of /proc/cpuinfo when its key is `key`.
bool cpuinfoValue(std::string_view line, std::string_view key, std::string_view& value) {
    std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || trimmed(line.substr(0, colon)) != key) return false;
    value = trimmed(line.substr(colon + 1));
    return true;
}

}  // namespace

const char* architectureName(unsigned code) {
    return code < kArchitectureNames.size() ? kArchitectureNames[code] : "Unknown";
}

unsigned architectureCodeForMachine(std::string_view machine) {
    if (machine == "x86_64" || machine == "amd64") return kArchitectureX86_64;
    if (machine.size() == 4 && machine[0] == 'i' && machine[1] >= '3' && machine[1] <= '6' && machine.substr(2) == "86")
        return kArchitectureX86;
    if (machine == "aarch64" || startsWith(machine, "arm64") || startsWith(machine, "aarch64_")) return kArchitectureArm64;
    if (startsWith(machine, "arm")) return kArchitectureArm;
    return kArchitectureUnknown;
}

std::string_view trimmed(std::string_view text) {
    while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
    while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
    return text;
}

int copyText(std::string_view text, char* buffer, std::size_t capacity) {
    if (!buffer || capacity == 0) return 0;
    if (text.size() >= capacity) {
        buffer[0] = '\0';
        return 0;
    }
    std::memcpy(buffer, text.data(), text.size());
    buffer[text.size()] = '\0';
    return 1;
}

int noText(char* buffer, std::size_t capacity) {
    if (buffer && capacity > 0) buffer[0] = '\0';
    return 0;
}

int copyUnknownVersion(char* buffer, std::size_t capacity) {
    // "Unknown" needs exactly 8 bytes, so this is the general rule at work.
    return copyText("Unknown", buffer, capacity);
}

std::string forwardSlashes(std::string_view path) {
    std::string result(path);
    for (char& c : result)
        if (c == '\\') c = '/';
    return result;
}

std::string temporaryDirectoryFor(const char* environmentValue) {
    if (!environmentValue || environmentValue[0] == '\0') return "/tmp/";
    std::string directory(environmentValue);
    if (directory.back() != '/') directory += '/';
    return directory;
}

std::string directoryWithSeparator(std::string_view executablePath) {
    std::size_t last = executablePath.find_last_of("/\\");
    if (last == std::string_view::npos) return {};
    return std::string(executablePath.substr(0, last + 1));
}

std::string processorNameFromCpuinfo(std::string_view cpuinfo) {
    // Preferred keys first; within a key, the first line that has text wins.
    static constexpr std::array<std::string_view, 4> kKeys = {"model name", "Hardware", "Processor", "cpu model"};
    for (std::string_view key : kKeys) {
        std::string_view rest = cpuinfo;
        while (!rest.empty()) {
            std::size_t end = rest.find('\n');
            std::string_view line = rest.substr(0, end);
            rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
            std::string_view value;
            if (cpuinfoValue(line, key, value) && !value.empty()) return std::string(value);
        }
    }
    return {};
}

}  // namespace korvel::platform
