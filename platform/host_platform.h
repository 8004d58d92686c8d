// What the host asks the operating system about itself, and pipes to shell commands. C-style,
// so each platform supplies the same functions: platform/windows/windows_process.cpp on Win32,
// platform/posix/posix_process.cpp on Linux. The names carry "windows" because the engine was
// designed for Windows first; the Linux backend gives the same kind of answer.
//
// Every text query writes its text and a terminating zero into buffer and returns non-zero.
// It returns zero when buffer is null, capacity is zero, the answer is not available, or the
// text and its terminator do not fit; in the last two cases the first byte is set to zero
// (when capacity is not zero). Nothing here throws, prints or keeps state between calls.
#pragma once

#include <cstddef>
#include <cstdio>

// "Windows " or "Linux " followed by the machine's architecture: "x86", "x86_64", "arm",
// "arm64" or "Unknown".
int windows_platform_name(char* buffer, std::size_t capacity);

// The operating-system version: "major.minor.build" on Windows (never shimmed), the kernel
// release on Linux. When the version cannot be read the text is "Unknown", still a success,
// but only when capacity is at least 8; below that the result is zero.
int windows_version_string(char* buffer, std::size_t capacity);

// The processor's brand string without surrounding white space; zero when the system names none.
int windows_processor_name(char* buffer, std::size_t capacity);

// The name of the user the process runs as; zero when the system cannot say.
int windows_user_name(char* buffer, std::size_t capacity);

// The temporary directory, with "/" as separator and a trailing "/".
int windows_temp_directory(char* buffer, std::size_t capacity);

// The directory of the running executable, ending in its separator ("\\" on Windows, "/" on
// Linux).
int windows_executable_directory(char* buffer, std::size_t capacity);

// Runs command through the system shell (COMSPEC, else cmd.exe, with /c on Windows; /bin/sh -c
// on Linux) with a pipe to it: a stream writing to the command's standard input when mode
// contains 'w', else one reading its standard output. The command's other standard stream is
// the null device and its standard error is the caller's. Null when command is null or the
// shell cannot be started. A command the shell cannot run still gives a stream; its failure
// shows in the exit code. Safe to call from any thread.
std::FILE* wm_windows_popen(const char* command, const char* mode);

// Closes a stream from wm_windows_popen (the command sees the end of its input), waits for the
// command and returns its exit code: -1 when it cannot be read (on Linux also when a signal
// ended the command). A stream that did not come from wm_windows_popen is closed and gives -1;
// null gives -1. Safe to call from any thread.
int wm_windows_pclose(std::FILE* stream);

// Blocks the calling thread for at least the given time.
void wm_sleep_ms(unsigned milliseconds);
