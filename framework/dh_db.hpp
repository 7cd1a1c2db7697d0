#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "dh_node.hpp"
#include "dh_types.hpp"
#include "path_pattern.hpp"

// The node tree: leaves addressed by slash-separated paths, the event sequence counter and the
// history ring. All members are thread-safe.
class dh_db {
  public:
    static constexpr std::size_t history_capacity = 1000;

    dh_db() = default;
    dh_db(const dh_db&) = delete;
    dh_db& operator=(const dh_db&) = delete;

    // "a/b/c" -> {"a","b","c"}; empty components (leading, trailing, doubled slashes) are dropped.
    static std::vector<std::string> split_path(std::string_view path);
    static std::string join_path(const std::vector<std::string>& components, std::size_t from = 0);

    // Adds a leaf under its own path; a path that is taken already raises dh_error -17.
    void add_node(std::shared_ptr<dh_db_leaf_node> node);
    // The leaf at path (slashes at either end ignored), or nullptr.
    std::shared_ptr<dh_db_leaf_node> find_leaf_node(std::string_view path) const;
    // Leaves whose path equals prefix or starts with prefix + "/" (all for ""), sorted by path.
    std::vector<std::shared_ptr<dh_db_leaf_node>> list(std::string_view prefix) const;
    // Leaves that the pattern matches, sorted by path. Only the range below the pattern's
    // literal prefix is walked.
    std::vector<std::shared_ptr<dh_db_leaf_node>> match(const dh::path_pattern& pattern) const;
    std::size_t size() const;

    // Names the client whose request the calling thread carries out while it lives: history
    // entries recorded meanwhile carry it as "who".
    class acting_client {
      public:
        explicit acting_client(std::string who);
        ~acting_client();
        acting_client(const acting_client&) = delete;
        acting_client& operator=(const acting_client&) = delete;

      private:
        std::string previous_;
    };

    // Records one change in the history ring: `entry` is its {"seq","time","path","value"}
    // object as compact JSON text; the acting client, if any, is added as "who". Event nodes
    // call it for every event they send to all subscribers.
    void record_change(std::uint64_t seq, std::string_view entry);
    // The last `limit` history entries, oldest first, as a JSON array.
    dh::Document history(std::size_t limit) const;

    // What a resumed subscription replays: the entries of `paths` (sorted) with seq > since, in
    // seq order, taken in one look at the ring.
    struct replay_snapshot {
        std::vector<std::pair<std::uint64_t, std::string>> entries;  // seq, entry text
        std::uint64_t latest_seq = 0;  // the newest seq handed out when the snapshot was taken
        // False when entries with seq > since have already left the ring, or since lies beyond
        // latest_seq (the counter started again: everything since the start is replayed).
        bool complete = true;
    };
    replay_snapshot history_since(std::uint64_t since, const std::vector<std::string>& paths) const;

    // Sequence number and UTC time stamp of the next event the server creates.
    std::uint64_t next_event_seq() noexcept;
    // The newest sequence number handed out (0 before the first event).
    std::uint64_t latest_seq() const noexcept { return seq_.load(std::memory_order_relaxed); }
    static std::string utc_now_iso();

  private:
    // Guards nodes_ and sorted_; add_node takes it exclusively, lookups shared.
    mutable std::shared_mutex nodes_mutex_;
    std::unordered_map<std::string, std::shared_ptr<dh_db_leaf_node>> nodes_;
    std::map<std::string, std::shared_ptr<dh_db_leaf_node>, std::less<>> sorted_;

    std::atomic<std::uint64_t> seq_{0};

    struct history_entry {
        std::uint64_t seq;
        std::string text;  // compact JSON, not a document with a pool of its own
    };
    // Guards history_ and dropped_seq_.
    mutable std::mutex history_mutex_;
    std::deque<history_entry> history_;
    // The highest seq of the entries that left the ring.
    std::uint64_t dropped_seq_ = 0;
};
