#include "dh_node.hpp"

#include <algorithm>

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_db.hpp"
#include "dh_session.hpp"
#include "metrics.hpp"

dh_db_leaf_node::dh_db_leaf_node(dh_db& db, std::vector<std::string> path)
    : db_(db), path_(std::move(path)) {}

dh_db_leaf_node::~dh_db_leaf_node() = default;

void dh_db_leaf_node::throw_not_supported() {
    throw dh_error(-95, "Operation not supported");
}

dh::Value dh_db_leaf_node::export_history_entry(dh::Allocator&) {
    throw_not_supported();
}
void dh_db_leaf_node::get(std::string_view, dh::Allocator&, dh::Value&) {
    throw_not_supported();
}
void dh_db_leaf_node::set(std::string_view, const dh::Value&) {
    throw_not_supported();
}
void dh_db_leaf_node::run(std::string_view, const dh::Value&, dh::Allocator&, dh::Value&) {
    throw_not_supported();
}
void dh_db_leaf_node::reset() {
    throw_not_supported();
}
void dh_db_leaf_node::periodic_task(bool) {
    throw_not_supported();
}
bool dh_db_leaf_node::subscription_supported() {
    return false;
}
void dh_db_leaf_node::subscribe(const std::shared_ptr<dh_session>&, std::string_view,
                                dh::Allocator&, dh::Value&, std::unique_lock<std::mutex>&) {
    throw_not_supported();
}
void dh_db_leaf_node::unsubscribe(const std::shared_ptr<dh_session>&) {
    throw_not_supported();
}
std::string dh_db_leaf_node::get_info() {
    return "leaf";
}

dh::Value dh_db_leaf_node::get_info(dh::Allocator& allocator) {
    dh::Value info(rapidjson::kObjectType);
    const std::string path = get_path(0);
    info.AddMember("path", dh::Value(path.c_str(), allocator), allocator);
    const std::string text = get_info();
    info.AddMember("description", dh::Value(text.c_str(), allocator), allocator);
    if (!unit_.empty()) info.AddMember("unit", dh::Value(unit_.c_str(), allocator), allocator);
    return info;
}

bool dh_db_leaf_node::is_async() {
    return false;
}
bool dh_db_leaf_node::write_returns_response() {
    return false;
}

std::string dh_db_leaf_node::get_path(std::size_t from) const {
    return dh_db::join_path(path_, from);
}

bool dh_db_event_node::subscription_supported() {
    return true;
}

void dh_db_event_node::subscribe(const std::shared_ptr<dh_session>& session, std::string_view,
                                 dh::Allocator&, dh::Value&, std::unique_lock<std::mutex>&) {
    std::lock_guard lock(events_mutex_);
    auto same = [&](const std::weak_ptr<dh_session>& w) {
        auto s = w.lock();
        return !s || s == session;
    };
    subscribers_.erase(std::remove_if(subscribers_.begin(), subscribers_.end(), same),
                       subscribers_.end());
    subscribers_.push_back(session);
}

void dh_db_event_node::unsubscribe(const std::shared_ptr<dh_session>& session) {
    std::lock_guard lock(events_mutex_);
    auto gone = [&](const std::weak_ptr<dh_session>& w) {
        auto s = w.lock();
        return !s || s == session;
    };
    subscribers_.erase(std::remove_if(subscribers_.begin(), subscribers_.end(), gone),
                       subscribers_.end());
}

bool dh_db_event_node::has_subscribers() const {
    std::lock_guard lock(events_mutex_);
    return std::any_of(subscribers_.begin(), subscribers_.end(), [](const auto& w) {
        auto s = w.lock();
        return s && !s->closed();
    });
}

dh::Document dh_db_event_node::create_value_changed_event() const {
    dh::Document event(rapidjson::kObjectType);
    auto& a = event.GetAllocator();
    const std::string path = get_path(0);
    event.AddMember("path", dh::Value(path.c_str(), a), a);
    event.AddMember("type", "valueChanged", a);
    return event;
}

std::shared_ptr<const std::string> dh_db_event_node::stamp_and_serialise(dh::Document& event) {
    auto& a = event.GetAllocator();
    event.AddMember("seq", static_cast<uint64_t>(db().next_event_seq()), a);
    const std::string now = dh_db::utc_now_iso();
    event.AddMember("time", dh::Value(now.c_str(), a), a);
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("jsonrpc");
    writer.String("2.0");
    writer.Key("method");
    writer.String("event");
    writer.Key("params");
    event.Accept(writer);
    writer.EndObject();
    return std::make_shared<const std::string>(buffer.GetString(), buffer.GetSize());
}

void dh_db_event_node::send_event_impl(dh::Document&& event) {
    std::size_t sent = 0;
    {
        std::lock_guard lock(events_mutex_);
        auto line = stamp_and_serialise(event);
        remember(event);
        for (const auto& w : subscribers_) {
            if (auto s = w.lock()) {
                s->deliver(line);
                ++sent;
            }
        }
        // After the deliveries: a resumed subscription that finds the event in the history has
        // it among the lines held back for it, and drops it there.
        db().record_change(event["seq"].GetUint64(), last_entry_);
    }
    metrics::events_sent(sent);
}

namespace {
thread_local bool quiet_subscribe = false;
}

dh_db_event_node::without_initial_events::without_initial_events() : previous_(quiet_subscribe) {
    quiet_subscribe = true;
}

dh_db_event_node::without_initial_events::~without_initial_events() {
    quiet_subscribe = previous_;
}

void dh_db_event_node::send_event_to_session_impl(const std::shared_ptr<dh_session>& session,
                                                  bool initial, dh::Document&& event) {
    if (initial && quiet_subscribe) return;
    auto line = stamp_and_serialise(event);
    if (!initial) {
        std::lock_guard lock(events_mutex_);
        remember(event);
    }
    session->deliver(line);
    metrics::events_sent();
}

void dh_db_event_node::remember(const dh::Document& event) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    for (const char* key : {"seq", "time", "path", "value"}) {
        auto it = event.FindMember(key);
        if (it == event.MemberEnd()) continue;
        writer.Key(key);
        it->value.Accept(writer);
    }
    writer.EndObject();
    last_entry_.assign(buffer.GetString(), buffer.GetSize());
}

dh::Value dh_db_event_node::export_history_entry(dh::Allocator& allocator) {
    std::lock_guard lock(events_mutex_);
    dh::Value entry(rapidjson::kObjectType);
    if (last_entry_.empty()) return entry;
    dh::Document parsed(&allocator);
    parsed.Parse(last_entry_.data(), last_entry_.size());
    entry.Swap(parsed);
    return entry;
}
