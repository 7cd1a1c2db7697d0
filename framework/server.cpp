#include "server.hpp"

#include <condition_variable>
#include <mutex>
#include <unordered_map>

#include <openssl/ssl.h>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/ssl/context.hpp>
#include <boost/asio/write.hpp>

#include <fmt/format.h>

#include "connection.hpp"
#include "dh_db.hpp"
#include "dispatcher.hpp"
#include "job_queue.hpp"
#include "listeners.hpp"
#include "metrics.hpp"
#include "msg_log.hpp"

namespace dh::server::detail {

namespace {

// TLS 1.2 or later; the client must show a certificate signed by the configured CA.
std::unique_ptr<asio::ssl::context> make_tls_context(const tls_options& t) {
    auto ctx = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_server);
    ctx->set_options(asio::ssl::context::default_workarounds | asio::ssl::context::no_sslv2 |
                     asio::ssl::context::no_sslv3 | asio::ssl::context::no_tlsv1 |
                     asio::ssl::context::no_tlsv1_1 | asio::ssl::context::single_dh_use);
    ::SSL_CTX_set_min_proto_version(ctx->native_handle(), TLS1_2_VERSION);
    auto load = [](const char* what, const std::string& file, auto&& step) {
        try {
            step();
        } catch (const boost::system::system_error& e) {
            throw std::runtime_error(
                fmt::format("Cannot use {} {}: {}", what, file, e.code().message()));
        }
    };
    load("TLS certificate", t.cert, [&] { ctx->use_certificate_chain_file(t.cert); });
    load("TLS key", t.key, [&] { ctx->use_private_key_file(t.key, asio::ssl::context::pem); });
    load("TLS client CA", t.client_ca, [&] { ctx->load_verify_file(t.client_ca); });
    ctx->set_verify_mode(asio::ssl::verify_peer | asio::ssl::verify_fail_if_no_peer_cert);
    return ctx;
}

}  // namespace

// Ties the parts together: listeners hand accepted sockets to the budget and then to a new
// connection; connections hand lines to the dispatcher, which hands slow operations to the job
// queue.
class server_core final : public connection_host {
  public:
    server_core(dh_db& db, const std::string& socket_dir, unsigned port, bool local_only,
                options o);
    ~server_core();

    void run();
    void stop() { io.stop(); }

    void handle_line(connection& c, char* line, std::size_t len) override {
        dispatcher_.handle_line(c, line, len);
    }
    void closed(connection& c) override;
    void post_job(std::shared_ptr<connection> c, std::unique_ptr<async_job> job) override {
        jobs_->post(std::move(c), std::move(job));
    }
    void end_subscriptions_later(std::shared_ptr<connection> c) override;
    void set_commit_service(std::weak_ptr<dh::commit_service> commits) {
        dispatcher_.set_commit_service(std::move(commits));
    }
    dh::scheduler& heartbeat_scheduler() override { return *heartbeat_scheduler_; }
    std::string heartbeat_line() override;

    std::size_t connection_count() const { return connection_count_.load(); }

    const options opts;
    dh_db& db;
    // Outlives the connections, whose heartbeats it times.
    std::unique_ptr<dh::scheduler> own_scheduler;
    dh::scheduler* const heartbeat_scheduler_;
    // Declared before the sockets, connections and workers below, so that it outlives them.
    asio::io_context io{1};
    std::unique_ptr<asio::ssl::context> tls_context;
    listeners sockets;

  private:
    void accepted(generic_socket peer, client_identity client);
    void accepted_tls(std::shared_ptr<tls_stream> stream, client_identity client);
    // Takes a place in the budget and gives the client its role; or answers why not.
    std::optional<std::string> admit(client_identity& client);
    void start(std::shared_ptr<connection> c);
    void refuse(generic_socket& peer, const client_identity& client, const std::string& why);
    void warn_refused(const client_identity& client, const std::string& why);

    const connection_limits limits_;
    asio::executor_work_guard<asio::io_context::executor_type> work_;
    connection_budget budget_;
    // Serving thread only.
    std::unordered_map<std::uint64_t, std::shared_ptr<connection>> sessions_;
    std::atomic<std::size_t> connection_count_{0};
    dispatcher dispatcher_;

    // Guards running_; run() sets it, the destructor waits for it to drop.
    std::mutex run_mutex_;
    std::condition_variable run_cv_;
    bool running_ = false;

    // Created last and stopped first: jobs may post to the serving loop and to the pool itself.
    std::unique_ptr<job_queue> jobs_;
};

server_core::server_core(dh_db& db, const std::string& socket_dir, unsigned port, bool local_only,
                         options o)
    : opts(o),
      db(db),
      own_scheduler(o.scheduler ? nullptr : std::make_unique<dh::scheduler>(dh::system_clock(), 1)),
      heartbeat_scheduler_(o.scheduler ? o.scheduler : own_scheduler.get()),
      sockets(
          io, [this](generic_socket s, client_identity c) { accepted(std::move(s), c); },
          [this](std::shared_ptr<tls_stream> s, client_identity c) {
              accepted_tls(std::move(s), std::move(c));
          }),
      limits_{opts.max_line, opts.max_queued, opts.idle_timeout},
      work_(asio::make_work_guard(io)),
      budget_(opts.max_local_connections, opts.max_connections, opts.max_per_address),
      dispatcher_(db, opts.max_depth, opts.admin_only,
                  [this](std::shared_ptr<connection> c, std::unique_ptr<async_job> job) {
                      post_job(std::move(c), std::move(job));
                  }) {
    sockets.open_unix(socket_dir);
    if (opts.plain_tcp) {
        sockets.open_tcp(port, local_only);
        MSG_LOG(4, "server") << "Plain TCP port " << sockets.tcp_port()
                             << " is open: clients there are not authenticated"
                             << (opts.roles ? "" : " and may do everything")
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
    }
    if (opts.tls) {
        tls_context = make_tls_context(*opts.tls);
        sockets.open_tls(opts.tls->port, local_only, *tls_context);
    }
    jobs_ = std::make_unique<job_queue>(
        opts.workers, [this](const std::shared_ptr<connection>& c, std::unique_ptr<async_job> j) {
            dispatcher_.run_job(c, std::move(j));
        });
}

