#include "codec_test_support.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <random>

namespace codec_test {

std::vector<std::uint8_t> readBytes(const std::filesystem::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return std::vector<std::uint8_t>(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
}

void writeBytes(const std::filesystem::path& path, const std::vector<std::uint8_t>& bytes) {
    std::ofstream stream(path, std::ios::binary);
    stream.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

ScratchDirectory::ScratchDirectory() {
    static int counter = 0;
    m_path = std::filesystem::temp_directory_path() /
             ("korvel-codecs-" + std::to_string(std::random_device{}()) + "-" + std::to_string(counter++));
    std::filesystem::create_directories(m_path);
}

ScratchDirectory::~ScratchDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
}

std::string quoted(const std::filesystem::path& path) {
    std::string text = "'";
    text += path.string();
    text += "'";
    return text;
}

bool runCommand(const std::string& command, std::vector<std::uint8_t>& output) {
    output.clear();
    std::FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return false;
    std::uint8_t buffer[65536];
    std::size_t got;
    while ((got = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output.insert(output.end(), buffer, buffer + got);
    return pclose(pipe) == 0;
}

bool imageMagickAvailable() {
    static const bool available = [] {
        std::vector<std::uint8_t> output;
        return runCommand("convert -version 2>/dev/null", output) &&
               std::string(output.begin(), output.end()).find("ImageMagick") != std::string::npos;
    }();
    return available;
}

bool imageMagickRgba(const std::filesystem::path& file, std::vector<std::uint8_t>& rgba, const std::string& options) {
    std::string command = "convert ";
    command += quoted(file);
    command.append(" ").append(options).append(" -depth 8 rgba:- 2>/dev/null");
    return runCommand(command, rgba);
}

bool imageMagickConvert(const std::string& arguments) {
    std::vector<std::uint8_t> output;
    return runCommand("convert " + arguments + " 2>/dev/null", output);
}

int largestDifference(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b) {
    if (a.size() != b.size()) return 256;
    int largest = 0;
    for (std::size_t index = 0; index < a.size(); ++index) largest = std::max(largest, std::abs(int(a[index]) - int(b[index])));
    return largest;
}

std::vector<std::uint8_t> testPattern(int width, int height, std::uint32_t seed) {
    std::mt19937 random(seed);
    std::vector<std::uint8_t> rgba(static_cast<std::size_t>(width) * height * 4);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            std::uint8_t* pixel = &rgba[(static_cast<std::size_t>(y) * width + x) * 4];
            const int noise = static_cast<int>(random() % 9) - 4;
            pixel[0] = static_cast<std::uint8_t>(std::clamp(x * 255 / std::max(1, width - 1) + noise, 0, 255));
            pixel[1] = static_cast<std::uint8_t>(std::clamp(y * 255 / std::max(1, height - 1) + noise, 0, 255));
            pixel[2] = static_cast<std::uint8_t>((x * 7 + y * 3) & 0xFF);
            pixel[3] = static_cast<std::uint8_t>((x + y) % 5 == 0 ? 128 : 255);
        }
    return rgba;
}

}  // namespace codec_test
