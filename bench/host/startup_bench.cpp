// Start-up time of Quillfen: from starting the process to the first line the game's main
// script prints, against the whole run of `lua5.4 -e ''`, alternating, 20 runs each; prints
// the medians and their ratio. Reports only; never fails on timing.
//
//   startup_bench [QUILLFEN] [RUNS]
// QUILLFEN is copied into a temporary game layout whose main script prints one line.
#ifdef _WIN32
#include <cstdio>
int main() {
    std::puts("startup_bench: runs on Linux only");
    return 0;
}
#else
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;

// Milliseconds from spawning argv to the first line on its standard output (or to its exit
// when it prints nothing); -1 when it cannot be run.
double millisecondsToFirstLine(const std::vector<std::string>& command) {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeEnds[1], 1);
    posix_spawn_file_actions_addclose(&actions, pipeEnds[0]);
    std::vector<char*> argv;
    for (const std::string& part : command) argv.push_back(const_cast<char*>(part.c_str()));
    argv.push_back(nullptr);
    pid_t child = 0;
    Clock::time_point start = Clock::now();
    int spawned = posix_spawnp(&child, argv[0], &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeEnds[1]);
    if (spawned != 0) {
        close(pipeEnds[0]);
        return -1;
    }
    char byte = 0;
    while (read(pipeEnds[0], &byte, 1) == 1 && byte != '\n') {
    }
    double elapsed = std::chrono::duration<double, std::milli>(Clock::now() - start).count();
    char rest[256];
    while (read(pipeEnds[0], rest, sizeof rest) > 0) {
    }
    close(pipeEnds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? elapsed : -1;
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
    std::string quillfen = argc > 1 ? argv[1] : "build/release/bin/Quillfen";
    int runs = argc > 2 ? std::max(1, std::atoi(argv[2])) : 20;
    namespace fs = std::filesystem;
    std::error_code error;
    fs::path game = fs::temp_directory_path() / ("quillfen-startup-" + std::to_string(getpid()));
    fs::create_directories(game / "bin", error);
    fs::create_directories(game / "Resources" / "scripts", error);
    fs::copy_file(quillfen, game / "bin" / "Quillfen", fs::copy_options::overwrite_existing, error);
    if (error) {
        std::printf("startup_bench: cannot copy %s (%s)\n", quillfen.c_str(), error.message().c_str());
        return 0;
    }
    std::ofstream(game / "Resources" / "scripts" / "visual-novel.ks") << "print(\"first line\")\n";

    std::vector<std::string> quillfenCommand{(game / "bin" / "Quillfen").string()};
    std::vector<std::string> luaCommand{"lua5.4", "-e", ""};
    std::vector<double> quillfenTimes, luaTimes;
    for (int i = 0; i < runs + 3; ++i) {  // the first three warm the caches
        double q = millisecondsToFirstLine(quillfenCommand);
        double l = millisecondsToFirstLine(luaCommand);
        if (q < 0 || l < 0) {
            std::printf("startup_bench: %s failed to run\n", q < 0 ? "Quillfen" : "lua5.4");
            fs::remove_all(game, error);
            return 0;
        }
        if (i >= 3) {
            quillfenTimes.push_back(q);
            luaTimes.push_back(l);
        }
    }
    fs::remove_all(game, error);
    double q = median(quillfenTimes), l = median(luaTimes);
    std::printf("Quillfen, start to the main script's first line: median %.2f ms of %d runs\n", q, runs);
    std::printf("lua5.4 -e '', whole run:                        median %.2f ms of %d runs\n", l, runs);
    std::printf("start-up ratio vs lua5.4: %.2f\n", q / l);
    return 0;
}
#endif
