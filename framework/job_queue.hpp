#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/asio/thread_pool.hpp>

#include "dh_node.hpp"
#include "dh_types.hpp"
#include "rpc_codec.hpp"

namespace dh::server::detail {

class connection;

// The responses of one batch, collected from the serving thread and the workers.
struct batch_state {
    batch_state(std::shared_ptr<connection> c, std::size_t n) : conn(std::move(c)), slots(n) {}

    std::shared_ptr<connection> conn;
    // One response text per element; empty for notifications.
    std::vector<std::string> slots;
    // Elements not answered yet, plus one held by the serving thread while it dispatches.
    std::atomic<std::size_t> pending{1};
};

// Counts one element of the batch as answered; the last one sends the joined answer.
void finish_batch(batch_state& b, bool on_serving_thread);

// Where a response goes: the connection's output, or a slot of a batch.
struct reply_target {
    std::shared_ptr<batch_state> batch;
    std::size_t slot = 0;
};

// A node operation handed to the workers, with its own copies of what it needs of the request.
struct async_job {
    std::shared_ptr<dh_db_leaf_node> node;
    codec::method_id method = codec::method_id::unknown;
    std::string path;
    dh::Document args{rapidjson::kObjectType};  // "id" and "value", where the request has them
    bool answer = true;
    reply_target target;
    // Arrival of the request, for the latency the metrics count.
    std::chrono::steady_clock::time_point received;
};

// The jobs of one connection per node: while one runs, later ones on the same node wait behind
// it, so that one client's operations on one node happen in the order they arrived.
class job_chains {
  public:
    // True when `job` may start now; otherwise it was queued behind the running one.
    bool admit(std::unique_ptr<async_job>& job);
    bool busy(const dh_db_leaf_node* node);
    // The job to run after one on `node` finished, or null (the node is then free).
    std::unique_ptr<async_job> next(const dh_db_leaf_node* node);

  private:
    std::mutex mutex_;
    std::unordered_map<const dh_db_leaf_node*, std::deque<std::unique_ptr<async_job>>> chains_;
};

// The worker threads that run node operations which may block.
class job_queue {
  public:
    // `run` carries out one job; it is called on a worker.
    using runner =
        std::function<void(const std::shared_ptr<connection>&, std::unique_ptr<async_job>)>;

    job_queue(unsigned workers, runner run);
    ~job_queue();

    void post(std::shared_ptr<connection> c, std::unique_ptr<async_job> job);
    void post(std::function<void()> work);
    // Lets running jobs finish and drops the queued ones.
    void stop();

  private:
    const runner run_;
    boost::asio::thread_pool pool_;
};

}  // namespace dh::server::detail
