#include "server.hpp"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>
#include <unordered_map>
#include <utility>
#include <vector>

#include <fmt/format.h>
#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/thread_pool.hpp>

#include "dh_db.hpp"
#include "dh_node.hpp"
#include "dh_session.hpp"
#include "metrics.hpp"
#include "msg_log.hpp"

namespace {

// Host commands the daemon starts (through popen or system) must not inherit its sockets: a
// backgrounded child would keep the ports open after the daemon ends.
void set_cloexec(int fd) {
    ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC);
}

}  // namespace

namespace dh::server::detail {

namespace asio = boost::asio;
using boost::system::error_code;
using generic_socket = asio::generic::stream_protocol::socket;

constexpr std::int32_t code_parse_error = -32700;
constexpr std::int32_t code_invalid_request = -32600;
constexpr std::int32_t code_method_not_found = -32601;
constexpr std::int32_t code_invalid_params = -32602;
constexpr std::int32_t code_no_such_node = -32001;
constexpr std::int32_t code_too_many_connections = -32000;

// A connection's read buffer starts small (there may be a thousand connections), doubles up to
// kept_read_buffer while reads fill it, and grows further only to hold one long line.
constexpr std::size_t initial_read_buffer = 16 * 1024;
constexpr std::size_t kept_read_buffer = 64 * 1024;
constexpr std::size_t kept_write_buffer = 256 * 1024;

// Lines are parsed straight from the read buffer, but not in situ: strings are copied into the
// request's pool, because rapidjson's Value copies share strings that are not marked as copied,
// and nodes keep copies of what they are given.
constexpr unsigned parse_flags =
    rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;

// The request document allocates its values and its parse stack from one pool that is emptied
// before each line, so parsing a request normally touches no heap at all.
using request_document =
    rapidjson::GenericDocument<rapidjson::UTF8<>, dh::Allocator, dh::Allocator>;
using string_buffer = rapidjson::StringBuffer;
using json_writer = rapidjson::Writer<string_buffer>;

enum class method_id { get, set, run, subscribe, unsubscribe, info, list, history, unknown };

void count_request(method_id m, bool ok, std::chrono::steady_clock::time_point received) {
    constexpr const char* names[] = {"get",  "set",  "run",     "subscribe", "unsubscribe",
                                     "info", "list", "history", "unknown"};
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - received;
    metrics::request(names[static_cast<int>(m)], ok ? "ok" : "error", took.count());
}

method_id parse_method(std::string_view m) {
    if (m == "get") return method_id::get;
    if (m == "set") return method_id::set;
    if (m == "run") return method_id::run;
    if (m == "subscribe") return method_id::subscribe;
    if (m == "unsubscribe") return method_id::unsubscribe;
    if (m == "info") return method_id::info;
    if (m == "list") return method_id::list;
    if (m == "history") return method_id::history;
    return method_id::unknown;
}

std::string_view as_view(const dh::Value& v) {
    return {v.GetString(), v.GetStringLength()};
}

// One JSON-RPC error as it goes on the wire.
struct rpc_error {
    enum class data_kind { none, conversion, what };

    rpc_error(std::int32_t c, std::string m, data_kind k = data_kind::none, std::string f = {},
              std::string s = {})
        : code(c), message(std::move(m)), kind(k), first(std::move(f)), second(std::move(s)) {}

    std::int32_t code = -1;
    std::string message;
    data_kind kind = data_kind::none;
    std::string first;
    std::string second;
};

// Maps the exception in flight to its wire form: a dh_error keeps its code and text, a
// conversion error becomes -22 with the two type names, anything else -1 with its what().
rpc_error error_from_current_exception() {
    try {
        throw;
    } catch (const dh_error& e) {
        return {e.code(), e.message()};
    } catch (const json_value_conversion_error& e) {
        return {-22, fmt::format("Invalid value type: expected {}, got {}", e.expected, e.actual),
                rpc_error::data_kind::conversion, e.expected, e.actual};
    } catch (const std::exception& e) {
        MSG_LOG(4, "server") << "Node operation failed: " << e.what()
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
        return {-1, "Unknown error!", rpc_error::data_kind::what, e.what()};
    } catch (...) {
        MSG_LOG(4, "server") << "Node operation failed with a non-standard exception"
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
        return {-1, "Unknown error!", rpc_error::data_kind::what, "unknown exception"};
    }
}

[[noreturn]] void throw_invalid_params() {
    throw dh_error(code_invalid_params, "Invalid params");
}

void write_head(json_writer& w, const dh::Value* id) {
    w.StartObject();
    w.Key("jsonrpc");
    w.String("2.0");
    w.Key("id");
    if (id)
        id->Accept(w);
    else
        w.Null();
}

void write_error(string_buffer& sb, json_writer& w, const dh::Value* id, const rpc_error& e) {
    sb.Clear();
    w.Reset(sb);
    write_head(w, id);
    w.Key("error");
    w.StartObject();
    w.Key("code");
    w.Int(e.code);
    w.Key("message");
    w.String(e.message.data(), static_cast<rapidjson::SizeType>(e.message.size()));
    if (e.kind == rpc_error::data_kind::conversion) {
        w.Key("data");
        w.StartObject();
        w.Key("expected");
        w.String(e.first.data(), static_cast<rapidjson::SizeType>(e.first.size()));
        w.Key("actual");
        w.String(e.second.data(), static_cast<rapidjson::SizeType>(e.second.size()));
        w.EndObject();
    } else if (e.kind == rpc_error::data_kind::what) {
        w.Key("data");
        w.StartObject();
        w.Key("what");
        w.String(e.first.data(), static_cast<rapidjson::SizeType>(e.first.size()));
        w.EndObject();
    }
    w.EndObject();
    w.EndObject();
}

void write_result(string_buffer& sb, json_writer& w, const dh::Value* id, const dh::Value& result) {
    sb.Clear();
    w.Reset(sb);
    write_head(w, id);
    w.Key("result");
    if (result.Accept(w)) {
        w.EndObject();
        return;
    }
    // Only NaN and infinities make the writer refuse a value.
    write_error(
        sb, w, id,
        {-1, "Unknown error!", rpc_error::data_kind::what, "result is not representable in JSON"});
}

// Forwards the parser's events to the document and stops the parse once arrays and objects
// nest deeper than allowed, before the document (or any later recursive walk) sees them.
template <typename Handler>
class depth_limiter {
  public:
    depth_limiter(Handler& h, unsigned max_depth) : h_(h), max_(max_depth) {}

