#include "io/sibling.h"

#include <fmt/format.h>
#include <utility>

#include "error/exception.h"
#include "io/sibling_messenger.h"

namespace io {

SiblingIStream::SiblingIStream(SiblingImplementation& sibling)
    : StackedSelectableFront(sibling.messenger()), sibling_(sibling) {}

void SiblingIStream::name(std::string& out) const {
    out += fmt::format("SiblingIStream[{}]", sibling_.id());
}

bool SiblingIStream::hasFailed() const {
    return sibling_.processFailed();
}
bool SiblingIStream::isReady() const {
    return sibling_.messenger().readerReady(*this);
}

size_t SiblingIStream::readBegin(const uint8_t*& out) {
    return sibling_.messenger().readBegin(*this, out);
}

void SiblingIStream::readCommit(size_t count) {
    sibling_.messenger().readCommit(*this, count);
}

SiblingOStream::SiblingOStream(SiblingImplementation& sibling)
    : StackedSelectableFront(sibling.messenger()), sibling_(sibling) {}

void SiblingOStream::name(std::string& out) const {
    out += fmt::format("SiblingOStream[{}]", sibling_.id());
}

bool SiblingOStream::hasFailed() const {
    return sibling_.processFailed();
}
bool SiblingOStream::isReady() const {
    return sibling_.messenger().writerReady(*this);
}

size_t SiblingOStream::writeBegin(uint8_t*& out) {
    return sibling_.messenger().writeBegin(*this, out);
}

void SiblingOStream::writeCommit(size_t count) {
    sibling_.messenger().writeCommit(*this, count);
}

OutputSignalWriter::OutputSignalWriter(uint32_t peer_id)
    : PipeOStream(platform::Fd(), fmt::format("sibling {}", peer_id)) {}

void SiblingOStream::prepare() {
    sibling_.messenger().makeRoomForOthers();
}

SiblingImplementation::SiblingImplementation(SiblingMessenger& messenger, uint32_t id)
    : messenger_(messenger), id_(id), references_(1), writer_(id), in_(*this), out_(*this) {}

SiblingImplementation::~SiblingImplementation() {
    // One reference is the messenger's own.
    if (references_ == 0) error::fail_assertion("Reference count zero at Sibling destructor");
}

void SiblingImplementation::endSeen() {
    messenger_.endSeen(*this);
}

SiblingHandle::SiblingHandle(SiblingImplementation& sibling) : sibling_(&sibling) {
    ++sibling.references_;
}

SiblingHandle::SiblingHandle(SiblingHandle&& other) noexcept
    : sibling_(std::exchange(other.sibling_, nullptr)) {}

SiblingHandle& SiblingHandle::operator=(SiblingHandle&& other) noexcept {
    std::swap(sibling_, other.sibling_);
    return *this;
}

SiblingHandle::~SiblingHandle() {
    if (sibling_ != nullptr) --sibling_->references_;
}

}  // namespace io
