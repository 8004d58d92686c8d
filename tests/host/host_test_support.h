// A fresh interpreter with everything the host registers, for running small scripts.
#pragma once

#include "core/korvel_script.h"
#include "host/registry.h"

#include <gtest/gtest.h>

#include <string>

namespace quillfen::testing_support {

class HostScript {
public:
    HostScript() {
        registerFunctionsInto(m_script);
        m_script.setOutput([this](std::string_view text) { m_output.append(text); });
    }
    korvel::KorvelScript& script() { return m_script; }

    // What the script printed; a failure gives "error: <message>".
    std::string run(const std::string& source) {
        m_output.clear();
        korvel::RunResult result = m_script.runScript(source, "test.ks");
        m_script.flushOutput();
        if (!result.ok) return m_output + "error: " + result.errorMessage;
        return m_output;
    }
    // The message of the error a one-line script raises, "" when it does not raise.
    std::string errorOf(const std::string& line) {
        korvel::RunResult result = m_script.runScript(line, "test.ks");
        return result.ok ? std::string() : result.errorMessage;
    }

private:
    korvel::KorvelScript m_script;
    std::string m_output;
};

}  // namespace quillfen::testing_support
