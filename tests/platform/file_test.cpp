// What SystemFiles makes of interrupted, short and failing calls of the system.
#include "platform/file.h"

#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <string>
#include <vector>

#include "error/exception.h"
#include "support/faulty_calls.h"
#include "support/temp_dir.h"

namespace {

using support::call_t;
using support::FaultyCalls;

class SystemFiles : public testing::Test {
  protected:
    SystemFiles() : bytes_(10'000) { std::iota(bytes_.begin(), bytes_.end(), char{0}); }

    std::vector<char> content() {
        std::vector<char> out(bytes_.size() + 1);
        out.resize(platform::SystemFiles().open(path_)->read_at(out.data(), out.size(), 0));
        return out;
    }

    support::TempDir dir_;
    std::string path_ = dir_.file("file");
    std::shared_ptr<FaultyCalls> calls_ = std::make_shared<FaultyCalls>();
    platform::SystemFiles files_{calls_};
    std::vector<char> bytes_;
};

TEST_F(SystemFiles, GoOnAfterAnInterruptedOrShortCall) {
    calls_->disturb_all();
    const auto file = files_.create(path_);
    file->write_at(bytes_.data(), 4000, 0);
    file->write_durable_at(bytes_.data() + 4000, 6000, 4000);
    EXPECT_EQ(content(), bytes_);
    std::vector<char> read(bytes_.size() + 10);
    EXPECT_EQ(file->read_at(read.data(), read.size(), 0), bytes_.size());
    read.resize(bytes_.size());
    EXPECT_EQ(read, bytes_);
    EXPECT_TRUE(file->try_lock());
    EXPECT_FALSE(files_.open(path_)->try_lock());
    file->resize(5);
    EXPECT_EQ(file->size(), 5U);
    files_.sync_folder_of(path_);
}

TEST_F(SystemFiles, CompleteADurableWriteDurably) {
    const auto file = files_.create(path_);
    calls_->at(call_t::pwritev2, 1, FaultyCalls::kHalf);
    file->write_durable_at(bytes_.data(), bytes_.size(), 0);
    EXPECT_EQ(calls_->count(call_t::pwritev2), 2U);
    EXPECT_EQ(content(), bytes_);
    EXPECT_EQ(calls_->count(call_t::fdatasync), 0U);
}

TEST_F(SystemFiles, SyncWhereADurableWriteIsUnknown) {
    calls_->refuse_durable_writes();
    const auto file = files_.create(path_);
    file->write_durable_at(bytes_.data(), bytes_.size(), 0);
    EXPECT_EQ(content(), bytes_);
    EXPECT_EQ(calls_->count(call_t::fdatasync), 1U);
    calls_->at(call_t::fdatasync, 1, EIO);
    EXPECT_THROW(file->write_durable_at(bytes_.data(), 1, 0), error::ESystemError);
}

TEST_F(SystemFiles, NeverSyncTwice) {
    const auto file = files_.create(path_);
    for (const int code : {EINTR, EIO, ENOSPC, EDQUOT}) {
        const uint64_t before = calls_->count(call_t::fdatasync);
        calls_->at(call_t::fdatasync, 1, code);
        EXPECT_THROW(file->sync_data(), error::ESystemError);
        EXPECT_EQ(calls_->count(call_t::fdatasync), before + 1);
    }
    calls_->at(call_t::fsync, 1, EINTR);
    EXPECT_THROW(files_.sync_folder_of(path_), error::ESystemError);
    EXPECT_EQ(calls_->count(call_t::fsync), 1U);
}

TEST_F(SystemFiles, ReportTheRestWithErrnoAndPath) {
    const auto file = files_.create(path_);
    file->write_at(bytes_.data(), bytes_.size(), 0);
    const std::string other = dir_.file("other");
    char byte = 0;
    const struct {
        const char* name;
        call_t call;
        int fault;
        int code;
        std::function<void()> operation;
        std::string path;
    } cases[] = {
        {"open", call_t::open, EMFILE, EMFILE, [&] { (void)files_.open(path_); }, path_},
        {"create", call_t::open, ENOSPC, ENOSPC, [&] { (void)files_.create(other); }, other},
        {"mode", call_t::fchmod, EIO, EIO, [&] { (void)files_.create(other); }, other},
        {"read", call_t::pread, EIO, EIO, [&] { (void)file->read_at(&byte, 1, 0); }, path_},
        {"write", call_t::pwritev2, ENOSPC, ENOSPC, [&] { file->write_at(&byte, 1, 0); }, path_},
        {"write of nothing", call_t::pwritev2, FaultyCalls::kNothing, ENOSPC,
         [&] { file->write_at(&byte, 1, 0); }, path_},
        {"durable write", call_t::pwritev2, EIO, EIO, [&] { file->write_durable_at(&byte, 1, 0); },
         path_},
        {"sync", call_t::fdatasync, EIO, EIO, [&] { file->sync_data(); }, path_},
        {"size", call_t::fstat, EIO, EIO, [&] { (void)file->size(); }, path_},
        {"resize", call_t::ftruncate, ENOSPC, ENOSPC, [&] { file->resize(1); }, path_},
        {"lock", call_t::flock, ENOLCK, ENOLCK, [&] { (void)file->try_lock(); }, path_},
        {"map", call_t::mmap, ENOMEM, ENOMEM, [&] { (void)files_.map(*file, 0, 9); }, path_},
        {"map beyond the end", call_t::sorts, 0, EOVERFLOW,
         [&] { (void)files_.map(*file, 1, bytes_.size()); }, path_},
        {"exists", call_t::lstat, EACCES, EACCES, [&] { (void)files_.exists(path_); }, path_},
        {"rename", call_t::rename, ENOSPC, ENOSPC, [&] { files_.rename(path_, other); }, path_},
        {"remove", call_t::unlink, EIO, EIO, [&] { files_.remove(path_); }, path_},
        {"folder", call_t::open, EACCES, EACCES, [&] { files_.sync_folder_of(path_); },
         dir_.path().string()},
        {"sync of the folder", call_t::fsync, EIO, EIO, [&] { files_.sync_folder_of(path_); },
         dir_.path().string()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        calls_->at(c.call, 1, c.fault);
        try {
            c.operation();
            ADD_FAILURE() << "did not fail";
        } catch (const error::ESystemError& failure) {
            EXPECT_EQ(failure.code(), c.code);
            EXPECT_NE(failure.text().find(c.path), std::string::npos) << failure.text();
        }
        // Nothing is left behind, and nothing was tried again.
        EXPECT_FALSE(files_.exists(other));
        EXPECT_EQ(content(), bytes_);
    }
}

TEST_F(SystemFiles, TakeTheEndOfFileForTheEnd) {
    const auto file = files_.create(path_);
    file->write_at(bytes_.data(), bytes_.size(), 0);
    std::vector<char> read(100);
    EXPECT_EQ(file->read_at(read.data(), read.size(), bytes_.size() - 7), 7U);
    EXPECT_EQ(file->read_at(read.data(), read.size(), bytes_.size()), 0U);
    EXPECT_EQ(file->read_at(read.data(), read.size(), bytes_.size() + 1000), 0U);
    // A file that is cut while it is read.
    calls_->at(call_t::pread, 1, FaultyCalls::kNothing);
    EXPECT_EQ(file->read_at(read.data(), read.size(), 0), 0U);
}

}  // namespace
