#include "tools/repl.h"

#include "core/parser_internal.h"

#include <string>

namespace korvel::tools {

bool needsMoreInput(const std::string& text) {
    ParsedScript parsed;
    ParseFailure failure;
    if (!parseScript(text, parsed, failure)) return false;  // let the run report it
    for (const ParsedScriptLine& line : parsed.lines)
        if (opensBlock(line.kind) && line.endIndex < 0) return true;
    return false;
}

int runRepl(KorvelScript& script, std::istream& in, std::ostream& out, std::ostream& err, bool showPrompts) {
    std::string buffer;
    std::string line;
    while (true) {
        if (showPrompts) {
            out << (buffer.empty() ? "> " : ">> ") << std::flush;
        }
        if (!std::getline(in, line)) break;
        buffer += line;
        buffer += '\n';
        if (needsMoreInput(buffer)) continue;
        std::string text;
        text.swap(buffer);
        RunResult result = script.evaluate(text, "stdin");
        script.flushOutput();
        if (!result.ok) {
            err << result.errorReport << std::flush;
        } else if (!result.value.isNil()) {
            out << result.value.toString() << '\n' << std::flush;
        }
    }
    if (showPrompts) out << '\n';
    return 0;
}

}  // namespace korvel::tools
