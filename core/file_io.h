// Whole-file reading and crash-safe writing for the interpreter's own files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace korvel {

// False when the file cannot be opened or read.
bool readFileBytes(const std::string& path, std::vector<std::uint8_t>& out);

// Writes to a temporary file in the same directory, flushes it to the disk and renames it over
// path, so the old file stays whole until the new one is complete. On failure the temporary
// file is removed, error says why, and path is untouched.
bool writeFileAtomically(const std::string& path, const std::vector<std::uint8_t>& bytes, std::string& error);

// For tests: the next atomic writes fail as a full disk would once this many bytes are written
// (negative: no failure).
void setWriteFailureAfterBytesForTesting(long long bytes);

}  // namespace korvel