    bool too_deep() const noexcept { return too_deep_; }

    bool Null() { return h_.Null(); }
    bool Bool(bool b) { return h_.Bool(b); }
    bool Int(int i) { return h_.Int(i); }
    bool Uint(unsigned u) { return h_.Uint(u); }
    bool Int64(std::int64_t i) { return h_.Int64(i); }
    bool Uint64(std::uint64_t u) { return h_.Uint64(u); }
    bool Double(double d) { return h_.Double(d); }
    bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) {
        return h_.RawNumber(s, n, copy);
    }
    bool String(const char* s, rapidjson::SizeType n, bool copy) { return h_.String(s, n, copy); }
    bool Key(const char* s, rapidjson::SizeType n, bool copy) { return h_.Key(s, n, copy); }
    bool StartObject() { return enter() && h_.StartObject(); }
    bool EndObject(rapidjson::SizeType n) {
        --depth_;
        return h_.EndObject(n);
    }
    bool StartArray() { return enter() && h_.StartArray(); }
    bool EndArray(rapidjson::SizeType n) {
        --depth_;
        return h_.EndArray(n);
    }

  private:
    bool enter() {
        if (++depth_ <= max_) return true;
        too_deep_ = true;
        return false;
    }

    Handler& h_;
    const unsigned max_;
    unsigned depth_ = 0;
    bool too_deep_ = false;
};

class connection;

// The responses of one batch, collected from the serving thread and the workers.
struct batch_state {
    batch_state(std::shared_ptr<connection> c, std::size_t n) : conn(std::move(c)), slots(n) {}

    std::shared_ptr<connection> conn;
    // One response text per element; empty for notifications.
    std::vector<std::string> slots;
    // Elements not answered yet, plus one held by the serving thread while it dispatches.
    std::atomic<std::size_t> pending{1};
};

// Where a response goes: the connection's output, or a slot of a batch.
struct reply_target {
    std::shared_ptr<batch_state> batch;
    std::size_t slot = 0;
};

// A node operation handed to the workers, with its own copies of what it needs of the request.
struct async_job {
    std::shared_ptr<dh_db_leaf_node> node;
    method_id method = method_id::unknown;
    std::string path;
    dh::Document args{rapidjson::kObjectType};  // "id" and "value", where the request has them
    bool answer = true;
    reply_target target;
    std::chrono::steady_clock::time_point received;
};

// The request envelope after its checks.
struct request {
    method_id method = method_id::unknown;
    const dh::Value* id = nullptr;  // null id where absent or unusable
    bool answer = true;             // false for a notification
    const dh::Value* params = nullptr;
};

class server_core;

// One client connection.
//
// The serving thread owns the socket, the read buffer and the output buffer; responses that it
// produces itself are appended to the output without any lock. Other threads (workers, nodes
// sending events) hand lines over through deliver(), which queues them in the inbox under
// inbox_mutex_ and posts one flush to the serving thread. Every write is a non-blocking send of
// everything pending, so lines that pile up go out together.
class connection final : public dh_session {
  public:
    connection(server_core& core, generic_socket socket);

    void start();
    void deliver(std::shared_ptr<const std::string> line) override;

    // Serving thread only.
    void append_response(std::string_view text);
    void close();

    // Any thread.
    void submit(std::unique_ptr<async_job> job);
    bool has_pending_jobs(const dh_db_leaf_node* node);
    std::unique_ptr<async_job> next_job(const dh_db_leaf_node* node);
    // The listener it came through, as the metrics name it.
    const char* listener = "unix";
    void job_finished();

    std::shared_ptr<connection> self() {
        return std::static_pointer_cast<connection>(shared_from_this());
    }

    // The per-session subscription lock: held around every subscribe and unsubscribe of this
    // connection and around end_subscriptions(), so that they never interleave. Taken by the
    // serving thread (try_lock only) and by workers; never taken while holding a node's lock.
    std::mutex subscription_mutex;

  private:
    void start_read();
    void on_read(const error_code& ec, std::size_t n);
    void process_lines();
    void refuse_too_large();
    void begin_drain();
    void flush();
    void write_out();
    void wait_writable();
    void finish_if_drained();
    void overflowed();
    void end_subscriptions_safely();

    server_core& core_;
    // Serving thread only.
    std::optional<generic_socket> socket_;
    std::vector<char> rbuf_;
    std::size_t rlen_ = 0;
    std::size_t scanned_ = 0;
    std::string wbuf_;
    std::size_t woff_ = 0;
    std::vector<std::shared_ptr<const std::string>> drained_;
    bool writing_ = false;
    bool closing_ = false;  // reads no more; closes once everything is answered and written
    bool io_closed_ = false;

    std::atomic<bool> draining_{false};      // closing_, readable by workers
    std::atomic<std::size_t> queued_{0};     // bytes in the inbox and not yet sent
    std::atomic<std::size_t> in_flight_{0};  // jobs submitted and not finished

