#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/local/stream_protocol.hpp>
#include <boost/asio/ssl/context.hpp>

#include "connection.hpp"

namespace dh::server::detail {

// The connection budgets: the Unix socket's own, the network's, and each peer address's share
// of the network's. Serving thread only.
class connection_budget {
  public:
    connection_budget(std::size_t local, std::size_t network, std::size_t per_address)
        : local_max_(local), network_max_(network), per_address_max_(per_address) {}

    // Takes a place for the client, or answers why there is none.
    std::optional<std::string> admit(const client_identity& c);
    void release(const client_identity& c);

  private:
    const std::size_t local_max_;
    const std::size_t network_max_;
    const std::size_t per_address_max_;
    std::size_t local_ = 0;
    std::size_t network_ = 0;
    std::unordered_map<std::string, std::size_t> per_address_;
};

// The listening sockets and their accept loops. Each accepted socket goes to `on_accept` with
// what is known of its client; the socket is close-on-exec and, for TCP, has TCP_NODELAY.
class listeners {
  public:
    using accept_handler = std::function<void(generic_socket, client_identity)>;
    // A TLS client, after a handshake that checked its certificate.
    using tls_handler = std::function<void(std::shared_ptr<tls_stream>, client_identity)>;

    listeners(asio::io_context& io, accept_handler on_accept, tls_handler on_tls);
    ~listeners();

    // Each raises std::system_error when the socket cannot be opened.
    void open_unix(const std::string& socket_dir);
    void open_tcp(unsigned port, bool local_only);
    // Thread-safe: may be called while the serving thread runs.
    void open_ipv6(const std::string& interface);
    // `context` must outlive the listeners.
    void open_tls(unsigned port, bool local_only, asio::ssl::context& context);
    void close_all();

    unsigned tcp_port() const { return tcp_port_; }
    unsigned tls_port() const { return tls_port_; }
    unsigned ipv6_port() const { return ipv6_port_.load(); }
    const std::string& socket_path() const { return socket_path_; }
    std::size_t accept_failures() const { return accept_failures_.load(); }

    // Logs at most once a second, so that a flood of refusals cannot flood the log.
    bool may_warn();

  private:
    using tcp = asio::ip::tcp;

    template <typename Acceptor>
    void accept_next(Acceptor& acceptor, bool is_tcp);
    template <typename Acceptor>
    void accept_failed(Acceptor& acceptor, bool is_tcp, const error_code& ec);
    void accept_tls();
    void handshake(std::shared_ptr<tls_stream> stream, std::string address);

    asio::io_context& io_;
    const accept_handler on_accept_;
    const tls_handler on_tls_;
    asio::local::stream_protocol::acceptor unix_acceptor_;
    tcp::acceptor tcp_acceptor_;
    tcp::acceptor tls_acceptor_;
    asio::ssl::context* tls_context_ = nullptr;
    unsigned tls_port_ = 0;
    // Guards ipv6_acceptors_ (added from the caller's thread, closed by the destructor).
    std::mutex ipv6_mutex_;
    std::vector<std::unique_ptr<tcp::acceptor>> ipv6_acceptors_;
    std::string socket_path_;
    unsigned tcp_port_ = 0;
    std::atomic<unsigned> ipv6_port_{0};
    std::atomic<std::size_t> accept_failures_{0};
    std::chrono::steady_clock::time_point last_warning_{};
};

}  // namespace dh::server::detail
