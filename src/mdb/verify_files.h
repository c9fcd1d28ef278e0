// Verification of database files that no process uses, without changing them: the journal is
// looked at as it lies on the disk, then replayed in memory (platform::OverlayFiles), and the
// database that results is verified.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "mdb/verify.h"
#include "platform/file.h"

namespace mdb {

/// What the journal on the disk holds, before any replay.
struct JournalState {
    struct Half {
        /// The half's index entry passes its CRC.
        bool valid = false;
        uint64_t serial = 0;
        uint32_t position = 0;
        /// The half's bytes for entries.
        uint32_t capacity = 0;
    };

    uint64_t length = 0;
    std::array<Half, 2> halves;
    /// The half at which a replay begins; -1 if neither entry is valid.
    int picked = -1;
    /// What a replay brings to the file.
    uint64_t transactions = 0;
    uint64_t updates = 0;
    uint64_t update_bytes = 0;
    /// Where the replay ends, and why.
    uint32_t end = 0;
    std::string end_reason;
    /// Bytes that the half in which it ends has left.
    uint32_t free = 0;
};

struct FileVerification {
    Verification verification;
    JournalState journal;
    uint64_t database_bytes = 0;
    uint32_t block_size = 0;
    /// False: the faults say why, and there are no counts.
    bool opened = false;
};

/// Looks at both files and verifies the database; `journal_path` may be empty for the path in the
/// header. `files` must keep what is written to it away from the disk, see platform::OverlayFiles.
/// Throws error_open when a file can't be opened, is no file, or is in use by a running server.
[[nodiscard]] FileVerification verify_files(platform::FileSystem& files,
                                            const std::string& database_path,
                                            const std::string& journal_path,
                                            const VerifyOptions& options);

}  // namespace mdb