    // Guards inbox_, flush_posted_ and dead_. Taken by deliver() on any thread and by the
    // serving thread when it drains the inbox or closes.
    std::mutex inbox_mutex_;
    std::vector<std::shared_ptr<const std::string>> inbox_;
    bool flush_posted_ = false;
    bool dead_ = false;

    // Guards chains_: for each node with a job of this connection running, the jobs waiting
    // behind it. Taken by the serving thread and by workers, briefly.
    std::mutex chain_mutex_;
    std::unordered_map<const dh_db_leaf_node*, std::deque<std::unique_ptr<async_job>>> chains_;
};

class server_core {
  public:
    server_core(dh_db& d, const std::string& socket_dir, unsigned port, bool local_only, options o);
    ~server_core();

    void run();
    void stop() { io.stop(); }
    void start_ipv6_socket(const std::string& interface);

    unsigned tcp_port() const { return tcp_port_; }
    unsigned ipv6_port() const { return ipv6_port_.load(); }
    const std::string& socket_path() const { return socket_path_; }
    std::size_t connection_count() const { return connection_count_.load(); }
    std::size_t accept_failures() const { return accept_failures_.load(); }

    // Serving thread.
    void handle_line(connection& c, char* line, std::size_t len);
    void remove(connection& c);
    // Any thread.
    void post_job(std::shared_ptr<connection> c, std::unique_ptr<async_job> job);
    void end_subscriptions_later(std::shared_ptr<connection> c);

    dh_db& db;
    const options opts;
    // Declared before the sockets, connections and pool below, so that it outlives them.
    asio::io_context io{1};

  private:
    using tcp = asio::ip::tcp;

    void open_unix(const std::string& socket_dir);
    void open_tcp(unsigned port, bool local_only);
    template <typename Acceptor>
    void accept_next(Acceptor& acceptor, bool is_tcp);
    template <typename Acceptor>
    void accept_failed(Acceptor& acceptor, bool is_tcp, const error_code& ec);
    void accepted(generic_socket peer, bool is_tcp);

    void handle_batch(connection& c, request_document& doc);
    void handle_request(connection& c, const dh::Value& v, const reply_target& t);
    void dispatch(connection& c, const request& r, const reply_target& t);
    void node_operation(connection& c, const request& r, const reply_target& t);
    void submit(connection& c, const request& r, const reply_target& t,
                std::shared_ptr<dh_db_leaf_node> node, std::string_view path,
                const dh::Value* value);
    void reply(connection& c, const reply_target& t, const request& r, const dh::Value& result);
    void reply_error(connection& c, const reply_target& t, const request& r, const rpc_error& e);
    void deliver_reply(connection& c, const reply_target& t);
    void run_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job);

    asio::executor_work_guard<asio::io_context::executor_type> work_;
    asio::local::stream_protocol::acceptor unix_acceptor_;
    tcp::acceptor tcp_acceptor_;
    // Guards ipv6_acceptors_ (added from the caller's thread, closed by the destructor).
    std::mutex ipv6_mutex_;
    std::vector<std::unique_ptr<tcp::acceptor>> ipv6_acceptors_;
    std::string socket_path_;
    unsigned tcp_port_ = 0;
    std::atomic<unsigned> ipv6_port_{0};

    // Serving thread only: the open connections, and the parser and writer state reused for
    // every line.
    std::unordered_map<std::uint64_t, std::shared_ptr<connection>> sessions_;
    std::atomic<std::size_t> connection_count_{0};
    std::atomic<std::size_t> accept_failures_{0};
    std::chrono::steady_clock::time_point last_accept_warning_{};
    rapidjson::Reader reader_;
    alignas(16) char parse_buffer_[32 * 1024];
    dh::Allocator parse_pool_;
    // Arrival of the line being handled.
    std::chrono::steady_clock::time_point received_;
    string_buffer sb_;
    json_writer writer_;
    const dh::Value null_value_{};

    // Guards running_; run() sets it, the destructor waits for it to drop.
    std::mutex run_mutex_;
    std::condition_variable run_cv_;
    bool running_ = false;

    // Created last and reset first: jobs may post to the serving loop and to the pool itself.
    std::unique_ptr<asio::thread_pool> pool_;
};

connection::connection(server_core& core, generic_socket socket)
    : core_(core), socket_(std::move(socket)), rbuf_(initial_read_buffer) {}

void connection::start() {
    start_read();
}

void connection::start_read() {
    socket_->async_read_some(
        asio::buffer(rbuf_.data() + rlen_, rbuf_.size() - rlen_),
        [self = self()](const error_code& ec, std::size_t n) { self->on_read(ec, n); });
}

void connection::on_read(const error_code& ec, std::size_t n) {
    if (io_closed_) return;
    if (ec) {
        if (ec != asio::error::eof) {
            close();
            return;
        }
        // The peer sent everything it will send: answer a last line without its newline, then
        // close once all answers are out.
        if (rlen_ > 0) {
            rbuf_[rlen_] = '\0';
            core_.handle_line(*this, rbuf_.data(), rlen_);
            rlen_ = 0;
            if (io_closed_) return;
        }
        begin_drain();
        if (!writing_) write_out();
        return;
    }
    const bool filled = n == rbuf_.size() - rlen_;
    rlen_ += n;
    process_lines();
    if (io_closed_) return;
    if (filled && !closing_ && rbuf_.size() < kept_read_buffer && rlen_ < rbuf_.size() / 2)
        rbuf_.resize(rbuf_.size() * 2);
    if (!writing_) write_out();
    if (!closing_ && !io_closed_) start_read();
}

