#include "dispatcher.hpp"

#include <mutex>
#include <optional>
#include <shared_mutex>

#include "dh_error.hpp"
#include "dh_node.hpp"
#include "metrics.hpp"
#include "msg_log.hpp"
#include "write_batch.hpp"

namespace dh::server::detail {

using codec::method_id;
using codec::request;
using codec::rpc_error;

[[noreturn]] void throw_invalid_params() {
    throw dh_error(codec::code_invalid_params, "Invalid params");
}

const char* method_name(method_id m) {
    switch (m) {
        case method_id::get:
            return "get";
        case method_id::set:
            return "set";
        case method_id::run:
            return "run";
        case method_id::subscribe:
            return "subscribe";
        case method_id::unsubscribe:
            return "unsubscribe";
        case method_id::info:
            return "info";
        case method_id::list:
            return "list";
        case method_id::history:
            return "history";
        case method_id::set_many:
            return "set_many";
        case method_id::confirm:
            return "confirm";
        case method_id::unknown:
            break;
    }
    return "unknown";
}

void audit(const connection& c, method_id m, std::string_view path, const rpc_error* failure) {
    MSG_LOG(6, "audit") << c.client().who() << ' ' << method_name(m) << ' ' << path << ": "
                        << (failure ? "failed: " + failure->message : std::string("done"))
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
}

void count_request(method_id m, bool ok, std::chrono::steady_clock::time_point received) {
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - received;
    metrics::request(method_name(m), ok ? "ok" : "error", took.count());
}

namespace {

bool changes_device(method_id m) {
    return m == method_id::set || m == method_id::run;
}

// Refuses a write while a commit awaits confirmation. A set holds the write gate shared while it
// runs, so that no batch interleaves with it; nodes that are not async change nothing on the
// device, and the serving thread never waits for the gate.
std::shared_lock<std::shared_mutex> enter_write(const std::weak_ptr<dh::commit_service>& commits,
                                                dh_db_leaf_node& node, bool hold) {
    if (!node.is_async()) return {};
    std::shared_lock gate(dh::write_batch::gate());
    if (const auto service = commits.lock()) service->check_write_allowed();
    if (!hold) gate.unlock();
    return gate;
}

// Carries out one node operation on the calling thread. `sub_lock` is the connection's
// subscription lock, already held where the serving thread took it.
void perform(connection& c, method_id m, const std::shared_ptr<dh_db_leaf_node>& node,
             std::string_view path, const dh::Value* value, dh::Allocator& a, dh::Value& out,
             std::unique_lock<std::mutex>& sub_lock,
             const std::weak_ptr<dh::commit_service>& commits) {
    switch (m) {
        case method_id::get:
            node->get(path, a, out);
            return;
        case method_id::set: {
            const auto gate = enter_write(commits, *node, true);
            const dh_db::acting_client acting(c.client().who());
            node->set(path, *value);
        }
            out.SetNull();
            return;
        case method_id::run: {
            enter_write(commits, *node, false);
            const dh_db::acting_client acting(c.client().who());
            node->run(path, *value, a, out);
        }
            return;
        case method_id::info:
            out = node->get_info(a);
            return;
        case method_id::subscribe:
            if (!node->subscription_supported()) dh_db_leaf_node::throw_not_supported();
            if (!sub_lock.owns_lock()) sub_lock = std::unique_lock(c.subscription_mutex);
            // A connection closed meanwhile has ended its subscriptions; do not start one.
            if (c.closed()) return;
            node->subscribe(c.shared_from_this(), path, a, out, sub_lock);
            c.remember_subscription(node);
            return;
        case method_id::unsubscribe:
            if (!sub_lock.owns_lock()) sub_lock = std::unique_lock(c.subscription_mutex);
            node->unsubscribe(c.shared_from_this());
            c.forget_subscription(node.get());
            out.SetNull();
            return;
        case method_id::list:
        case method_id::history:
        case method_id::set_many:
        case method_id::confirm:
        case method_id::unknown:
            break;
    }
    throw dh_error(codec::code_method_not_found, "Method not found");
}

}  // namespace

dispatcher::dispatcher(dh_db& db, unsigned max_depth, std::vector<std::string> admin_only,
                       job_poster post)
    : db_(db),
      admin_only_(std::move(admin_only)),
      post_(std::move(post)),
      parser_(max_depth),
      writer_(sb_) {}

void dispatcher::check_permission(const connection& c, method_id m, std::string_view path) const {
    const role granted = c.client().granted;
    if (permits(granted, m, path, admin_only_)) return;
    MSG_LOG(4, "audit") << "Permission denied: " << c.client().who() << " (" << role_name(granted)
                        << ") " << method_name(m) << ' ' << path
                        << msg_log::getCodeTrace(__FILE__, __LINE__);
    throw dh_error(codec::code_permission_denied, "Permission denied");
}

void dispatcher::handle_line(connection& c, const char* line, std::size_t len) {
    received_ = std::chrono::steady_clock::now();
    switch (parser_.parse(line, len)) {
        case codec::line_parser::outcome::blank:
            return;
        case codec::line_parser::outcome::too_deep:
            reply_error(c, {}, request{}, {codec::code_invalid_request, "Nesting too deep"});
            return;
        case codec::line_parser::outcome::parse_error:
            reply_error(c, {}, request{}, {codec::code_parse_error, "Parse error"});
            return;
        case codec::line_parser::outcome::parsed:
            break;
    }
    auto& doc = parser_.document();
    if (doc.IsArray())
        handle_batch(c, doc);
    else
        handle_request(c, doc, {});
}

void dispatcher::handle_batch(connection& c, codec::request_document& doc) {
    if (doc.Empty()) {
        reply_error(c, {}, request{}, {codec::code_invalid_request, "Invalid Request"});
        return;
    }
    reply_target t{std::make_shared<batch_state>(c.self(), doc.Size()), 0};
    for (rapidjson::SizeType i = 0; i < doc.Size(); ++i) {
        t.slot = i;
        handle_request(c, doc[i], t);
    }
    finish_batch(*t.batch, true);
}

void dispatcher::handle_request(connection& c, const dh::Value& v, const reply_target& t) {
    request r;
    if (!codec::parse_envelope(v, r)) {
        reply_error(c, t, r, {codec::code_invalid_request, "Invalid Request"});
        return;
    }
    if (r.method == method_id::unknown) {
        reply_error(c, t, r, {codec::code_method_not_found, "Method not found"});
        return;
    }
    try {
        dispatch(c, r, t);
    } catch (...) {
        reply_error(c, t, r, codec::error_from_current_exception());
    }
}

void dispatcher::dispatch(connection& c, const request& r, const reply_target& t) {
    if (r.params && !r.params->IsObject()) throw_invalid_params();
    auto& pool = parser_.pool();
    switch (r.method) {
        case method_id::list: {
            check_permission(c, r.method, {});
            const dh::Value* prefix = codec::find_param(r.params, "path");
            if (prefix && !prefix->IsString()) throw_invalid_params();
            auto nodes = db_.list(prefix ? codec::as_view(*prefix) : std::string_view{});
            dh::Value result(rapidjson::kArrayType);
            result.Reserve(static_cast<rapidjson::SizeType>(nodes.size()), pool);
            for (const auto& node : nodes) {
                dh::Value entry(rapidjson::kObjectType);
                const std::string path = node->get_path(0);
                const std::string info = node->get_info();
                entry.AddMember("path", dh::Value(path.c_str(), pool), pool);
                entry.AddMember("info", dh::Value(info.c_str(), pool), pool);
                result.PushBack(entry, pool);
            }
            reply(c, t, r, result);
            return;
        }
        case method_id::history: {
            check_permission(c, r.method, {});
            const dh::Value* limit = codec::find_param(r.params, "limit");
            if (limit && !limit->IsUint64()) throw_invalid_params();
            const auto history = db_.history(limit ? limit->GetUint64() : 100);
            reply(c, t, r, history);
            return;
        }
        default:
            if (!write_operation(c, r, t)) node_operation(c, r, t);
    }
}

void dispatcher::node_operation(connection& c, const request& r, const reply_target& t) {
    const dh::Value* path_param = codec::find_param(r.params, "path");
    if (!path_param || !path_param->IsString()) throw_invalid_params();
    const std::string_view path = codec::trim_slashes(codec::as_view(*path_param));
    check_permission(c, r.method, path);
    if (leaf_set_operation(c, r, t, path, codec::as_view(*path_param))) return;
    auto node = db_.find_leaf_node(path);
    if (!node)
        throw dh_error(codec::code_no_such_node,
                       "No such node: " + std::string(codec::as_view(*path_param)));
    const dh::Value* value = nullptr;
    if (r.method == method_id::set) {
        value = codec::find_param(r.params, "value");
        if (!value) throw_invalid_params();
    } else if (r.method == method_id::run) {
        value = codec::find_param(r.params, "value");
        if (!value) value = &null_value_;
    }
    bool async = node->is_async();
    std::unique_lock<std::mutex> sub_lock;
    if (!async && (r.method == method_id::subscribe || r.method == method_id::unsubscribe)) {
        // Never wait on the serving thread: when a worker holds the subscription lock, or a job
        // of this connection on this node is still queued, go behind it.
        sub_lock = std::unique_lock(c.subscription_mutex, std::try_to_lock);
        async = !sub_lock.owns_lock() || c.has_pending_jobs(node.get());
        if (async && sub_lock.owns_lock()) sub_lock.unlock();
    }
    if (async) {
        submit(c, r, t, std::move(node), path, value);
        return;
    }
    dh::Value result;
    try {
        perform(c, r.method, node, path, value, parser_.pool(), result, sub_lock, commits_);
    } catch (...) {
        if (changes_device(r.method)) {
            const auto e = codec::error_from_current_exception();
            audit(c, r.method, path, &e);
        }
        throw;
    }
    if (changes_device(r.method)) audit(c, r.method, path, nullptr);
    if (sub_lock.owns_lock()) sub_lock.unlock();
    reply(c, t, r, result);
}

std::unique_ptr<async_job> dispatcher::new_job(const request& r, const reply_target& t,
                                               std::string_view path) {
    auto job = std::make_unique<async_job>();
    job->method = r.method;
    job->path.assign(path);
    job->answer = r.answer;
    job->received = received_;
    if (r.id)
        job->args.AddMember("id", dh::Value(*r.id, job->args.GetAllocator()),
                            job->args.GetAllocator());
    job->target = t;
    if (t.batch) t.batch->pending.fetch_add(1, std::memory_order_relaxed);
    return job;
}

void dispatcher::submit(connection& c, const request& r, const reply_target& t,
                        std::shared_ptr<dh_db_leaf_node> node, std::string_view path,
                        const dh::Value* value) {
    auto job = new_job(r, t, path);
    job->node = std::move(node);
    auto& a = job->args.GetAllocator();
    if (value) job->args.AddMember("value", dh::Value(*value, a), a);
    c.submit(std::move(job));
}

void dispatcher::run_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job) {
    if (is_write_job(*job)) {
        run_write_job(c, std::move(job));
        return;
    }
    if (is_leaf_set_job(*job)) {
        run_leaf_set_job(c, std::move(job));
        return;
    }
    auto& args = job->args;
    auto& a = args.GetAllocator();
    const auto value = args.FindMember("value");
    dh::Value result;
    std::optional<rpc_error> error;
    try {
        std::unique_lock<std::mutex> sub_lock;
        perform(*c, job->method, job->node, job->path,
                value == args.MemberEnd() ? nullptr : &value->value, a, result, sub_lock, commits_);
    } catch (...) {
        error = codec::error_from_current_exception();
    }
    if (changes_device(job->method)) audit(*c, job->method, job->path, error ? &*error : nullptr);
    finish_job(c, std::move(job), result, error);
}

