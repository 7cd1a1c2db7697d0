#include "listeners.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include <fmt/format.h>
#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <boost/asio/ip/v6_only.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl/stream.hpp>
#include <boost/asio/steady_timer.hpp>

#include "msg_log.hpp"

namespace dh::server::detail {

namespace {

// Host commands the daemon starts must not inherit its sockets: a backgrounded child would
// keep the ports open after the daemon ends.
void set_cloexec(int fd) {
    ::fcntl(fd, F_SETFD, ::fcntl(fd, F_GETFD) | FD_CLOEXEC);
}

void check(const error_code& ec, const std::string& what) {
    if (ec) throw std::system_error(ec.value(), std::system_category(), what);
}

// The peer's address as text ("192.0.2.7", "2001:db8::1"); IPv4-mapped IPv6 addresses are
// written as IPv4, so that a client counts as one whichever socket it came in on.
std::string peer_address(int fd) {
    sockaddr_storage ss{};
    socklen_t len = sizeof ss;
    if (::getpeername(fd, reinterpret_cast<sockaddr*>(&ss), &len) != 0) return "unknown";
    char text[INET6_ADDRSTRLEN] = {};
    if (ss.ss_family == AF_INET) {
        ::inet_ntop(AF_INET, &reinterpret_cast<sockaddr_in*>(&ss)->sin_addr, text, sizeof text);
    } else if (ss.ss_family == AF_INET6) {
        const auto& a6 = reinterpret_cast<sockaddr_in6*>(&ss)->sin6_addr;
        if (IN6_IS_ADDR_V4MAPPED(&a6))
            ::inet_ntop(AF_INET, &a6.s6_addr[12], text, sizeof text);
        else
            ::inet_ntop(AF_INET6, &a6, text, sizeof text);
    } else {
        return "unknown";
    }
    return text;
}

// The subject of the peer's certificate in RFC 2253 form ("CN=noc,O=Example").
std::string certificate_subject(SSL* ssl) {
    X509* cert = ::SSL_get1_peer_certificate(ssl);
    if (!cert) return {};
    BIO* bio = ::BIO_new(::BIO_s_mem());
    std::string out;
    if (bio && ::X509_NAME_print_ex(bio, ::X509_get_subject_name(cert), 0, XN_FLAG_RFC2253) >= 0) {
        char* data = nullptr;
        const long n = BIO_get_mem_data(bio, &data);
        if (n > 0) out.assign(data, static_cast<std::size_t>(n));
    }
    ::BIO_free(bio);
    ::X509_free(cert);
    return out;
}

}  // namespace

std::optional<std::string> connection_budget::admit(const client_identity& c) {
    if (c.is_local()) {
        if (local_ >= local_max_) return "Too many connections";
        ++local_;
        return std::nullopt;
    }
    if (network_ >= network_max_) return "Too many connections";
    auto& from_address = per_address_[c.address];
    if (from_address >= per_address_max_) {
        if (from_address == 0) per_address_.erase(c.address);
        return "Too many connections from this address";
    }
    ++from_address;
    ++network_;
    return std::nullopt;
}

void connection_budget::release(const client_identity& c) {
    if (c.is_local()) {
        --local_;
        return;
    }
    --network_;
    if (auto it = per_address_.find(c.address); it != per_address_.end() && --it->second == 0)
        per_address_.erase(it);
}

listeners::listeners(asio::io_context& io, accept_handler on_accept, tls_handler on_tls)
    : io_(io),
      on_accept_(std::move(on_accept)),
      on_tls_(std::move(on_tls)),
      unix_acceptor_(io),
      tcp_acceptor_(io),
      tls_acceptor_(io) {}

listeners::~listeners() {
    close_all();
    if (!socket_path_.empty()) ::unlink(socket_path_.c_str());
}

void listeners::close_all() {
    error_code ec;
    unix_acceptor_.close(ec);
    tcp_acceptor_.close(ec);
    tls_acceptor_.close(ec);
    std::lock_guard lock(ipv6_mutex_);
    for (auto& a : ipv6_acceptors_) a->close(ec);
}

bool listeners::may_warn() {
    const auto now = std::chrono::steady_clock::now();
    if (now - last_warning_ < std::chrono::seconds(1)) return false;
    last_warning_ = now;
    return true;
}

void listeners::open_unix(const std::string& socket_dir) {
    std::error_code fs_ec;
    std::filesystem::create_directories(socket_dir, fs_ec);
    if (fs_ec) throw std::system_error(fs_ec, "Cannot create socket directory " + socket_dir);
    const std::string path = (std::filesystem::path(socket_dir) / "dh.sock").string();
    // A file left behind by an earlier run would make bind() fail.
    if (::unlink(path.c_str()) != 0 && errno != ENOENT)
        throw std::system_error(errno, std::system_category(),
                                "Cannot remove stale socket " + path);
    const asio::local::stream_protocol::endpoint endpoint(path);
    error_code ec;
    unix_acceptor_.open(endpoint.protocol(), ec);
    check(ec, "Cannot open Unix socket");
    set_cloexec(unix_acceptor_.native_handle());
    unix_acceptor_.bind(endpoint, ec);
    check(ec, "Cannot bind Unix socket " + path);
    socket_path_ = path;
    if (::chmod(path.c_str(), 0660) != 0)
        throw std::system_error(errno, std::system_category(), "Cannot chmod " + path);
    unix_acceptor_.listen(asio::socket_base::max_listen_connections, ec);
    check(ec, "Cannot listen on " + path);
    MSG_LOG(6, "server") << "Listening on " << path << msg_log::getCodeTrace(__FILE__, __LINE__);
    accept_next(unix_acceptor_, false);
}

// Opens, binds and listens on 0.0.0.0:port (127.0.0.1 when local_only); answers the bound port.
// `kind` names the socket in errors and in the log ("TCP", "TLS").
static unsigned listen_on(asio::ip::tcp::acceptor& acceptor, unsigned port, bool local_only,
                          const char* kind) {
    const auto address = local_only ? asio::ip::address(asio::ip::address_v4::loopback())
                                    : asio::ip::address(asio::ip::address_v4::any());
    const asio::ip::tcp::endpoint endpoint(address, static_cast<unsigned short>(port));
    error_code ec;
    acceptor.open(endpoint.protocol(), ec);
    check(ec, fmt::format("Cannot open {} socket", kind));
    set_cloexec(acceptor.native_handle());
    acceptor.set_option(asio::socket_base::reuse_address(true), ec);
    check(ec, "Cannot set SO_REUSEADDR");
    acceptor.bind(endpoint, ec);
    check(ec, fmt::format("Cannot bind {} port {}", kind, port));
    acceptor.listen(asio::socket_base::max_listen_connections, ec);
    check(ec, fmt::format("Cannot listen on {} port {}", kind, port));
    const unsigned bound = acceptor.local_endpoint().port();
    MSG_LOG(6, "server") << "Listening" << (std::string_view(kind) == "TLS" ? " for TLS" : "")
                         << " on " << address.to_string() << ":" << bound
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
    return bound;
}

void listeners::open_tcp(unsigned port, bool local_only) {
    tcp_port_ = listen_on(tcp_acceptor_, port, local_only, "TCP");
    accept_next(tcp_acceptor_, true);
}

void listeners::open_tls(unsigned port, bool local_only, asio::ssl::context& context) {
    tls_port_ = listen_on(tls_acceptor_, port, local_only, "TLS");
    tls_context_ = &context;
    accept_tls();
}

void listeners::accept_tls() {
    auto stream = std::make_shared<tls_stream>(io_, *tls_context_);
    tls_acceptor_.async_accept(stream->next_layer(), [this, stream](const error_code& ec) {
        if (ec == asio::error::operation_aborted) return;
        if (ec) {
            accept_failures_.fetch_add(1);
            if (may_warn())
                MSG_LOG(3, "server") << "Accepting a TLS connection failed: " << ec.message()
                                     << msg_log::getCodeTrace(__FILE__, __LINE__);
            // Out of descriptors: give other connections a moment to close.
            auto timer = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(100));
            timer->async_wait([this, timer](const error_code& e) {
                if (!e) accept_tls();
            });
            return;
        }
        const int fd = stream->next_layer().native_handle();
        set_cloexec(fd);
        const int one = 1;
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        handshake(stream, peer_address(fd));
        accept_tls();
    });
}

