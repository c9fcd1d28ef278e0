#include "common/folder.h"

#include <filesystem>
#include <stdexcept>
#include <stdlib.h>

namespace bench {

Folder::Folder(const std::string& base) : path_(base + "/tarmik-bench-XXXXXX") {
    if (::mkdtemp(path_.data()) == nullptr)
        throw std::runtime_error("cannot make a folder in " + base);
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

}  // namespace bench
