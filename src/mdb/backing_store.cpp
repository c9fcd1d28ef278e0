#include "mdb/backing_store.h"

#include <algorithm>
#include <bit>
#include <cstring>

#include "log/log.h"
#include "mdb/errors.h"

namespace mdb {

namespace {

const logging::Logger logger{"objectio"};

/// Most bytes of zero blocks that one write of a growing file carries. Small, as the kernel keeps
/// what one call wrote in one piece of its cache where it can, and walks over the whole piece for
/// every later write into it.
constexpr uint64_t kGrowthChunk = 16 * 1024;

}  // namespace

BackingStore::BackingStore(platform::FileSystem& files, const std::string& path) : path_(path) {
    try {
        file_ = files.open(path);
        if (!file_->try_lock())
            throw error_open(fmt::format("Database in \"{}\" is in use by another process", path));
        file_length_ = file_->size();
    } catch (const error::ESystemError& failure) {
        throw error_open(fmt::format("Cannot open database for read/write in \"{}\": {}", path,
                                     std::strerror(failure.code())));
    }
}

void BackingStore::set_block_size(uint32_t block_size) {
    error::check(std::has_single_bit(block_size), "Block size {} is no power of two", block_size);
    block_size_ = block_size;
    block_shift_ = static_cast<uint32_t>(std::countr_zero(block_size));
}

void BackingStore::read(void* buffer, uint64_t offset, size_t length, const char* what) {
    if (offset > file_length_ || length > file_length_ - offset)
        throw error_range("Read beyond end of object backing store attempted");
    size_t got = 0;
    try {
        got = file_->read_at(buffer, length, offset);
    } catch (const error::ESystemError& failure) {
        throw error_io(fmt::format("Could not {}: \"{}\"", what, std::strerror(failure.code())));
    }
    if (got != length)
        throw error_io(
            fmt::format("Could not {}: \"{} of {} bytes at {}\"", what, got, length, offset));
}

void BackingStore::byte_read(void* buffer, uint64_t offset, size_t length) {
    read(buffer, offset, length, "byte-read");
}

void BackingStore::block_read(void* buffer, uint32_t block, uint32_t count) {
    read(buffer, block_offset(block), size_t{count} * block_size_, "block-read");
}

void BackingStore::byte_write(const void* data, uint64_t offset, size_t length, bool may_extend) {
    const bool past_end = offset > file_length_ || length > file_length_ - offset;
    if (past_end && !may_extend)
        throw error_range("Write beyond end of object backing store attempted");
    if (observer_ != nullptr) observer_->before_write(offset, length);
    try {
        file_->write_at(data, length, offset);
    } catch (const error::ESystemError& failure) {
        throw error_io(fmt::format("Could not byte-write: \"{}\"", std::strerror(failure.code())));
    }
    if (past_end) file_length_ = offset + length;
}

void BackingStore::block_write(const void* data, uint32_t block, uint32_t count) {
    const uint64_t length = uint64_t{count} * block_size_;
    if (block_offset(block) + length > file_length_)
        throw error_range("Write beyond end of object backing store attempted");
    if (observer_ != nullptr) observer_->before_write(block_offset(block), length);
    try {
        file_->write_at(data, static_cast<size_t>(length), block_offset(block));
    } catch (const error::ESystemError& failure) {
        throw error_io(fmt::format("Could not block-write \"{}\"", std::strerror(failure.code())));
    }
}

void BackingStore::sync_store() {
    try {
        file_->sync_data();
        grown_ = false;
    } catch (const error::ESystemError& failure) {
        throw error_io(
            fmt::format("sync error on backing store: {}", std::strerror(failure.code())));
    }
}

void BackingStore::start_writeback(uint64_t offset, uint64_t length) {
    file_->start_writeback(offset, length);
}

void BackingStore::complete_last_block() {
    const uint64_t odd = file_length_ & (block_size_ - 1);
    if (odd == 0) return;
    const std::vector<std::byte> zeros(block_size_ - static_cast<size_t>(odd));
    byte_write(zeros.data(), file_length_, zeros.size(), true);
}

void BackingStore::ensure_block(uint32_t block) {
    if (block_in_file(block)) return;
    uint64_t step = file_length_ / 100 * 20;
    step -= step % block_size_;
    if (step == 0) step = block_size_;
    const uint64_t wanted = std::max(file_length_ + step, (uint64_t{block} + 1) * block_size_);
    logger.info("Attempting to grow MDB from {} bytes to {} bytes", file_length_, wanted);
    grown_ = true;
    write_zero_blocks(wanted);
    if (!block_in_file(block))
        throw error_dbnospace(fmt::format("Cannot grow the MDB to accomodate block {}", block));
}

/// A full disk may have taken a part of a block. Left there, the next start would have to complete
/// it, on a disk that may still be full.
void BackingStore::give_back_partial_block() {
    try {
        if (file_->size() > file_length_) file_->resize(file_length_);
    } catch (const error::ESystemError& failure) {
        logger.error("Cannot cut the MDB to {} bytes: {}", file_length_,
                     std::strerror(failure.code()));
    }
}

void BackingStore::write_zero_blocks(uint64_t new_length) {
    uint64_t chunk = std::max<uint64_t>(kGrowthChunk / block_size_, 1) * block_size_;
    const std::vector<std::byte> zeros(static_cast<size_t>(chunk));
    while (file_length_ < new_length) {
        const uint64_t length = std::min(chunk, new_length - file_length_);
        try {
            file_->write_at(zeros.data(), static_cast<size_t>(length), file_length_);
            file_length_ += length;
        } catch (const error::ESystemError& failure) {
            // What fits is still worth having: go on in smaller steps, down to one block.
            if (chunk == block_size_) {
                logger.error("Growing the MDB failed: {}", std::strerror(failure.code()));
                give_back_partial_block();
                return;
            }
            chunk = std::max<uint64_t>(chunk / 2 / block_size_, 1) * block_size_;
        }
    }
}

}  // namespace mdb