// The handshake checks the client's certificate against the configured CA; a client without
// one, or with one the CA did not sign, never gets a connection. A client that stalls in the
// handshake is dropped after a while, so it cannot hold a socket for ever.
void listeners::handshake(std::shared_ptr<tls_stream> stream, std::string address) {
    auto timer = std::make_shared<asio::steady_timer>(io_, std::chrono::seconds(10));
    timer->async_wait([stream](const error_code& ec) {
        if (ec) return;
        error_code ignored;
        stream->lowest_layer().close(ignored);
    });
    stream->async_handshake(
        asio::ssl::stream_base::server,
        [this, stream, timer, address = std::move(address)](const error_code& ec) {
            timer->cancel();
            if (ec) {
                if (may_warn())
                    MSG_LOG(4, "server")
                        << "TLS handshake with " << address << " failed: " << ec.message()
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
                error_code ignored;
                stream->lowest_layer().close(ignored);
                return;
            }
            client_identity client;
            client.via = client_identity::transport::tls;
            client.address = address;
            client.subject = certificate_subject(stream->native_handle());
            on_tls_(stream, std::move(client));
        });
}

void listeners::open_ipv6(const std::string& interface) {
    auto acceptor = std::make_unique<tcp::acceptor>(io_);
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
    asio::post(io_, [this, a] { accept_next(*a, true); });
}

