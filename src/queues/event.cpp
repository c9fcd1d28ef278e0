#include "queues/event.h"

#include <ostream>

#include "queues/detail/codec.h"

namespace queues {

exevent::exevent(queue_t peer_queue, std::uint32_t dialog, std::string exception_text)
    : event(MESSAGE_EXCEPTION, peer_queue, dialog, true, nullptr),
      text(std::move(exception_text)) {}

exevent::exevent(const exevent& other) : event(other, nullptr), text(other.text) {}

std::unique_ptr<event> exevent::clone() const {
    return std::make_unique<exevent>(*this);
}

void exevent::write_record(protocol::ioprim& out) const {
    detail::put(out, text);
}

void exevent::print(std::ostream& out) const {
    out << "Exception: " << text << '\n';
}

std::string event_name(const event* received) {
    return received == nullptr ? "NULL" : event_name(received->number());
}

bool equal(const event& left, const event& right) {
    if (left.number() != right.number() || left.peer != right.peer || left.uid != right.uid ||
        left.exception != right.exception)
        return false;
    if (left.number() == MESSAGE_EXCEPTION)
        return static_cast<const exevent&>(left).text == static_cast<const exevent&>(right).text;
    return detail::get_codec(left.number()).same(left.raw_data(), right.raw_data());
}

namespace detail {

void write_record(event_t number, protocol::ioprim& out, const void* record) {
    get_codec(number).write(out, record);
}

void print_record(event_t number, std::ostream& out, const void* record) {
    get_codec(number).print(out, record);
}

const codec_t& get_codec(event_t number) {
    error::check(number >= kFirstControl && number < MESSAGE_EXCEPTION,
                 "No record belongs to event {}", static_cast<std::int32_t>(number));
    const auto entry = [number](std::span<const codec_t> family, int first) -> const codec_t& {
        return family[static_cast<std::size_t>(number - first)];
    };
    if (number < kFirstChecks) return entry(control_codecs(), kFirstControl);
    if (number < kFirstTql) return entry(checks_codecs(), kFirstChecks);
    if (number < kFirstAccess) return entry(tql_codecs(), kFirstTql);
    if (number < kFirstSiblings) return entry(access_codecs(), kFirstAccess);
    return entry(siblings_codecs(), kFirstSiblings);
}

}  // namespace detail

}  // namespace queues
