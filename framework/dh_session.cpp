#include "dh_session.hpp"

#include <algorithm>

#include "dh_node.hpp"

namespace {
std::atomic<std::uint64_t> next_session_id{1};
}

dh_session::dh_session() : id_(next_session_id.fetch_add(1, std::memory_order_relaxed)) {}

dh_session::~dh_session() = default;

void dh_session::remember_subscription(const std::shared_ptr<dh_db_leaf_node>& node) {
    std::lock_guard lock(subscriptions_mutex_);
    for (const auto& w : subscriptions_)
        if (w.lock() == node) return;
    subscriptions_.push_back(node);
}

void dh_session::forget_subscription(const dh_db_leaf_node* node) {
    std::lock_guard lock(subscriptions_mutex_);
    subscriptions_.erase(std::remove_if(subscriptions_.begin(), subscriptions_.end(),
                                        [&](const auto& w) {
                                            auto n = w.lock();
                                            return !n || n.get() == node;
                                        }),
                         subscriptions_.end());
}

bool dh_session::has_subscriptions() {
    std::lock_guard lock(subscriptions_mutex_);
    return !subscriptions_.empty();
}

void dh_session::end_subscriptions() {
    closed_.store(true, std::memory_order_release);
    std::vector<std::weak_ptr<dh_db_leaf_node>> nodes;
    {
        std::lock_guard lock(subscriptions_mutex_);
        nodes.swap(subscriptions_);
    }
    auto self = shared_from_this();
    for (const auto& w : nodes) {
        if (auto n = w.lock()) {
            try {
                n->unsubscribe(self);
            } catch (...) {
                // A node that cannot unsubscribe drops the session anyway: it holds it weakly.
            }
        }
    }
}
