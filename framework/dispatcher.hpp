#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

#include "commit_service.hpp"
#include "connection.hpp"
#include "dh_db.hpp"
#include "job_queue.hpp"
#include "rpc_codec.hpp"

namespace dh::server::detail {

// Shared by the dispatcher's files.
[[noreturn]] void throw_invalid_params();
// The method's name in metrics and in the audit log.
const char* method_name(codec::method_id m);
// Counts a request that ended in the metrics, with its time since `received`.
void count_request(codec::method_id m, bool ok, std::chrono::steady_clock::time_point received);
// One audit record for each write that was allowed (set, run, set_many, confirm), after it
// ended.
void audit(const connection& c, codec::method_id m, std::string_view path,
           const codec::rpc_error* failure);

// From request lines to node operations: parses each line, checks the envelope and the params,
// carries out immediate operations at once and hands those of slow nodes to the workers, and
// writes the answers. handle_line runs on the serving thread; run_job on a worker.
class dispatcher {
  public:
    using job_poster = std::function<void(std::shared_ptr<connection>, std::unique_ptr<async_job>)>;

    // `admin_only`: paths whose set or run only admins may call.
    dispatcher(dh_db& db, unsigned max_depth, std::vector<std::string> admin_only, job_poster post);

    void handle_line(connection& c, const char* line, std::size_t len);
    void run_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job);
    // Set once, before serving starts. Held weakly: the program owns it.
    void set_commit_service(std::weak_ptr<dh::commit_service> commits) {
        commits_ = std::move(commits);
    }

  private:
    void handle_batch(connection& c, codec::request_document& doc);
    void handle_request(connection& c, const dh::Value& v, const reply_target& t);
    void dispatch(connection& c, const codec::request& r, const reply_target& t);
    void node_operation(connection& c, const codec::request& r, const reply_target& t);
    // Raises -32003 when the client's role does not allow the call.
    void check_permission(const connection& c, codec::method_id m, std::string_view path) const;
    // A worker job for request `r` on `path`, answered to `t` (counted in its batch).
    std::unique_ptr<async_job> new_job(const codec::request& r, const reply_target& t,
                                       std::string_view path);
    void submit(connection& c, const codec::request& r, const reply_target& t,
                std::shared_ptr<dh_db_leaf_node> node, std::string_view path,
                const dh::Value* value);
    void reply(connection& c, const reply_target& t, const codec::request& r,
               const dh::Value& result);
    void reply_error(connection& c, const reply_target& t, const codec::request& r,
                     const codec::rpc_error& e);
    void deliver_reply(connection& c, const reply_target& t);
    // Answers a job that ran on a worker and starts the next one of its node.
    void finish_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job,
                    const dh::Value& result, const std::optional<codec::rpc_error>& error);

    // set_many, set with confirm_timeout, and confirm (dispatcher_writes.cpp). False when the
    // request is none of these.
    bool write_operation(connection& c, const codec::request& r, const reply_target& t);
    static bool is_write_job(const async_job& job);
    void run_write_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job);

    // Pattern reads and subscriptions, and subscriptions with since_seq or heartbeat
    // (dispatcher_leaves.cpp). False when the request is none of these.
    bool leaf_set_operation(connection& c, const codec::request& r, const reply_target& t,
                            std::string_view path, std::string_view given_path);
    // Whether a job queued by leaf_set_operation is one; run_leaf_set_job carries it out.
    static bool is_leaf_set_job(const async_job& job);
    void run_leaf_set_job(const std::shared_ptr<connection>& c, std::unique_ptr<async_job> job);
    // The leaves a pattern request covers: every match for get, those that can be subscribed
    // to for subscribe and unsubscribe. Raises -32001 or -95 when none is left.
    std::vector<std::shared_ptr<dh_db_leaf_node>> pattern_leaves(codec::method_id m,
                                                                 const dh::path_pattern& p,
                                                                 std::string_view given) const;

    dh_db& db_;
    const std::vector<std::string> admin_only_;
    const job_poster post_;
    // Serving thread only: the parser and writer state reused for every line.
    codec::line_parser parser_;
    // Arrival of the line being handled on the serving thread.
    std::chrono::steady_clock::time_point received_;
    codec::string_buffer sb_;
    codec::json_writer writer_;
    const dh::Value null_value_{};
    std::weak_ptr<dh::commit_service> commits_;
};

}  // namespace dh::server::detail
