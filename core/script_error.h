// The one error type the KorvelScript interpreter throws. Native bindings may also throw any
// std::exception; the interpreter turns it into a ScriptError with the same message.
#pragma once

#include "core/variable.h"

#include <stdexcept>
#include <string>

namespace korvel {

class ScriptError : public std::runtime_error {
public:
    explicit ScriptError(const std::string& message) : std::runtime_error(message) {}
    // An error raised by the script's own error(value): pcall hands back the value itself.
    ScriptError(const std::string& message, Variable value)
        : std::runtime_error(message), m_value(std::move(value)), m_hasValue(true) {}

    bool hasValue() const noexcept { return m_hasValue; }
    const Variable& value() const noexcept { return m_value; }

    // Where the error happened, filled in by the innermost statement that sees it.
    bool located() const noexcept { return m_line >= 0; }
    int line() const noexcept { return m_line; }
    int tokenIndex() const noexcept { return m_token; }
    const std::string& report() const noexcept { return m_report; }
    void setToken(int token) noexcept {
        if (m_line < 0 && m_token < 0) m_token = token;
    }
    void locate(int line, std::string report) {
        m_line = line;
        m_report = std::move(report);
    }

private:
    Variable m_value;
    bool m_hasValue = false;
    int m_line = -1;
    int m_token = -1;
    std::string m_report;
};

}  // namespace korvel
