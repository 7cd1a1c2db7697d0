#include "device_handler_api.hpp"

#include "commit_service.hpp"
#include "server.hpp"

device_handler_api::device_handler_api(const std::string& socket_dir, unsigned port,
                                       bool local_only, dh::server::options opts)
    : server_(std::make_unique<dh::server::server>(db, socket_dir, port, local_only, opts)) {}

// The server goes first: it ends every session's subscriptions while the node tree still exists.
device_handler_api::~device_handler_api() = default;

void device_handler_api::start_ipv6_socket(std::string interface) {
    server_->start_ipv6_socket(interface);
}

void device_handler_api::set_commit_service(std::weak_ptr<dh::commit_service> commits) {
    server_->set_commit_service(std::move(commits));
}

void device_handler_api::start() {
    server_->run();
}

void device_handler_api::stop() {
    server_->stop();
}

unsigned device_handler_api::tcp_port() const {
    return server_->tcp_port();
}

std::string device_handler_api::socket_path() const {
    return server_->socket_path();
}
