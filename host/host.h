// The host's process-wide objects, constructed before main runs and destroyed after it.
#pragma once

#include "core/korvel_script.h"

#include <chrono>
#include <string>

namespace quillfen {

// The one interpreter used by the host and every binding.
extern korvel::KorvelScript engine;
// The executable directory, always ending in a separator ("/" or "\"), or "./" when none
// can be found. Set by main before anything runs.
extern std::string path;

// Wall-clock readings taken when the host's globals were constructed and at the previous
// Korvel.getClock call.
using HostClock = std::chrono::system_clock;
extern const HostClock::time_point hostStartTime;
extern HostClock::time_point lastFrameTime;

}  // namespace quillfen
