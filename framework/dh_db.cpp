#include "dh_db.hpp"

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

void dh_db::append_to_history(dh_db_leaf_node& node) {
    alignas(16) char scratch[2048];
    dh::Allocator a(scratch, sizeof scratch);
    dh::Value entry = node.export_history_entry(a);
    if (!entry.IsObject() || entry.ObjectEmpty()) return;
    if (!acting_who.empty() && !entry.HasMember("who"))
        entry.AddMember("who", dh::Value(acting_who.c_str(), a), a);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    entry.Accept(writer);
    std::string text(buffer.GetString(), buffer.GetSize());
    std::lock_guard lock(history_mutex_);
    history_.push_back(std::move(text));
    while (history_.size() > history_capacity) history_.pop_front();
}

dh::Document dh_db::history(std::size_t limit) const {
    dh::Document out(rapidjson::kArrayType);
    auto& a = out.GetAllocator();
    std::lock_guard lock(history_mutex_);
    const std::size_t n = std::min(limit, history_.size());
    out.Reserve(static_cast<rapidjson::SizeType>(n), a);
    for (auto it = history_.end() - static_cast<std::ptrdiff_t>(n); it != history_.end(); ++it) {
        dh::Document entry(&a);
        entry.Parse(it->data(), it->size());
        out.PushBack(static_cast<dh::Value&>(entry).Move(), a);
    }
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
