// The one error type thrown inside the interpreter, and the signals that unwind a run.
#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <string_view>

namespace korvel::lua {

// Every syntax and runtime error. The text is complete when thrown ("chunk:line: message" for a
// located runtime error, "chunk:line:column: message" for a syntax error).
class LuaError : public std::exception {
public:
    explicit LuaError(std::string message) : m_message(std::move(message)) {}
    const char* what() const noexcept override { return m_message.c_str(); }
    const std::string& message() const { return m_message; }

private:
    std::string m_message;
};

// os.exit: ends the run at once; the run still succeeds. Not a std::exception, so pcall and the
// library's own catch clauses let it pass.
struct ExitSignal {
    int code = 0;
};

// The host's step budget ran out. Not a std::exception either: pcall must not swallow it, or a
// script could keep running past its budget.
struct StepBudgetSignal {};

[[noreturn]] void failParse(std::string_view chunkName, std::uint32_t line, std::uint32_t column, std::string_view message);

} // namespace korvel::lua
