// Small things that tests with real processes need: waiting with a deadline, and catching what a
// program says on its error stream.
#pragma once

#include <functional>
#include <string>
#include <sys/types.h>

#include "platform/process.h"
#include "support/temp_dir.h"

namespace family {

/// Asks `done` again and again until it is true; false after `limit_s` seconds.
[[nodiscard]] bool wait_for(const std::function<bool()>& done, int limit_s = 30);

/// True when the process ends within the time. It is not reaped.
[[nodiscard]] bool ends_within(int pidfd, int limit_s);

[[nodiscard]] std::string read_file(const std::string& path);

/// The lines of a configuration for sibling `name`, whose program, a shell script made in
/// `programs`, never comes up.
[[nodiscard]] std::string scripted_sibling(const support::TempDir& programs,
                                           const std::string& name, const std::string& script);
[[nodiscard]] std::string sleeping_sibling(const support::TempDir& programs,
                                           const std::string& name);

/// As platform::spawn, with standard output and error appended to the files given; an empty path
/// leaves the stream as it is.
[[nodiscard]] platform::ChildProcess spawn_into_files(const platform::SpawnRequest& request,
                                                      const std::string& output_path,
                                                      const std::string& errors_path);

}  // namespace family
