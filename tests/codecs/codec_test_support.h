// Helpers shared by the image-codec tests: files, the corpus location, and ImageMagick as an
// independent reader and writer of reference files.
#pragma once

#include "platform/image_codecs.h"

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace codec_test {

std::vector<std::uint8_t> readBytes(const std::filesystem::path& path);
void writeBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes);

// A fresh directory under the system temporary directory, removed by the destructor.
class ScratchDirectory {
public:
    ScratchDirectory();
    ~ScratchDirectory();
    ScratchDirectory(const ScratchDirectory&) = delete;
    ScratchDirectory& operator=(const ScratchDirectory&) = delete;
    std::filesystem::path file(const std::string& name) const { return m_path / name; }

private:
    std::filesystem::path m_path;
};

// The path in single quotes for the shell (our scratch paths hold no quotes).
std::string quoted(const std::filesystem::path& path);

// Runs a shell command; true when it exits with status 0. Its standard output goes to output.
bool runCommand(const std::string& command, std::vector<std::uint8_t>& output);

// Whether ImageMagick's convert (the real one, not a stand-in) is installed.
bool imageMagickAvailable();

// ImageMagick's own decode of a file as 8-bit RGBA; false when convert fails.
bool imageMagickRgba(const std::filesystem::path& file, std::vector<std::uint8_t>& rgba, const std::string& options = "");

// Runs convert with the arguments; true on success.
bool imageMagickConvert(const std::string& arguments);

// The largest difference between two equally long byte blocks (256 when the lengths differ).
int largestDifference(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b);

// Deterministic pseudo-random RGBA pixels: smooth gradients with noise, some transparency.
std::vector<std::uint8_t> testPattern(int width, int height, std::uint32_t seed);

}  // namespace codec_test
