// The gateway process. Takes no arguments: the main process hands it the pool by its environment.
#include <cstdio>

#include "error/exception.h"
#include "wapi/service.h"

int main() {
    try {
        return wapi::run_process();
    } catch (const error::Exception& failure) {
        std::fprintf(stderr, "Caught: %s\n", failure.what());
        return 1;
    }
}
