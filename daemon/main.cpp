#include <csignal>
#include <cstdint>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/asio/io_context.hpp>
#include <boost/asio/signal_set.hpp>
#include <boost/program_options.hpp>

#include "device_handler_api.hpp"
#include "metrics.hpp"
#include "metrics_map.hpp"
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
    std::string metrics_listen;
    po::options_description desc("Available options",
                                 po::options_description::m_default_line_length,
                                 po::options_description::m_default_line_length / 2);
    desc.add_options()("help", "Print help message")("version", "Print the version")(
        "port,p", po::value<std::uint32_t>(&port)->default_value(9700),
        "listening socket port number (default value: 9700)")(
        "metrics-listen", po::value<std::string>(&metrics_listen),
        "serve Prometheus metrics over HTTP at ADDRESS:PORT/metrics (IPv6 address in brackets; "
        "off by default)");

    po::variables_map vm;
    try {
        po::store(po::parse_command_line(argc, argv, desc), vm);
        po::notify(vm);
    } catch (...) {
        std::cout << desc << "\n";
        return 1;
    }
    if (vm.count("help") ||
        (vm.count("metrics-listen") && !metrics::is_listen_address(metrics_listen))) {
        std::cout << desc << "\n";
        return 1;
    }
    if (vm.count("version")) {
        std::cout << "sysrepo-device-handler " DH_VERSION "\n";
        return 0;
    }

    struct sigaction pipe_action {};
    pipe_action.sa_handler = ignore_signal;
    sigaction(SIGPIPE, &pipe_action, nullptr);

    device_handler_api api("/tmp/device_handlers/sysrepo", port, false);

    // SIGTERM and SIGINT end the serving loop, so the handler and the front end are torn down in
    // order (scheduled work ended, socket file removed) instead of the process just vanishing.
    boost::asio::io_context signal_io;
    boost::asio::signal_set stop_signals(signal_io, SIGTERM, SIGINT);
    stop_signals.async_wait([&api](const boost::system::error_code& ec, int) {
        if (!ec) api.stop();
    });
    std::thread signal_thread([&signal_io] { signal_io.run(); });

    // Periodic and delayed work; two workers, so that a slow poll does not hold up the others.
    dh::scheduler sched(dh::system_clock(), 2);
    auto handler = std::make_unique<sysrepo_device_handler>(api.db, host::spawn_executor(), sched);
    MSG_LOG(6, "init") << "Device handler initialized for sysrepo. Listening on port " << port
                       << "." << msg_log::getCodeTrace("sysrepo_device_handler", 3309);
    // Opened before start-up, so that a taken port ends the daemon before it changes anything.
    std::unique_ptr<metrics::endpoint> metrics_endpoint;
    if (!metrics_listen.empty()) {
        metrics_endpoint = std::make_unique<metrics::endpoint>(
            metrics_listen, std::vector<std::shared_ptr<prometheus::Collectable>>{
                                metrics::registry(), std::make_shared<metrics::gauge_collector>(
                                                         device_gauges(api.db, *handler))});
        MSG_LOG(6, "init") << "Serving metrics at http://" << metrics_listen << "/metrics."
                           << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    handler->start();
    api.start_ipv6_socket("br1");
    api.start();

    signal_io.stop();
    signal_thread.join();
    // Its gauges read the handler.
    metrics_endpoint.reset();
    handler.reset();
    return 0;
}
