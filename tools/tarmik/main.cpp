// The operator's command line.
#include "tarmik/command_line.h"

int main(int argc, char** argv) {
    return cli::run_command_line({argv + 1, argv + argc});
}