server_core::~server_core() {
    stop();
    {
        std::unique_lock lock(run_mutex_);
        run_cv_.wait(lock, [&] { return !running_; });
    }
    jobs_.reset();
    sockets.close_all();
    auto sessions = sessions_;
    for (auto& [id, c] : sessions) c->close();
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

std::optional<std::string> server_core::admit(client_identity& client) {
    if (auto why = budget_.admit(client)) return why;
    if (opts.roles) {
        switch (client.via) {
            case client_identity::transport::unix_socket:
                client.granted = opts.roles->for_unix(client.uid, client.gid);
                break;
            case client_identity::transport::tcp:
                client.granted = opts.roles->for_plain_tcp();
                break;
            case client_identity::transport::tls:
                client.granted = opts.roles->for_subject(client.subject);
                break;
        }
    }
    return std::nullopt;
}

void server_core::accepted(generic_socket peer, client_identity client) {
    if (auto why = admit(client)) {
        refuse(peer, client, *why);
        return;
    }
    start(std::make_shared<connection>(io, *this, limits_, std::move(peer), std::move(client)));
}

void server_core::accepted_tls(std::shared_ptr<tls_stream> stream, client_identity client) {
    if (auto why = admit(client)) {
        warn_refused(client, *why);
        auto line = std::make_shared<std::string>(
            codec::error_text({codec::code_too_many_connections, *why}) + "\n");
        asio::async_write(*stream, asio::buffer(*line),
                          [stream, line](const error_code&, std::size_t) {
                              error_code ignored;
                              stream->lowest_layer().close(ignored);
                          });
        return;
    }
    start(std::make_shared<connection>(io, *this, limits_, std::move(stream), std::move(client)));
}

void server_core::start(std::shared_ptr<connection> c) {
    sessions_.emplace(c->id(), c);
    connection_count_.store(sessions_.size());
    metrics::connection_opened(c->client().listener_name());
    MSG_LOG(7, "server") << "Connection " << c->id() << " opened for " << c->client().who() << " ("
                         << role_name(c->client().granted) << ")"
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
    c->start();
}

// Answers the one line that says why, without waiting for the peer, and closes.
void server_core::refuse(generic_socket& peer, const client_identity& client,
                         const std::string& why) {
    std::string line = codec::error_text({codec::code_too_many_connections, why});
    line += '\n';
    [[maybe_unused]] const ssize_t n =
        ::send(peer.native_handle(), line.data(), line.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    error_code ec;
    peer.shutdown(asio::socket_base::shutdown_both, ec);
    peer.close(ec);
    warn_refused(client, why);
}

void server_core::warn_refused(const client_identity& client, const std::string& why) {
    if (sockets.may_warn())
        MSG_LOG(4, "server") << "Refusing connection of " << client.who() << ": " << why
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
}

void server_core::closed(connection& c) {
    budget_.release(c.client());
    sessions_.erase(c.id());
    connection_count_.store(sessions_.size());
}

std::string server_core::heartbeat_line() {
    dh::Document params(rapidjson::kObjectType);
    auto& a = params.GetAllocator();
    params.AddMember("seq", db.latest_seq(), a);
    params.AddMember("time", dh::Value(dh_db::utc_now_iso().c_str(), a), a);
    return codec::notification_text("heartbeat", params);
}

void server_core::end_subscriptions_later(std::shared_ptr<connection> c) {
    auto work = [c] {
        std::lock_guard lock(c->subscription_mutex);
        c->end_subscriptions();
    };
    if (jobs_)
        jobs_->post(std::move(work));
    else
        work();
}

}  // namespace dh::server::detail

namespace dh::server {

server::server(dh_db& db, const std::string& socket_dir, unsigned port, bool local_only,
               options opts)
    : core_(std::make_unique<detail::server_core>(db, socket_dir, port, local_only, opts)) {}

server::~server() = default;

void server::start_ipv6_socket(const std::string& interface) {
    if (core_->opts.plain_tcp) core_->sockets.open_ipv6(interface);
}
void server::set_commit_service(std::weak_ptr<dh::commit_service> commits) {
    core_->set_commit_service(std::move(commits));
}

void server::run() {
    core_->run();
}
void server::stop() {
    core_->stop();
}
unsigned server::tcp_port() const {
    return core_->sockets.tcp_port();
}
unsigned server::tls_port() const {
    return core_->sockets.tls_port();
}
unsigned server::ipv6_port() const {
    return core_->sockets.ipv6_port();
}
const std::string& server::socket_path() const {
    return core_->sockets.socket_path();
}
std::size_t server::connection_count() const {
    return core_->connection_count();
}
std::size_t server::accept_failures() const {
    return core_->sockets.accept_failures();
}

}  // namespace dh::server
