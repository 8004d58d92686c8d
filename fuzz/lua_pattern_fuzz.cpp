// libFuzzer target: pattern bytes and subject bytes. The first byte gives the pattern's length,
// the pattern follows and the rest is the subject. The pattern goes through the translation and
// the engine; the same bytes are also compiled directly as a regular expression, so the engine's
// parser sees text the translation would never write. Findings: crashes, hangs, leaks, a pattern
// that translates to text the engine rejects, and spans outside the subject.
#include "pattern_internal.h"

#include <cstdint>
#include <string>
#include <string_view>

namespace {

using namespace korvel::lua;

void checkSpans(const RegexProgram& program, const RegexSpans& spans, std::size_t from, std::size_t size) {
    if (spans.starts.size() != static_cast<std::size_t>(regexGroupCount(program)) + 1) __builtin_trap();
    if (spans.starts[0] < from || spans.starts[0] > spans.ends[0] || spans.ends[0] > size) __builtin_trap();
    for (std::size_t group = 1; group < spans.starts.size(); ++group) {
        if (spans.starts[group] == RegexSpans::kUnset) continue;
        if (spans.starts[group] > spans.ends[group] || spans.ends[group] > size) __builtin_trap();
    }
}

void searchAll(const RegexProgram& program, std::string_view subject) {
    RegexBudget budget;
    budget.stepLimit = 200000;
    RegexSpans spans;
    for (std::size_t from : {std::size_t{0}, subject.size() / 2, subject.size()}) {
        if (searchRegex(program, subject, from, budget, spans) == RegexOutcome::Matched) {
            checkSpans(program, spans, from, subject.size());
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    std::size_t patternLength = std::min<std::size_t>(data[0], size - 1);
    std::string_view pattern(reinterpret_cast<const char*>(data + 1), patternLength);
    std::string_view subject(reinterpret_cast<const char*>(data + 1 + patternLength), size - 1 - patternLength);
    std::string regex;
    bool translated = true;
    try {
        regex = translateLuaPatternToRegex(pattern);
    } catch (const PatternSyntaxError&) {
        translated = false;
    }
    if (translated) {
        RegexSyntaxError error;
        std::shared_ptr<const RegexProgram> program = compileRegex(regex, error);
        if (!program) __builtin_trap();  // the translation wrote text the engine cannot read
        searchAll(*program, subject);
    }
    RegexSyntaxError error;
    if (std::shared_ptr<const RegexProgram> direct = compileRegex(pattern, error)) searchAll(*direct, subject);
    return 0;
}
