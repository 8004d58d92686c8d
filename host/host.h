// The host's process-wide objects, constructed before main runs and destroyed after it.
#pragma once

#include "core/korvel_script.h"
#include "platform/window.h"

#include <chrono>
#include <string>

namespace quillfen {

// The one interpreter used by the host and every binding.
extern korvel::KorvelScript engine;
// The executable directory, always ending in a separator ("/" or "\"), or "./" when none
// can be found. Set by main before anything runs.
extern std::string path;
// The window the script opened through the Metal module, or null. The host destroys it after
// the start-up program returns (also after a start-up error).
extern WmWindow* win;

// Wall-clock readings taken when the host's globals were constructed and at the previous
// Korvel.getClock call.
using HostClock = std::chrono::system_clock;
extern const HostClock::time_point hostStartTime;
extern HostClock::time_point lastFrameTime;

}  // namespace quillfen
