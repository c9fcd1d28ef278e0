#include "queues/fdio.h"

#include "io/memory_stream.h"
#include "queues/detail/codec.h"

namespace queues {

namespace {

bool is_known(event_t number) {
    return number > INVALID_HEAD && number < INVALID_TAIL;
}

}  // namespace

void fdio::write(const event& sent) {
    const event_t number = sent.number();
    error::check(is_known(number), "fdio << event: unknown type index: {}",
                 static_cast<std::int32_t>(number));
    detail::put(prim_, number);
    detail::put(prim_, sent.peer);
    detail::put(prim_, sent.uid);
    detail::put(prim_, sent.exception);
    sent.write_record(prim_);
    prim_.commit();
}

std::unique_ptr<event> fdio::read() {
    const auto number = static_cast<event_t>(prim_.get32());
    error::check(is_known(number), "fdio >> event: unknown type index: {} old was {} dest {}",
                 static_cast<std::int32_t>(number), static_cast<std::int32_t>(last_number_),
                 static_cast<std::int32_t>(last_peer_));
    std::unique_ptr<event> received = read_body(number);
    error::check(received->exception || received->number() == number, "spawn[] hash failure!");
    last_number_ = number;
    last_peer_ = received->peer;
    return received;
}

std::unique_ptr<event> fdio::read_body(event_t number) {
    detail::Reader in(prim_, number);
    queue_t peer{};
    std::uint32_t uid = 0;
    bool exception = false;
    detail::get(in, peer);
    detail::get(in, uid);
    detail::get(in, exception);
    if (exception) {
        std::string text;
        detail::get(in, text);
        return std::make_unique<exevent>(peer, uid, std::move(text));
    }
    error::check(number != MESSAGE_EXCEPTION, "Found exevent with .exception == 0");
    const detail::codec_t& codec = detail::get_codec(number);
    std::unique_ptr<event> received = codec.make(peer, uid);
    codec.read(in, received->raw_data());
    return received;
}

std::unique_ptr<event> as_received(const event& sent) {
    io::MemoryStream stream;
    fdio events(stream, stream);
    events.write(sent);
    return events.read();
}

}  // namespace queues
