#pragma once

#include <memory>
#include <string>

#include "dh_db.hpp"
#include "server.hpp"

// The framework's front end: the node tree and the protocol server on a Unix socket
// (<socket_dir>/dh.sock), TCP and, once asked, IPv6 bound to one interface.
class device_handler_api {
  public:
    // local_only: listen for TCP on 127.0.0.1 instead of 0.0.0.0 (tests and development).
    // A port of 0 picks a free port (see tcp_port()). The sockets are opened here.
    device_handler_api(const std::string& socket_dir, unsigned port, bool local_only,
                       dh::server::options opts = {});
    ~device_handler_api();
    device_handler_api(const device_handler_api&) = delete;
    device_handler_api& operator=(const device_handler_api&) = delete;

    // Opens [::]:port bound to `interface` (SO_BINDTODEVICE, IPV6_V6ONLY); a missing interface
    // raises std::system_error.
    void start_ipv6_socket(std::string interface);
    // The program's confirmed commits (see dh::server::server); before start().
    void set_commit_service(std::weak_ptr<dh::commit_service> commits);
    // Serves on the calling thread until stop().
    void start();
    // Thread-safe and async-signal-safe enough to be called from a signal-handling thread;
    // makes start() return.
    void stop();

    unsigned tcp_port() const;
    std::string socket_path() const;

    dh_db db;

  private:
    std::unique_ptr<dh::server::server> server_;
};
