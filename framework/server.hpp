#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "roles.hpp"
#include "scheduler.hpp"

class dh_db;

namespace dh {
class commit_service;
}

namespace dh::server {

namespace detail {
class server_core;
}

// The TLS listener: the server's certificate (chain) and key, and the CA that client
// certificates must be signed by; all PEM.
struct tls_options {
    unsigned port = 9701;
    std::string cert;
    std::string key;
    std::string client_ca;
};

// Limits and access of the protocol server. The defaults are the protocol's; tests lower some of
// them.
struct options {
    // Open network connections (TCP and IPv6); the next one is answered -32000 and closed.
    std::size_t max_connections = 1000;
    // Open Unix-socket connections: a budget of their own, so that remote clients cannot lock
    // out local management.
    std::size_t max_local_connections = 64;
    // Open network connections from one peer address.
    std::size_t max_per_address = 64;
    // A connection that sends nothing for this long and holds no subscription is closed
    // (zero: never).
    std::chrono::milliseconds idle_timeout = std::chrono::minutes(5);
    // Longest accepted request line, without its newline.
    std::size_t max_line = std::size_t{1} << 20;
    // Output bytes waiting for one connection before it is closed.
    std::size_t max_queued = std::size_t{8} << 20;
    // Deepest accepted nesting of arrays and objects in one line (the request object counts).
    unsigned max_depth = 64;
    // Threads that run the operations of nodes whose is_async() answers true.
    unsigned workers = 4;

    // Mutual TLS on its own port, when set.
    std::optional<tls_options> tls;
    // The unauthenticated TCP and IPv6 ports; the Unix socket is always open.
    bool plain_tcp = true;
    // Who may do what; without a role map every client may do everything.
    std::shared_ptr<const role_map> roles;
    // Paths whose set or run interrupts service: admin only when roles apply.
    std::vector<std::string> admin_only;
    // Times the heartbeats of subscribers that ask for them; it must outlive the server.
    // Without one the server runs a scheduler of its own on the steady clock.
    dh::scheduler* scheduler = nullptr;
};

// The newline-delimited JSON-RPC 2.0 server over the node tree.
//
// Threads: run() serves all sockets on the calling thread (accepting, reading, parsing,
// dispatching, writing, and the operations of immediate nodes). Operations of nodes whose
// is_async() is true run on a pool of `workers` threads; their responses, and events from any
// thread, are handed back to the serving thread through each connection's locked inbox.
// Operations of one connection on one node are carried out in the order they arrived; across
// nodes and connections they overlap, so responses may come out of order.
class server {
  public:
    // Opens <socket_dir>/dh.sock (directory created, stale file replaced, mode 0660), TCP on
    // 0.0.0.0:port (127.0.0.1 when local_only; port 0 picks a free one) unless plain TCP is off,
    // and TLS on its port likewise. Failures raise std::system_error; unusable TLS files
    // std::runtime_error.
    server(dh_db& db, const std::string& socket_dir, unsigned port, bool local_only,
           options opts = {});
    // Stops serving, waits for run() to return, joins the workers, closes every connection
    // (ending its subscriptions) and removes the socket file.
    ~server();
    server(const server&) = delete;
    server& operator=(const server&) = delete;

    // Opens [::]:port (the TCP port) bound to `interface` with SO_BINDTODEVICE and IPV6_V6ONLY;
    // nothing when plain TCP is off. A missing interface raises std::system_error.
    void start_ipv6_socket(const std::string& interface);
    // The confirmed commits behind confirm_timeout and confirm (answered -95 without them), held
    // weakly: the program owns them. Called before run().
    void set_commit_service(std::weak_ptr<dh::commit_service> commits);
    // Serves on the calling thread until stop(); returns at once if stop() came first.
    void run();
    // Thread-safe; makes run() return.
    void stop();

    // 0 when plain TCP is off.
    unsigned tcp_port() const;
    // 0 without TLS.
    unsigned tls_port() const;
    // 0 until start_ipv6_socket() succeeded.
    unsigned ipv6_port() const;
    const std::string& socket_path() const;
    // Connections open right now (thread-safe).
    std::size_t connection_count() const;
    // Failed accepts so far, for instance for want of descriptors (thread-safe).
    std::size_t accept_failures() const;

  private:
    std::unique_ptr<detail::server_core> core_;
};

}  // namespace dh::server
