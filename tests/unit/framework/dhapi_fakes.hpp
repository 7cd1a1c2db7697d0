#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include <rapidjson/document.h>

#include "dh_api/dh_api.hpp"
#include "dh_db.hpp"
#include "dh_session.hpp"

// A session that records the protocol lines nodes deliver to it.
class recording_session : public dh_session {
  public:
    void deliver(std::shared_ptr<const std::string> line) override {
        std::lock_guard lock(mutex_);
        lines_.push_back(*line);
        cv_.notify_all();
    }

    // The "value" of every event delivered so far, as compact JSON text.
    std::vector<std::string> event_values() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (const auto& line : lines_) {
            dh::Document d;
            d.Parse(line.c_str());
            out.push_back(dh::api::to_json_text(d["params"]["value"]));
        }
        return out;
    }

    bool wait_for_events(std::size_t n,
                         std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        std::unique_lock lock(mutex_);
        return cv_.wait_for(lock, timeout, [&] { return lines_.size() >= n; });
    }

  private:
    mutable std::mutex mutex_;
    std::condition_variable cv_;
    std::vector<std::string> lines_;
};

// Subscribes `session` to `node`; answers what the subscription answered, as JSON text.
inline std::string subscribe(dh_db_leaf_node& node, const std::shared_ptr<dh_session>& session) {
    std::mutex m;
    std::unique_lock lock(m);
    dh::Document out;
    node.subscribe(session, node.get_path(0), out.GetAllocator(), out, lock);
    return dh::api::to_json_text(out);
}

inline std::string read(dh_db_leaf_node& node) {
    dh::Document out;
    node.get(node.get_path(0), out.GetAllocator(), out);
    return dh::api::to_json_text(out);
}

inline dh::Document json(const char* text) {
    dh::Document d;
    d.Parse(text);
    return d;
}

inline void write(dh_db_leaf_node& node, const char* value_json) {
    node.set(node.get_path(0), json(value_json));
}

inline dh::Document info(dh_db_leaf_node& node) {
    dh::Document d;
    static_cast<dh::Value&>(d) = node.get_info(d.GetAllocator());
    return d;
}

enum class family : int { ipv4 = 0, ipv6 = 1 };

// Handler methods of the signatures the node map binds; each call is recorded as text.
struct fake_handler {
    std::vector<std::string> calls;
    // Read and written across threads by the polling tests.
    std::atomic<bool> fail{false};
    std::atomic<unsigned> reads{0};
    std::atomic<double> margin{1.0};

    void check() {
        if (fail) throw dh_error(-22, "refused");
    }
    void set_enabled(std::string_view name, std::optional<int> vlan, const std::string& status) {
        check();
        calls.push_back(std::string(name) + " " + (vlan ? std::to_string(*vlan) : "-") + " " +
                        status);
    }
    void set_metric(std::string_view name, unsigned int metric) {
        check();
        calls.push_back(std::string(name) + " " + std::to_string(metric));
    }
    void set_area(std::string_view name, std::string& id) {
        calls.push_back(std::string(name) + " " + id);
        id = "changed by the method";
    }
    void set_whitelist(family f, const dh::Document& doc) {
        calls.push_back(std::to_string(static_cast<int>(f)) + " " + dh::api::to_json_text(doc));
    }
    bool restore(bool reboot, unsigned int level) {
        calls.push_back(std::string(reboot ? "reboot " : "stay ") + std::to_string(level));
        return level < 10;
    }
    bool reboot(const bool& now) {
        check();
        calls.push_back(now ? "now" : "later");
        return true;
    }
    std::string status_of(const std::string& name) {
        check();
        return name + " #" + std::to_string(++reads);
    }
    double power(const std::string& property, std::string_view port) {
        calls.push_back(property + " " + std::string(port));
        return -3.01;
    }
    double get_margin() {
        ++reads;
        check();
        return margin;
    }
};
