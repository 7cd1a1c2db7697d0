#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

class dh_db_leaf_node;

namespace dh {

// Confirmed commits: a write that is rolled back unless it is confirmed in time. The program
// keeps them (it holds the configuration they restore); the server calls it with the write gate
// (write_batch::gate()) held, shared around check_write_allowed() and exclusively around
// commit_confirmed().
class commit_service {
  public:
    virtual ~commit_service() = default;

    // Raises dh_error while a commit awaits confirmation: no other write may run meanwhile.
    virtual void check_write_allowed() = 0;
    // Carries out `apply` (the writes of `nodes`, made in one write batch) as a commit that is
    // rolled back after `timeout` unless confirm() names the token answered here. When `apply`
    // fails, its failure is rethrown and nothing awaits confirmation.
    virtual std::string commit_confirmed(const std::vector<std::shared_ptr<dh_db_leaf_node>>& nodes,
                                         std::chrono::seconds timeout,
                                         const std::function<void()>& apply) = 0;
    // Keeps the pending commit that `token` names; dh_error when none does.
    virtual void confirm(std::string_view token) = 0;
};

}  // namespace dh
