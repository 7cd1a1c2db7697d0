#include "job_queue.hpp"

#include <boost/asio/post.hpp>

#include "connection.hpp"

namespace dh::server::detail {

void finish_batch(batch_state& b, bool on_serving_thread) {
    if (b.pending.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
    std::string out = codec::join_batch(b.slots);
    if (out.empty()) return;
    if (on_serving_thread)
        b.conn->append_response(out);
    else
        b.conn->deliver(std::make_shared<const std::string>(std::move(out)));
}

bool job_chains::admit(std::unique_ptr<async_job>& job) {
    std::lock_guard lock(mutex_);
    auto [it, fresh] = chains_.try_emplace(job->node.get());
    if (fresh) return true;
    it->second.push_back(std::move(job));
    return false;
}

bool job_chains::busy(const dh_db_leaf_node* node) {
    std::lock_guard lock(mutex_);
    return chains_.count(node) != 0;
}

std::unique_ptr<async_job> job_chains::next(const dh_db_leaf_node* node) {
    std::lock_guard lock(mutex_);
    auto it = chains_.find(node);
    if (it == chains_.end()) return nullptr;
    if (it->second.empty()) {
        chains_.erase(it);
        return nullptr;
    }
    auto job = std::move(it->second.front());
    it->second.pop_front();
    return job;
}

job_queue::job_queue(unsigned workers, runner run)
    : run_(std::move(run)), pool_(std::max(1u, workers)) {}

job_queue::~job_queue() {
    stop();
}

void job_queue::post(std::shared_ptr<connection> c, std::unique_ptr<async_job> job) {
    boost::asio::post(pool_, [this, c = std::move(c), job = std::move(job)]() mutable {
        run_(c, std::move(job));
    });
}

void job_queue::post(std::function<void()> work) {
    boost::asio::post(pool_, std::move(work));
}

void job_queue::stop() {
    pool_.stop();
    pool_.join();
}

}  // namespace dh::server::detail
