// The "Metal" module (the window, its back buffer and the input globals) and the "Sailfish"
// module (device keys and orientation), on top of the window layer (platform/window.h).
#pragma once

#include "host/bindings.h"

#include <array>
#include <cstdint>
#include <vector>

namespace quillfen {

// The Metal module's functions in table order, acting on the host window `win`; "updateInput"
// publishes into `target` (the host's engine). The second "getTitle" entry (the renaming
// binding) is kept as the table defines it; makeModule keeps the first.
std::vector<ModuleEntry> metalModuleEntries(korvel::KorvelScript& target);
// The Sailfish module's functions in table order.
std::vector<ModuleEntry> sailfishModuleEntries();

// The last input sample, kept for bindings that need it after Metal.updateInput.
struct InputSample {
    std::array<bool, 3> mouse{};  // KORVEL_MOUSE_1, _2, _3: window buttons 0 (left), 2 (middle), 1 (right)
    std::int32_t x = -1, y = -1;  // logical pointer position; -1, -1 without a window
};
const InputSample& lastInputSample();

// Samples the keyboard and the mouse of `win` and publishes the input globals into `target`
// in their documented order.
void publishInputGlobals(korvel::KorvelScript& target);
void publishInputGlobals();  // into the host's engine
// The binding behind Metal.updateInput: ignores its arguments, publishes into the host's
// engine, returns nothing.
Variable updateInput(const Arguments& args);

// The largest window side a script may ask for (the window layer's limit); a larger request
// is refused with an error rather than quietly made smaller.
inline constexpr int kMaxWindowSide = 16384;

}  // namespace quillfen
