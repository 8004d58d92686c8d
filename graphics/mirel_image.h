// The engine's picture: an RGBA image record, the registry of images scripts may touch, the
// pixel primitives and the image operations. Nothing here prints (except printAsciiArt, whose
// job it is) or throws: bad input makes an operation do nothing or return false/null.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace quillfen {

struct MirelImage {
    std::int32_t width = 0;   // 0 only in the empty image
    std::int32_t height = 0;
    std::unique_ptr<std::uint8_t[]> pixels;  // width × height × 4 bytes: R, G, B, A, row-major, top row first
    // A second picture carried by the image for the raycast renderer; saved and loaded with it.
    std::int32_t reflectionWidth = 0;
    std::int32_t reflectionHeight = 0;
    std::unique_ptr<std::uint8_t[]> reflectionPixels;
};

// Byte offset of pixel (x, y); size_t so images past 2 GiB of pixels index correctly.
inline std::size_t pixelOffset(const MirelImage& image, int x, int y) {
    return (static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width) + static_cast<std::size_t>(x)) * 4;
}

// The largest pixel block an image may have: its byte count must fit in 32 bits, so that every
// image can be written to an .mmg file.
inline constexpr std::uint64_t kMaxImageBytes = 0xFFFFFFFFull;

// A zero-filled block of width × height pixels; null when a size is not positive, the block
// would exceed kMaxImageBytes, or memory runs out.
std::unique_ptr<std::uint8_t[]> allocatePixels(std::int64_t width, std::int64_t height);

// ---- The live-image registry (process-wide) ------------------------------------------------
// Scripts hold images as bare pointers; a pointer is dereferenced only after the registry has
// confirmed that it names a live image. The registry owns the live images.

// Makes the image live and hands back its address (null for a null image).
MirelImage* registerImage(std::unique_ptr<MirelImage> image);
// Whether pointer is a live image. Never dereferences pointer.
bool isLiveImage(const void* pointer);
// Erases a live image from the registry and frees it; false (nothing done) when it is not live.
bool killImage(const void* pointer);
// Number of live images (for tests and leak checks).
std::size_t liveImageCount();

// True when the image is live and valid: 0 × 0, or positive sizes with a pixel block. A live
// image that is not valid is reset to the empty image and yields false; an unknown pointer
// yields false and is left untouched.
bool cleanImage(const void* pointer);

// ---- Shared settings (process-wide) --------------------------------------------------------
// Worker threads for row-parallel operations ("Mirel.threads"); default 6, stored unclamped:
// each operation limits it to its row count and treats values below 2 as "on the calling thread".
int mirelThreadCount();
void setMirelThreadCount(int count);
// The renderer's accuracy, used by bilinearInPlace as its block size; default 4, unclamped.
int mirelAccuracy();
void setMirelAccuracy(int accuracy);

// ---- Pixel primitives ----------------------------------------------------------------------
// Writes one pixel; nothing for a null image or block or coordinates outside the image.
void setPixel(MirelImage* image, int x, int y, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a);
// The pixel's four bytes, or, when there is no such pixel, one shared transparent-black
// fallback pixel (never null, so callers need no test; callers must not write through it).
std::uint8_t* getPixel(MirelImage* image, int x, int y);
// A new live image filled with one colour; sizes below 1 become 1 (a solid image is never
// empty). Null only when the image would be too large or memory runs out.
MirelImage* createSolidColourImage(int width, int height, std::uint8_t r, std::uint8_t g, std::uint8_t b, std::uint8_t a);

// ---- Operations ------------------------------------------------------------------------------
enum class Blend { Copy, Alpha };

// A rectangle of a source image (clipped to the image when drawn).
struct SourceRect {
    int x = 0, y = 0, width = 0, height = 0;
};

// Draws the whole source (or the rectangle `part` of it) onto target with its top-left corner
// at (x, y), scaled by scale and turned by rotation degrees (clockwise on screen) about the
// centre of the scaled rectangle. Scale 0 draws nothing; a negative scale mirrors. Scaled or
// turned drawing samples the nearest source pixel.
void blitImage(MirelImage& target, const MirelImage& source, int x, int y, Blend blend, double scale, double rotation);
void blitImageRect(MirelImage& target, const MirelImage& source, SourceRect part, int x, int y, Blend blend, double scale);

// Optionally doubles the image (each pixel a 2 × 2 block), then adds to all four bytes of every
// pixel a noise value in [-amount, amount] that depends only on the pixel's position.
void ditherImage(MirelImage* image, int amount, bool doubleSize);
// Reverses every row (horizontal) or the order of the rows (vertical).
enum class MirrorAxis { Vertical, Horizontal };
void mirrorMirelImage(MirelImage* image, MirrorAxis axis);
// Bilinear enlargement by factor (> 1.0; otherwise nothing happens).
void upscaleMirelImage(MirelImage* image, double factor);
// Keeps the pixels on a grid of mirelAccuracy() and fills the rest by bilinear interpolation
// between the grid pixels around them.
void bilinearInPlace(MirelImage* image);
// Keeps the top-left width × height pixels; never enlarges.
void trimMirelImage(MirelImage* image, int width, int height);
// Maps the whole input onto the quadrilateral with corners left-top, right-top, left-bottom,
// right-bottom (in output pixels), blending as a blit does.
void skewImage(int leftTopX, int leftTopY, int rightTopX, int rightTopY, int leftBottomX, int leftBottomY,
               int rightBottomX, int rightBottomY, const MirelImage* input, MirelImage* output);

// The ASCII picture of an image in columns × rows characters, each line ending in a line feed;
// empty when the input is refused (null image, no pixels, a size or count below 1, or a text
// too large to build).
std::string asciiArtText(const MirelImage* image, int columns, int rows);
// Writes asciiArtText to standard output, or "Invalid input parameters.\n" to standard error.
void printAsciiArt(const MirelImage* image, int columns, int rows);

}  // namespace quillfen
