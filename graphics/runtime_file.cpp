// Script-named files: normalised paths, whole reads, atomic writes.
#include "graphics/runtime_file.h"

#include "core/file_io.h"
#include "core/korvel_script.h"

namespace quillfen {

bool readRuntimeFile(const std::string& path, std::vector<std::uint8_t>& bytes) {
    std::vector<std::uint8_t> contents;
    if (!korvel::readFileBytes(korvel::KorvelScript::normalisePath(path), contents)) return false;
    bytes = std::move(contents);
    return true;
}

bool writeRuntimeFile(const std::string& path, const std::vector<std::uint8_t>& bytes) {
    std::string error;  // the reason is not reported: callers only say whether the write worked
    return korvel::writeFileAtomically(korvel::KorvelScript::normalisePath(path), bytes, error);
}

}  // namespace quillfen
