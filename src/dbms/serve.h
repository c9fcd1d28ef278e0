// The server from its first step to its last: builds everything that lives long, top to bottom,
// connects it, and runs the main loop.
#pragma once

#include "platform/clock.h"
#include "platform/file.h"

namespace dbms {

/// Runs until the main process ends it. Throws what ends the process otherwise; nothing is put in
/// order then, the next start replays the journal.
void serve(const platform::Clock& clock, platform::FileSystem& files);

}  // namespace dbms
