// Whole-file access for files named by scripts: paths are normalised first.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace quillfen {

// Reads the whole file into bytes (an empty file gives no bytes). False, with bytes untouched,
// when the file cannot be opened or read.
[[nodiscard]] bool readRuntimeFile(const std::string& path, std::vector<std::uint8_t>& bytes);
// Writes bytes as the whole file. The bytes go to a temporary file beside it that replaces the
// file only once complete, so a failure leaves an existing file as it was.
[[nodiscard]] bool writeRuntimeFile(const std::string& path, const std::vector<std::uint8_t>& bytes);

}  // namespace quillfen
