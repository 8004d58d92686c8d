// The Audio module: tracks opened from WAV (and MP3) files, played, paused, saved and freed by
// scripts. Tracks reach scripts as pointer values; every binding that takes one looks it up in
// the registry of live tracks first, so a freed or foreign pointer is an error, never a crash.
// The synthesis and analysis functions of the module live elsewhere.
#include "host/audio_module.h"

#include "core/korvel_script.h"
#include "platform/audio_track.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <memory>
#include <unordered_map>

namespace quillfen {

namespace {

namespace audio = korvel::audio;

// Every track the module has handed out and not yet freed. Bindings run on the script thread
// only, so the map needs no lock.
std::unordered_map<void*, std::unique_ptr<audio::Track>>& liveTracks() {
    static std::unordered_map<void*, std::unique_ptr<audio::Track>> tracks;
    return tracks;
}

audio::Track& trackArgument(const Arguments& args, std::size_t index, std::string_view functionName) {
    void* pointer = pointerValue(requireArg(args, index, functionName), functionName, "track");
    auto found = liveTracks().find(pointer);
    if (found == liveTracks().end()) bindingError(functionName, "track is not an open track");
    return *found->second;
}

// A script's millisecond offset: negative and NaN start at 0, huge ones are past any end.
std::uint64_t offsetMilliseconds(double value) {
    if (!(value > 0)) return 0;
    if (value >= 18446744073709549568.0) return std::numeric_limits<std::uint64_t>::max();
    return static_cast<std::uint64_t>(value);
}

// open(path): a new track, or an error naming the path.
Variable openTrack(const Arguments& args) {
    constexpr std::string_view name = "Audio.open";
    const std::string& given = stringValue(requireArg(args, 0, name), name, "path");
    const std::string path = korvel::KorvelScript::normalisePath(given);
    std::string reason;
    std::unique_ptr<audio::Track> track = audio::openFile(path, &reason);
    if (!track) bindingError(name, "cannot open " + given + ": " + reason);
    void* pointer = track.get();
    liveTracks().emplace(pointer, std::move(track));
    return Variable::fromPointer(pointer);
}

// play(track, offset[, loop]): whether playback started (false for a track that cannot play).
Variable playTrack(const Arguments& args) {
    constexpr std::string_view name = "Audio.play";
    audio::Track& track = trackArgument(args, 0, name);
    const double offset = numericValue(requireArg(args, 1, name), name, "offset");
    const bool loop = args.size() > 2 && korvel::isTruthy(args[2]);
    return Variable(audio::play(&track, offsetMilliseconds(offset), loop));
}

Variable pauseTrack(const Arguments& args) {
    constexpr std::string_view name = "Audio.pause";
    audio::pause(&trackArgument(args, 0, name));
    return Variable();
}

Variable freeTrack(const Arguments& args) {
    constexpr std::string_view name = "Audio.free";
    audio::Track& track = trackArgument(args, 0, name);
    auto found = liveTracks().find(&track);
    std::unique_ptr<audio::Track> owned = std::move(found->second);
    liveTracks().erase(found);
    audio::close(std::move(owned));
    return Variable();
}

Variable clearTracks(const Arguments&) {
    audio::clear();
    return Variable();
}

// save(track, path): writes a 16-bit WAV file; an existing file is replaced whole or kept.
Variable saveTrack(const Arguments& args) {
    constexpr std::string_view name = "Audio.save";
    audio::Track& track = trackArgument(args, 0, name);
    const std::string& given = stringValue(requireArg(args, 1, name), name, "path");
    if (track.samples.empty() || track.channels == 0) bindingError(name, "track has no sound to save");
    if (!audio::save(&track, korvel::KorvelScript::normalisePath(given))) bindingError(name, "cannot write " + given);
    return Variable(true);
}

}  // namespace

std::vector<ModuleEntry> audioModuleEntries() {
    return {
        {"open", openTrack},   {"play", playTrack},     {"pause", pauseTrack},
        {"free", freeTrack},   {"clear", clearTracks},  {"save", saveTrack},
    };
}

}  // namespace quillfen
