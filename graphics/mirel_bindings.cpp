// Bindings of the image functions of the "Mirel" module. Each checks its arguments in order
// with the shared helpers, confirms every image pointer against the live-image registry before
// touching it, and then calls the graphics operation.
#include "graphics/mirel_bindings.h"

#include "graphics/mirel_image.h"
#include "graphics/mirel_internal.h"
#include "graphics/mmg_file.h"

#include <cstring>
#include <string>
#include <string_view>

namespace quillfen {

namespace {

using korvel::Variable;
using mirel_detail::truncateToInt;

// A live, valid image argument, or the error "<name> must be a valid image".
MirelImage& imageArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    void* pointer = pointerValue(requireArg(args, index, function), function, name);
    if (!cleanImage(pointer)) bindingError(function, std::string(name) + " must be a valid image");
    return *static_cast<MirelImage*>(pointer);
}

// Like imageArgument, and the image must have pixels (not the empty image).
MirelImage& pixelImageArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    MirelImage& image = imageArgument(args, index, function, name);
    if (!image.pixels) bindingError(function, std::string(name) + " must be a valid image");
    return image;
}

double numberArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    return numericValue(requireArg(args, index, function), function, name);
}

// Numbers that count pixels are truncated toward zero (and saturate at the int range).
int integerArgument(const Arguments& args, std::size_t index, std::string_view function, std::string_view name) {
    return truncateToInt(numberArgument(args, index, function, name));
}

// Four colour components starting at `index`, each a number from 0 to 255, truncated.
struct Colour {
    std::uint8_t r = 0, g = 0, b = 0, a = 0;
};

Colour colourArguments(const Arguments& args, std::size_t index, std::string_view function) {
    std::uint8_t components[4] = {};
    for (std::size_t offset = 0; offset < 4; ++offset) {
        const double value = numberArgument(args, index + offset, function, "rgba");
        if (!(value >= 0 && value <= 255)) bindingError(function, "rgba must be between 0 and 255");
        components[offset] = static_cast<std::uint8_t>(value);
    }
    return Colour{components[0], components[1], components[2], components[3]};
}

Blend blendArgument(const Arguments& args, std::size_t index, std::string_view function) {
    return numberArgument(args, index, function, "blend") != 0 ? Blend::Alpha : Blend::Copy;
}

bool insideImage(const MirelImage& image, int x, int y) {
    return image.pixels && x >= 0 && y >= 0 && x < image.width && y < image.height;
}

Variable imageValue(MirelImage* image) {
    return image ? Variable::fromPointer(image) : Variable();
}

Variable printImage(const Arguments& args) {
    constexpr std::string_view function = "Mirel.printImage";
    const MirelImage& image = imageArgument(args, 0, function, "image");
    const int columns = integerArgument(args, 1, function, "width");
    const int rows = integerArgument(args, 2, function, "height");
    printAsciiArt(&image, columns, rows);
    return {};
}

Variable threads(const Arguments& args) {
    setMirelThreadCount(integerArgument(args, 0, "Mirel.threads", "count"));
    return {};
}

Variable dither(const Arguments& args) {
    constexpr std::string_view function = "Mirel.dither";
    MirelImage& image = imageArgument(args, 0, function, "image");
    ditherImage(&image, integerArgument(args, 1, function, "amount"), false);
    return {};
}

Variable skew(const Arguments& args) {
    constexpr std::string_view function = "Mirel.skew";
    const MirelImage& input = imageArgument(args, 0, function, "input");
    MirelImage& output = imageArgument(args, 1, function, "output");
    static constexpr std::string_view names[8] = {"ltx", "lty", "rtx", "rty", "lbx", "lby", "rbx", "rby"};
    int corners[8] = {};
    for (std::size_t index = 0; index < 8; ++index) corners[index] = integerArgument(args, index + 2, function, names[index]);
    skewImage(corners[0], corners[1], corners[2], corners[3], corners[4], corners[5], corners[6], corners[7], &input, &output);
    return {};
}

