// Bindings of the "Metal" and "Sailfish" modules. Each checks its arguments in order with the
// shared helpers (images against the live-image registry) and then calls the window layer on
// the host window `win`.
#include "host/metal_module.h"

#include "graphics/mirel_image.h"
#include "host/host.h"
#include "host/korvel_module.h"
#include "platform/window.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace quillfen {

namespace {

using korvel::Variable;

InputSample g_lastSample;

// A live, valid image argument, or "<name> must be a valid image".
const MirelImage& imageArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    void* pointer = pointerValue(requireArg(args, index, function), function, name);
    if (!cleanImage(pointer)) bindingError(function, std::string(name) + " must be a valid image");
    return *static_cast<const MirelImage*>(pointer);
}

std::int32_t integerArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    return truncateToInt32(numericValue(requireArg(args, index, function), function, name));
}

// A colour channel: truncated toward zero and held inside [0, 255].
std::uint8_t channelArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    return static_cast<std::uint8_t>(std::clamp(integerArgument(args, index, function, name), 0, 255));
}

// The window a binding draws on; "no window is open" when the script has none.
WmWindow* openWindow(std::string_view function) {
    if (!win) bindingError(function, "no window is open (Metal.spawnWindow opens one)");
    return win;
}

void destroyHostWindow() {
    if (!win) return;
    wm_destroyWindow(win);
    win = nullptr;
}

// spawnWindow(width, height, title): opens the window (closing one the script already has)
// and returns it.
Variable spawnWindow(const Arguments& args) {
    constexpr std::string_view function = "Metal.spawnWindow";
    const std::int32_t width = integerArgument(args, 0, function, "width");
    const std::int32_t height = integerArgument(args, 1, function, "height");
    const std::string& title = stringValue(requireArg(args, 2, function), function, "title");
    const std::string limit = " must be at most " + std::to_string(kMaxWindowSide);
    if (width > kMaxWindowSide) bindingError(function, "width" + limit);
    if (height > kMaxWindowSide) bindingError(function, "height" + limit);
    destroyHostWindow();
    win = wm_createWindow(width, height, title.c_str());
    if (!win) bindingError(function, "the window could not be created (is there a display?)");
    return Variable::fromPointer(win);
}

Variable killWindow(const Arguments&) {
    destroyHostWindow();
    return {};
}

// getWindow([what]): the window itself, or with "picture" a new live image of what the
// window shows (the back buffer, bars included, at the drawing area's size). The start-up
// program's Korvel.capture takes screenshots this way. Nothing when no window is open.
Variable getWindow(const Arguments& args) {
    constexpr std::string_view function = "Metal.getWindow";
    if (!args.empty()) {
        const std::string& what = stringValue(args[0], function, "what");
        if (what != "picture") bindingError(function, "what must be \"picture\" when given");
        if (!win) return {};
        MirelImage* picture = wm_captureWindow(win);
        if (!picture) bindingError(function, "not enough memory for the picture");
        return Variable::fromPointer(picture);
    }
    return win ? Variable::fromPointer(win) : Variable();
}

// renderImage(image): shows the image in the window and presents it.
Variable renderImage(const Arguments& args) {
    constexpr std::string_view function = "Metal.renderImage";
    const MirelImage& image = imageArgument(args, 0, function, "image");
    WmWindow* window = openWindow(function);
    wm_pushImage(window, image);
    wm_updateWindow(window);
    return {};
}

// forceUpdate(): handles pending window messages and presents, without a new image.
Variable forceUpdate(const Arguments&) {
    wm_updateWindow(win);
    return {};
}

Variable getName(const Arguments&) { return Variable(wm_getWindowTitle(win)); }

Variable renameWindow(const Arguments& args) {
    constexpr std::string_view function = "Metal.setTitle";
    const std::string& title = stringValue(requireArg(args, 0, function), function, "title");
    wm_setWindowTitle(openWindow(function), title.c_str());
    return {};
}

// clearBuffer(red, green, blue): the colour of the letterbox bars and of transparent pixels.
Variable clearBuffer(const Arguments& args) {
    constexpr std::string_view function = "Metal.clearBuffer";
    const std::uint8_t red = channelArgument(args, 0, function, "red");
    const std::uint8_t green = channelArgument(args, 1, function, "green");
    const std::uint8_t blue = channelArgument(args, 2, function, "blue");
    wm_clearWindow(openWindow(function), red, green, blue);
    return {};
}

Variable checkClose(const Arguments&) { return Variable(wm_windowShouldClose(win)); }

Variable clearTouchBar(const Arguments&) {
    wm_clearTouchBar();
    return {};
}

Variable setTouchBarButton(const Arguments& args) {
    constexpr std::string_view function = "Metal.setTouchBarButton";
    const std::int32_t button = integerArgument(args, 0, function, "button");
    const std::string& text = stringValue(requireArg(args, 1, function), function, "text");
    wm_setTouchBarButtonText(button, text.c_str());
    return {};
}

