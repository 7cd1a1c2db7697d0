// The dispatcher's requests on sets of leaves: reads and subscriptions by pattern, and
// subscriptions that resume from a seq (replaying the history) or ask for heartbeats.

#include <algorithm>
#include <optional>

#include "dh_error.hpp"
#include "dh_node.hpp"
#include "dispatcher.hpp"

namespace dh::server::detail {

using codec::method_id;
using codec::request;
using codec::rpc_error;

namespace {

constexpr unsigned longest_heartbeat = 3600;

struct subscribe_options {
    std::optional<std::uint64_t> since_seq;
    std::optional<unsigned> heartbeat;
};

// `since_seq`: a seq (a non-negative integer); `heartbeat`: seconds, 0 (off) to 3600.
subscribe_options parse_subscribe_options(const dh::Value* params) {
    subscribe_options o;
    if (const dh::Value* since = codec::find_param(params, "since_seq")) {
        if (!since->IsUint64()) throw dh_error(codec::code_invalid_params, "Invalid params");
        o.since_seq = since->GetUint64();
    }
    if (const dh::Value* beat = codec::find_param(params, "heartbeat")) {
        if (!beat->IsUint() || beat->GetUint() > longest_heartbeat)
            throw dh_error(codec::code_invalid_params, "Invalid params");
        o.heartbeat = beat->GetUint();
    }
    return o;
}

dh::Value error_value(const rpc_error& e, dh::Allocator& a) {
    dh::Value v(rapidjson::kObjectType);
    v.AddMember("code", e.code, a);
    v.AddMember("message", dh::Value(e.message.c_str(), a), a);
    if (e.kind == rpc_error::data_kind::conversion) {
        dh::Value data(rapidjson::kObjectType);
        data.AddMember("expected", dh::Value(e.first.c_str(), a), a);
        data.AddMember("actual", dh::Value(e.second.c_str(), a), a);
        v.AddMember("data", data, a);
    } else if (e.kind == rpc_error::data_kind::what) {
        dh::Value data(rapidjson::kObjectType);
        data.AddMember("what", dh::Value(e.first.c_str(), a), a);
        v.AddMember("data", data, a);
    }
    return v;
}

std::shared_ptr<const std::string> notification(const char* method, const dh::Value& params) {
    return std::make_shared<const std::string>(codec::notification_text(method, params));
}

// The replay of a subscription with since_seq. Lines for the connection are held back from
// begin() (before the first leaf is registered) until finish(): then the answer, the events the
// history holds for the subscribed paths with seq > since, one sync notification and the held
// lines go out in that order. A held event that the replay already carried, or that is not newer
// than `since`, is dropped, so nothing comes twice.
class resume {
  public:
    resume(connection& c, dh_db& db, std::uint64_t since) : c_(c), db_(db), since_(since) {}
    ~resume() {
        if (holding_) c_.end_hold({}, [](const std::string&) { return true; });
    }
    resume(const resume&) = delete;
    resume& operator=(const resume&) = delete;

    void begin() {
        c_.begin_hold();
        holding_ = true;
    }
    void add_path(std::string path) { paths_.push_back(std::move(path)); }

    void finish(std::vector<std::shared_ptr<const std::string>> first) {
        std::sort(paths_.begin(), paths_.end());
        const auto snapshot = db_.history_since(since_, paths_);
        const std::uint64_t floor = since_ > snapshot.latest_seq ? 0 : since_;
        std::vector<std::uint64_t> replayed;
        replayed.reserve(snapshot.entries.size());
        for (const auto& [seq, text] : snapshot.entries) {
            dh::Document entry;
            entry.Parse(text.data(), text.size());
            if (!entry.IsObject()) continue;
            auto& a = entry.GetAllocator();
            dh::Value event(rapidjson::kObjectType);
            for (const char* key : {"path", "type", "value", "seq", "time"}) {
                if (key == std::string_view("type")) {
                    event.AddMember("type", "valueChanged", a);
                    continue;
                }
                auto it = entry.FindMember(key);
                if (it != entry.MemberEnd())
                    event.AddMember(dh::Value(rapidjson::StringRef(key)), it->value, a);
            }
            first.push_back(notification("event", event));
            replayed.push_back(seq);
        }
        dh::Document sync(rapidjson::kObjectType);
        sync.AddMember("seq", snapshot.latest_seq, sync.GetAllocator());
        sync.AddMember("complete", snapshot.complete, sync.GetAllocator());
        first.push_back(notification("sync", sync));
        holding_ = false;
        c_.end_hold(std::move(first),
                    [&](const std::string& line) { return !is_duplicate(line, floor, replayed); });
    }

