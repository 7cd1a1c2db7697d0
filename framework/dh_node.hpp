#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "dh_error.hpp"
#include "dh_types.hpp"

class dh_db;
class dh_session;

// Base of every leaf of the node tree. Each operation's default answers dh_error -95
// "Operation not supported"; node kinds override what they support. The server calls the
// operations; a node never knows about sockets.
class dh_db_leaf_node : public std::enable_shared_from_this<dh_db_leaf_node> {
  public:
    dh_db_leaf_node(dh_db& db, std::vector<std::string> path);
    virtual ~dh_db_leaf_node();
    dh_db_leaf_node(const dh_db_leaf_node&) = delete;
    dh_db_leaf_node& operator=(const dh_db_leaf_node&) = delete;

    // The history entry of the node's latest change: {"seq","time","path","value"}.
    virtual dh::Value export_history_entry(dh::Allocator& allocator);
    virtual void get(std::string_view path, dh::Allocator& allocator, dh::Value& out);
    virtual void set(std::string_view path, const dh::Value& value);
    virtual void run(std::string_view path, const dh::Value& in, dh::Allocator& allocator,
                     dh::Value& out);
    virtual void reset();
    // Called by a value group each period (false) or to start the periodic work at once (true).
    virtual void periodic_task(bool immediate);
    virtual bool subscription_supported();
    // `lock` holds the server's per-session subscription lock for the duration of the call, so
    // that a subscribe and the close of the same session cannot interleave.
    virtual void subscribe(const std::shared_ptr<dh_session>& session, std::string_view path,
                           dh::Allocator& allocator, dh::Value& out,
                           std::unique_lock<std::mutex>& lock);
    virtual void unsubscribe(const std::shared_ptr<dh_session>& session);
    // One-line description, e.g. "config value (read,write,subscribe)".
    virtual std::string get_info();
    // Description object: {"path", "description"}, "unit" when the node has one, plus what the
    // node kind adds.
    virtual dh::Value get_info(dh::Allocator& allocator);
    // The unit of a numeric value ("dBm", "°C"), shown to people next to the value. Set while the
    // nodes are registered, before the server serves; read-only afterwards.
    void set_unit(std::string unit) { unit_ = std::move(unit); }
    const std::string& unit() const noexcept { return unit_; }
    // Whether a set of this node may be part of a write batch (set_many, confirmed commits): the
    // node defers adopting its value, and its handler keeps its changes in the batch. Marked by
    // the program while the nodes are registered; read-only afterwards.
    void allow_in_batches() { batchable_ = true; }
    bool batchable() const noexcept { return batchable_; }
    // True when the node's operations may block (they call the handler): the server then runs
    // them on its worker pool instead of the serving thread.
    virtual bool is_async();
    // True for commands: a run answers a response value.
    virtual bool write_returns_response();

    // The node's path from component `from` on, joined by "/"; get_path(0) is the full path.
    std::string get_path(std::size_t from) const;
    const std::vector<std::string>& path_components() const noexcept { return path_; }
    dh_db& db() const noexcept { return db_; }

    [[noreturn]] static void throw_not_supported();

  private:
    dh_db& db_;
    const std::vector<std::string> path_;
    std::string unit_;
    bool batchable_ = false;
};

// A leaf that clients can subscribe to. It keeps its subscribers (weakly: a closed session drops
// out) and the latest event it sent, which is its history entry.
class dh_db_event_node : public dh_db_leaf_node {
  public:
    using dh_db_leaf_node::dh_db_leaf_node;

    dh::Value export_history_entry(dh::Allocator& allocator) override;
    bool subscription_supported() override;
    // Registers the session; kinds that override it call this first and then write the value.
    void subscribe(const std::shared_ptr<dh_session>& session, std::string_view path,
                   dh::Allocator& allocator, dh::Value& out,
                   std::unique_lock<std::mutex>& lock) override;
    void unsubscribe(const std::shared_ptr<dh_session>& session) override;

    bool has_subscribers() const;

    // A new event for this node: {"path": get_path(0), "type": "valueChanged"}. The caller adds
    // "value" with the event's own allocator and hands it to one of the senders below, which
    // stamp "seq" and "time".
    dh::Document create_value_changed_event() const;
    // Sends to every subscriber, remembers the event as the node's latest change and records
    // it in the history. Stamping, delivery and recording happen under the node's event lock,
    // so that a subscription registered meanwhile either receives the event or finds it in the
    // history, and one node's seqs rise in the order its events reach every subscriber.
    void send_event_impl(dh::Document&& event);
    // Sends to one session only. `initial` marks the value a subscription starts with; it is
    // not remembered as a change.
    void send_event_to_session_impl(const std::shared_ptr<dh_session>& session, bool initial,
                                    dh::Document&& event);

    // While one lives, subscriptions made on this thread send no initial-value event: a resumed
    // subscription has the current value in its answer and the missed changes from the history.
    class without_initial_events {
      public:
        without_initial_events();
        ~without_initial_events();
        without_initial_events(const without_initial_events&) = delete;
        without_initial_events& operator=(const without_initial_events&) = delete;

      private:
        bool previous_;
    };

  private:
    std::shared_ptr<const std::string> stamp_and_serialise(dh::Document& event);

    void remember(const dh::Document& event);

    // Guards subscribers_ and last_entry_, and orders this node's events. Held while events are
    // handed to sessions (deliver() only queues, it never blocks) and while the history records
    // them; never taken while a session's or the history's lock is held.
    mutable std::mutex events_mutex_;
    std::vector<std::weak_ptr<dh_session>> subscribers_;
    // The latest change as its history entry in JSON text: a few hundred bytes at most, where a
    // document would hold an allocator's chunk for every node.
    std::string last_entry_;
};