Variable bilinear(const Arguments& args) {
    constexpr std::string_view function = "Mirel.bilinear";
    MirelImage& image = imageArgument(args, 0, function, "image");
    upscaleMirelImage(&image, numberArgument(args, 1, function, "factor"));
    return {};
}

Variable trimImage(const Arguments& args) {
    constexpr std::string_view function = "Mirel.trimImage";
    MirelImage& image = imageArgument(args, 0, function, "image");
    const int width = integerArgument(args, 1, function, "width");
    const int height = integerArgument(args, 2, function, "height");
    trimMirelImage(&image, width, height);
    return {};
}

Variable bilinearSolid(const Arguments& args) {
    bilinearInPlace(&imageArgument(args, 0, "Mirel.bilinearSolid", "image"));
    return {};
}

Variable createImage(const Arguments& args) {
    constexpr std::string_view function = "Mirel.createImage";
    const int width = integerArgument(args, 0, function, "width");
    const int height = integerArgument(args, 1, function, "height");
    const Colour colour = colourArguments(args, 2, function);
    MirelImage* image = createSolidColourImage(width, height, colour.r, colour.g, colour.b, colour.a);
    if (!image) bindingError(function, "image is too large");
    return Variable::fromPointer(image);
}

// Not being a pointer is an answer here, not an error: a script may ask about any value, such
// as the nothing a failed load returned.
Variable checkImage(const Arguments& args) {
    const Variable& value = requireArg(args, 0, "Mirel.checkImage");
    return Variable(value.type() == korvel::VarType::Pointer && isLiveImage(value.asPointer()));
}

Variable getImagePixel(const Arguments& args) {
    constexpr std::string_view function = "Mirel.getPixel";
    MirelImage& image = imageArgument(args, 0, function, "image");
    const int x = integerArgument(args, 1, function, "x");
    const int y = integerArgument(args, 2, function, "y");
    if (!insideImage(image, x, y)) bindingError(function, "pixel coordinates are outside the image");
    const std::uint8_t* pixel = getPixel(&image, x, y);
    return returnValues({Variable(std::int32_t{pixel[0]}), Variable(std::int32_t{pixel[1]}), Variable(std::int32_t{pixel[2]}),
                         Variable(std::int32_t{pixel[3]})});
}

// Listed under "getPixel" after the reader, so a script never reaches it by name.
Variable setImagePixel(const Arguments& args) {
    constexpr std::string_view function = "Mirel.setPixel";
    MirelImage& image = imageArgument(args, 0, function, "image");
    const int x = integerArgument(args, 1, function, "x");
    const int y = integerArgument(args, 2, function, "y");
    const Colour colour = colourArguments(args, 3, function);
    if (!insideImage(image, x, y)) bindingError(function, "pixel coordinates are outside the image");
    setPixel(&image, x, y, colour.r, colour.g, colour.b, colour.a);
    return {};
}

Variable blitImageBinding(const Arguments& args) {
    constexpr std::string_view function = "Mirel.blitImage";
    if (args.size() != 7) bindingError(function, "expected 7 arguments (target, image, x, y, blend, scale, rotation)");
    MirelImage& target = imageArgument(args, 0, function, "target");
    const MirelImage& image = imageArgument(args, 1, function, "image");
    const int x = integerArgument(args, 2, function, "x");
    const int y = integerArgument(args, 3, function, "y");
    const Blend blend = blendArgument(args, 4, function);
    const double scale = numberArgument(args, 5, function, "scale");
    const double rotation = numberArgument(args, 6, function, "rotation");
    blitImage(target, image, x, y, blend, scale, rotation);
    return {};
}