  private:
    bool is_duplicate(const std::string& line, std::uint64_t floor,
                      const std::vector<std::uint64_t>& replayed) const {
        dh::Document d;
        d.Parse(line.data(), line.size());
        if (!d.IsObject()) return false;
        auto method = d.FindMember("method");
        auto params = d.FindMember("params");
        if (method == d.MemberEnd() || method->value != "event" || params == d.MemberEnd() ||
            !params->value.IsObject())
            return false;
        auto path = params->value.FindMember("path");
        auto seq = params->value.FindMember("seq");
        if (path == params->value.MemberEnd() || !path->value.IsString() ||
            seq == params->value.MemberEnd() || !seq->value.IsUint64())
            return false;
        const std::string_view p(path->value.GetString(), path->value.GetStringLength());
        if (!std::binary_search(paths_.begin(), paths_.end(), p)) return false;
        const std::uint64_t n = seq->value.GetUint64();
        return n <= floor || std::find(replayed.begin(), replayed.end(), n) != replayed.end();
    }

    connection& c_;
    dh_db& db_;
    const std::uint64_t since_;
    std::vector<std::string> paths_;
    bool holding_ = false;
};

// What one leaf-set request does, on the serving thread or a worker: reads, subscribes or
// unsubscribes every leaf. For a pattern the result is {"values": {...}, "errors": {...}} (for
// unsubscribe null), and a leaf that fails or that the role may not use goes into "errors"; for a
// single path the result and the failure are the leaf's own.
void perform_leaves(connection& c, method_id m, bool pattern,
                    const std::vector<std::shared_ptr<dh_db_leaf_node>>& nodes,
                    const std::vector<std::string>& admin_only, std::optional<resume>& replay,
                    dh::Allocator& a, dh::Value& out, std::unique_lock<std::mutex>& sub_lock) {
    const bool subscribing = m == method_id::subscribe || m == method_id::unsubscribe;
    if (subscribing && !sub_lock.owns_lock()) sub_lock = std::unique_lock(c.subscription_mutex);
    // A connection closed meanwhile has ended its subscriptions; do not start new ones.
    if (m == method_id::subscribe && c.closed()) {
        replay.reset();
        out.SetNull();
        return;
    }
    std::optional<dh_db_event_node::without_initial_events> quiet;
    if (replay) {
        quiet.emplace();
        replay->begin();
    }
    dh::Value values(rapidjson::kObjectType);
    dh::Value errors(rapidjson::kObjectType);
    for (const auto& node : nodes) {
        const std::string path = node->get_path(0);
        dh::Value v;
        try {
            if (pattern && !permits(c.client().granted, m, path, admin_only))
                throw dh_error(codec::code_permission_denied, "Permission denied");
            switch (m) {
                case method_id::get:
                    node->get(path, a, v);
                    break;
                case method_id::subscribe:
                    if (!node->subscription_supported()) dh_db_leaf_node::throw_not_supported();
                    try {
                        node->subscribe(c.shared_from_this(), path, a, v, sub_lock);
                    } catch (...) {
                        // A failed leaf is not subscribed, whatever the node got to do.
                        if (pattern) node->unsubscribe(c.shared_from_this());
                        throw;
                    }
                    c.remember_subscription(node);
                    if (replay) replay->add_path(path);
                    break;
                default:
                    node->unsubscribe(c.shared_from_this());
                    c.forget_subscription(node.get());
                    break;
            }
        } catch (...) {
            if (!pattern) throw;
            errors.AddMember(dh::Value(path.c_str(), a),
                             error_value(codec::error_from_current_exception(), a), a);
            continue;
        }
        if (!pattern) {
            out = m == method_id::unsubscribe ? dh::Value() : std::move(v);
            return;
        }
        if (m != method_id::unsubscribe) values.AddMember(dh::Value(path.c_str(), a), v, a);
    }
    if (m == method_id::unsubscribe) {
        out.SetNull();
        return;
    }
    out.SetObject();
    out.AddMember("values", values, a);
    out.AddMember("errors", errors, a);
}

}  // namespace

std::vector<std::shared_ptr<dh_db_leaf_node>> dispatcher::pattern_leaves(
    method_id m, const dh::path_pattern& p, std::string_view given) const {
    auto nodes = db_.match(p);
    if (nodes.empty())
        throw dh_error(codec::code_no_such_node, "No such node: " + std::string(given));
    if (m == method_id::get) return nodes;
    std::erase_if(nodes, [](const auto& n) { return !n->subscription_supported(); });
    if (nodes.empty()) dh_db_leaf_node::throw_not_supported();
    return nodes;
}

bool dispatcher::leaf_set_operation(connection& c, const request& r, const reply_target& t,
                                    std::string_view path, std::string_view given_path) {
    if (r.method != method_id::get && r.method != method_id::subscribe &&
        r.method != method_id::unsubscribe)
        return false;
    const auto pattern = dh::path_pattern::parse(path);
    const subscribe_options o =
        r.method == method_id::subscribe ? parse_subscribe_options(r.params) : subscribe_options{};
    if (!pattern && !o.since_seq && !o.heartbeat) return false;

    std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
    if (pattern) {
        nodes = pattern_leaves(r.method, *pattern, given_path);
    } else {
        auto node = db_.find_leaf_node(path);
        if (!node)
            throw dh_error(codec::code_no_such_node, "No such node: " + std::string(given_path));
        nodes.push_back(std::move(node));
    }
    // The chain that orders this connection's jobs: the leaf's own, or the one of its patterns.
    dh_db_leaf_node* const chain = pattern ? nullptr : nodes.front().get();
    bool async =
        std::any_of(nodes.begin(), nodes.end(), [](const auto& n) { return n->is_async(); });
    std::unique_lock<std::mutex> sub_lock;
    if (!async && r.method != method_id::get) {
        // As for single leaves: never wait on the serving thread.
        sub_lock = std::unique_lock(c.subscription_mutex, std::try_to_lock);
        async = !sub_lock.owns_lock() || c.has_pending_jobs(chain) ||
                std::any_of(nodes.begin(), nodes.end(),
                            [&](const auto& n) { return c.has_pending_jobs(n.get()); });
        if (async && sub_lock.owns_lock()) sub_lock.unlock();
    }
    if (async) {
        auto job = new_job(r, t, path);
        job->node = pattern ? nullptr : nodes.front();
        auto& a = job->args.GetAllocator();
        if (o.since_seq) job->args.AddMember("since_seq", *o.since_seq, a);
        if (o.heartbeat) job->args.AddMember("heartbeat", *o.heartbeat, a);
        c.submit(std::move(job));
        return true;
    }

    std::optional<resume> replay;
    if (o.since_seq) replay.emplace(c, db_, *o.since_seq);
    dh::Value result;
    perform_leaves(c, r.method, pattern.has_value(), nodes, admin_only_, replay, parser_.pool(),
                   result, sub_lock);
    if (o.heartbeat) c.set_heartbeat(std::chrono::seconds(*o.heartbeat));
    if (!replay) {
        if (sub_lock.owns_lock()) sub_lock.unlock();
        reply(c, t, r, result);
        return true;
    }
    count_request(r.method, true, received_);
    std::vector<std::shared_ptr<const std::string>> first;
    if (r.answer) {
        codec::write_result(sb_, writer_, r.id, result);
        if (t.batch)
            t.batch->slots[t.slot].assign(sb_.GetString(), sb_.GetSize());
        else
            first.push_back(std::make_shared<const std::string>(sb_.GetString(), sb_.GetSize()));
    }
    replay->finish(std::move(first));
    return true;
}

bool dispatcher::is_leaf_set_job(const async_job& job) {
    return !job.node || job.args.HasMember("since_seq") || job.args.HasMember("heartbeat");
}

void dispatcher::run_leaf_set_job(const std::shared_ptr<connection>& c,
                                  std::unique_ptr<async_job> job) {
    auto& args = job->args;
    auto& a = args.GetAllocator();
    const auto id = args.FindMember("id");
    const dh::Value* id_value = id == args.MemberEnd() ? nullptr : &id->value;
    const auto since = args.FindMember("since_seq");
    const auto beat = args.FindMember("heartbeat");
    const bool pattern = !job->node;

    dh::Value result;
    std::optional<rpc_error> error;
    std::optional<resume> replay;
    std::unique_lock<std::mutex> sub_lock;
    try {
        // The node table does not change while serving: matching again finds the same leaves.
        std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
        if (pattern)
            nodes = pattern_leaves(job->method, *dh::path_pattern::parse(job->path), job->path);
        else
            nodes.push_back(job->node);
        if (since != args.MemberEnd()) replay.emplace(*c, db_, since->value.GetUint64());
        perform_leaves(*c, job->method, pattern, nodes, admin_only_, replay, a, result, sub_lock);
        if (beat != args.MemberEnd()) c->set_heartbeat(std::chrono::seconds(beat->value.GetUint()));
    } catch (...) {
        error = codec::error_from_current_exception();
    }
    count_request(job->method, !error, job->received);
    std::string text;
    if (job->answer) {
        codec::string_buffer sb;
        codec::json_writer w(sb);
        if (error)
            codec::write_error(sb, w, id_value, *error);
        else
            codec::write_result(sb, w, id_value, result);
        text.assign(sb.GetString(), sb.GetSize());
    }
    if (replay && !error) {
        std::vector<std::shared_ptr<const std::string>> first;
        if (job->answer && !job->target.batch) {
            first.push_back(std::make_shared<const std::string>(std::move(text)));
            text.clear();
        }
        replay->finish(std::move(first));
    }
    replay.reset();
    if (sub_lock.owns_lock()) sub_lock.unlock();
    if (job->target.batch) {
        job->target.batch->slots[job->target.slot] = std::move(text);
        finish_batch(*job->target.batch, false);
    } else if (job->answer && !text.empty()) {
        c->deliver(std::make_shared<const std::string>(std::move(text)));
    }
    c->job_finished();
    if (auto next = c->next_job(job->node.get())) post_(c, std::move(next));
}

}  // namespace dh::server::detail
