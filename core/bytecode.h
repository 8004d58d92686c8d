// Bytecode images: a compiled script saved as bytes ("KSBC"), loaded without parsing or
// compiling again, and run with the same output and the same error reports as its source.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace korvel {

struct Chunk;

// One compiled unit inside a program: the program itself, or a function it declares.
struct BytecodeRecord {
    std::string name;
    std::string sourcePath;
    std::string sourceDirectory;
};

// A loaded image, ready to run. Error reports and relative paths use sourcePath and
// sourceDirectory; a host may rewrite them (and those of every record) before running.
struct BytecodeProgram {
    std::string sourcePath;
    std::string sourceDirectory;
    std::vector<BytecodeRecord> records;  // the program first, then its functions in source order
    std::shared_ptr<Chunk> chunk;
};

// The directory part of a path, with its trailing slash ("" for a bare file name).
std::string sourceDirectoryOf(const std::string& path);

}  // namespace korvel
