// Loads libSDL2 on first use and fills the function table of sdl_library.h.
#define KORVEL_SDL_LIBRARY_IMPLEMENTATION
#include "platform/sdl/sdl_library.h"

#include <dlfcn.h>

#include <chrono>
#include <cstdlib>
#include <strings.h>
#include <type_traits>

namespace korvel::sdl {
namespace {

// A stand-in that returns the zero of its result type: null pointers, 0 for counts and device
// ids, false. Functions for which zero means success get their own stand-ins below.
template <typename Function>
struct Failing;
template <typename Result, typename... Arguments>
struct Failing<Result (*)(Arguments...)> {
    static Result call(Arguments...) {
        if constexpr (!std::is_void_v<Result>) return Result{};
    }
};

int SDLCALL failingInit(Uint32) { return -1; }
const char* SDLCALL missingLibraryError() { return "SDL2 is not installed"; }
char* SDLCALL plainGetenv(const char* name) { return std::getenv(name); }
int SDLCALL plainStrncasecmp(const char* a, const char* b, size_t length) { return strncasecmp(a, b, length); }
Uint64 SDLCALL steadyCounter() {
    return static_cast<Uint64>(std::chrono::steady_clock::now().time_since_epoch().count());
}
Uint64 SDLCALL steadyFrequency() {
    return static_cast<Uint64>(std::chrono::steady_clock::period::den / std::chrono::steady_clock::period::num);
}

Library standIns() {
    Library table;
#define KORVEL_SDL_STAND_IN(name) table.name = &Failing<decltype(&::name)>::call;
    KORVEL_SDL_FUNCTIONS(KORVEL_SDL_STAND_IN)
#undef KORVEL_SDL_STAND_IN
    table.SDL_InitSubSystem = failingInit;
    table.SDL_GetError = missingLibraryError;
    table.SDL_getenv = plainGetenv;
    table.SDL_strncasecmp = plainStrncasecmp;
    table.SDL_GetPerformanceCounter = steadyCounter;
    table.SDL_GetPerformanceFrequency = steadyFrequency;
    return table;
}

struct Loaded {
    Library table;
    bool real = false;
};

Loaded load() {
    Loaded loaded;
    void* handle = dlopen("libSDL2-2.0.so.0", RTLD_NOW | RTLD_LOCAL);
    if (!handle) handle = dlopen("libSDL2.so", RTLD_NOW | RTLD_LOCAL);
    if (handle) {
        bool complete = true;
#define KORVEL_SDL_LOOKUP(name)                                                                   \
    loaded.table.name = reinterpret_cast<decltype(&::name)>(dlsym(handle, #name));               \
    complete = complete && loaded.table.name != nullptr;
        KORVEL_SDL_FUNCTIONS(KORVEL_SDL_LOOKUP)
#undef KORVEL_SDL_LOOKUP
        // The library stays loaded for the life of the process: SDL's own threads run its code.
        if (complete) {
            loaded.real = true;
            return loaded;
        }
    }
    loaded.table = standIns();
    return loaded;
}

const Loaded& loadedLibrary() {
    static const Loaded loaded = load();  // thread-safe: the audio and window layers may both ask
    return loaded;
}

}  // namespace

const Library& library() { return loadedLibrary().table; }
bool available() { return loadedLibrary().real; }

}  // namespace korvel::sdl
