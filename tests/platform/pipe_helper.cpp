// A child for the pipe tests that behaves the same under cmd.exe and /bin/sh:
//   pipe_helper copy FILE   copies standard input to FILE; exits with the byte count mod 256
//   pipe_helper print N     writes N lines "line <i>" to standard output; exits with 0
#include <cstdio>
#include <cstdlib>
#include <cstring>

#if defined(_WIN32)
#include <fcntl.h>
#include <io.h>
#endif

int main(int argc, char** argv) {
#if defined(_WIN32)
    // Bytes, not text: the tests compare what went through the pipe exactly.
    _setmode(_fileno(stdin), _O_BINARY);
    _setmode(_fileno(stdout), _O_BINARY);
#endif
    if (argc == 3 && std::strcmp(argv[1], "copy") == 0) {
        std::FILE* out = std::fopen(argv[2], "wb");
        if (!out) return 255;
        unsigned long total = 0;
        char buffer[4096];
        std::size_t count;
        while ((count = std::fread(buffer, 1, sizeof buffer, stdin)) > 0) {
            std::fwrite(buffer, 1, count, out);
            total += count;
        }
        std::fclose(out);
        return static_cast<int>(total % 256);
    }
    if (argc == 3 && std::strcmp(argv[1], "print") == 0) {
        int lines = std::atoi(argv[2]);
        for (int i = 1; i <= lines; ++i) std::printf("line %d\n", i);
        return 0;
    }
    return 254;
}
