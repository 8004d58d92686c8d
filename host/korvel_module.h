// The Korvel module (scripts, host variables, clocks, sleep, on-screen buttons, checksum,
// paths, logging, file reading) and the free global helpers add, dFeet, dMetres, calcHeight.
#pragma once

#include "host/bindings.h"

#include <cstdint>
#include <string_view>
#include <vector>

namespace quillfen {

// An on-screen button: horizontal and vertical bounds (each pair in either order) and the
// value Korvel.checkButton reports for a point strictly inside.
struct ButtonVec {
    std::int32_t x1, x2, y1, y2, result;
};
// The host's one list of buttons, in the order they were pushed.
extern std::vector<ButtonVec> buttons;

// A 32-bit rolling hash: h = rotl(h, 3) + byte * position (1-based), wrapping.
std::uint32_t calculateChecksum(std::string_view text);

// A double truncated toward zero into a signed 32-bit integer, saturating at the ends
// (NaN gives 0), so huge script numbers never reach an undefined conversion.
std::int32_t truncateToInt32(double value);

// The Korvel module's functions in table order; they act on `target` (the host's engine).
std::vector<ModuleEntry> korvelModuleEntries(korvel::KorvelScript& target);

// Publishes add, dFeet, dMetres and calcHeight as global functions of `target`.
void registerGlobalHelpers(korvel::KorvelScript& target);

}  // namespace quillfen
