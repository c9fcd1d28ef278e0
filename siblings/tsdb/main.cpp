// The process that keeps the time series. Takes no arguments: the main process hands it the pool by
// its environment.
#include <cstdio>

#include "error/exception.h"
#include "platform/crash_dump.h"
#include "tsdb/service.h"

int main() {
    platform::install_crash_dump();
    try {
        return tsdb::run_process();
    } catch (const error::Exception& failure) {
        std::fprintf(stderr, "Caught: %s\n", failure.what());
        return 1;
    }
}
