// The interactive prompt of the korvel command.
#pragma once

#include "core/korvel_script.h"

#include <istream>
#include <ostream>

namespace korvel::tools {

// Reads lines until end of input. A line that opens a block waits for the block's closing
// line; an expression line prints its value; errors are reported and the prompt goes on.
// Returns the exit status (0).
int runRepl(KorvelScript& script, std::istream& in, std::ostream& out, std::ostream& err, bool showPrompts);

// Whether the text still has a block waiting for its end or until.
bool needsMoreInput(const std::string& text);

}  // namespace korvel::tools
