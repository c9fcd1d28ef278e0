// An HTTP/1.1 server on the loopback address that never blocks and has no thread: its owner's
// selector watches epoll_fd() and timeout_ms(), and calls run(). Requests come out whole; answers
// may be given at any later time and in any order.
//
// One exchange:
//
//   reading --body whole--> arrived --run() hands it out--> waiting --answer()--> answered
//   reading --too large, from a foreign page--> answered                             |
//                                                   answered --sent, or client gone--> no more
//
// A connection is suspended from arrived to answered. After an answer the library has to be run
// again at once, which is why answer() only takes note and run() does the rest; and the library may
// not be stopped while a connection is suspended, which is why the destructor answers first.
//
// An answer may also be a stream, whose text comes piece by piece and whose end is open:
//
//   waiting --open_stream()--> streaming --end_stream(), or client gone--> no more
//
// An open stream costs a connection and no thread. While it has nothing to send, its connection is
// suspended, and the library doesn't look at it; so the server itself watches its socket and ends
// the stream when the client closes its side. write() never waits: what it is given stays in memory
// until the network takes it, and stream_taken() says when it has all gone. A writer that hands out
// the next piece only then is never ahead of a slow reader by more than one piece.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/fifo.h"
#include "wapi/endpoint.h"

struct MHD_Connection;
struct MHD_Daemon;

namespace wapi {

class HttpRequests {
  public:
    virtual ~HttpRequests() = default;
    /// May answer at once. The request lives until the call returns.
    virtual void take_request(token_t token, const Request& request) = 0;
    /// All that was written to this stream has left for the client.
    virtual void stream_taken(token_t) {}
    /// A stream is over, whoever ended it.
    virtual void stream_ended(token_t) {}
};

/// Whether a request may come from where its headers say. A web page of another site that a browser
/// on this machine shows must not reach the server: the request then has an Origin other than the
/// Host, or a Host that is no name of this machine. Empty texts: the header isn't there.
[[nodiscard]] bool comes_from_here(std::string_view host, std::string_view origin);

class HttpServer {
  public:
    static constexpr size_t kMaxBodyBytes = 8U << 20;
    /// A larger announced body isn't even read to its end before the refusal.
    static constexpr uint64_t kMaxDrainBytes = 128U << 20;
    /// Bytes of all bodies together; a request beyond it gets 503.
    static constexpr size_t kMaxBufferedBytes = 64U << 20;
    static constexpr unsigned kMaxConnections = 512;
    static constexpr size_t kMaxHeaderBytes = 32U << 10;
    static constexpr unsigned kIdleTimeout_s = 60;

    /// Listens on 127.0.0.1; port 0 takes any free one. `requests` must outlive the server. Throws
    /// error::EFatal when the port can't be had.
    HttpServer(uint16_t port, HttpRequests& requests);
    /// Waiting requests get 503.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    [[nodiscard]] uint16_t port() const;
    /// Readable when there is something to do. Lives as long as the server.
    [[nodiscard]] int epoll_fd() const;
    /// Milliseconds after which run() is to be called though nothing is readable; none: never.
    [[nodiscard]] std::optional<uint64_t> timeout_ms() const;

    /// Does all work that can be done without waiting, hands out the requests that arrived.
    void run();

    /// Answers a request that was handed out and not answered yet; others are passed over. It
    /// leaves with the next run().
    void answer(token_t token, Response response);

    /// Begins a stream of this content type as the answer to a request that was handed out and not
    /// answered yet; false if there is no such request.
    [[nodiscard]] bool open_stream(token_t token, const std::string& content_type);
    /// Adds to a stream; passed over if there is no such stream any more.
    void write(token_t token, std::string_view text);
    /// Ends a stream behind what was written; passed over if there is none.
    void end_stream(token_t token);

    /// Takes no new connections any more.
    void stop_listening();
    /// Requests that are being read, are waiting or whose answer isn't sent.
    [[nodiscard]] size_t open_exchanges() const { return exchanges_.size(); }

  private:
    struct Exchange;
    struct Callbacks;

    void deliver();
    void end_abandoned_streams();
    void resume(Exchange& exchange);
    [[nodiscard]] Exchange* find_stream(token_t token) const;
    Exchange& begin(MHD_Connection* connection, const char* method, const char* path);
    void end(Exchange& exchange);

    HttpRequests& requests_;
    MHD_Daemon* daemon_ = nullptr;
    token_t last_token_ = 0;
    std::map<token_t, std::unique_ptr<Exchange>> exchanges_;
    std::vector<token_t> arrived_;
    std::vector<token_t> taken_;  ///< streams that have nothing left to send
    std::vector<token_t> ended_;  ///< streams
    /// Readable when the library has work or the client of a stream has closed its side.
    platform::Fd watched_;
    size_t buffered_bytes_ = 0;
    bool listening_ = true;
    bool closing_ = false;  ///< no connection may be suspended any more
    bool resumed_ = false;  ///< something was answered since the last run of the library
};

}  // namespace wapi
