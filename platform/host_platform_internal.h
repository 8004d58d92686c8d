// The parts of the platform queries that do not depend on the operating system, shared by the
// Windows and Linux backends and tested on both.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace korvel::platform {

// Architecture codes as Windows numbers them (SYSTEM_INFO::wProcessorArchitecture); the Linux
// backend maps its machine name onto the same codes so both report the same names.
constexpr unsigned kArchitectureX86 = 0;
constexpr unsigned kArchitectureArm = 5;
constexpr unsigned kArchitectureX86_64 = 9;
constexpr unsigned kArchitectureArm64 = 12;
constexpr unsigned kArchitectureUnknown = 0xFFFF;

// The name of an architecture code: "x86", "arm", "x86_64", "arm64", else "Unknown".
const char* architectureName(unsigned code);

// The code for a uname machine name: "x86_64"/"amd64" -> x86_64, "i386".."i686" -> x86,
// "arm..." (armv6l, armv7l, armv8l) -> arm, "aarch64"/"arm64"... -> arm64, else unknown.
unsigned architectureCodeForMachine(std::string_view machine);

// text without the white space (space, tab, CR, LF, VT, FF) at either end.
std::string_view trimmed(std::string_view text);

// Copies text and a terminating zero into buffer. Returns 1, or 0 when buffer is null,
// capacity is zero or the text does not fit (then the first byte is zeroed).
int copyText(std::string_view text, char* buffer, std::size_t capacity);

// The answer of a query that has no text: the first byte zeroed (when there is one), result 0.
int noText(char* buffer, std::size_t capacity);

// "Unknown" when it fits in 8 bytes (result 1); otherwise an empty buffer and result 0.
int copyUnknownVersion(char* buffer, std::size_t capacity);

// path with every back-slash turned into "/".
std::string forwardSlashes(std::string_view path);

// The temporary directory for the value of TMPDIR (null when unset): the value with a "/"
// added when it lacks one, or "/tmp/" when it is unset or empty.
std::string temporaryDirectoryFor(const char* environmentValue);

// The directory part of an executable's path, up to and including the last "/" or "\\";
// empty when there is no separator.
std::string directoryWithSeparator(std::string_view executablePath);

// The processor's name from the text of /proc/cpuinfo: the first "model name" (x86 and
// most others), else "Hardware" or "Processor" (older ARM kernels), else "cpu model" (MIPS),
// trimmed. Empty when none of those lines holds text.
std::string processorNameFromCpuinfo(std::string_view cpuinfo);

}  // namespace korvel::platform
