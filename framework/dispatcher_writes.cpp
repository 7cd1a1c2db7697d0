// Atomic multi-path writes (set_many), confirmed commits (set / set_many with confirm_timeout)
// and their confirmation.

#include <exception>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "dh_error.hpp"
#include "dispatcher.hpp"
#include "write_batch.hpp"

namespace dh::server::detail {

using codec::method_id;
using codec::request;
using codec::rpc_error;

namespace {

constexpr std::int64_t max_confirm_timeout = 3600;

// The failure of one update, with its place in the request.
struct failed_update {
    std::size_t index;
    std::exception_ptr cause;
};

[[noreturn]] void fail_update(std::size_t index, std::int32_t code, std::string message) {
    throw failed_update{index, std::make_exception_ptr(dh_error(code, std::move(message)))};
}

rpc_error error_of(const std::exception_ptr& cause) {
    try {
        std::rethrow_exception(cause);
    } catch (...) {
        return codec::error_from_current_exception();
    }
}

// The updates of a request, checked: every path names a leaf the caller may set and that can be
// part of a batch, no path comes twice.
struct update {
    std::string path;   // trimmed, as the node is named
    std::string given;  // as the request wrote it
    std::shared_ptr<dh_db_leaf_node> node;
    const dh::Value* value;
};

// Applies the updates in one write batch; the caller holds the write gate exclusively.
void apply_updates(const std::vector<update>& updates) {
    dh::write_batch batch;
    for (std::size_t i = 0; i < updates.size(); ++i) {
        batch.begin_update(i);
        try {
            updates[i].node->set(updates[i].path, *updates[i].value);
        } catch (...) {
            throw failed_update{i, std::current_exception()};
        }
    }
    try {
        batch.commit();
    } catch (...) {
        throw failed_update{batch.failed_index(), std::current_exception()};
    }
}

}  // namespace

bool dispatcher::is_write_job(const async_job& job) {
    return job.method == method_id::set_many || job.method == method_id::confirm ||
           (job.method == method_id::set && job.args.HasMember("updates"));
}

bool dispatcher::write_operation(connection& c, const request& r, const reply_target& t) {
    if (r.method != method_id::set_many && r.method != method_id::confirm &&
        r.method != method_id::set)
        return false;
    const dh::Value* timeout = codec::find_param(r.params, "confirm_timeout");
    if (r.method == method_id::set && !timeout) return false;

    if (r.method == method_id::confirm) {
        check_permission(c, r.method, {});
        const dh::Value* token = codec::find_param(r.params, "token");
        if (!token || !token->IsString()) throw_invalid_params();
        auto job = new_job(r, t, {});
        auto& a = job->args.GetAllocator();
        job->args.AddMember("token", dh::Value(*token, a), a);
        c.submit(std::move(job));
        return true;
    }
    if (timeout) {
        if (!timeout->IsInt64() || timeout->GetInt64() < 1 ||
            timeout->GetInt64() > max_confirm_timeout)
            throw_invalid_params();
        if (commits_.expired()) throw dh_error(-95, "Operation not supported");
    }
    // The updates as the request wrote them; a set with confirm_timeout is a batch of one.
    struct requested {
        std::string_view path;
        const dh::Value* value;
    };
    std::vector<requested> list;
    if (r.method == method_id::set) {
        const dh::Value* path = codec::find_param(r.params, "path");
        const dh::Value* value = codec::find_param(r.params, "value");
        if (!path || !path->IsString() || !value) throw_invalid_params();
        list.push_back({codec::as_view(*path), value});
    } else {
        check_permission(c, r.method, {});
        const dh::Value* updates = codec::find_param(r.params, "updates");
        if (!updates || !updates->IsArray() || updates->Empty()) throw_invalid_params();
        for (const auto& u : updates->GetArray()) {
            if (!u.IsObject()) throw_invalid_params();
            const auto path = u.FindMember("path");
            const auto value = u.FindMember("value");
            if (path == u.MemberEnd() || !path->value.IsString() || value == u.MemberEnd())
                throw_invalid_params();
            list.push_back({codec::as_view(path->value), &value->value});
        }
    }
    try {
        std::unordered_set<std::string_view> seen;
        for (std::size_t i = 0; i < list.size(); ++i) {
            const std::string_view given = list[i].path;
            const std::string_view path = codec::trim_slashes(given);
            try {
                check_permission(c, method_id::set, path);
            } catch (...) {
                throw failed_update{i, std::current_exception()};
            }
            auto node = db_.find_leaf_node(path);
            if (!node)
                fail_update(i, codec::code_no_such_node, "No such node: " + std::string(given));
            if (!seen.insert(path).second)
                fail_update(i, codec::code_invalid_params, "Invalid params");
            if (!node->batchable())
                fail_update(i, -95,
                            "Operation not supported in set_many or with confirm_timeout: " +
                                std::string(path));
        }
    } catch (const failed_update& f) {
        rpc_error e = error_of(f.cause);
        if (r.method == method_id::set_many) e.update.emplace(f.index, list[f.index].path);
        reply_error(c, t, r, e);
        return true;
    }

    auto job = new_job(r, t, {});
    auto& a = job->args.GetAllocator();
    dh::Value updates(rapidjson::kArrayType);
    for (const auto& u : list) {
        dh::Value one(rapidjson::kObjectType);
        one.AddMember("path",
                      dh::Value(u.path.data(), static_cast<rapidjson::SizeType>(u.path.size()), a),
                      a);
        one.AddMember("value", dh::Value(*u.value, a), a);
        updates.PushBack(one, a);
    }
    job->args.AddMember("updates", updates, a);
    if (timeout) job->args.AddMember("confirm_timeout", timeout->GetInt64(), a);
    c.submit(std::move(job));
    return true;
}

void dispatcher::run_write_job(const std::shared_ptr<connection>& c,
                               std::unique_ptr<async_job> job) {
    auto& args = job->args;
    auto& a = args.GetAllocator();
    dh::Value result;
    std::optional<rpc_error> error;
    std::vector<update> updates;
    std::string paths;
    if (const auto list = args.FindMember("updates"); list != args.MemberEnd())
        for (const auto& u : list->value.GetArray()) {
            const std::string_view given = codec::as_view(u["path"]);
            const std::string_view path = codec::trim_slashes(given);
            updates.push_back(
                {std::string(path), std::string(given), db_.find_leaf_node(path), &u["value"]});
            paths += (paths.empty() ? "" : ",") + std::string(path);
        }
    const auto commits = commits_.lock();
    try {
        if (job->method == method_id::confirm) {
            if (!commits) throw dh_error(-95, "Operation not supported");
            commits->confirm(codec::as_view(args["token"]));
        } else {
            const dh_db::acting_client acting(c->client().who());
            std::unique_lock gate(dh::write_batch::gate());
            if (const auto timeout = args.FindMember("confirm_timeout");
                timeout != args.MemberEnd()) {
                std::vector<std::shared_ptr<dh_db_leaf_node>> nodes;
                for (const auto& u : updates) nodes.push_back(u.node);
                if (!commits) throw dh_error(-95, "Operation not supported");
                const std::string token = commits->commit_confirmed(
                    nodes, std::chrono::seconds(timeout->value.GetInt64()),
                    [&] { apply_updates(updates); });
                result.SetObject();
                result.AddMember("token", dh::Value(token, a), a);
            } else {
                if (commits) commits->check_write_allowed();
                apply_updates(updates);
            }
        }
    } catch (const failed_update& f) {
        error = error_of(f.cause);
        if (job->method == method_id::set_many)
            error->update.emplace(f.index, updates[f.index].given);
    } catch (...) {
        error = codec::error_from_current_exception();
    }
    audit(*c, job->method, job->method == method_id::confirm ? "-" : paths,
          error ? &*error : nullptr);
    finish_job(c, std::move(job), result, error);
}

}  // namespace dh::server::detail
