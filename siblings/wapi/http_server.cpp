#include "wapi/http_server.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <unistd.h>

#include "error/exception.h"
#include "log/log.h"

namespace wapi {

namespace {

const logging::Logger logger{"wapi"};

/// Stands for the library itself among what is watched; no token is 0.
constexpr uint64_t kLibrary = 0;
/// At most so much of a stream goes to the network at once.
constexpr size_t kStreamPieceBytes = 16U << 10;

std::string_view header(MHD_Connection* connection, const char* name) {
    const char* value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
    return value == nullptr ? std::string_view() : value;
}

uint64_t announced_bytes(MHD_Connection* connection) {
    const std::string_view text = header(connection, MHD_HTTP_HEADER_CONTENT_LENGTH);
    uint64_t bytes = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), bytes);
    if (failure == std::errc::result_out_of_range) return UINT64_MAX;
    return bytes;
}

Response refuse_size() {
    return refusal(
        Refused(413, "TOO_LARGE",
                fmt::format("The body has more than {} bytes", HttpServer::kMaxBodyBytes)));
}

Response refuse_closing() {
    return refusal(unavailable("The gateway is stopping"));
}

/// Hands the answer to the library, which keeps the text until it is sent.
MHD_Result queue_response(MHD_Connection* connection, Response response) {
    auto body = std::make_unique<std::string>(std::move(response.body));
    char* bytes = body->data();
    const size_t size = body->size();
    MHD_Response* made = MHD_create_response_from_buffer_with_free_callback_cls(
        size, bytes, [](void* kept) { delete static_cast<std::string*>(kept); }, body.get());
    if (made == nullptr) return MHD_NO;
    (void)body.release();  // the response owns it now
    MHD_add_response_header(made, MHD_HTTP_HEADER_CONTENT_TYPE, response.content_type.c_str());
    if (response.ends_connection)
        MHD_add_response_header(made, MHD_HTTP_HEADER_CONNECTION, "close");
    const MHD_Result queued = MHD_queue_response(connection, response.status, made);
    MHD_destroy_response(made);
    return queued;
}

void log_line(void*, const char* format, va_list arguments) {
    char line[512];
    if (std::vsnprintf(line, sizeof line, format, arguments) <= 0) return;
    const std::string_view text(line, std::strcspn(line, "\n"));
    // Clients of streams leave in the middle of an answer, which is nothing to tell operators.
    const bool client_left = text.find("closed by remote peer") != text.npos;
    logger.write(client_left ? logging::level_t::debug : logging::level_t::info, "HTTP: {}", text);
}

bool is_name_of_this_machine(std::string_view host) {
    const size_t port = host.rfind(':');
    if (port != host.npos && host.find(']', port) == host.npos) host = host.substr(0, port);
    return host == "127.0.0.1" || host == "localhost" || host == "[::1]";
}

}  // namespace

bool comes_from_here(std::string_view host, std::string_view origin) {
    if (!host.empty() && !is_name_of_this_machine(host)) return false;
    constexpr std::string_view kScheme = "http://";
    return origin.empty() || (origin.starts_with(kScheme) && origin.substr(kScheme.size()) == host);
}

struct HttpServer::Exchange {
    enum class state_t { reading, waiting, answered, streaming };

    token_t token;
    MHD_Connection* connection;
    Request request;
    state_t state = state_t::reading;
    uint64_t drained_bytes = 0;          ///< read and thrown away
    std::optional<Response> response{};  ///< while reading: a refusal that waits for the body's end
    /// Of a stream: what isn't handed to the library yet, from `sent_bytes` on.
    std::string outgoing{};
    size_t sent_bytes = 0;
    std::string content_type{};
    bool suspended = false;
    bool ending = false;     ///< after what is outgoing
    bool abandoned = false;  ///< the client has closed its side

    [[nodiscard]] bool is_stream() const { return state == state_t::streaming; }
};

