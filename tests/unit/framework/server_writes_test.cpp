#include <mutex>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "commit_service.hpp"
#include "server_test_support.hpp"
#include "write_batch.hpp"

// set_many and confirmed commits through the server: refusals before anything runs, and the
// program's commit service behind confirm_timeout and confirm. That a batch is all or nothing is
// the batch write tests' (tests/unit/batch_write_test.cpp).

namespace server_test {

// A unit whose setters keep their change on the host as an effect.
struct unit {
    void set_text(std::string_view name, const std::string& value) {
        dh::write_batch::after_commit([this, what = fmt::format("{}={}", name, value)] {
            std::lock_guard lock(mutex);
            effects.push_back(what);
        });
    }
    void set_number(int) {}

    std::mutex mutex;
    std::vector<std::string> effects;
};

// Confirmed commits as a program keeps them, reduced to what the server hands over.
struct fake_commits : dh::commit_service {
    void check_write_allowed() override {
        std::lock_guard lock(mutex);
        if (pending) throw dh_error(-16, "Pending");
    }
    std::string commit_confirmed(const std::vector<std::shared_ptr<dh_db_leaf_node>>& nodes,
                                 std::chrono::seconds timeout,
                                 const std::function<void()>& apply) override {
        apply();
        std::lock_guard lock(mutex);
        for (const auto& n : nodes) committed += n->get_path(0) + " ";
        committed += std::to_string(timeout.count());
        pending = true;
        return "t1";
    }
    void confirm(std::string_view token) override {
        std::lock_guard lock(mutex);
        if (token != "t1") throw dh_error(-22, "Unknown commit token");
        pending = false;
    }

    std::mutex mutex;
    bool pending = false;
    std::string committed;
};

namespace {

struct server_writes : server_fixture {
    void before_start() override {
        s.srv.set_commit_service(commits);
        for (const char* name : {"a", "b"})
            dh::api::config_param<&unit::set_text>::create(s.db, fmt::format("config/{}", name),
                                                           owner, {}, name)
                ->allow_in_batches();
        dh::api::config_param<&unit::set_number>::create(s.db, "config/n", owner, {})
            ->allow_in_batches();
    }

    std::vector<std::string> effects() {
        std::lock_guard lock(owner->mutex);
        return owner->effects;
    }

    std::shared_ptr<unit> owner = std::make_shared<unit>();
    std::shared_ptr<fake_commits> commits = std::make_shared<fake_commits>();
};

TEST_F(server_writes, RefusalsComeBeforeAnythingRuns) {
    // The server holds the program's commit service weakly; without it there are no confirmed
    // commits.
    commits.reset();
    auto c = s.connect();
    const std::pair<std::string, std::string> refused[] = {
        {R"({"updates":[]})", R"({"code":-32602,"message":"Invalid params"})"},
        {R"({"updates":[{"path":"config/a"}]})", R"({"code":-32602,"message":"Invalid params"})"},
        {R"({"updates":[{"path":"config/a","value":"x"},{"path":"no/leaf","value":1}]})",
         R"({"code":-32001,"message":"No such node: no/leaf","data":{"index":1,"path":"no/leaf"}})"},
        {R"({"updates":[{"path":"config/a","value":"x"},{"path":"/config/a","value":"y"}]})",
         R"({"code":-32602,"message":"Invalid params","data":{"index":1,"path":"/config/a"}})"},
        {R"({"updates":[{"path":"config/ntp/server","value":"x"}]})",
         R"({"code":-95,"message":"Operation not supported in set_many or with )"
         R"(confirm_timeout: config/ntp/server","data":{"index":0,"path":"config/ntp/server"}})"},
        {R"({"updates":[{"path":"config/a","value":"x"},{"path":"config/n","value":"x"}]})",
         R"({"code":-22,"message":"Invalid value type: expected int, got string","data":)"
         R"({"expected":"int","actual":"string","index":1,"path":"config/n"}})"},
        {R"({"updates":[{"path":"config/a","value":"x"}],"confirm_timeout":3601})",
         R"({"code":-32602,"message":"Invalid params"})"},
        {R"({"updates":[{"path":"config/a","value":"x"}],"confirm_timeout":5})",
         R"({"code":-95,"message":"Operation not supported"})"}};
    for (const auto& [params, error] : refused)
        EXPECT_EQ(result(c, "set_many", params), error) << params;
    EXPECT_EQ(result(c, "confirm", R"({"token":"t1"})"),
              R"({"code":-95,"message":"Operation not supported"})");
    EXPECT_TRUE(effects().empty());
    EXPECT_EQ(result(c, "get", R"({"path":"config/a"})"), "null");
}

TEST_F(server_writes, ConfirmedCommitsGoThroughTheProgramsService) {
    auto c = s.connect();
    EXPECT_EQ(result(c, "set", R"({"path":"config/a","value":"x","confirm_timeout":30})"),
              R"({"token":"t1"})");
    EXPECT_EQ(commits->committed, "config/a 30");
    EXPECT_EQ(effects(), std::vector<std::string>{"a=x"});

    // Every other write waits for the confirmation.
    const std::pair<const char*, const char*> writes[] = {
        {"set", R"({"path":"config/a","value":"y"})"},
        {"set_many", R"({"updates":[{"path":"config/b","value":"y"}]})"},
        {"run", R"({"path":"command/echo"})"}};
    for (const auto& [method, params] : writes)
        EXPECT_EQ(result(c, method, params), R"({"code":-16,"message":"Pending"})") << method;
    EXPECT_EQ(result(c, "confirm", R"({"token":"t2"})"),
              R"({"code":-22,"message":"Unknown commit token"})");
    EXPECT_EQ(result(c, "confirm", R"({"token":"t1"})"), "null");
    EXPECT_EQ(
        result(c, "set_many",
               R"({"updates":[{"path":"config/a","value":"y"},{"path":"config/b","value":"z"}]})"),
        "null");
    EXPECT_EQ(effects(), (std::vector<std::string>{"a=x", "a=y", "b=z"}));
}

}  // namespace
}  // namespace server_test
