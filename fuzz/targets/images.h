// The databases that the targets start from, as files kept beside the corpus: a damaged file of the
// corpus is one of them and a list of changes. They are never made anew for a change of the code,
// as the corpus would then say something else; tools that need another one add it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "targets/input.h"

namespace fuzz {

/// A database and its journal.
struct Image {
    std::vector<std::byte> database;
    std::vector<std::byte> journal;
};

inline constexpr uint32_t kImageBlockSize = 1024;

/// Reads FOLDER/images/NAME.db and NAME.journal. Throws std::runtime_error.
[[nodiscard]] Image load_image(const std::string& folder, const std::string& name);

/// Changes `image` as `input` says: a count of changes and, for each, its kind and what the kind
/// needs. Bytes go to an offset, to a block, to the journal, to the map or to the header; blocks
/// are copied; files are cut or made longer; a whole transaction is put behind those in the
/// journal.
void apply_changes(Input& input, Image& image);

/// Puts right the CRC of both index entries, and of all transactions that can be reached and have
/// an end, so that a start takes changed ones for whole.
void repair_checksums(Image& image);

}  // namespace fuzz