void connection::process_lines() {
    const std::size_t max_line = core_.opts.max_line;
    char* base = rbuf_.data();
    std::size_t start = 0;
    std::size_t scan = scanned_;
    while (scan < rlen_) {
        auto* nl = static_cast<char*>(std::memchr(base + scan, '\n', rlen_ - scan));
        if (!nl) break;
        const auto end = static_cast<std::size_t>(nl - base);
        if (end - start > max_line) {
            refuse_too_large();
            return;
        }
        *nl = '\0';
        core_.handle_line(*this, base + start, end - start);
        if (io_closed_ || closing_) return;
        start = scan = end + 1;
    }
    const std::size_t rest = rlen_ - start;
    if (rest > max_line) {
        refuse_too_large();
        return;
    }
    if (start > 0 && rest > 0) std::memmove(base, base + start, rest);
    rlen_ = rest;
    scanned_ = rest;
    // Keep room for one more byte: a line's newline, or the terminator of a last line at EOF.
    if (rlen_ == rbuf_.size())
        rbuf_.resize(std::min(rbuf_.size() * 2, max_line + 1));
    else if (rlen_ == 0 && rbuf_.size() > kept_read_buffer)
        std::vector<char>(initial_read_buffer).swap(rbuf_);
}

void connection::refuse_too_large() {
    rpc_error e{code_invalid_request, "Request too large"};
    string_buffer sb;
    json_writer w(sb);
    write_error(sb, w, nullptr, e);
    append_response({sb.GetString(), sb.GetSize()});
    rlen_ = 0;
    scanned_ = 0;
    begin_drain();
}

void connection::begin_drain() {
    closing_ = true;
    draining_.store(true);
}

void connection::append_response(std::string_view text) {
    if (io_closed_) return;
    wbuf_.append(text);
    wbuf_.push_back('\n');
    const std::size_t n = text.size() + 1;
    if (queued_.fetch_add(n, std::memory_order_relaxed) + n > core_.opts.max_queued) overflowed();
}

void connection::deliver(std::shared_ptr<const std::string> line) {
    if (!line) return;
    const std::size_t n = line->size() + 1;
    std::lock_guard lock(inbox_mutex_);
    if (dead_) return;
    if (queued_.fetch_add(n, std::memory_order_relaxed) + n > core_.opts.max_queued) {
        // Whoever sends must not wait for a peer that does not read: drop it instead.
        dead_ = true;
        inbox_.clear();
        asio::post(core_.io, [self = self()] { self->overflowed(); });
        return;
    }
    inbox_.push_back(std::move(line));
    if (!flush_posted_) {
        flush_posted_ = true;
        asio::post(core_.io, [self = self()] { self->flush(); });
    }
}

void connection::overflowed() {
    if (io_closed_) return;
    metrics::slow_subscriber_cut();
    MSG_LOG(4, "server") << "Closing connection " << id() << ": more than " << core_.opts.max_queued
                         << " bytes wait to be sent" << msg_log::getCodeTrace(__FILE__, __LINE__);
    close();
}

void connection::flush() {
    if (io_closed_) return;
    {
        std::lock_guard lock(inbox_mutex_);
        flush_posted_ = false;
        drained_.swap(inbox_);
    }
    for (const auto& line : drained_) {
        wbuf_.append(*line);
        wbuf_.push_back('\n');
    }
    drained_.clear();
    if (!writing_) write_out();
}

void connection::write_out() {
    const int fd = socket_->native_handle();
    while (woff_ < wbuf_.size()) {
        const ssize_t n =
            ::send(fd, wbuf_.data() + woff_, wbuf_.size() - woff_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            woff_ += static_cast<std::size_t>(n);
            queued_.fetch_sub(static_cast<std::size_t>(n), std::memory_order_relaxed);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            wait_writable();
            return;
        }
        close();
        return;
    }
    wbuf_.clear();
    woff_ = 0;
    if (wbuf_.capacity() > kept_write_buffer) std::string().swap(wbuf_);
    if (closing_) finish_if_drained();
}

void connection::wait_writable() {
    writing_ = true;
    if (woff_ >= kept_write_buffer && woff_ * 2 >= wbuf_.size()) {
        wbuf_.erase(0, woff_);
        woff_ = 0;
    }
    socket_->async_wait(asio::socket_base::wait_write, [self = self()](const error_code& ec) {
        self->writing_ = false;
        if (self->io_closed_) return;
        if (ec) {
            self->close();
            return;
        }
        self->write_out();
    });
}

void connection::finish_if_drained() {
    if (io_closed_ || !closing_ || writing_ || woff_ < wbuf_.size() || in_flight_.load() != 0)
        return;
    {
        std::lock_guard lock(inbox_mutex_);
        // A flush is posted for whatever is still in the inbox; it comes back here.
        if (!inbox_.empty()) return;
    }
    close();
}

void connection::close() {
    if (io_closed_) return;
    auto keep = self();
    io_closed_ = true;
    metrics::connection_closed(listener);
    {
        std::lock_guard lock(inbox_mutex_);
        dead_ = true;
        inbox_.clear();
    }
    queued_.store(0);
    end_subscriptions_safely();
    error_code ec;
    socket_->close(ec);
    socket_.reset();
    std::string().swap(wbuf_);
    woff_ = 0;
    MSG_LOG(7, "server") << "Connection " << id() << " closed"
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
    core_.remove(*this);
}

void connection::end_subscriptions_safely() {
    // A worker may hold the subscription lock while a slow node subscribes; the serving thread
    // does not wait for it but leaves the unsubscribing to a worker.
    std::unique_lock lock(subscription_mutex, std::try_to_lock);
    if (lock.owns_lock()) {
        end_subscriptions();
        return;
    }
    core_.end_subscriptions_later(self());
}

