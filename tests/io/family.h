// A parent and children in one process, each with its own selector, moved on in turns until
// something holds.
#pragma once

#include <cstring>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>

#include "io/exception.h"
#include "io/parent_messenger.h"
#include "io/selector.h"
#include "support/temp_dir.h"

namespace io_test {

class Policy final : public io::ParentPolicy {
  public:
    uint32_t sliceSize(uint32_t) override { return slice_bytes; }
    bool admits(uint32_t id) override { return strangers.count(id) == 0; }
    bool requestPeer(uint32_t asker, uint32_t wanted) override {
        requests.emplace_back(asker, wanted);
        return granted.count(wanted) != 0;
    }

    uint32_t slice_bytes = 4096;
    std::set<uint32_t> granted, strangers;
    std::vector<std::pair<uint32_t, uint32_t>> requests;
};

/// Never ready: a selector with nothing else serves signals and reads no message.
class Quiet final : public io::StackedSelectableFront {
  public:
    using StackedSelectableFront::StackedSelectableFront;
    void name(std::string& out) const override { out += "Quiet"; }
    [[nodiscard]] bool isReady() const override { return false; }
};

/// A messenger with the selectors that serve it.
struct Member {
    explicit Member(std::unique_ptr<io::SiblingMessenger> made)
        : messenger(std::move(made)), quiet(*messenger) {
        selector.add(messenger->someSibling());
        signals.add(quiet);
    }
    ~Member() {
        selector.remove(messenger->someSibling());
        signals.remove(quiet);
    }

    /// True if a message or an end waits to be read.
    bool hasMessage() { return messenger->someSibling().isReady(); }
    void serveSignals() { EXPECT_THROW(signals.select(io::wait_t::non_blocking), io::ENotReady); }
    io::ChildMessenger& child() { return dynamic_cast<io::ChildMessenger&>(*messenger); }

    std::unique_ptr<io::SiblingMessenger> messenger;
    Quiet quiet;
    io::BareSelector selector;
    io::BareSelector signals;
};

/// Writes `text` to `to` as one message, if the area has room for it in one block.
inline bool say(io::SiblingMessenger& from, uint32_t to, const std::string& text) {
    auto peer = from.sibling(to);
    if (!peer->out().isReady()) return false;
    uint8_t* room = nullptr;
    if (peer->out().writeBegin(room) < text.size()) {
        peer->out().writeCommit(0);
        return false;
    }
    std::memcpy(room, text.data(), text.size());
    peer->out().writeCommit(text.size());
    return true;
}

/// Reads the next message of anybody: "2:text", or "2!" for the end of sibling 2.
inline std::string hear(io::SiblingMessenger& to) {
    const uint32_t sender = to.nextSender();
    auto peer = to.sibling(sender);
    const uint8_t* bytes = nullptr;
    try {
        const size_t count = peer->in().readBegin(bytes);
        std::string text(reinterpret_cast<const char*>(bytes), count);
        peer->in().readCommit(count);
        return std::to_string(sender) + ":" + text;
    } catch (const io::EEndOfStream&) {
        peer->endSeen();
        return std::to_string(sender) + "!";
    }
}

class Family {
  public:
    explicit Family(uint64_t pool_bytes = 1 << 20, uint32_t slice_bytes = 4096) {
        policy.slice_bytes = slice_bytes;
        members[0] = std::make_unique<Member>(
            std::make_unique<io::ParentMessenger>(dir.file("fifo"), pool_bytes, policy));
    }

    io::ParentMessenger& parent() {
        return dynamic_cast<io::ParentMessenger&>(*members[0]->messenger);
    }
    io::SiblingMessenger& at(uint32_t id) { return *members.at(id)->messenger; }
    io::ChildMessenger& child(uint32_t id) { return members.at(id)->child(); }

    void start(uint32_t id) {
        members[id] =
            std::make_unique<Member>(std::make_unique<io::ChildMessenger>(id, parent().access()));
        settle();
    }
    /// As if its process had died: no word of it, and its parent notices.
    void kill(uint32_t id) {
        members.erase(id);
        parent().siblingGone(id);
        settle();
    }
    /// Serves all members until signals no longer flow. Reads no message.
    void settle() {
        for (int round = 0; round < 8; ++round)
            for (auto& [id, member] : members) member->serveSignals();
    }
    /// What `id` has to read, in order, by spaces.
    std::string heard(uint32_t id) {
        std::string all;
        settle();
        while (members.at(id)->hasMessage()) {
            all += (all.empty() ? "" : " ") + hear(at(id));
            settle();
        }
        return all;
    }

    support::TempDir dir;
    Policy policy;
    std::map<uint32_t, std::unique_ptr<Member>> members;
};

}  // namespace io_test
