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

// Commands that interrupt service (a restart, a reset, another image, a changed clock) or
// gather everything the device knows: with a role file, only admins may run them.
const std::vector<std::string> interrupting_commands = {
    "command/reboot",        "command/restoreFactoryDefaults",
    "command/deliveryClear", "command/bootImage",
    "command/switchImage",   "command/techlogGenerate",
    "command/dateTime",
};

}  // namespace

int main(int argc, char* argv[]) {
    std::uint32_t port = 9700;
    dh::server::options server_opts;
    std::size_t max_per_address = server_opts.max_per_address;
    unsigned idle_timeout = 300;
    dh::server::tls_options tls;
    std::string plain_tcp = "on";
    std::string roles_file;
    std::string metrics_listen;
    po::options_description desc("Available options",
                                 po::options_description::m_default_line_length,
                                 po::options_description::m_default_line_length / 2);
    desc.add_options()("help", "Print help message")("version", "Print the version")(
        "port,p", po::value<std::uint32_t>(&port)->default_value(9700),
        "listening socket port number (default value: 9700)")(
        "max-per-address", po::value<std::size_t>(&max_per_address)->default_value(max_per_address),
        "open TCP connections allowed from one address")(
        "idle-timeout", po::value<unsigned>(&idle_timeout)->default_value(idle_timeout),
        "seconds after which a connection that sends nothing and holds no subscription is "
        "closed (0: never)")("tls-port", po::value<unsigned>(&tls.port)->default_value(tls.port),
                             "TLS listening port (with --tls-cert, --tls-key, --tls-client-ca)")(
        "tls-cert", po::value<std::string>(&tls.cert), "server certificate chain (PEM)")(
        "tls-key", po::value<std::string>(&tls.key), "server private key (PEM)")(
        "tls-client-ca", po::value<std::string>(&tls.client_ca),
        "CA that client certificates must be signed by (PEM)")(
        "plain-tcp", po::value<std::string>(&plain_tcp)->default_value(plain_tcp),
        "on|off: the unauthenticated TCP port and IPv6 socket")(
        "roles", po::value<std::string>(&roles_file), "role file (JSON): who may do what")(
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
    const bool any_tls = vm.count("tls-cert") || vm.count("tls-key") || vm.count("tls-client-ca");
    const bool all_tls = vm.count("tls-cert") && vm.count("tls-key") && vm.count("tls-client-ca");
    if (vm.count("help") || (plain_tcp != "on" && plain_tcp != "off") || any_tls != all_tls ||
        (vm.count("tls-port") && !vm["tls-port"].defaulted() && !all_tls) || tls.port == 0 ||
        tls.port > 65535 ||
        (vm.count("metrics-listen") && !metrics::is_listen_address(metrics_listen))) {
        std::cout << desc << "\n";
        return 1;
    }
    if (vm.count("version")) {
        std::cout << "sysrepo-device-handler " DH_VERSION "\n";
        return 0;
    }
    if (!roles_file.empty()) {
        try {
            server_opts.roles =
                std::make_shared<dh::server::role_map>(dh::server::role_map::load(roles_file));
        } catch (const std::exception& e) {
            std::cerr << "sysrepo-device-handler: " << e.what() << "\n";
            return 1;
        }
    }
    if (all_tls) server_opts.tls = tls;
    server_opts.plain_tcp = plain_tcp == "on";
    server_opts.admin_only = interrupting_commands;

    struct sigaction pipe_action {};
    pipe_action.sa_handler = ignore_signal;
    sigaction(SIGPIPE, &pipe_action, nullptr);

    server_opts.max_per_address = max_per_address;
    server_opts.idle_timeout = std::chrono::seconds(idle_timeout);
    // Periodic and delayed work; two workers, so that a slow poll does not hold up the others.
    // It also times the server's heartbeats, so it outlives the front end.
    dh::scheduler sched(dh::system_clock(), 2);
    server_opts.scheduler = &sched;
    device_handler_api api("/tmp/device_handlers/sysrepo", port, false, server_opts);

    // SIGTERM and SIGINT end the serving loop, so the handler and the front end are torn down in
    // order (scheduled work ended, socket file removed) instead of the process just vanishing.
    boost::asio::io_context signal_io;
    boost::asio::signal_set stop_signals(signal_io, SIGTERM, SIGINT);
    stop_signals.async_wait([&api](const boost::system::error_code& ec, int) {
        if (!ec) api.stop();
    });
    std::thread signal_thread([&signal_io] { signal_io.run(); });

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
    api.set_commit_service(handler->commits());
    api.start_ipv6_socket("br1");
    api.start();

    signal_io.stop();
    signal_thread.join();
    // Its gauges read the handler.
    metrics_endpoint.reset();
    handler.reset();
    return 0;
}