void connection::submit(std::unique_ptr<async_job> job) {
    in_flight_.fetch_add(1);
    {
        std::lock_guard lock(chain_mutex_);
        auto [it, fresh] = chains_.try_emplace(job->node.get());
        if (!fresh) {
            it->second.push_back(std::move(job));
            return;
        }
    }
    core_.post_job(self(), std::move(job));
}

bool connection::has_pending_jobs(const dh_db_leaf_node* node) {
    std::lock_guard lock(chain_mutex_);
    return chains_.count(node) != 0;
}

std::unique_ptr<async_job> connection::next_job(const dh_db_leaf_node* node) {
    std::lock_guard lock(chain_mutex_);
    auto it = chains_.find(node);
    if (it == chains_.end()) return nullptr;
    if (it->second.empty()) {
        chains_.erase(it);
        return nullptr;
    }
    auto job = std::move(it->second.front());
    it->second.pop_front();
    return job;
}

void connection::job_finished() {
    if (in_flight_.fetch_sub(1) == 1 && draining_.load())
        asio::post(core_.io, [self = self()] { self->finish_if_drained(); });
}

void check(const error_code& ec, const std::string& what) {
    if (ec) throw std::system_error(ec.value(), std::system_category(), what);
}

void finish_batch(batch_state& b, bool on_serving_thread) {
    if (b.pending.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    std::size_t size = 2;
    for (const auto& s : b.slots) size += s.size() + 1;
    std::string out;
    out.reserve(size);
    out += '[';
    for (const auto& s : b.slots) {
        if (s.empty()) continue;
        if (out.size() > 1) out += ',';
        out += s;
    }
    // A batch of notifications only is not answered at all.
    if (out.size() == 1) return;
    out += ']';
    if (on_serving_thread)
        b.conn->append_response(out);
    else
        b.conn->deliver(std::make_shared<const std::string>(std::move(out)));
}

std::string_view trim_slashes(std::string_view path) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    return path;
}

const dh::Value* find_param(const dh::Value* params, const char* name) {
    if (!params) return nullptr;
    auto it = params->FindMember(name);
    return it == params->MemberEnd() ? nullptr : &it->value;
}

bool is_blank(const char* s, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (s[i] != ' ' && s[i] != '\t' && s[i] != '\r') return false;
    return true;
}

// Checks the JSON-RPC envelope. On failure the request is still answered (Invalid Request),
// with its id where that id is usable.
bool parse_envelope(const dh::Value& v, request& r) {
    r.answer = true;
    if (!v.IsObject()) return false;
    bool ok = true;
    auto id = v.FindMember("id");
    if (id == v.MemberEnd())
        r.answer = false;
    else if (id->value.IsString() || id->value.IsNumber() || id->value.IsNull())
        r.id = &id->value;
    else
        ok = false;
    auto version = v.FindMember("jsonrpc");
    if (version == v.MemberEnd() || !version->value.IsString() || as_view(version->value) != "2.0")
        ok = false;
    auto method = v.FindMember("method");
    if (method == v.MemberEnd() || !method->value.IsString())
        ok = false;
    else
        r.method = parse_method(as_view(method->value));
    auto params = v.FindMember("params");
    if (params != v.MemberEnd()) r.params = &params->value;
    if (!ok) r.answer = true;
    return ok;
}

// Carries out one node operation on the calling thread. `sub_lock` is the connection's
// subscription lock, already held where the serving thread took it.
void perform(connection& c, method_id m, const std::shared_ptr<dh_db_leaf_node>& node,
             std::string_view path, const dh::Value* value, dh::Allocator& a, dh::Value& out,
             std::unique_lock<std::mutex>& sub_lock) {
    switch (m) {
        case method_id::get:
            node->get(path, a, out);
            return;
        case method_id::set:
            node->set(path, *value);
            out.SetNull();
            return;
        case method_id::run:
            node->run(path, *value, a, out);
            return;
        case method_id::info:
            out = node->get_info(a);
            return;
        case method_id::subscribe:
            if (!node->subscription_supported()) dh_db_leaf_node::throw_not_supported();
            if (!sub_lock.owns_lock()) sub_lock = std::unique_lock(c.subscription_mutex);
            // A connection closed meanwhile has ended its subscriptions; do not start one.
            if (c.closed()) return;
            node->subscribe(c.shared_from_this(), path, a, out, sub_lock);
            c.remember_subscription(node);
            return;
        case method_id::unsubscribe:
            if (!sub_lock.owns_lock()) sub_lock = std::unique_lock(c.subscription_mutex);
            node->unsubscribe(c.shared_from_this());
            c.forget_subscription(node.get());
            out.SetNull();
            return;
        case method_id::list:
        case method_id::history:
        case method_id::unknown:
            break;
    }
    throw dh_error(code_method_not_found, "Method not found");
}

server_core::server_core(dh_db& d, const std::string& socket_dir, unsigned port, bool local_only,
                         options o)
    : db(d),
      opts(o),
      work_(asio::make_work_guard(io)),
      unix_acceptor_(io),
      tcp_acceptor_(io),
      parse_pool_(parse_buffer_, sizeof parse_buffer_),
      writer_(sb_) {
    open_unix(socket_dir);
    open_tcp(port, local_only);
    pool_ = std::make_unique<asio::thread_pool>(std::max(1u, opts.workers));
    accept_next(unix_acceptor_, false);
    accept_next(tcp_acceptor_, true);
}

