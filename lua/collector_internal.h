// Cycle collection. Reference counting frees everything except cycles (a recursive local function
// holds the box that holds it; t.self = t). The collector finds objects referenced only from
// other collectable objects and breaks their references.
#pragma once

#include "value_internal.h"

#include <cstddef>

namespace korvel::lua {

// Runs a collection over every container object of this thread. Safe wherever no object is
// half-built: references held by native code count as outside references and keep objects alive.
void collectCycles();

// Containers alive on this thread (tables, functions, environments, ...); for tests and diagnostics.
std::size_t liveContainerCount();

// True when enough containers were made since the last collection to make another worthwhile
// (the work doubles with the number of live containers, so the cost stays proportional).
inline bool collectionDue() { return t_containersSinceCollection > t_collectionThreshold; }

} // namespace korvel::lua
