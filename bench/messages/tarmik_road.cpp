#include <array>
#include <stdexcept>
#include <stdlib.h>
#include <string>
#include <unistd.h>

#include "io/parent_messenger.h"
#include "io/selector.h"
#include "messages/channel.h"
#include "platform/clock.h"
#include "queues/childqueue.h"
#include "queues/records/control.h"
#include "queues/records/dbms_tql.h"
#include "support/memory_stream.h"
#include "tql/property_kinds.h"

namespace bench {

namespace {

using namespace queues;

constexpr uint32_t kAreaBytes = 4 << 20;
constexpr uint64_t kPoolBytes = 16 << 20;
constexpr uint32_t kNameProperty = 51, kBlobProperty = 52;
constexpr queue_t kFar = queue_t::dbms;

using update_t = devent<TQL_UPDATE>;
using updated_t = devent<RETURN_TQL_UPDATE>;

size_t marshalled_size(const event& sent) {
    support::MemoryOStream out(size_t{1} << 20);
    support::MemoryIStream nothing{support::Bytes{}};
    fdio(nothing, out).write(sent);
    return out.bytes.size();
}

/// A request to change an object, as it comes from a client, kSmallBytes with its header.
update_t make_request(queue_t peer) {
    update_t request(peer, 1);
    request.record.id = tql::id_t(1, 4711);
    request.record.user_id = tql::id_t(1, 12);
    auto name = std::make_unique<tql::property_string_t>(kNameProperty, std::string());
    std::string& text = name->value;
    request.record.properties.emplace_back(std::move(name));
    text.resize(kSmallBytes - marshalled_size(request), 'n');
    return request;
}

updated_t make_reply(queue_t peer) {
    updated_t reply(peer, 1);
    reply.record.details.emplace_back();
    reply.record.details.back().msg.resize(kSmallBytes - marshalled_size(reply), 'd');
    return reply;
}

/// The same request with a blob of kLargeBytes.
update_t make_large(queue_t peer) {
    update_t large(peer);
    large.record.properties.emplace_back(std::make_unique<tql::property_blob_t>(
        kBlobProperty, std::vector<uint8_t>(kLargeBytes, 'x')));
    return large;
}

class TarmikChannel final : public Channel {
  public:
    TarmikChannel(io::SiblingMessenger& messenger, queue_t peer)
        : messenger_(messenger),
          queue_(messenger, clock_),
          request_(make_request(peer)),
          reply_(make_reply(peer)),
          large_(make_large(peer)),
          stop_(peer) {
        if (marshalled_size(request_) != kSmallBytes || marshalled_size(reply_) != kSmallBytes)
            throw std::runtime_error("an event has the wrong size");
    }

    void send(message_t message) override { queue_.send(event_of(message)); }

    void flush() override { messenger_.flush(); }

    message_t receive() override {
        const std::unique_ptr<event> received = queue_.read();
        if (!received) throw std::runtime_error("the other process ended");
        switch (received->number()) {
            case TQL_UPDATE:
                return received->uid == 0 ? message_t::large : message_t::request;
            case RETURN_TQL_UPDATE:
                return message_t::reply;
            default:
                return message_t::stop;
        }
    }

  private:
    const event& event_of(message_t message) const {
        switch (message) {
            case message_t::request:
                return request_;
            case message_t::reply:
                return reply_;
            case message_t::large:
                return large_;
            default:
                return stop_;
        }
    }

    io::SiblingMessenger& messenger_;
    platform::SystemClock clock_;
    childqueue queue_;
    update_t request_;
    updated_t reply_;
    update_t large_;
    devent<SYS_EXIT> stop_;
};

/// Parent and child of a family of two.
class TarmikRoad final : public Road {
  public:
    ~TarmikRoad() override {
        parent_.reset();
        ::rmdir(folder_.data());
    }

    std::unique_ptr<Channel> near_end() override {
        io::BareSelector selector;
        selector.add(parent_->newSiblings());
        while (!parent_->isUp(static_cast<uint32_t>(kFar)))
            static_cast<void>(selector.select(io::wait_t::blocking));
        selector.remove(parent_->newSiblings());
        return std::make_unique<TarmikChannel>(*parent_, kFar);
    }
    std::unique_ptr<Channel> far_end() override {
        child_ =
            std::make_unique<io::ChildMessenger>(static_cast<uint32_t>(kFar), parent_->access());
        return std::make_unique<TarmikChannel>(*child_, queue_t::main);
    }

  private:
    struct Policy final : io::ParentPolicy {
        uint32_t sliceSize(uint32_t) override { return kAreaBytes; }
        bool requestPeer(uint32_t, uint32_t) override { return false; }
    };

    static std::string make_folder() {
        std::string folder = "/tmp/tarmik-bench-XXXXXX";
        if (::mkdtemp(folder.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
        return folder;
    }

    Policy policy_;
    std::string folder_ = make_folder();
    std::unique_ptr<io::ParentMessenger> parent_ =
        std::make_unique<io::ParentMessenger>(folder_ + "/fifo", kPoolBytes, policy_);
    std::unique_ptr<io::ChildMessenger> child_;
};

}  // namespace

std::unique_ptr<Road> make_tarmik_road() {
    return std::make_unique<TarmikRoad>();
}

}  // namespace bench
