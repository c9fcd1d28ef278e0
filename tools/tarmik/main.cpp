// The operator's command line.
#include "platform/crash_dump.h"
#include "tarmik/command_line.h"

int main(int argc, char** argv) {
    platform::install_crash_dump();
    return cli::run_command_line({argv + 1, argv + argc});
}
