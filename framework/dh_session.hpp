#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class dh_db_leaf_node;

// One client connection. Nodes deliver events to it; the server owns it for as long as the
// connection is open. deliver() is thread-safe and never blocks; end_subscriptions() runs once
// when the connection closes so that no node keeps sending to it.
class dh_session : public std::enable_shared_from_this<dh_session> {
  public:
    dh_session();
    virtual ~dh_session();
    dh_session(const dh_session&) = delete;
    dh_session& operator=(const dh_session&) = delete;

    std::uint64_t id() const noexcept { return id_; }

    // Queues one complete protocol line (without its newline) for the client.
    virtual void deliver(std::shared_ptr<const std::string> line) = 0;

    bool closed() const noexcept { return closed_.load(std::memory_order_acquire); }

    // Bookkeeping of the nodes this session subscribes to (called by the server).
    void remember_subscription(const std::shared_ptr<dh_db_leaf_node>& node);
    void forget_subscription(const dh_db_leaf_node* node);
    bool has_subscriptions();

    // Marks the session closed and unsubscribes it from every node it subscribed to.
    void end_subscriptions();

  private:
    const std::uint64_t id_;
    std::atomic<bool> closed_{false};
    // Guards subscriptions_; taken by the server's threads, never while a node lock is held.
    std::mutex subscriptions_mutex_;
    std::vector<std::weak_ptr<dh_db_leaf_node>> subscriptions_;
};
