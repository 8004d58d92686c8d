// SDL key codes to the Windows virtual-key codes that index the engine's key flags, so a game
// sees the same KORVEL_KEY_* on every platform.
#include "platform/sdl/sdl_window_internal.h"

namespace wm::sdl {

namespace {

struct KeyPair {
    SDL_Keycode key;
    unsigned virtualKey;
};

// Keys whose SDL codes are not in runs that map arithmetically.
constexpr KeyPair kSingleKeys[] = {
    {SDLK_BACKSPACE, 0x08}, {SDLK_TAB, 0x09},       {SDLK_RETURN, 0x0D},      {SDLK_KP_ENTER, 0x0D},
    {SDLK_PAUSE, 0x13},     {SDLK_CAPSLOCK, 0x14},  {SDLK_ESCAPE, 0x1B},      {SDLK_SPACE, 0x20},
    {SDLK_PAGEUP, 0x21},    {SDLK_PAGEDOWN, 0x22},  {SDLK_END, 0x23},         {SDLK_HOME, 0x24},
    {SDLK_LEFT, 0x25},      {SDLK_UP, 0x26},        {SDLK_RIGHT, 0x27},       {SDLK_DOWN, 0x28},
    {SDLK_PRINTSCREEN, 0x2C}, {SDLK_INSERT, 0x2D},  {SDLK_DELETE, 0x2E},      {SDLK_HELP, 0x2F},
    // Windows reports both shift, control and alt keys under one code each.
    {SDLK_LSHIFT, 0x10},    {SDLK_RSHIFT, 0x10},    {SDLK_LCTRL, 0x11},       {SDLK_RCTRL, 0x11},
    {SDLK_LALT, 0x12},      {SDLK_RALT, 0x12},      {SDLK_LGUI, 0x5B},        {SDLK_RGUI, 0x5C},
    {SDLK_APPLICATION, 0x5D}, {SDLK_SLEEP, 0x5F},
    {SDLK_KP_MULTIPLY, 0x6A}, {SDLK_KP_PLUS, 0x6B}, {SDLK_KP_MINUS, 0x6D},    {SDLK_KP_PERIOD, 0x6E},
    {SDLK_KP_DIVIDE, 0x6F}, {SDLK_NUMLOCKCLEAR, 0x90}, {SDLK_SCROLLLOCK, 0x91},
    // The punctuation keys of a US layout (the VK_OEM_* codes).
    {SDLK_SEMICOLON, 0xBA}, {SDLK_EQUALS, 0xBB},    {SDLK_COMMA, 0xBC},       {SDLK_MINUS, 0xBD},
    {SDLK_PERIOD, 0xBE},    {SDLK_SLASH, 0xBF},     {SDLK_BACKQUOTE, 0xC0},   {SDLK_LEFTBRACKET, 0xDB},
    {SDLK_BACKSLASH, 0xDC}, {SDLK_RIGHTBRACKET, 0xDD}, {SDLK_QUOTE, 0xDE},
};

}  // namespace

unsigned virtualKeyFor(SDL_Keycode key, SDL_Scancode scancode) {
    if (key >= SDLK_a && key <= SDLK_z) return 0x41 + static_cast<unsigned>(key - SDLK_a);
    if (key >= SDLK_0 && key <= SDLK_9) return 0x30 + static_cast<unsigned>(key - SDLK_0);
    if (key >= SDLK_F1 && key <= SDLK_F12) return 0x70 + static_cast<unsigned>(key - SDLK_F1);
    if (key >= SDLK_F13 && key <= SDLK_F24) return 0x7C + static_cast<unsigned>(key - SDLK_F13);
    if (key == SDLK_KP_0) return 0x60;
    if (key >= SDLK_KP_1 && key <= SDLK_KP_9) return 0x61 + static_cast<unsigned>(key - SDLK_KP_1);
    for (const KeyPair& pair : kSingleKeys)
        if (pair.key == key) return pair.virtualKey;
    // A layout whose letter keys produce other scripts still has them in the same places: the
    // physical position names the key, as Windows does for such layouts.
    if (scancode >= SDL_SCANCODE_A && scancode <= SDL_SCANCODE_Z) return 0x41 + static_cast<unsigned>(scancode - SDL_SCANCODE_A);
    if (scancode >= SDL_SCANCODE_1 && scancode <= SDL_SCANCODE_9) return 0x31 + static_cast<unsigned>(scancode - SDL_SCANCODE_1);
    if (scancode == SDL_SCANCODE_0) return 0x30;
    return kNoVirtualKey;
}

}  // namespace wm::sdl