template <typename Acceptor>
void listeners::accept_next(Acceptor& acceptor, bool is_tcp) {
    auto peer = std::make_shared<generic_socket>(io_);
    acceptor.async_accept(*peer, [this, &acceptor, peer, is_tcp](const error_code& ec) {
        if (ec == asio::error::operation_aborted) return;
        if (ec) {
            accept_failed(acceptor, is_tcp, ec);
            return;
        }
        const int fd = peer->native_handle();
        set_cloexec(fd);
        client_identity client;
        if (is_tcp) {
            client.via = client_identity::transport::tcp;
            client.address = peer_address(fd);
            const int one = 1;
            ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        } else {
            ucred cred{};
            socklen_t len = sizeof cred;
            if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) == 0) {
                client.uid = static_cast<long>(cred.uid);
                client.gid = static_cast<long>(cred.gid);
            }
        }
        on_accept_(std::move(*peer), std::move(client));
        accept_next(acceptor, is_tcp);
    });
}

template <typename Acceptor>
void listeners::accept_failed(Acceptor& acceptor, bool is_tcp, const error_code& ec) {
    accept_failures_.fetch_add(1);
    if (may_warn())
        MSG_LOG(3, "server") << "Accepting a connection failed: " << ec.message()
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
    // Out of descriptors or memory: the pending connection stays queued, so retrying at once
    // would spin. Give other connections a moment to close.
    const bool exhausted = ec == asio::error::no_descriptors || ec.value() == ENFILE ||
                           ec == asio::error::no_buffer_space || ec == asio::error::no_memory;
    if (!exhausted) {
        accept_next(acceptor, is_tcp);
        return;
    }
    auto timer = std::make_shared<asio::steady_timer>(io_, std::chrono::milliseconds(100));
    timer->async_wait([this, &acceptor, is_tcp, timer](const error_code& e) {
        if (!e) accept_next(acceptor, is_tcp);
    });
}

}  // namespace dh::server::detail
