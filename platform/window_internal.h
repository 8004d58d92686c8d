// What the platform-free window functions (platform/window_common.cpp) need from a backend.
#pragma once

#include "platform/window.h"
#include "platform/window_composition.h"

namespace wm {

// The shared state inside a backend's record; null for a null window.
WindowState* stateOf(WmWindow* window);

}  // namespace wm