/// What the library calls. Nothing here throws but for lack of memory, and nothing calls out.
struct HttpServer::Callbacks {
    static MHD_Result on_access(void* server, MHD_Connection* connection, const char* path,
                                const char* method, const char*, const char* data, size_t* size,
                                void** kept) {
        HttpServer& self = *static_cast<HttpServer*>(server);
        if (*kept == nullptr) {
            Exchange& exchange = self.begin(connection, method, path);
            *kept = &exchange;
            return on_headers(exchange);
        }
        Exchange& exchange = *static_cast<Exchange*>(*kept);
        if (*size != 0) return on_body(self, exchange, data, *size);
        if (exchange.state == Exchange::state_t::reading) {
            if (!exchange.response && self.closing_) exchange.response = refuse_closing();
            if (exchange.response) return send(exchange);
            exchange.state = Exchange::state_t::waiting;
            self.arrived_.push_back(exchange.token);
            MHD_suspend_connection(connection);
            return MHD_YES;
        }
        return exchange.is_stream() ? begin_stream(self, exchange) : send(exchange);
    }

    /// With sizes, since a value may hold zero bytes, which nobody must cut it at.
    static MHD_Result on_parameter(void* query, MHD_ValueKind, const char* name, size_t name_size,
                                   const char* value, size_t value_size) {
        static_cast<decltype(Request::query)*>(query)->emplace_back(
            std::string(name, name_size),
            value == nullptr ? std::string() : std::string(value, value_size));
        return MHD_YES;
    }

    static MHD_Result on_headers(Exchange& exchange) {
        MHD_Connection* connection = exchange.connection;
        if (!comes_from_here(header(connection, MHD_HTTP_HEADER_HOST),
                             header(connection, MHD_HTTP_HEADER_ORIGIN)))
            exchange.response = refusal(Refused(
                403, "FOREIGN_ORIGIN", "Requests of web pages of other sites are not answered"));
        const uint64_t announced = announced_bytes(connection);
        if (announced <= kMaxBodyBytes) return MHD_YES;
        exchange.response = refuse_size();
        // A client that asks before it sends, or that would send for long, is told at once. The
        // others hear of it at the end, since a connection closed in the middle of their sending
        // may cost them the answer.
        const bool asks = !header(connection, MHD_HTTP_HEADER_EXPECT).empty();
        return asks || announced > kMaxDrainBytes ? send(exchange) : MHD_YES;
    }

    static MHD_Result on_body(HttpServer& self, Exchange& exchange, const char* data,
                              size_t& size) {
        if (!exchange.response && exchange.request.body.size() + size > kMaxBodyBytes)
            exchange.response = refuse_size();
        if (!exchange.response && self.buffered_bytes_ + size > kMaxBufferedBytes)
            exchange.response =
                refusal(Refused(503, "BUSY", "Too many large requests at the same time"));
        if (!exchange.response) {
            exchange.request.body.append(data, size);
            self.buffered_bytes_ += size;
        } else {
            self.buffered_bytes_ -= exchange.request.body.size();
            std::string().swap(exchange.request.body);
            exchange.drained_bytes += size;
            if (exchange.drained_bytes > kMaxDrainBytes) return MHD_NO;
        }
        size = 0;
        return MHD_YES;
    }

    static MHD_Result send(Exchange& exchange) {
        exchange.state = Exchange::state_t::answered;
        Response response = std::move(*exchange.response);
        exchange.response.reset();
        return queue_response(exchange.connection, std::move(response));
    }

    /// What the library asks for the next piece of a stream with, and forgets after the last one.
    struct StreamReader {
        HttpServer& server;
        Exchange& exchange;
    };

