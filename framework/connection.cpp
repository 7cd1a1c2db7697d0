#include "connection.hpp"

#include <sys/socket.h>

#include <cerrno>

#include <boost/asio/post.hpp>
#include <boost/asio/ssl/error.hpp>
#include <boost/asio/write.hpp>

#include "metrics.hpp"
#include "msg_log.hpp"

namespace dh::server::detail {

namespace {

// Output buffer capacity kept between bursts.
constexpr std::size_t kept_write_buffer = 256 * 1024;

// Notifications (events, sync, heartbeats) are written with "method" where responses have "id".
bool is_notification(const std::string& line) {
    return line.starts_with(R"({"jsonrpc":"2.0","method":)");
}

}  // namespace

std::string client_identity::who() const {
    switch (via) {
        case transport::unix_socket:
            return "uid " + std::to_string(uid);
        case transport::tls:
            return subject;
        case transport::tcp:
            break;
    }
    return address;
}

connection::connection(asio::io_context& io, connection_host& host, const connection_limits& limits,
                       generic_socket socket, client_identity client)
    : io_(io),
      host_(host),
      limits_(limits),
      client_(std::move(client)),
      socket_(std::move(socket)),
      input_(limits.max_line),
      idle_timer_(io),
      last_read_(std::chrono::steady_clock::now()),
      heartbeat_(host.heartbeat_scheduler(),
                 [this] { deliver(std::make_shared<const std::string>(host_.heartbeat_line())); }) {
}

connection::connection(asio::io_context& io, connection_host& host, const connection_limits& limits,
                       std::shared_ptr<tls_stream> stream, client_identity client)
    : io_(io),
      host_(host),
      limits_(limits),
      client_(std::move(client)),
      tls_(std::move(stream)),
      input_(limits.max_line),
      idle_timer_(io),
      last_read_(std::chrono::steady_clock::now()),
      heartbeat_(host.heartbeat_scheduler(),
                 [this] { deliver(std::make_shared<const std::string>(host_.heartbeat_line())); }) {
}

void connection::start() {
    if (limits_.idle_timeout.count() > 0) arm_idle_timer(last_read_ + limits_.idle_timeout);
    start_read();
}

void connection::arm_idle_timer(std::chrono::steady_clock::time_point deadline) {
    idle_timer_.expires_at(deadline);
    idle_timer_.async_wait([self = self()](const error_code& ec) {
        if (!ec) self->on_idle_timer();
    });
}

// Reads move last_read_ on without touching the timer; when it fires, it either finds the
// connection idle or sets itself for the new deadline.
void connection::on_idle_timer() {
    if (io_closed_ || closing_) return;
    const auto now = std::chrono::steady_clock::now();
    const auto deadline = last_read_ + limits_.idle_timeout;
    if (now < deadline) {
        arm_idle_timer(deadline);
        return;
    }
    if (has_subscriptions() || in_flight_.load() != 0) {
        arm_idle_timer(now + limits_.idle_timeout);
        return;
    }
    MSG_LOG(6, "server") << "Closing idle connection " << id() << " of " << client_.who()
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
    say_goodbye({codec::code_too_many_connections, "Idle timeout"});
    if (!writing_) write_out();
}

void connection::start_read() {
    auto done = [self = self()](const error_code& ec, std::size_t n) { self->on_read(ec, n); };
    if (tls_)
        tls_->async_read_some(asio::buffer(input_.space(), input_.space_size()), std::move(done));
    else
        socket_->async_read_some(asio::buffer(input_.space(), input_.space_size()),
                                 std::move(done));
}

void connection::on_read(const error_code& ec, std::size_t n) {
    if (io_closed_) return;
    if (ec) {
        // A TLS peer that closes without a close_notify has still sent all it will send.
        if (ec != asio::error::eof && ec != asio::ssl::error::stream_truncated) {
            close();
            return;
        }
        // The peer sent everything it will send: answer a last line without its newline, then
        // close once all answers are out.
        char* line = nullptr;
        std::size_t len = 0;
        if (input_.rest(line, len)) {
            host_.handle_line(*this, line, len);
            if (io_closed_) return;
        }
        begin_drain();
        if (!writing_) write_out();
        return;
    }
    input_.commit(n);
    last_read_ = std::chrono::steady_clock::now();
    process_lines();
    if (io_closed_) return;
    if (!writing_) write_out();
    if (!closing_ && !io_closed_) start_read();
}

void connection::process_lines() {
    char* line = nullptr;
    std::size_t len = 0;
    for (;;) {
        switch (input_.next(line, len)) {
            case codec::line_framer::status::line:
                host_.handle_line(*this, line, len);
                if (io_closed_ || closing_) return;
                continue;
            case codec::line_framer::status::too_large:
                input_.clear();
                say_goodbye({codec::code_invalid_request, "Request too large"});
                return;
            case codec::line_framer::status::need_more:
                input_.compact();
                return;
        }
    }
}

void connection::say_goodbye(const codec::rpc_error& e) {
    append_response(codec::error_text(e));
    begin_drain();
}

void connection::begin_drain() {
    closing_ = true;
    draining_.store(true);
}

void connection::append_response(std::string_view text) {
    if (io_closed_) return;
    wbuf_.append(text);
    wbuf_.push_back('\n');
    const std::size_t n = text.size() + 1;
    if (queued_.fetch_add(n, std::memory_order_relaxed) + n > limits_.max_queued) overflowed();
}

void connection::deliver(std::shared_ptr<const std::string> line) {
    if (!line) return;
    const std::size_t n = line->size() + 1;
    if (is_notification(*line)) heartbeat_.note_sent();
    std::lock_guard lock(inbox_mutex_);
    if (dead_) return;
    if (queued_.fetch_add(n, std::memory_order_relaxed) + n > limits_.max_queued) {
        // Whoever sends must not wait for a peer that does not read: drop it instead.
        dead_ = true;
        inbox_.clear();
        held_.clear();
        asio::post(io_, [self = self()] { self->overflowed(); });
        return;
    }
    if (holding_) {
        held_.push_back(std::move(line));
        return;
    }
    inbox_.push_back(std::move(line));
    if (!flush_posted_) {
        flush_posted_ = true;
        asio::post(io_, [self = self()] { self->flush(); });
    }
}

void connection::begin_hold() {
    std::lock_guard lock(inbox_mutex_);
    holding_ = true;
}

void connection::end_hold(std::vector<std::shared_ptr<const std::string>> first,
                          const std::function<bool(const std::string&)>& keep) {
    for (const auto& line : first)
        if (is_notification(*line)) heartbeat_.note_sent();
    std::lock_guard lock(inbox_mutex_);
    holding_ = false;
    auto held = std::move(held_);
    held_.clear();
    if (dead_) return;
    std::size_t n = 0;
    for (const auto& line : first) n += line->size() + 1;
    if (queued_.fetch_add(n, std::memory_order_relaxed) + n > limits_.max_queued) {
        dead_ = true;
        inbox_.clear();
        asio::post(io_, [self = self()] { self->overflowed(); });
        return;
    }
    for (auto& line : first) inbox_.push_back(std::move(line));
    for (auto& line : held) {
        if (keep(*line)) {
            inbox_.push_back(std::move(line));
        } else {
            queued_.fetch_sub(line->size() + 1, std::memory_order_relaxed);
        }
    }
    if (!inbox_.empty() && !flush_posted_) {
        flush_posted_ = true;
        asio::post(io_, [self = self()] { self->flush(); });
    }
}

void connection::overflowed() {
    if (io_closed_) return;
    metrics::slow_subscriber_cut();
    MSG_LOG(4, "server") << "Closing connection " << id() << ": more than " << limits_.max_queued
                         << " bytes wait to be sent" << msg_log::getCodeTrace(__FILE__, __LINE__);
    close();
}

void connection::flush() {
    if (io_closed_) return;
    {
        std::lock_guard lock(inbox_mutex_);
        flush_posted_ = false;
        drained_.swap(inbox_);
    }
    for (const auto& line : drained_) {
        wbuf_.append(*line);
        wbuf_.push_back('\n');
    }
    drained_.clear();
    if (!writing_) write_out();
}

void connection::write_out() {
    if (tls_) {
        write_out_tls();
        return;
    }
    const int fd = socket_->native_handle();
    while (woff_ < wbuf_.size()) {
        const ssize_t n =
            ::send(fd, wbuf_.data() + woff_, wbuf_.size() - woff_, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) {
            woff_ += static_cast<std::size_t>(n);
            queued_.fetch_sub(static_cast<std::size_t>(n), std::memory_order_relaxed);
            continue;
        }
        if (errno == EINTR) continue;
        if (errno == EAGAIN || errno == EWOULDBLOCK) {
            wait_writable();
            return;
        }
        close();
        return;
    }
    wbuf_.clear();
    woff_ = 0;
    if (wbuf_.capacity() > kept_write_buffer) std::string().swap(wbuf_);
    if (closing_) finish_if_drained();
}

// TLS records cannot be written with plain non-blocking sends: one async write at a time takes
// everything pending, and what comes meanwhile waits for the next.
void connection::write_out_tls() {
    if (writing_) return;
    if (wbuf_.empty()) {
        if (closing_) finish_if_drained();
        return;
    }
    sending_.swap(wbuf_);
    writing_ = true;
    asio::async_write(*tls_, asio::buffer(sending_),
                      [self = self()](const error_code& ec, std::size_t n) {
                          self->writing_ = false;
                          if (self->io_closed_) return;
                          if (ec) {
                              self->close();
                              return;
                          }
                          self->queued_.fetch_sub(n, std::memory_order_relaxed);
                          self->sending_.clear();
                          if (self->sending_.capacity() > kept_write_buffer)
                              std::string().swap(self->sending_);
                          self->write_out_tls();
                      });
}

void connection::wait_writable() {
    writing_ = true;
    if (woff_ >= kept_write_buffer && woff_ * 2 >= wbuf_.size()) {
        wbuf_.erase(0, woff_);
        woff_ = 0;
    }
    socket_->async_wait(asio::socket_base::wait_write, [self = self()](const error_code& ec) {
        self->writing_ = false;
        if (self->io_closed_) return;
        if (ec) {
            self->close();
            return;
        }
        self->write_out();
    });
}

void connection::finish_if_drained() {
    if (io_closed_ || !closing_ || writing_ || woff_ < wbuf_.size() || in_flight_.load() != 0)
        return;
    {
        std::lock_guard lock(inbox_mutex_);
        // A flush is posted for whatever is still in the inbox; it comes back here.
        if (!inbox_.empty()) return;
    }
    close();
}

void connection::close() {
    if (io_closed_) return;
    auto keep = self();
    io_closed_ = true;
    heartbeat_.stop();
    metrics::connection_closed(client().listener_name());
    idle_timer_.cancel();
    {
        std::lock_guard lock(inbox_mutex_);
        dead_ = true;
        inbox_.clear();
        held_.clear();
    }
    queued_.store(0);
    end_subscriptions_safely();
    error_code ec;
    if (tls_) {
        tls_->lowest_layer().close(ec);
    } else {
        socket_->close(ec);
        socket_.reset();
    }
    std::string().swap(wbuf_);
    woff_ = 0;
    MSG_LOG(7, "server") << "Connection " << id() << " closed"
                         << msg_log::getCodeTrace(__FILE__, __LINE__);
    host_.closed(*this);
}

void connection::end_subscriptions_safely() {
    // A worker may hold the subscription lock while a slow node subscribes; the serving thread
    // does not wait for it but leaves the unsubscribing to a worker.
    std::unique_lock lock(subscription_mutex, std::try_to_lock);
    if (lock.owns_lock()) {
        end_subscriptions();
        return;
    }
    host_.end_subscriptions_later(self());
}

void connection::submit(std::unique_ptr<async_job> job) {
    in_flight_.fetch_add(1);
    if (chains_.admit(job)) host_.post_job(self(), std::move(job));
}

void connection::job_finished() {
    if (in_flight_.fetch_sub(1) == 1 && draining_.load())
        asio::post(io_, [self = self()] { self->finish_if_drained(); });
}

}  // namespace dh::server::detail
