#include "dbms/control_socket.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

#include "error/exception.h"
#include "log/log.h"
#include "mdb/database.h"
#include "platform/local_socket.h"

namespace dbms {

namespace {

const logging::Logger logger{"dbms"};

/// Pieces of a copy that are sent after an event, if the socket has room for them. Beside an event
/// that waited for the disk they cost little.
constexpr int kPiecesAfterEvent = 4;
/// No request is longer.
constexpr size_t kMostLine = 64;

/// A failure as the whole answer. It is short enough for the socket of somebody who was sent
/// nothing before; whoever doesn't take it goes without.
void refuse(const platform::Fd& connection, std::string_view text) {
    std::vector<std::byte> bytes;
    mdb::SnapshotStream::append_failure(text, bytes);
    static_cast<void>(
        ::send(connection.get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT));
}

}  // namespace

ControlSocket::Asker::Asker(platform::Fd its_connection)
    : connection(std::move(its_connection)), readable(connection.get(), "control connection") {}

ControlSocket::Copy::Copy(platform::Fd its_connection, mdb::Database& database,
                          uint64_t most_kept_bytes)
    : connection(std::move(its_connection)),
      writable(connection.get(), "control connection", io::direction_t::writing),
      stream(database, most_kept_bytes) {}

ControlSocket::ControlSocket(mdb::Database& database, const platform::Clock& clock,
                             const Limits& limits)
    : database_(database),
      clock_(clock),
      limits_(limits),
      path_(path_for(database.store().path())),
      listener_(platform::listen_local(path_)),
      connecting_(listener_.get(), "control socket"),
      stall_(clock) {}

ControlSocket::~ControlSocket() {
    error::check(selector_ == nullptr, "The control socket ends while a selector has it");
    ::unlink(path_.c_str());
}

void ControlSocket::join(io::Selector<int>& selector) {
    selector_ = &selector;
    selector.add(connecting_, 0);
    selector.add(stall_, 0);
    listening_ = true;
}

void ControlSocket::leave() {
    stop("The server is stopping");
    if (listening_) selector_->remove(connecting_);
    listening_ = false;
    selector_->remove(stall_);
    selector_ = nullptr;
}

bool ControlSocket::handle(const io::Selectable& ready) {
    if (&ready == &connecting_) {
        accept();
        return true;
    }
    if (&ready == &stall_) {
        end_copy(fmt::format("Nothing of the copy was taken for {} s", limits_.stall_s));
        return true;
    }
    if (copy_ != nullptr && &ready == &copy_->writable) {
        set_blocked(false);
        return true;
    }
    const auto found = std::find_if(askers_.begin(), askers_.end(),
                                    [&](const auto& asker) { return &ready == &asker->readable; });
    if (found == askers_.end()) return false;
    read_from(static_cast<size_t>(found - askers_.begin()));
    return true;
}

void ControlSocket::accept() {
    try {
        if (platform::Fd connection = platform::accept_local(listener_))
            add_asker(std::move(connection));
    } catch (const error::ESystemError& failure) {
        // It would fail again at once, and the server would do nothing else any more.
        logger.error("No more backups until the next start: {}", failure.text());
        selector_->remove(connecting_);
        listening_ = false;
    }
}

void ControlSocket::add_asker(platform::Fd connection) {
    if (!stopped_.empty()) return refuse(connection, stopped_);
    if (askers_.size() == limits_.most_askers) static_cast<void>(take_asker(0));
    askers_.push_back(std::make_unique<Asker>(std::move(connection)));
    selector_->add(askers_.back()->readable, 0);
}

platform::Fd ControlSocket::take_asker(size_t index) {
    selector_->remove(askers_[index]->readable);
    platform::Fd connection = std::move(askers_[index]->connection);
    askers_.erase(askers_.begin() + static_cast<std::ptrdiff_t>(index));
    return connection;
}

void ControlSocket::read_from(size_t index) {
    std::array<char, kMostLine + 1> bytes{};
    std::string& line = askers_[index]->line;
    const ssize_t got = ::recv(askers_[index]->connection.get(), bytes.data(),
                               bytes.size() - line.size(), MSG_DONTWAIT);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (got <= 0) {
        static_cast<void>(take_asker(index));
        return;
    }
    line.append(bytes.data(), static_cast<size_t>(got));
    const size_t end = line.find('\n');
    if (end == std::string::npos && line.size() <= kMostLine) return;
    const std::string request = line.substr(0, end);
    answer(take_asker(index), request);
}

void ControlSocket::answer(platform::Fd connection, std::string_view line) {
    if (line != mdb::snapshot_layout::kRequest)
        return refuse(connection, "The server does not know this request");
    if (copy_ != nullptr) return refuse(connection, "Another backup is running");
    begin_copy(std::move(connection));
}

void ControlSocket::begin_copy(platform::Fd connection) {
    copy_ = std::make_unique<Copy>(std::move(connection), database_, limits_.most_kept_bytes);
    logger.info("Backup of {} bytes begins", copy_->stream.snapshot().file_length());
}

void ControlSocket::push() {
    for (int pieces = 0; pieces < kPiecesAfterEvent && copy_ != nullptr; ++pieces) {
        doWork();
        if (!has_work()) return;
    }
}

void ControlSocket::doWork() {
    if (copy_->sent == copy_->bytes.size()) {
        copy_->bytes.clear();
        copy_->sent = 0;
        copy_->stream.append_next(copy_->bytes);
    }
    if (!send_bytes() || copy_->sent < copy_->bytes.size() || !copy_->stream.ended()) return;
    const std::string failure = copy_->stream.snapshot().failure();
    if (failure.empty())
        logger.info("Backup was given out");
    else
        logger.warning("Backup failed: {}", failure);
    copy_.reset();
}

/// Sends what the socket takes. False if the asker is gone and with it the copy.
bool ControlSocket::send_bytes() {
    const ssize_t done = ::send(copy_->connection.get(), copy_->bytes.data() + copy_->sent,
                                copy_->bytes.size() - copy_->sent, MSG_NOSIGNAL | MSG_DONTWAIT);
    const int code = errno;
    if (done >= 0) {
        copy_->sent += static_cast<size_t>(done);
        set_blocked(false);
        return true;
    }
    if (code == EINTR) return true;
    if (code == EAGAIN || code == EWOULDBLOCK) {
        set_blocked(true);
        return true;
    }
    set_blocked(false);
    logger.warning("Backup failed: its asker is gone");
    copy_.reset();
    return false;
}

void ControlSocket::set_blocked(bool blocked) {
    if (copy_->blocked == blocked) return;
    copy_->blocked = blocked;
    if (blocked) {
        const platform::WallTime now = clock_.wall();
        stall_.set_expiry(
            Time(static_cast<int32_t>(now.seconds + limits_.stall_s), now.microseconds));
        selector_->add(copy_->writable, 0);
    } else {
        stall_.set_expiry(Time::far_future());
        selector_->remove(copy_->writable);
    }
}

void ControlSocket::end_copy(const std::string& failure) {
    if (copy_ == nullptr) return;
    logger.warning("Backup failed: {}", failure);
    set_blocked(false);
    // Between two records the asker can be told; in the middle of one the end says enough.
    if (copy_->sent == copy_->bytes.size()) refuse(copy_->connection, failure);
    copy_.reset();
}

void ControlSocket::stop(const std::string& reason) {
    stopped_ = reason;
    end_copy(reason);
    while (!askers_.empty()) refuse(take_asker(0), reason);
}

}  // namespace dbms
