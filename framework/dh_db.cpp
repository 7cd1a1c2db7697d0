#include "dh_db.hpp"

#include <algorithm>
#include <chrono>

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

std::vector<std::string> dh_db::split_path(std::string_view path) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start <= path.size()) {
        std::size_t end = path.find('/', start);
        if (end == std::string_view::npos) end = path.size();
        if (end > start) out.emplace_back(path.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

std::string dh_db::join_path(const std::vector<std::string>& components, std::size_t from) {
    std::string out;
    for (std::size_t i = from; i < components.size(); ++i) {
        if (i > from) out += '/';
        out += components[i];
    }
    return out;
}

void dh_db::add_node(std::shared_ptr<dh_db_leaf_node> node) {
    std::string path = node->get_path(0);
    std::unique_lock lock(nodes_mutex_);
    if (path.empty() || nodes_.count(path)) throw dh_error(-17, "Node already exists: " + path);
    sorted_.emplace(path, node);
    nodes_.emplace(std::move(path), std::move(node));
}

std::shared_ptr<dh_db_leaf_node> dh_db::find_leaf_node(std::string_view path) const {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    std::shared_lock lock(nodes_mutex_);
    auto it = nodes_.find(std::string(path));
    return it == nodes_.end() ? nullptr : it->second;
}

std::vector<std::shared_ptr<dh_db_leaf_node>> dh_db::list(std::string_view prefix) const {
    while (!prefix.empty() && prefix.front() == '/') prefix.remove_prefix(1);
    while (!prefix.empty() && prefix.back() == '/') prefix.remove_suffix(1);
    std::vector<std::shared_ptr<dh_db_leaf_node>> out;
    std::shared_lock lock(nodes_mutex_);
    for (auto it = sorted_.lower_bound(prefix); it != sorted_.end(); ++it) {
        std::string_view p = it->first;
        if (p.substr(0, prefix.size()) != prefix) break;
        if (prefix.empty() || p.size() == prefix.size() || p[prefix.size()] == '/')
            out.push_back(it->second);
    }
    return out;
}

std::vector<std::shared_ptr<dh_db_leaf_node>> dh_db::match(const dh::path_pattern& pattern) const {
    const std::string_view prefix = pattern.literal_prefix();
    std::vector<std::shared_ptr<dh_db_leaf_node>> out;
    std::shared_lock lock(nodes_mutex_);
    for (auto it = sorted_.lower_bound(prefix); it != sorted_.end(); ++it) {
        const std::string_view p = it->first;
        if (p.substr(0, prefix.size()) != prefix) break;
        if (pattern.matches(p)) out.push_back(it->second);
    }
    return out;
}

std::size_t dh_db::size() const {
    std::shared_lock lock(nodes_mutex_);
    return nodes_.size();
}

namespace {
thread_local std::string acting_who;
}

dh_db::acting_client::acting_client(std::string who) : previous_(std::move(acting_who)) {
    acting_who = std::move(who);
}

dh_db::acting_client::~acting_client() {
    acting_who = std::move(previous_);
}

void dh_db::record_change(std::uint64_t seq, std::string_view entry) {
    std::string text;
    if (acting_who.empty() || entry.size() < 2 || entry.back() != '}') {
        text.assign(entry);
    } else {
        rapidjson::StringBuffer who;
        rapidjson::Writer<rapidjson::StringBuffer> writer(who);
        writer.String(acting_who.c_str(), static_cast<rapidjson::SizeType>(acting_who.size()));
        text.reserve(entry.size() + who.GetSize() + 8);
        text.append(entry.substr(0, entry.size() - 1));
        text.append(entry.size() > 2 ? ",\"who\":" : "\"who\":");
        text.append(who.GetString(), who.GetSize());
        text.push_back('}');
    }
    std::lock_guard lock(history_mutex_);
    history_.push_back({seq, std::move(text)});
    while (history_.size() > history_capacity) {
        dropped_seq_ = std::max(dropped_seq_, history_.front().seq);
        history_.pop_front();
    }
}

dh::Document dh_db::history(std::size_t limit) const {
    dh::Document out(rapidjson::kArrayType);
    auto& a = out.GetAllocator();
    std::lock_guard lock(history_mutex_);
    const std::size_t n = std::min(limit, history_.size());
    out.Reserve(static_cast<rapidjson::SizeType>(n), a);
    for (auto it = history_.end() - static_cast<std::ptrdiff_t>(n); it != history_.end(); ++it) {
        dh::Document entry(&a);
        entry.Parse(it->text.data(), it->text.size());
        out.PushBack(static_cast<dh::Value&>(entry).Move(), a);
    }
    return out;
}

dh_db::replay_snapshot dh_db::history_since(std::uint64_t since,
                                            const std::vector<std::string>& paths) const {
    replay_snapshot out;
    {
        std::lock_guard lock(history_mutex_);
        out.latest_seq = latest_seq();
        if (since > out.latest_seq) {
            since = 0;
            out.complete = false;
        }
        if (dropped_seq_ > since) out.complete = false;
        for (const auto& e : history_) {
            if (e.seq <= since) continue;
            out.entries.emplace_back(e.seq, e.text);
        }
    }
    // Outside the lock: only the path is needed of each entry.
    auto wanted = [&](const std::string& text) {
        rapidjson::Document d;
        d.Parse(text.data(), text.size());
        if (!d.IsObject()) return false;
        auto p = d.FindMember("path");
        return p != d.MemberEnd() && p->value.IsString() &&
               std::binary_search(
                   paths.begin(), paths.end(),
                   std::string_view(p->value.GetString(), p->value.GetStringLength()));
    };
    std::erase_if(out.entries, [&](const auto& e) { return !wanted(e.second); });
    std::sort(out.entries.begin(), out.entries.end(),
              [](const auto& x, const auto& y) { return x.first < y.first; });
    return out;
}

std::uint64_t dh_db::next_event_seq() noexcept {
    return seq_.fetch_add(1, std::memory_order_relaxed) + 1;
}

std::string dh_db::utc_now_iso() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
    return fmt::format("{:%Y-%m-%dT%H:%M:%S}.{:03d}Z", fmt::gmtime(system_clock::to_time_t(now)),
                       ms);
}
