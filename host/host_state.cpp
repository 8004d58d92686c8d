// Definitions of the process-wide objects. They live in one translation unit, so they are
// constructed in the order written here, before main.
#include "host/host.h"

namespace quillfen {

const HostClock::time_point hostStartTime = HostClock::now();
HostClock::time_point lastFrameTime = hostStartTime;
korvel::KorvelScript engine;
std::string path = "./";

}  // namespace quillfen
