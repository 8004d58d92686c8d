// The Korvel module and the free global helpers.
#include "host/korvel_module.h"

#include "core/script_error.h"
#include "graphics/runtime_file.h"
#include "host/host.h"
#include "platform/host_platform.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

namespace quillfen {

std::vector<ButtonVec> buttons;

std::uint32_t calculateChecksum(std::string_view text) {
    std::uint32_t hash = 0;
    std::uint32_t position = 0;
    for (unsigned char byte : text) {
        ++position;
        hash = ((hash << 3) | (hash >> 29)) + byte * position;
    }
    return hash;
}

std::int32_t truncateToInt32(double value) {
    if (std::isnan(value)) return 0;
    if (value >= 2147483647.0) return std::numeric_limits<std::int32_t>::max();
    if (value <= -2147483648.0) return std::numeric_limits<std::int32_t>::min();
    return static_cast<std::int32_t>(value);
}

namespace {

using korvel::VarType;

// Milliseconds between two wall-clock readings, truncated, keeping the low 32 bits.
std::int32_t millisecondsBetween(HostClock::time_point from, HostClock::time_point to) {
    auto micros = std::chrono::duration_cast<std::chrono::microseconds>(to - from).count();
    auto millis = static_cast<std::uint64_t>(micros / 1000);
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(millis));
}

Variable runScriptBinding(korvel::KorvelScript& target, const Arguments& args) {
    static constexpr std::string_view name = "Korvel.runScript";
    const std::string& text = stringValue(requireArg(args, 0, name), name, "scriptText");
    korvel::RunResult result = target.runScript(text);
    // A failing inner run fails the call, so pcall can catch it and the caller's report
    // shows where the call was made.
    if (!result.ok) bindingError(name, result.errorMessage);
    return result.value;
}

Variable getVarBinding(korvel::KorvelScript& target, const Arguments& args) {
    static constexpr std::string_view name = "Korvel.getVar";
    const std::string& variable = stringValue(requireArg(args, 0, name), name, "name");
    try {
        return target.pullVariable(variable);
    } catch (const korvel::ScriptError& error) {
        bindingError(name, error.what());
    }
}

// setVar(name, value) or setVar(name, datatype, value): datatype is one of the KORVEL_INT ...
// KORVEL_POINTER kind constants; codes outside 0 to 5 store the value unchanged, as 4 and 5 do.
Variable setVarBinding(korvel::KorvelScript& target, const Arguments& args) {
    static constexpr std::string_view name = "Korvel.setVar";
    const std::string& variable = stringValue(requireArg(args, 0, name), name, "name");
    const Variable& second = requireArg(args, 1, name);
    bool typed = args.size() >= 3 &&
                 (second.type() == VarType::Int || second.type() == VarType::Float || second.type() == VarType::Bool);
    if (!typed) {
        target.pushVariable(variable, second);
        return Variable();
    }
    std::int32_t datatype = truncateToInt32(numericValue(second, name, "datatype"));
    const Variable& value = args[2];
    switch (datatype) {
    case 0: target.pushVariable(variable, Variable(truncateToInt32(numericValue(value, name, "value")))); break;
    case 1: target.pushVariable(variable, Variable(static_cast<float>(numericValue(value, name, "value")))); break;
    case 2: target.pushVariable(variable, Variable(korvel::isTruthy(value))); break;
    case 3: target.pushVariable(variable, Variable(stringValue(value, name, "value"))); break;
    default: target.pushVariable(variable, value); break;
    }
    return Variable();
}

Variable checkButtonBinding(const Arguments& args) {
    static constexpr std::string_view name = "Korvel.checkButton";
    std::int32_t x = truncateToInt32(numericValue(requireArg(args, 0, name), name, "x"));
    std::int32_t y = truncateToInt32(numericValue(requireArg(args, 1, name), name, "y"));
    for (const ButtonVec& button : buttons) {
        if (x > std::min(button.x1, button.x2) && x < std::max(button.x1, button.x2) &&
            y > std::min(button.y1, button.y2) && y < std::max(button.y1, button.y2))
            return Variable(button.result);
    }
    return Variable(0);
}

Variable pushButtonBinding(const Arguments& args) {
    static constexpr std::string_view name = "Korvel.pushButton";
    static constexpr std::string_view fields[] = {"x1", "x2", "y1", "y2", "result"};
    std::int32_t values[5];
    for (std::size_t i = 0; i < 5; ++i)
        values[i] = truncateToInt32(numericValue(requireArg(args, i, name), name, fields[i]));
    buttons.push_back({values[0], values[1], values[2], values[3], values[4]});
    return Variable();
}

Variable readFileBinding(const Arguments& args) {
    static constexpr std::string_view name = "Korvel.readFile";
    const std::string& filePath = stringValue(requireArg(args, 0, name), name, "path");
    std::vector<std::uint8_t> bytes;
    if (!readRuntimeFile(filePath, bytes))
        bindingError(name, "failed to read file: " + filePath);
    return Variable(std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
}

}  // namespace

std::vector<ModuleEntry> korvelModuleEntries(korvel::KorvelScript& target) {
    korvel::KorvelScript* engineOfModule = &target;
    return {
        {"runScript", [engineOfModule](const Arguments& args) { return runScriptBinding(*engineOfModule, args); }},
        {"getVar", [engineOfModule](const Arguments& args) { return getVarBinding(*engineOfModule, args); }},
        {"setVar", [engineOfModule](const Arguments& args) { return setVarBinding(*engineOfModule, args); }},
        {"getGlobalTime",
         [](const Arguments&) { return Variable(millisecondsBetween(hostStartTime, HostClock::now())); }},
        {"getClock",
         [](const Arguments&) {
             HostClock::time_point now = HostClock::now();
             std::int32_t elapsed = millisecondsBetween(lastFrameTime, now);
             lastFrameTime = now;
             return Variable(elapsed);
         }},
        {"sleep",
         [](const Arguments& args) {
             static constexpr std::string_view name = "Korvel.sleep";
             double milliseconds = numericValue(requireArg(args, 0, name), name, "milliseconds");
             if (milliseconds > 0) wm_sleep_ms(static_cast<unsigned>(std::min(milliseconds, 4294967295.0)));
             return Variable();
         }},
        {"checkButton", checkButtonBinding},
        {"pushButton", pushButtonBinding},
        {"clearButtons",
         [](const Arguments&) {
             buttons.clear();
             return Variable();
         }},
        {"checksum",
         [](const Arguments& args) {
             static constexpr std::string_view name = "Korvel.checksum";
             const std::string& text = stringValue(requireArg(args, 0, name), name, "text");
             return Variable(static_cast<std::int32_t>(calculateChecksum(text)));
         }},
        {"getPath", [](const Arguments&) { return Variable(path); }},
        {"hostLog",
         [engineOfModule](const Arguments& args) {
             static constexpr std::string_view name = "Korvel.hostLog";
             const std::string& message = stringValue(requireArg(args, 0, name), name, "message");
             engineOfModule->flushOutput();  // what the script printed before comes first
             std::fwrite(message.data(), 1, message.size(), stderr);
             std::fputc('\n', stderr);
             std::fflush(stderr);
             return Variable();
         }},
        {"readFile", readFileBinding},
    };
}

namespace {

void requireCount(const Arguments& args, std::size_t count, const char* message) {
    if (args.size() != count) throw korvel::ScriptError(message);
}

// The free helpers report bare messages, without a function-name prefix.
double helperNumber(const Variable& value, const char* argumentName) {
    switch (value.type()) {
    case VarType::Int: return value.asInt();
    case VarType::Float: return value.asFloat();
    case VarType::Bool: return value.asBool() ? 1.0 : 0.0;
    default: throw korvel::ScriptError(std::string(argumentName) + " must be numeric");
    }
}

}  // namespace

void registerGlobalHelpers(korvel::KorvelScript& target) {
    target.pushFunction("add", [](const Arguments& args) {
        requireCount(args, 2, "add requires exactly 2 arguments");
        float sum = static_cast<float>(helperNumber(args[0], "left")) + static_cast<float>(helperNumber(args[1], "right"));
        if (args[0].type() == VarType::Float || args[1].type() == VarType::Float) return Variable(sum);
        return Variable(truncateToInt32(sum));
    });
    target.pushFunction("dFeet", [](const Arguments& args) {
        requireCount(args, 2, "dFeet(feet, inches) requires exactly 2 arguments");
        return Variable(helperNumber(args[0], "feet") + helperNumber(args[1], "inches") / 12.0);
    });
    target.pushFunction("dMetres", [](const Arguments& args) {
        requireCount(args, 2, "dMetres(metres, centimetres) requires exactly 2 arguments");
        return Variable(helperNumber(args[0], "metres") * 3.280839895 + helperNumber(args[1], "centimetres") * 0.032808399);
    });
    target.pushFunction("calcHeight", [](const Arguments& args) {
        requireCount(args, 1, "calcHeight(feet) requires exactly 1 argument");
        return Variable((helperNumber(args[0], "feet") - 5.8825) * 184.95);
    });
}

}  // namespace quillfen