Variable setTouchBarButtonImage(const Arguments& args) {
    constexpr std::string_view function = "Metal.setTouchBarButtonImage";
    const std::int32_t button = integerArgument(args, 0, function, "button");
    const MirelImage& image = imageArgument(args, 1, function, "image");
    wm_setTouchBarButtonImage(button, &image);
    return {};
}

Variable sailfishKey(const Arguments& args) {
    wm_sailfish_register_key(integerArgument(args, 0, "Sailfish.key", "key"));
    return {};
}

Variable sailfishOrientation(const Arguments&) { return Variable(wm_sailfish_left_orientation()); }

// The key globals and the virtual-key codes behind them, in publication order.
struct KeyGlobal {
    const char* name;
    unsigned virtualKey;
};

constexpr KeyGlobal kArrowKeys[] = {
    {"KORVEL_KEY_UP", 0x26}, {"KORVEL_KEY_DOWN", 0x28}, {"KORVEL_KEY_LEFT", 0x25}, {"KORVEL_KEY_RIGHT", 0x27}};
constexpr KeyGlobal kEditingKeys[] = {
    {"KORVEL_KEY_BACK", 0x08}, {"KORVEL_KEY_RETURN", 0x0D}, {"KORVEL_KEY_DELETE", 0x2E}, {"KORVEL_KEY_SPACE", 0x20}};

}  // namespace

const InputSample& lastInputSample() { return g_lastSample; }

void publishInputGlobals(korvel::KorvelScript& target) {
    // Once a frame, what the game printed reaches the console even when standard output is a
    // pipe or a file (where it is otherwise held until the buffer fills).
    target.flushOutput();
    wm_updateKeyboardState();
    InputSample sample;
    if (win) {
        wm_getMousePosition(win, &sample.x, &sample.y);
        sample.mouse = {wm_getMouseButtonState(win, 0), wm_getMouseButtonState(win, 2), wm_getMouseButtonState(win, 1)};
    }
    g_lastSample = sample;

    target.pushVariable("KORVEL_MOUSE_1", Variable(sample.mouse[0]));
    target.pushVariable("KORVEL_MOUSE_2", Variable(sample.mouse[1]));
    target.pushVariable("KORVEL_MOUSE_3", Variable(sample.mouse[2]));
    target.pushVariable("KORVEL_MOUSE_X", Variable(sample.x));
    target.pushVariable("KORVEL_MOUSE_Y", Variable(sample.y));
    const WmKeyArray& keys = wm_keyboardState();
    for (const KeyGlobal& key : kArrowKeys) target.pushVariable(key.name, Variable(keys[key.virtualKey]));
    std::string name = "KORVEL_KEY_A";
    for (char letter = 'A'; letter <= 'Z'; ++letter) {
        name.back() = letter;
        target.pushVariable(name, Variable(keys[static_cast<unsigned char>(letter)]));
    }
    for (char digit : std::string_view("1234567890")) {
        name.back() = digit;
        target.pushVariable(name, Variable(keys[static_cast<unsigned char>(digit)]));
    }
    for (const KeyGlobal& key : kEditingKeys) target.pushVariable(key.name, Variable(keys[key.virtualKey]));
    std::string touchBar = "KORVEL_TOUCHBAR_1";
    for (int button = 1; button <= 4; ++button) {
        touchBar.back() = static_cast<char>('0' + button);
        target.pushVariable(touchBar, Variable(wm_getTouchBarButtonState(button)));
    }
}

void publishInputGlobals() { publishInputGlobals(engine); }

Variable updateInput(const Arguments&) {
    publishInputGlobals();
    return {};
}

std::vector<ModuleEntry> metalModuleEntries(korvel::KorvelScript& target) {
    auto updateInputOfTarget = [&target](const Arguments&) {
        publishInputGlobals(target);
        return Variable();
    };
    return {
        {"renderImage", renderImage},
        {"updateInput", updateInputOfTarget},
        {"forceUpdate", forceUpdate},
        {"getTitle", getName},
        {"getWindow", getWindow},
        {"clearTouchBar", clearTouchBar},
        {"setTouchBarButton", setTouchBarButton},
        {"setTouchBarButtonImage", setTouchBarButtonImage},
        {"getTitle", renameWindow},  // shadowed by the first "getTitle"
        {"clearBuffer", clearBuffer},
        {"checkClose", checkClose},
        {"killWindow", killWindow},
        {"spawnWindow", spawnWindow},
    };
}

std::vector<ModuleEntry> sailfishModuleEntries() {
    return {
        {"key", sailfishKey},
        {"orientation", sailfishOrientation},
    };
}

}  // namespace quillfen