    static MHD_Result begin_stream(HttpServer& self, Exchange& exchange) {
        auto reader = std::make_unique<StreamReader>(StreamReader{self, exchange});
        MHD_Response* made = MHD_create_response_from_callback(
            MHD_SIZE_UNKNOWN, kStreamPieceBytes, &on_more, reader.get(),
            [](void* kept) { delete static_cast<StreamReader*>(kept); });
        if (made == nullptr) return MHD_NO;
        (void)reader.release();  // the response owns it now
        MHD_add_response_header(made, MHD_HTTP_HEADER_CONTENT_TYPE, exchange.content_type.c_str());
        MHD_add_response_header(made, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
        const MHD_Result queued = MHD_queue_response(exchange.connection, MHD_HTTP_OK, made);
        MHD_destroy_response(made);
        return queued;
    }

    /// Called when all earlier text is with the network.
    static ssize_t on_more(void* kept, uint64_t, char* buffer, size_t room) {
        auto& [self, exchange] = *static_cast<StreamReader*>(kept);
        if (exchange.abandoned) return MHD_CONTENT_READER_END_OF_STREAM;
        const size_t left = exchange.outgoing.size() - exchange.sent_bytes;
        if (left > 0) {
            const size_t given = std::min(left, room);
            std::memcpy(buffer, exchange.outgoing.data() + exchange.sent_bytes, given);
            exchange.sent_bytes += given;
            return static_cast<ssize_t>(given);
        }
        std::string().swap(exchange.outgoing);
        exchange.sent_bytes = 0;
        if (exchange.ending) return MHD_CONTENT_READER_END_OF_STREAM;
        self.taken_.push_back(exchange.token);
        exchange.suspended = true;
        MHD_suspend_connection(exchange.connection);
        return 0;
    }

    static void on_completed(void* server, MHD_Connection*, void** kept,
                             MHD_RequestTerminationCode) {
        if (*kept == nullptr) return;
        static_cast<HttpServer*>(server)->end(*static_cast<Exchange*>(*kept));
        *kept = nullptr;
    }
};

HttpServer::HttpServer(uint16_t port, HttpRequests& requests) : requests_(requests) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    errno = 0;
    daemon_ = MHD_start_daemon(MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME | MHD_USE_ERROR_LOG, port,
                               nullptr, nullptr, &Callbacks::on_access, this,
                               MHD_OPTION_EXTERNAL_LOGGER, &log_line, nullptr, MHD_OPTION_SOCK_ADDR,
                               reinterpret_cast<sockaddr*>(&address), MHD_OPTION_NOTIFY_COMPLETED,
                               &Callbacks::on_completed, this, MHD_OPTION_CONNECTION_LIMIT,
                               kMaxConnections, MHD_OPTION_CONNECTION_MEMORY_LIMIT, kMaxHeaderBytes,
                               MHD_OPTION_CONNECTION_TIMEOUT, kIdleTimeout_s, MHD_OPTION_END);
    if (daemon_ == nullptr)
        throw error::EFatal(fmt::format("Cannot listen on 127.0.0.1:{}: {}", port,
                                        errno == 0 ? "unknown reason" : std::strerror(errno)));
    const int library_fd = MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
    epoll_event library{.events = EPOLLIN, .data = {.u64 = kLibrary}};
    watched_ = platform::Fd(::epoll_create1(EPOLL_CLOEXEC));
    if (!watched_ || ::epoll_ctl(watched_.get(), EPOLL_CTL_ADD, library_fd, &library) != 0) {
        const int reason = errno;
        MHD_stop_daemon(daemon_);
        throw error::EFatal(fmt::format("Cannot watch connections: {}", std::strerror(reason)));
    }
}

HttpServer::~HttpServer() {
    closing_ = true;
    std::vector<token_t> open;
    for (const auto& [token, exchange] : exchanges_) open.push_back(token);
    for (const token_t token : open) {
        answer(token, refuse_closing());
        end_stream(token);
    }
    // Takes the connections out of suspension and lets the answers go as far as they go at once.
    MHD_run(daemon_);
    MHD_run(daemon_);
    MHD_stop_daemon(daemon_);
}

uint16_t HttpServer::port() const {
    return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_BIND_PORT)->port;
}

int HttpServer::epoll_fd() const {
    return watched_.get();
}

std::optional<uint64_t> HttpServer::timeout_ms() const {
    MHD_UNSIGNED_LONG_LONG left_ms = 0;
    if (MHD_get_timeout(daemon_, &left_ms) != MHD_YES) return std::nullopt;
    return left_ms;
}

void HttpServer::run() {
    end_abandoned_streams();
    do {
        resumed_ = false;
        MHD_run(daemon_);
        deliver();
    } while (resumed_);
}

void HttpServer::end_abandoned_streams() {
    std::array<epoll_event, 64> found{};
    const int count = ::epoll_wait(watched_.get(), found.data(), static_cast<int>(found.size()), 0);
    for (int i = 0; i < count; ++i) {
        const token_t token = found[static_cast<size_t>(i)].data.u64;
        Exchange* stream = token == kLibrary ? nullptr : find_stream(token);
        if (stream == nullptr) continue;
        stream->abandoned = true;
        resume(*stream);
    }
}

