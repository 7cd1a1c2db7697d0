#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <boost/asio/generic/stream_protocol.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>

#include "dh_session.hpp"
#include "heartbeat.hpp"
#include "job_queue.hpp"
#include "roles.hpp"
#include "rpc_codec.hpp"

namespace dh::server::detail {

namespace asio = boost::asio;
using boost::system::error_code;
using generic_socket = asio::generic::stream_protocol::socket;
using tls_stream = asio::ssl::stream<asio::ip::tcp::socket>;

// Who is at the other end of a connection, as far as the transport tells.
struct client_identity {
    enum class transport { unix_socket, tcp, tls };

    transport via = transport::unix_socket;
    std::string address;  // network peers: the peer's address
    long uid = -1;        // Unix socket: the peer's credentials
    long gid = -1;
    std::string subject;  // TLS: the subject of the client's certificate
    role granted = role::admin;

    bool is_local() const { return via == transport::unix_socket; }
    // The listener it came through, as the metrics name it.
    const char* listener_name() const {
        return via == transport::unix_socket ? "unix" : via == transport::tcp ? "tcp" : "tls";
    }
    // How logs and the history name the client: "uid 1000", "192.0.2.7", "CN=noc,O=Example".
    std::string who() const;
};

class connection;

// What a connection needs of the server that owns it.
class connection_host {
  public:
    virtual void handle_line(connection& c, char* line, std::size_t len) = 0;
    virtual void closed(connection& c) = 0;
    virtual void post_job(std::shared_ptr<connection> c, std::unique_ptr<async_job> job) = 0;
    virtual void end_subscriptions_later(std::shared_ptr<connection> c) = 0;
    // Heartbeats: the scheduler that times them and the notification each one is.
    virtual dh::scheduler& heartbeat_scheduler() = 0;
    virtual std::string heartbeat_line() = 0;

  protected:
    ~connection_host() = default;
};

struct connection_limits {
    std::size_t max_line;
    std::size_t max_queued;
    std::chrono::milliseconds idle_timeout;
};

// One client connection.
//
// The serving thread owns the socket, the read buffer and the output buffer; responses that it
// produces itself are appended to the output without any lock. Other threads (workers, nodes
// sending events) hand lines over through deliver(), which queues them in the inbox under
// inbox_mutex_ and posts one flush to the serving thread. Every write is a non-blocking send of
// everything pending, so lines that pile up go out together.
class connection final : public dh_session {
  public:
    connection(asio::io_context& io, connection_host& host, const connection_limits& limits,
               generic_socket socket, client_identity client);
    connection(asio::io_context& io, connection_host& host, const connection_limits& limits,
               std::shared_ptr<tls_stream> stream, client_identity client);

    const client_identity& client() const { return client_; }

    void start();
    void deliver(std::shared_ptr<const std::string> line) override;

    // Serving thread only.
    void append_response(std::string_view text);
    void close();

    // Any thread.
    void submit(std::unique_ptr<async_job> job);
    bool has_pending_jobs(const dh_db_leaf_node* node) { return chains_.busy(node); }
    std::unique_ptr<async_job> next_job(const dh_db_leaf_node* node) { return chains_.next(node); }
    void job_finished();

    std::shared_ptr<connection> self() {
        return std::static_pointer_cast<connection>(shared_from_this());
    }

    // A resumed subscription, with the subscription lock held from begin to end: lines
    // delivered meanwhile are held back; end_hold() queues `first` (the answer, the replayed
    // events, the sync), then the held lines that `keep` accepts, in their order.
    void begin_hold();
    void end_hold(std::vector<std::shared_ptr<const std::string>> first,
                  const std::function<bool(const std::string&)>& keep);
    // After this long without a notification the connection is sent a heartbeat; zero: never.
    void set_heartbeat(std::chrono::seconds period) { heartbeat_.set_period(period); }

    // The per-session subscription lock: held around every subscribe and unsubscribe of this
    // connection and around end_subscriptions(), so that they never interleave. Taken by the
    // serving thread (try_lock only) and by workers; never taken while holding a node's lock.
    std::mutex subscription_mutex;

  private:
    void start_read();
    void on_read(const error_code& ec, std::size_t n);
    void process_lines();
    // Sends one last error line, then closes once everything due is out.
    void say_goodbye(const codec::rpc_error& e);
    void begin_drain();
    void flush();
    void write_out();
    void write_out_tls();
    void wait_writable();
    void finish_if_drained();
    void overflowed();
    void end_subscriptions_safely();
    void arm_idle_timer(std::chrono::steady_clock::time_point deadline);
    void on_idle_timer();

    asio::io_context& io_;
    connection_host& host_;
    const connection_limits& limits_;
    const client_identity client_;
    // Serving thread only.
    std::optional<generic_socket> socket_;
    // Instead of socket_ on the TLS port; writes then go out through async writes of sending_.
    std::shared_ptr<tls_stream> tls_;
    std::string sending_;
    codec::line_framer input_;
    std::string wbuf_;
    std::size_t woff_ = 0;
    std::vector<std::shared_ptr<const std::string>> drained_;
    bool writing_ = false;
    bool closing_ = false;  // reads no more; closes once everything is answered and written
    bool io_closed_ = false;
    asio::steady_timer idle_timer_;
    std::chrono::steady_clock::time_point last_read_;

    std::atomic<bool> draining_{false};      // closing_, readable by workers
    std::atomic<std::size_t> queued_{0};     // bytes in the inbox and not yet sent
    std::atomic<std::size_t> in_flight_{0};  // jobs submitted and not finished

    // Guards inbox_, flush_posted_ and dead_. Taken by deliver() on any thread and by the
    // serving thread when it drains the inbox or closes.
    std::mutex inbox_mutex_;
    std::vector<std::shared_ptr<const std::string>> inbox_;
    bool flush_posted_ = false;
    bool dead_ = false;
    bool holding_ = false;
    std::vector<std::shared_ptr<const std::string>> held_;

    job_chains chains_;
    heartbeat heartbeat_;
};

}  // namespace dh::server::detail