void dispatcher::finish_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job,
                            const dh::Value& result, const std::optional<rpc_error>& error) {
    count_request(job->method, !error, job->received);
    std::string text;
    if (job->answer) {
        codec::string_buffer sb;
        codec::json_writer w(sb);
        const auto id = job->args.FindMember("id");
        const dh::Value* id_value = id == job->args.MemberEnd() ? nullptr : &id->value;
        if (error)
            codec::write_error(sb, w, id_value, *error);
        else
            codec::write_result(sb, w, id_value, result);
        text.assign(sb.GetString(), sb.GetSize());
    }
    if (job->target.batch) {
        job->target.batch->slots[job->target.slot] = std::move(text);
        finish_batch(*job->target.batch, false);
    } else if (job->answer) {
        c->deliver(std::make_shared<const std::string>(std::move(text)));
    }
    c->job_finished();
    if (auto next = c->next_job(job->node.get())) post_(c, std::move(next));
}

void dispatcher::reply(connection& c, const reply_target& t, const request& r,
                       const dh::Value& result) {
    count_request(r.method, true, received_);
    if (!r.answer) return;
    codec::write_result(sb_, writer_, r.id, result);
    deliver_reply(c, t);
}

void dispatcher::reply_error(connection& c, const reply_target& t, const request& r,
                             const rpc_error& e) {
    count_request(r.method, false, received_);
    if (!r.answer) return;
    codec::write_error(sb_, writer_, r.id, e);
    deliver_reply(c, t);
}

void dispatcher::deliver_reply(connection& c, const reply_target& t) {
    const std::string_view text(sb_.GetString(), sb_.GetSize());
    if (t.batch)
        t.batch->slots[t.slot].assign(text);
    else
        c.append_response(text);
}

}  // namespace dh::server::detail
