// The entry point that the fuzzer calls. One program for each target, by TARMIK_FUZZ_TARGET.
#include <cstddef>
#include <cstdint>

#include "targets/target.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::unique_ptr<fuzz::Target> target =
        fuzz::make_target(TARMIK_FUZZ_TARGET, TARMIK_FUZZ_FOLDER);
    target->run({data, size});
    return 0;
}
