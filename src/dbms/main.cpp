// The server process. It takes no arguments: all it needs comes from its environment and from the
// main process.
#include <cstdio>

#include "dbms/serve.h"
#include "error/exception.h"
#include "platform/crash_dump.h"
#include "platform/fifo.h"
#include "platform/file.h"

int main(int argc, char**) {
    if (argc > 1) {
        std::fputs("dbms takes no arguments; it is started by: tarmik run\n", stderr);
        return 2;
    }
    platform::install_crash_dump();
    platform::ignore_broken_pipe_signal();
    platform::ignore_file_size_signal();
    try {
        const platform::SystemClock clock;
        platform::SystemFiles files;
        dbms::serve(clock, files);
        return 0;
    } catch (const error::Exception& failure) {
        std::fprintf(stderr, "Caught: %s\n", failure.what());
        return 1;
    }
}