void HttpServer::deliver() {
    const std::vector<token_t> arrived = std::move(arrived_);
    arrived_.clear();
    for (const token_t token : arrived) {
        const auto found = exchanges_.find(token);
        if (found == exchanges_.end()) continue;
        const Exchange& exchange = *found->second;
        requests_.take_request(token, exchange.request);
    }
    for (const token_t token : std::exchange(ended_, {})) requests_.stream_ended(token);
    for (const token_t token : std::exchange(taken_, {}))
        if (const Exchange* stream = find_stream(token); stream != nullptr && stream->suspended)
            requests_.stream_taken(token);
}

void HttpServer::answer(token_t token, Response response) {
    const auto found = exchanges_.find(token);
    if (found == exchanges_.end()) return;
    Exchange& exchange = *found->second;
    if (exchange.state != Exchange::state_t::waiting) return;
    exchange.response = std::move(response);
    exchange.state = Exchange::state_t::answered;
    resumed_ = true;
    MHD_resume_connection(exchange.connection);
}

bool HttpServer::open_stream(token_t token, const std::string& content_type) {
    const auto found = exchanges_.find(token);
    if (found == exchanges_.end()) return false;
    Exchange& exchange = *found->second;
    if (exchange.state != Exchange::state_t::waiting) return false;
    exchange.state = Exchange::state_t::streaming;
    exchange.content_type = content_type;
    const int socket_fd =
        MHD_get_connection_info(exchange.connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    // Without this watch a client that goes away is noticed only at the next piece.
    epoll_event closed{.events = EPOLLRDHUP | EPOLLONESHOT, .data = {.u64 = token}};
    if (::epoll_ctl(watched_.get(), EPOLL_CTL_ADD, socket_fd, &closed) != 0)
        logger.error("Cannot watch a client: {}", std::strerror(errno));
    exchange.suspended = true;
    resume(exchange);
    return true;
}

void HttpServer::write(token_t token, std::string_view text) {
    Exchange* stream = find_stream(token);
    if (stream == nullptr || stream->ending) return;
    stream->outgoing += text;
    resume(*stream);
}

void HttpServer::end_stream(token_t token) {
    Exchange* stream = find_stream(token);
    if (stream == nullptr) return;
    stream->ending = true;
    resume(*stream);
}

void HttpServer::resume(Exchange& exchange) {
    if (!std::exchange(exchange.suspended, false)) return;
    resumed_ = true;
    MHD_resume_connection(exchange.connection);
}

HttpServer::Exchange* HttpServer::find_stream(token_t token) const {
    const auto found = exchanges_.find(token);
    return found != exchanges_.end() && found->second->is_stream() ? found->second.get() : nullptr;
}

void HttpServer::stop_listening() {
    if (!listening_) return;
    listening_ = false;
    const MHD_socket listener = MHD_quiesce_daemon(daemon_);
    if (listener != MHD_INVALID_SOCKET) ::close(listener);
}

HttpServer::Exchange& HttpServer::begin(MHD_Connection* connection, const char* method,
                                        const char* path) {
    const token_t token = ++last_token_;
    auto made = std::make_unique<Exchange>(
        Exchange{.token = token, .connection = connection, .request = {method, path}});
    (void)MHD_get_connection_values_n(connection, MHD_GET_ARGUMENT_KIND, &Callbacks::on_parameter,
                                      &made->request.query);
    return *exchanges_.emplace(token, std::move(made)).first->second;
}

void HttpServer::end(Exchange& exchange) {
    buffered_bytes_ -= exchange.request.body.size();
    if (exchange.is_stream()) {
        // The connection may live on for another request.
        const int socket_fd =
            MHD_get_connection_info(exchange.connection, MHD_CONNECTION_INFO_CONNECTION_FD)
                ->connect_fd;
        (void)::epoll_ctl(watched_.get(), EPOLL_CTL_DEL, socket_fd, nullptr);
        ended_.push_back(exchange.token);
    }
    exchanges_.erase(exchange.token);
}

}  // namespace wapi
