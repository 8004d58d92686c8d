// On Windows the executable is a window program: started from a console, it attaches to its
// parent's console during static initialisation so that print, errors and the prompt reach it.
// Started from the desktop, it keeps its streams (and its output goes nowhere).
#ifdef _WIN32
#include <windows.h>

#include <cstdio>

namespace {

struct ParentConsole {
    ParentConsole() {
        if (!AttachConsole(ATTACH_PARENT_PROCESS)) return;
        if (std::freopen("CONOUT$", "w", stdout)) std::setvbuf(stdout, nullptr, _IONBF, 0);
        if (std::freopen("CONOUT$", "w", stderr)) std::setvbuf(stderr, nullptr, _IONBF, 0);
        std::freopen("CONIN$", "r", stdin);
    }
};

const ParentConsole parentConsole;

}  // namespace
#endif
