// Events: what processes of the family tell each other.
//
// An event is a plain value: the number fixes the record that it carries. It is built on the stack
// or the heap by whoever sends it, and a received one is a heap object owned by whoever took it
// from the queue. This header knows no record's fields and no stream; include the family header of
// queues/records for those.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <memory>
#include <string>
#include <utility>

#include "error/exception.h"
#include "queues/catalogue.h"
#include "queues/event_types.h"

namespace protocol {
class ioprim;
}

namespace queues {

/// Base of all events.
class event {
  public:
    virtual ~event() = default;
    event& operator=(const event&) = delete;

    /// A new copy with a record of its own.
    [[nodiscard]] virtual std::unique_ptr<event> clone() const = 0;

    /// Writes the data record alone: no header, and nothing of a devent whose `exception` is set.
    virtual void write_record(protocol::ioprim& out) const = 0;

    /// Writes the record in readable form: one field to a line, as name, ": " and value.
    virtual void print(std::ostream& out) const = 0;

    [[nodiscard]] event_t number() const noexcept { return number_; }

    /// The record inside this event, or null. Its type is record_t of the number; prefer data().
    [[nodiscard]] void* raw_data() noexcept { return data_; }
    [[nodiscard]] const void* raw_data() const noexcept { return data_; }

    queue_t peer;       ///< to be sent: the destination; received: the sibling it came from
    std::uint32_t uid;  ///< dialog id: a reply carries that of its request, 0 expects none
    bool exception;     ///< an exception text stands in place of the record

  protected:
    event(event_t number, queue_t peer_queue, std::uint32_t dialog, bool is_exception, void* data)
        : peer(peer_queue), uid(dialog), exception(is_exception), number_(number), data_(data) {}
    event(const event& other, void* data)
        : peer(other.peer),
          uid(other.uid),
          exception(other.exception),
          number_(other.number_),
          data_(data) {}

  private:
    event_t number_;
    void* data_;
};

namespace detail {
void write_record(event_t number, protocol::ioprim& out, const void* record);
void print_record(event_t number, std::ostream& out, const void* record);
}  // namespace detail

/// The event of number N with its record held by value. Needs the family header of the record.
template <event_t N, class Data = record_t<N>>
class devent final : public event {
  public:
    explicit devent(queue_t peer_queue, std::uint32_t dialog = 0, Data data = Data())
        : event(N, peer_queue, dialog, false, &record), record(std::move(data)) {}
    devent(const devent& other) : event(other, &record), record(other.record) {}

    [[nodiscard]] std::unique_ptr<event> clone() const override {
        return std::make_unique<devent>(*this);
    }
    void write_record(protocol::ioprim& out) const override {
        if (!exception) detail::write_record(N, out, &record);
    }
    void print(std::ostream& out) const override { detail::print_record(N, out, &record); }

    Data record;
};

/// The event that carries an exception text to the asker in place of the reply.
class exevent final : public event {
  public:
    exevent(queue_t peer_queue, std::uint32_t dialog, std::string text);
    exevent(const exevent& other);

    [[nodiscard]] std::unique_ptr<event> clone() const override;
    void write_record(protocol::ioprim& out) const override;

    /// "Exception: ", the text and a line end.
    void print(std::ostream& out) const override;

    std::string text;
};

/// The record of a received event of number N; any other number or an exception event in its place
/// is a fatal assertion, since whoever asks has looked at the number. Lives as long as the event.
template <event_t N>
[[nodiscard]] const record_t<N>& data(const event& received) {
    error::check(received.number() == N && !received.exception && received.raw_data() != nullptr,
                 "Record of {} asked of a {}", static_cast<int>(N),
                 static_cast<int>(received.number()));
    return *static_cast<const record_t<N>*>(received.raw_data());
}
template <event_t N>
[[nodiscard]] record_t<N>& data(event& received) {
    return const_cast<record_t<N>&>(data<N>(std::as_const(received)));
}

/// Name of an event's number; "NULL" for none.
[[nodiscard]] std::string event_name(const event* received);

/// Whether two events agree in number, peer, dialog id, exception and in every field of their
/// records.
[[nodiscard]] bool equal(const event& left, const event& right);

}  // namespace queues
