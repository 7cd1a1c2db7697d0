#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <thread>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/program_options.hpp>

#include "device_handler_api.hpp"
#include "msg_log.hpp"
#include "sysrepo_device_handler.hpp"

namespace po = boost::program_options;

namespace {

// A caught signal is reset to its default action by exec, so the host commands the daemon
// starts still die of SIGPIPE as usual, while a write into the pipe of a command that exited
// early only fails with EPIPE here instead of killing the daemon.
void ignore_signal(int) {}

}  // namespace

int main(int argc, char* argv[]) {
    std::uint32_t port = 9700;
    dh::server::options server_opts;
    std::size_t max_per_address = server_opts.max_per_address;
    unsigned idle_timeout = 300;
    po::options_description desc("Available options",
                                 po::options_description::m_default_line_length,
                                 po::options_description::m_default_line_length / 2);
    desc.add_options()("help", "Print help message")(
        "port,p", po::value<std::uint32_t>(&port)->default_value(9700),
        "listening socket port number (default value: 9700)")(
        "max-per-address", po::value<std::size_t>(&max_per_address)->default_value(max_per_address),
        "open TCP connections allowed from one address")(
        "idle-timeout", po::value<unsigned>(&idle_timeout)->default_value(idle_timeout),
        "seconds after which a connection that sends nothing and holds no subscription is "
        "closed (0: never)");

    po::variables_map vm;
    try {
        po::store(po::parse_command_line(argc, argv, desc), vm);
        po::notify(vm);
    } catch (...) {
        std::cout << desc << "\n";
        return 1;
    }
    if (vm.count("help")) {
        std::cout << desc << "\n";
        return 1;
    }

    struct sigaction pipe_action {};
    pipe_action.sa_handler = ignore_signal;
    sigaction(SIGPIPE, &pipe_action, nullptr);

    server_opts.max_per_address = max_per_address;
    server_opts.idle_timeout = std::chrono::seconds(idle_timeout);
    device_handler_api api("/tmp/device_handlers/sysrepo", port, false, server_opts);

    // SIGTERM and SIGINT end the serving loop, so the handler and the front end are torn down in
    // order (poll threads joined, socket file removed) instead of the process just vanishing.
    boost::asio::io_context signal_io;
    boost::asio::signal_set stop_signals(signal_io, SIGTERM, SIGINT);
    stop_signals.async_wait([&api](const boost::system::error_code& ec, int) {
        if (!ec) api.stop();
    });
    std::thread signal_thread([&signal_io] { signal_io.run(); });

    auto handler = std::make_unique<sysrepo_device_handler>(api.db, host::spawn_executor());
    MSG_LOG(6, "init") << "Device handler initialized for sysrepo. Listening on port " << port
                       << "." << msg_log::getCodeTrace("sysrepo_device_handler", 3309);
    handler->start();
    api.start_ipv6_socket("br1");
    api.start();

    signal_io.stop();
    signal_thread.join();
    handler.reset();
    return 0;
}
