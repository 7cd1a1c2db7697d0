#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "commit_service.hpp"
#include "datastore.hpp"
#include "dh_api/dh_api.hpp"
#include "dh_db.hpp"
#include "scheduler.hpp"

// The value of data/commitStatus: {"state": "idle" | "pending" | "confirmed" | "rolledBack", ...}.
using commit_status_node =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<Document>>;

// Confirmed commits: a set or set_many with confirm_timeout is applied at once and rolled back
// when no confirm names its token in time. Before the change is applied, the running and startup
// documents and the touched parameters' values are captured and written to `state_file`, so that
// a commit still pending when the daemon stops is rolled back at the next start, before serving.
// A rollback writes the old values back through the parameters' own setters, in one write batch
// (so the units' models and host effects follow, and the parameters send events), and imports
// the captured documents instead of the batch's edited ones.
class confirmed_commits final : public dh::commit_service {
  public:
    confirmed_commits(dh_db& db, datastore_service& ds, dh::scheduler& sched,
                      std::filesystem::path state_file);
    ~confirmed_commits() override;
    confirmed_commits(const confirmed_commits&) = delete;
    confirmed_commits& operator=(const confirmed_commits&) = delete;

    // data/commitStatus, registered by the node map; set to "idle" here.
    void attach_status(std::shared_ptr<commit_status_node> node);
    // At start-up, before serving: rolls back the commit an earlier run left pending, if any,
    // and removes its file.
    void recover();

    void check_write_allowed() override;
    std::string commit_confirmed(const std::vector<std::shared_ptr<dh_db_leaf_node>>& nodes,
                                 std::chrono::seconds timeout,
                                 const std::function<void()>& apply) override;
    void confirm(std::string_view token) override;

  private:
    // What a rollback needs; also the content of the state file.
    struct pending {
        std::string token;
        std::int64_t timeout = 0;
        Document running;
        Document startup;
        // Each touched parameter's path and its value before the commit (null: it had none).
        std::vector<std::pair<std::string, Document>> values;
    };

    void save(const pending& p) const;
    std::optional<pending> load() const;
    void remove_file() const;
    // At the timeout: rolls back the commit of `token` if it is still pending.
    void expire(const std::string& token);
    // The write gate held exclusively; mutex_ not held.
    void roll_back(const pending& p, std::string_view reason);
    void publish(std::string_view state, const pending* p, std::string_view reason = {});

    dh_db& db_;
    datastore_service& ds_;
    dh::scheduler& sched_;
    const std::filesystem::path file_;
    std::shared_ptr<commit_status_node> status_;

    // Guards pending_ and timer_; never held while a write or a rollback runs.
    std::mutex mutex_;
    std::optional<pending> pending_;
    std::optional<dh::scheduler::task_id> timer_;
};
