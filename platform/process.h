// Pipes to shell commands, for io.popen. C-style so that each platform supplies the same
// functions: platform/posix/posix_process.cpp runs commands through /bin/sh; a Windows
// backend goes through COMSPEC. Nothing here throws or prints.
#pragma once

#include <cstddef>

struct KorvelProcess;

// Starts `command` through the system shell with a pipe to its standard output (mode "r")
// or to its standard input (mode "w"); the other streams are the caller's. Null when the mode
// is neither or the shell cannot be started.
KorvelProcess* korvel_popen(const char* command, const char* mode);

// Reads up to `size` bytes of the command's output ("r" only). Returns how many were read;
// 0 at the end of the output, on error, or for a "w" process.
std::size_t korvel_process_read(KorvelProcess* process, void* buffer, std::size_t size);

// Writes `size` bytes to the command's input ("w" only). Returns how many were written; fewer
// when the command has stopped reading (never a signal to the caller) or for an "r" process.
std::size_t korvel_process_write(KorvelProcess* process, const void* data, std::size_t size);

// Closes the pipe, waits for the command to end and frees the process. Returns the command's
// exit code, or -1 when it ended by a signal or could not be waited for. Null gives -1.
int korvel_pclose(KorvelProcess* process);
