// What a process leaves behind when it crashes: a text file beside its program, the program's path
// with the extension replaced by ".dmp", with the reason, a stack trace with the names and lines of
// the functions, and the mappings of its memory. The file of an earlier crash is replaced.
//
// A crash is SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL or an exception that nobody catches. After
// the dump the process ends by the same signal as it would have without.
//
// Where no file can be made beside the program (an installed one mostly), it goes to the crash
// directory, and last to "quenmora.dmp" in the working directory, which also serves when the
// program's path can't be found. The error stream says what was tried and where the file is; when
// there is no place at all, the trace goes to the error stream.
//
// The signal handler runs on a stack of its own, so that a stack overflow is told too, and calls
// nothing that allocates or waits for a lock; the names are looked up by a forked child, without
// which the trace has plain addresses.
#pragma once

#include <string>

namespace platform {

/// Environment variable that names the crash directory; a parent sets it for its children.
inline constexpr const char* kCrashDirectoryVariable = "TARMIK_CRASH_DIR";

/// Installs the handlers, once and as early as possible, on the main thread. False when they are
/// not installed because a sanitizer watches this build and tells of crashes itself.
bool install_crash_dump();

/// The same for a program that lies elsewhere; an empty path is one that can't be found.
bool install_crash_dump(const std::string& program_path);

/// Sets the crash directory, in place of the one in the environment. An empty one is none. Relative
/// paths are taken from the present working directory.
void set_crash_directory(const std::string& directory);

}  // namespace platform