server_core::~server_core() {
    stop();
    {
        std::unique_lock lock(run_mutex_);
        run_cv_.wait(lock, [&] { return !running_; });
    }
    pool_->stop();
    pool_->join();
    pool_.reset();
    error_code ec;
    unix_acceptor_.close(ec);
    tcp_acceptor_.close(ec);
    {
        std::lock_guard lock(ipv6_mutex_);
        for (auto& a : ipv6_acceptors_) a->close(ec);
    }
    auto sessions = sessions_;
    for (auto& [id, c] : sessions) c->close();
    ::unlink(socket_path_.c_str());
}

void server_core::open_unix(const std::string& socket_dir) {
    std::error_code fs_ec;
    std::filesystem::create_directories(socket_dir, fs_ec);
    if (fs_ec) throw std::system_error(fs_ec, "Cannot create socket directory " + socket_dir);
    socket_path_ = (std::filesystem::path(socket_dir) / "dh.sock").string();
    // A file left behind by an earlier run would make bind() fail.
    if (::unlink(socket_path_.c_str()) != 0 && errno != ENOENT)
        throw std::system_error(errno, std::system_category(),
                                "Cannot remove stale socket " + socket_path_);
    const asio::local::stream_protocol::endpoint endpoint(socket_path_);
    error_code ec;
    unix_acceptor_.open(endpoint.protocol(), ec);
    check(ec, "Cannot open Unix socket");
    set_cloexec(unix_acceptor_.native_handle());
    unix_acceptor_.bind(endpoint, ec);
    check(ec, "Cannot bind Unix socket " + socket_path_);
    if (::chmod(socket_path_.c_str(), 0660) != 0)
        throw std::system_error(errno, std::system_category(), "Cannot chmod " + socket_path_);
    unix_acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    check(ec, "Cannot listen on " + socket_path_);
    MSG_LOG(6, "server") << "Listening on " << socket_path_
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
}

void server_core::open_tcp(unsigned port, bool local_only) {
    const auto address = local_only ? asio::ip::address(asio::ip::address_v4::loopback())
                                    : asio::ip::address(asio::ip::address_v4::any());
    const tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
    error_code ec;
    tcp_acceptor_.open(endpoint.protocol(), ec);
    check(ec, "Cannot open TCP socket");
    set_cloexec(tcp_acceptor_.native_handle());
    tcp_acceptor_.set_option(asio::socket_base::reuse_address(true), ec);
    check(ec, "Cannot set SO_REUSEADDR");
    tcp_acceptor_.bind(endpoint, ec);
    check(ec, fmt::format("Cannot bind TCP port {}", port));
    tcp_acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    check(ec, fmt::format("Cannot listen on TCP port {}", port));
    tcp_port_ = tcp_acceptor_.local_endpoint().port();
    MSG_LOG(6, "server") << "Listening on " << address.to_string() << ":" << tcp_port_
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
}

void server_core::start_ipv6_socket(const std::string& interface) {
    auto acceptor = std::make_unique<tcp::acceptor>(io);
    error_code ec;
    acceptor->open(tcp::v6(), ec);
    check(ec, "Cannot open IPv6 socket");
    set_cloexec(acceptor->native_handle());
    acceptor->set_option(asio::ip::v6_only(true), ec);
    check(ec, "Cannot set IPV6_V6ONLY");
    acceptor->set_option(asio::socket_base::reuse_address(true), ec);
    check(ec, "Cannot set SO_REUSEADDR");
    if (::setsockopt(acceptor->native_handle(), SOL_SOCKET, SO_BINDTODEVICE, interface.data(),
                     static_cast<socklen_t>(interface.size())) != 0)
        throw std::system_error(errno, std::system_category(),
                                "Cannot bind IPv6 socket to interface " + interface);
    acceptor->bind(tcp::endpoint(tcp::v6(), static_cast<unsigned short>(tcp_port_)), ec);
    check(ec, fmt::format("Cannot bind [::]:{} on {}", tcp_port_, interface));
    acceptor->listen(asio::socket_base::max_listen_connections, ec);
    check(ec, fmt::format("Cannot listen on [::]:{}", tcp_port_));
    ipv6_port_.store(acceptor->local_endpoint().port());
    MSG_LOG(6, "server") << "Listening on [::]:" << tcp_port_ << " on interface "
                         << interface << msg_log::getCodeTrace(__FILE__, __LINE__);
    tcp::acceptor* a = acceptor.get();
    {
        std::lock_guard lock(ipv6_mutex_);
        ipv6_acceptors_.push_back(std::move(acceptor));
    }
    asio::post(io, [this, a] { accept_next(*a, true); });
}

void server_core::run() {
    {
        std::lock_guard lock(run_mutex_);
        running_ = true;
    }
    struct done {
        server_core& s;
        ~done() {
            std::lock_guard lock(s.run_mutex_);
            s.running_ = false;
            s.run_cv_.notify_all();
        }
    } guard{*this};
    io.run();
}

template <typename Acceptor>
void server_core::accept_next(Acceptor& acceptor, bool is_tcp) {
    auto peer = std::make_shared<generic_socket>(io);
    acceptor.async_accept(*peer, [this, &acceptor, peer, is_tcp](const error_code& ec) {
        if (ec == asio::error::operation_aborted) return;
        if (ec) {
            accept_failed(acceptor, is_tcp, ec);
            return;
        }
        set_cloexec(peer->native_handle());
        accepted(std::move(*peer), is_tcp);
        accept_next(acceptor, is_tcp);
    });
}