Variable blitImageRectBinding(const Arguments& args) {
    constexpr std::string_view function = "Mirel.blitImageRect";
    if (args.size() != 10)
        bindingError(function, "expected 10 arguments (target, image, sx, sy, width, height, x, y, blend, scale)");
    MirelImage& target = imageArgument(args, 0, function, "target");
    const MirelImage& image = imageArgument(args, 1, function, "image");
    SourceRect part;
    part.x = integerArgument(args, 2, function, "sx");
    part.y = integerArgument(args, 3, function, "sy");
    part.width = integerArgument(args, 4, function, "width");
    part.height = integerArgument(args, 5, function, "height");
    const int x = integerArgument(args, 6, function, "x");
    const int y = integerArgument(args, 7, function, "y");
    const Blend blend = blendArgument(args, 8, function);
    blitImageRect(target, image, part, x, y, blend, numberArgument(args, 9, function, "scale"));
    return {};
}

Variable mirrorImage(const Arguments& args) {
    constexpr std::string_view function = "Mirel.mirrorImage";
    MirelImage& image = imageArgument(args, 0, function, "image");
    const bool horizontal = korvel::isTruthy(requireArg(args, 1, function));
    mirrorMirelImage(&image, horizontal ? MirrorAxis::Horizontal : MirrorAxis::Vertical);
    return {};
}

Variable killImageBinding(const Arguments& args) {
    constexpr std::string_view function = "Mirel.killImage";
    void* pointer = pointerValue(requireArg(args, 0, function), function, "image");
    if (!killImage(pointer)) bindingError(function, "image must be a valid image");
    return {};
}

Variable imageSize(const Arguments& args) {
    const MirelImage& image = imageArgument(args, 0, "Mirel.imageSize", "image");
    return returnValues({Variable(image.width), Variable(image.height)});
}

Variable insertReflection(const Arguments& args) {
    constexpr std::string_view function = "Mirel.insertReflection";
    MirelImage& image = pixelImageArgument(args, 0, function, "image");
    const MirelImage& reflectmap = pixelImageArgument(args, 1, function, "reflectmap");
    // Copy first: reflectmap may be the image itself, and a failed copy must leave the old map.
    auto copy = allocatePixels(reflectmap.width, reflectmap.height);
    if (!copy) bindingError(function, "not enough memory for the reflection map");
    std::memcpy(copy.get(), reflectmap.pixels.get(), pixelOffset(reflectmap, 0, reflectmap.height));
    image.reflectionPixels = std::move(copy);
    image.reflectionWidth = reflectmap.width;
    image.reflectionHeight = reflectmap.height;
    return {};
}

Variable saveMirelImageBinding(const Arguments& args) {
    constexpr std::string_view function = "Mirel.saveMirelImage";
    const MirelImage& image = imageArgument(args, 0, function, "image");
    const std::string& path = stringValue(requireArg(args, 1, function), function, "path");
    return Variable(saveMirelImage(&image, path.c_str()));
}

Variable loadMirelImageBinding(const Arguments& args) {
    constexpr std::string_view function = "Mirel.loadMirelImage";
    const std::string& path = stringValue(requireArg(args, 0, function), function, "path");
    return imageValue(loadMirelImage(path.c_str()));
}

}  // namespace

std::vector<ModuleEntry> mirelModuleEntries() {
    return {
        {"printImage", printImage},
        {"threads", threads},
        {"dither", dither},
        {"skew", skew},
        {"bilinear", bilinear},
        {"trimImage", trimImage},
        {"bilinearSolid", bilinearSolid},
        {"createImage", createImage},
        {"checkImage", checkImage},
        {"getPixel", getImagePixel},
        {"getPixel", setImagePixel},
        {"blitImage", blitImageBinding},
        {"blitImageRect", blitImageRectBinding},
        {"mirrorImage", mirrorImage},
        {"killImage", killImageBinding},
        {"imageSize", imageSize},
        {"insertReflection", insertReflection},
        {"saveMirelImage", saveMirelImageBinding},
        {"loadMirelImage", loadMirelImageBinding},
    };
}

}  // namespace quillfen
