// Private to the SDL window backend.
#pragma once

#include "platform/sdl/sdl_library.h"

namespace wm::sdl {

inline constexpr unsigned kNoVirtualKey = 256;

// The Windows virtual-key code of an SDL key (layout key first, physical position for letters
// and digits of other scripts); kNoVirtualKey when the key has none.
unsigned virtualKeyFor(SDL_Keycode key, SDL_Scancode scancode);

}  // namespace wm::sdl
