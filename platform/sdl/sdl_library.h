// SDL2 is loaded when the engine first needs a window or sound, not when it starts. Linked
// directly, it would make every start map SDL and the four dozen libraries it depends on (X11,
// Wayland, PulseAudio, ...), several milliseconds of processor time, also for games that never
// open a window or play a sound. The backends include this header instead of <SDL.h>: each SDL
// function they call becomes a call through a table filled from libSDL2 on first use.
#pragma once

#include <SDL.h>

// Every SDL function the backends use. A function missing here does not compile in a backend
// file (it would be called directly and fail to link); add it to the list.
#define KORVEL_SDL_FUNCTIONS(X) \
    X(SDL_InitSubSystem) \
    X(SDL_QuitSubSystem) \
    X(SDL_GetError) \
    X(SDL_SetHint) \
    X(SDL_getenv) \
    X(SDL_strncasecmp) \
    X(SDL_GetNumAudioDrivers) \
    X(SDL_GetAudioDriver) \
    X(SDL_OpenAudioDevice) \
    X(SDL_CloseAudioDevice) \
    X(SDL_PauseAudioDevice) \
    X(SDL_LockAudioDevice) \
    X(SDL_UnlockAudioDevice) \
    X(SDL_GetPerformanceCounter) \
    X(SDL_GetPerformanceFrequency) \
    X(SDL_CreateWindow) \
    X(SDL_DestroyWindow) \
    X(SDL_GetWindowID) \
    X(SDL_GetWindowFlags) \
    X(SDL_GetWindowSize) \
    X(SDL_SetWindowSize) \
    X(SDL_SetWindowTitle) \
    X(SDL_CaptureMouse) \
    X(SDL_PollEvent) \
    X(SDL_CreateRenderer) \
    X(SDL_DestroyRenderer) \
    X(SDL_GetRendererOutputSize) \
    X(SDL_CreateTexture) \
    X(SDL_DestroyTexture) \
    X(SDL_UpdateTexture) \
    X(SDL_RenderCopy) \
    X(SDL_RenderPresent)

namespace korvel::sdl {

struct Library {
#define KORVEL_SDL_MEMBER(name) decltype(&::name) name = nullptr;
    KORVEL_SDL_FUNCTIONS(KORVEL_SDL_MEMBER)
#undef KORVEL_SDL_MEMBER
};

// The table, loaded on the first call. When libSDL2 cannot be loaded (or lacks a function), the
// table holds stand-ins that report failure the way SDL does: initialisation fails with the
// error text "SDL2 is not installed", there are no audio drivers, creation returns null.
const Library& library();
// Whether the real library was loaded.
bool available();

}  // namespace korvel::sdl

#ifndef KORVEL_SDL_LIBRARY_IMPLEMENTATION
#define SDL_InitSubSystem ::korvel::sdl::library().SDL_InitSubSystem
#define SDL_QuitSubSystem ::korvel::sdl::library().SDL_QuitSubSystem
#define SDL_GetError ::korvel::sdl::library().SDL_GetError
#define SDL_SetHint ::korvel::sdl::library().SDL_SetHint
#define SDL_getenv ::korvel::sdl::library().SDL_getenv
#define SDL_strncasecmp ::korvel::sdl::library().SDL_strncasecmp
#define SDL_GetNumAudioDrivers ::korvel::sdl::library().SDL_GetNumAudioDrivers
#define SDL_GetAudioDriver ::korvel::sdl::library().SDL_GetAudioDriver
#define SDL_OpenAudioDevice ::korvel::sdl::library().SDL_OpenAudioDevice
#define SDL_CloseAudioDevice ::korvel::sdl::library().SDL_CloseAudioDevice
#define SDL_PauseAudioDevice ::korvel::sdl::library().SDL_PauseAudioDevice
#define SDL_LockAudioDevice ::korvel::sdl::library().SDL_LockAudioDevice
#define SDL_UnlockAudioDevice ::korvel::sdl::library().SDL_UnlockAudioDevice
#define SDL_GetPerformanceCounter ::korvel::sdl::library().SDL_GetPerformanceCounter
#define SDL_GetPerformanceFrequency ::korvel::sdl::library().SDL_GetPerformanceFrequency
#define SDL_CreateWindow ::korvel::sdl::library().SDL_CreateWindow
#define SDL_DestroyWindow ::korvel::sdl::library().SDL_DestroyWindow
#define SDL_GetWindowID ::korvel::sdl::library().SDL_GetWindowID
#define SDL_GetWindowFlags ::korvel::sdl::library().SDL_GetWindowFlags
#define SDL_GetWindowSize ::korvel::sdl::library().SDL_GetWindowSize
#define SDL_SetWindowSize ::korvel::sdl::library().SDL_SetWindowSize
#define SDL_SetWindowTitle ::korvel::sdl::library().SDL_SetWindowTitle
#define SDL_CaptureMouse ::korvel::sdl::library().SDL_CaptureMouse
#define SDL_PollEvent ::korvel::sdl::library().SDL_PollEvent
#define SDL_CreateRenderer ::korvel::sdl::library().SDL_CreateRenderer
#define SDL_DestroyRenderer ::korvel::sdl::library().SDL_DestroyRenderer
#define SDL_GetRendererOutputSize ::korvel::sdl::library().SDL_GetRendererOutputSize
#define SDL_CreateTexture ::korvel::sdl::library().SDL_CreateTexture
#define SDL_DestroyTexture ::korvel::sdl::library().SDL_DestroyTexture
#define SDL_UpdateTexture ::korvel::sdl::library().SDL_UpdateTexture
#define SDL_RenderCopy ::korvel::sdl::library().SDL_RenderCopy
#define SDL_RenderPresent ::korvel::sdl::library().SDL_RenderPresent
#endif