template <typename Acceptor>
void server_core::accept_failed(Acceptor& acceptor, bool is_tcp, const error_code& ec) {
    accept_failures_.fetch_add(1);
    const auto now = std::chrono::steady_clock::now();
    if (now - last_accept_warning_ > std::chrono::seconds(1)) {
        last_accept_warning_ = now;
        MSG_LOG(3, "server") << "Accepting a connection failed: " << ec.message()
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    // Out of descriptors or memory: the pending connection stays queued, so retrying at once
    // would spin. Give other connections a moment to close.
    const bool exhausted = ec == asio::error::no_descriptors || ec.value() == ENFILE ||
                           ec == asio::error::no_buffer_space || ec == asio::error::no_memory;
    if (!exhausted) {
        accept_next(acceptor, is_tcp);
        return;
    }
    auto timer = std::make_shared<asio::steady_timer>(io, std::chrono::milliseconds(100));
    timer->async_wait([this, &acceptor, is_tcp, timer](const error_code& e) {
        if (!e) accept_next(acceptor, is_tcp);
    });
}

void server_core::accepted(generic_socket peer, bool is_tcp) {
    if (sessions_.size() >= opts.max_connections) {
        write_error(sb_, writer_, nullptr, {code_too_many_connections, "Too many connections"});
        std::string line(sb_.GetString(), sb_.GetSize());
        line += '\n';
        [[maybe_unused]] const ssize_t n =
            ::send(peer.native_handle(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        error_code ec;
        peer.shutdown(asio::socket_base::shutdown_both, ec);
        peer.close(ec);
        const auto now = std::chrono::steady_clock::now();
        if (now - last_accept_warning_ > std::chrono::seconds(1)) {
            last_accept_warning_ = now;
            MSG_LOG(4, "server") << "Refusing connection: " << opts.max_connections
                                 << " connections are open"
                                 << msg_log::getCodeTrace(__FILE__, __LINE__);
        }
        return;
    }
    if (is_tcp) {
        const int one = 1;
        ::setsockopt(peer.native_handle(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }
    auto c = std::make_shared<connection>(*this, std::move(peer));
    c->listener = is_tcp ? "tcp" : "unix";
    metrics::connection_opened(c->listener);
    sessions_.emplace(c->id(), c);
    connection_count_.store(sessions_.size());
    MSG_LOG(7, "server") << "Connection " << c->id() << " opened"
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
    c->start();
}

void server_core::remove(connection& c) {
    sessions_.erase(c.id());
    connection_count_.store(sessions_.size());
}

void server_core::post_job(std::shared_ptr<connection> c, std::unique_ptr<async_job> job) {
    asio::post(*pool_, [this, c = std::move(c), job = std::move(job)]() mutable {
        run_job(c, std::move(job));
    });
}

void server_core::end_subscriptions_later(std::shared_ptr<connection> c) {
    auto work = [c] {
        std::lock_guard lock(c->subscription_mutex);
        c->end_subscriptions();
    };
    if (pool_)
        asio::post(*pool_, std::move(work));
    else
        work();
}

void server_core::handle_line(connection& c, char* line, std::size_t len) {
    if (is_blank(line, len)) return;
    received_ = std::chrono::steady_clock::now();
    parse_pool_.Clear();
    request_document doc(&parse_pool_, 1024, &parse_pool_);
    rapidjson::StringStream in(line);
    depth_limiter<request_document> limiter(doc, opts.max_depth);
    bool parsed = false;
    auto generate = [&](request_document&) {
        parsed = !reader_.Parse<parse_flags>(in, limiter).IsError();
        return parsed;
    };
    doc.Populate(generate);
    if (limiter.too_deep()) {
        reply_error(c, {}, request{}, {code_invalid_request, "Nesting too deep"});
        return;
    }
    // Stopping short of the line's end means a NUL byte inside it.
    if (!parsed || in.Tell() != len) {
        reply_error(c, {}, request{}, {code_parse_error, "Parse error"});
        return;
    }
    if (doc.IsArray())
        handle_batch(c, doc);
    else
        handle_request(c, doc, {});
}

void server_core::handle_batch(connection& c, request_document& doc) {
    if (doc.Empty()) {
        reply_error(c, {}, request{}, {code_invalid_request, "Invalid Request"});
        return;
    }
    reply_target t{std::make_shared<batch_state>(c.self(), doc.Size()), 0};
    for (rapidjson::SizeType i = 0; i < doc.Size(); ++i) {
        t.slot = i;
        handle_request(c, doc[i], t);
    }
    finish_batch(*t.batch, true);
}

void server_core::handle_request(connection& c, const dh::Value& v, const reply_target& t) {
    request r;
    if (!parse_envelope(v, r)) {
        reply_error(c, t, r, {code_invalid_request, "Invalid Request"});
        return;
    }
    if (r.method == method_id::unknown) {
        reply_error(c, t, r, {code_method_not_found, "Method not found"});
        return;
    }
    try {
        dispatch(c, r, t);
    } catch (...) {
        reply_error(c, t, r, error_from_current_exception());
    }
}

void server_core::dispatch(connection& c, const request& r, const reply_target& t) {
    if (r.params && !r.params->IsObject()) throw_invalid_params();
    switch (r.method) {
        case method_id::list: {
            const dh::Value* prefix = find_param(r.params, "path");
            if (prefix && !prefix->IsString()) throw_invalid_params();
            auto nodes = db.list(prefix ? as_view(*prefix) : std::string_view{});
            dh::Value result(rapidjson::kArrayType);
            result.Reserve(static_cast<rapidjson::SizeType>(nodes.size()), parse_pool_);
            for (const auto& node : nodes) {
                dh::Value entry(rapidjson::kObjectType);
                const std::string path = node->get_path(0);
                const std::string info = node->get_info();
                entry.AddMember("path", dh::Value(path.c_str(), parse_pool_), parse_pool_);
                entry.AddMember("info", dh::Value(info.c_str(), parse_pool_), parse_pool_);
                result.PushBack(entry, parse_pool_);
            }
            reply(c, t, r, result);
            return;
        }
        case method_id::history: {
            const dh::Value* limit = find_param(r.params, "limit");
            if (limit && !limit->IsUint64()) throw_invalid_params();
            const auto history = db.history(limit ? limit->GetUint64() : 100);
            reply(c, t, r, history);
            return;
        }
        default:
            node_operation(c, r, t);
    }
}

void server_core::node_operation(connection& c, const request& r, const reply_target& t) {
    const dh::Value* path_param = find_param(r.params, "path");
    if (!path_param || !path_param->IsString()) throw_invalid_params();
    const std::string_view path = trim_slashes(as_view(*path_param));
    auto node = db.find_leaf_node(path);
    if (!node)
        throw dh_error(code_no_such_node, "No such node: " + std::string(as_view(*path_param)));
    const dh::Value* value = nullptr;
    if (r.method == method_id::set) {
        value = find_param(r.params, "value");
        if (!value) throw_invalid_params();
    } else if (r.method == method_id::run) {
        value = find_param(r.params, "value");
        if (!value) value = &null_value_;
    }
    bool async = node->is_async();
    std::unique_lock<std::mutex> sub_lock;
    if (!async && (r.method == method_id::subscribe || r.method == method_id::unsubscribe)) {
        // Never wait on the serving thread: when a worker holds the subscription lock, or a job
        // of this connection on this node is still queued, go behind it.
        sub_lock = std::unique_lock(c.subscription_mutex, std::try_to_lock);
        async = !sub_lock.owns_lock() || c.has_pending_jobs(node.get());
        if (async && sub_lock.owns_lock()) sub_lock.unlock();
    }
    if (async) {
        submit(c, r, t, std::move(node), path, value);
        return;
    }
    dh::Value result;
    perform(c, r.method, node, path, value, parse_pool_, result, sub_lock);
    if (sub_lock.owns_lock()) sub_lock.unlock();
    reply(c, t, r, result);
}

void server_core::submit(connection& c, const request& r, const reply_target& t,
                         std::shared_ptr<dh_db_leaf_node> node, std::string_view path,
                         const dh::Value* value) {
    auto job = std::make_unique<async_job>();
    job->node = std::move(node);
    job->method = r.method;
    job->path.assign(path);
    job->answer = r.answer;
    job->received = received_;
    auto& a = job->args.GetAllocator();
    if (r.id) job->args.AddMember("id", dh::Value(*r.id, a), a);
    if (value) job->args.AddMember("value", dh::Value(*value, a), a);
    job->target = t;
    if (t.batch) t.batch->pending.fetch_add(1, std::memory_order_relaxed);
    c.submit(std::move(job));
}

void server_core::run_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job) {
    auto& args = job->args;
    auto& a = args.GetAllocator();
    const auto id = args.FindMember("id");
    const auto value = args.FindMember("value");
    dh::Value result;
    std::optional<rpc_error> error;
    try {
        std::unique_lock<std::mutex> sub_lock;
        perform(*c, job->method, job->node, job->path,
                value == args.MemberEnd() ? nullptr : &value->value, a, result, sub_lock);
    } catch (...) {
        error = error_from_current_exception();
    }
    count_request(job->method, !error, job->received);
    std::string text;
    if (job->answer) {
        string_buffer sb;
        json_writer w(sb);
        const dh::Value* id_value = id == args.MemberEnd() ? nullptr : &id->value;
        if (error)
            write_error(sb, w, id_value, *error);
        else
            write_result(sb, w, id_value, result);
        text.assign(sb.GetString(), sb.GetSize());
    }
    if (job->target.batch) {
        job->target.batch->slots[job->target.slot] = std::move(text);
        finish_batch(*job->target.batch, false);
    } else if (job->answer) {
        c->deliver(std::make_shared<const std::string>(std::move(text)));
    }
    c->job_finished();
    if (auto next = c->next_job(job->node.get())) post_job(c, std::move(next));
}

void server_core::reply(connection& c, const reply_target& t, const request& r,
                        const dh::Value& result) {
    count_request(r.method, true, received_);
    if (!r.answer) return;
    write_result(sb_, writer_, r.id, result);
    deliver_reply(c, t);
}

void server_core::reply_error(connection& c, const reply_target& t, const request& r,
                              const rpc_error& e) {
    count_request(r.method, false, received_);
    if (!r.answer) return;
    write_error(sb_, writer_, r.id, e);
    deliver_reply(c, t);
}

void server_core::deliver_reply(connection& c, const reply_target& t) {
    const std::string_view text(sb_.GetString(), sb_.GetSize());
    if (t.batch)
        t.batch->slots[t.slot].assign(text);
    else
        c.append_response(text);
}

}  // namespace dh::server::detail

namespace dh::server {

server::server(dh_db& db, const std::string& socket_dir, unsigned port, bool local_only,
               options opts)
    : core_(std::make_unique<detail::server_core>(db, socket_dir, port, local_only, opts)) {}

server::~server() = default;

void server::start_ipv6_socket(const std::string& interface) {
    core_->start_ipv6_socket(interface);
}
void server::run() {
    core_->run();
}
void server::stop() {
    core_->stop();
}
unsigned server::tcp_port() const {
    return core_->tcp_port();
}
unsigned server::ipv6_port() const {
    return core_->ipv6_port();
}
const std::string& server::socket_path() const {
    return core_->socket_path();
}
std::size_t server::connection_count() const {
    return core_->connection_count();
}
std::size_t server::accept_failures() const {
    return core_->accept_failures();
}

}  // namespace dh::server
