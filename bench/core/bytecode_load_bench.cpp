// Loading a bytecode image against parsing and compiling the same source.
//
//   bytecode_load_bench [--profile-load N] [FILE.ks ...]
//
// --profile-load N only loads the image N times (for a profiler), printing nothing else.
// The files (by default the shared benchmark programs and the examples) are joined and
// repeated to about 10,000 lines. Each way runs many times; the medians and their ratio are
// printed. Timing never fails anything: this reports.
#include "core/bytecode_internal.h"
#include "core/korvel_script.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

double medianOf(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// Times making a chunk; freeing it again happens outside the timed part, as it is the same
// work for both ways.
template <typename Work>
double millisecondsFor(Work work) {
    auto start = std::chrono::steady_clock::now();
    std::shared_ptr<korvel::Chunk> chunk = work();
    double elapsed = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
    if (!chunk) std::abort();
    return elapsed;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> files;
    int profileLoads = 0;
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--profile-load" && i + 1 < argc) profileLoads = std::atoi(argv[++i]);
        else files.push_back(argv[i]);
    }
    if (files.empty()) {
        for (const char* name : {"fib", "loop", "nbody", "spectralnorm", "strings", "tables"})
            files.push_back(std::string(KORVEL_SHARED_BENCH_DIR) + "/" + name + ".ks");
        files.push_back(std::string(KORVEL_SOURCE_DIR) + "/examples/adventure.ks");
        files.push_back(std::string(KORVEL_SOURCE_DIR) + "/examples/sort.ks");
    }
    std::string unit;
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            std::fprintf(stderr, "bytecode_load_bench: cannot read %s\n", file.c_str());
            return 1;
        }
        std::stringstream text;
        text << in.rdbuf();
        unit += text.str() + "\n";
    }
    std::size_t unitLines = static_cast<std::size_t>(std::count(unit.begin(), unit.end(), '\n'));
    std::string source;
    while (static_cast<std::size_t>(std::count(source.begin(), source.end(), '\n')) < 10000) source += unit;
    std::size_t lines = static_cast<std::size_t>(std::count(source.begin(), source.end(), '\n'));
    (void)unitLines;

    korvel::KorvelScript script;
    korvel::Interpreter& vm = script.impl().vm;
    std::vector<std::uint8_t> image = script.serialiseBytecode(source, "bench.ks");
    if (profileLoads > 0) {
        for (int i = 0; i < profileLoads; ++i) millisecondsFor([&] { return korvel::decodeBytecodeImage(vm, image.data(), image.size()); });
        std::printf("loaded %d times\n", profileLoads);
        return 0;
    }
    // The two ways take turns, so that both meet the same state of a busy machine.
    const int runs = 41;
    std::vector<double> parseTimes, loadTimes;
    for (int i = 0; i < runs; ++i) {
        parseTimes.push_back(millisecondsFor([&] {
            korvel::ScriptError error("");
            return vm.compileChunk(source, "bench.ks", &error);
        }));
        loadTimes.push_back(millisecondsFor([&] { return korvel::decodeBytecodeImage(vm, image.data(), image.size()); }));
    }
    double parse = medianOf(parseTimes);
    double load = medianOf(loadTimes);
    std::printf("source: %zu lines, %zu bytes; image: %zu bytes\n", lines, source.size(), image.size());
    std::printf("parse and compile: %.2f ms (median of %d)\n", parse, runs);
    std::printf("load image:        %.2f ms (median of %d)\n", load, runs);
    std::printf("load speed-up vs parsing: %.2fx\n", parse / load);
    return 0;
}
