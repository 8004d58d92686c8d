// Console reading and writing for the io group: io.write and io.read (files and pipes are in
// lib_file.cpp).
#include "core/library_internal.h"

#include <cstdio>

namespace korvel {

void Interpreter::registerIoLibrary() {
    Library lib(*this);
    Variable io = lib.group("io");
    lib.member(io, "io", "write", [this](const Args& args) {
        std::string text;
        for (const Variable& value : args) value.appendTo(text);
        write(text);
        return Variable();
    });
    lib.member(io, "io", "read", [this](const Args&) {
        // One line from standard input without its line feed; nil at the end of input.
        requireUnsandboxed("io['read']");
        std::fflush(stdout);
        std::string line;
        int c;
        bool any = false;
        while ((c = std::fgetc(stdin)) != EOF) {
            any = true;
            if (c == '\n') break;
            line += static_cast<char>(c);
        }
        if (!any) return Variable();
        if (!line.empty() && line.back() == '\r') line.pop_back();
        return Variable(std::move(line));
    });
}

}  // namespace korvel
