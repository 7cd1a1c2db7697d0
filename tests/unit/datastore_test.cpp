#include "handler_fixture.hpp"
#include "metric_sample.hpp"

// The datastore service: what a write exports and imports, and that a failed write changes
// nothing and an acknowledged one is never undone.

namespace {

using Datastore = handler_test;

const std::string import_running = ns + "sysrepocfg --import -f json -d running -t 30";
const std::string import_startup = ns + "sysrepocfg --import -f json -d startup -t 30";

void add_marker(Document& doc, const char* name) {
    doc.AddMember(dh::Value(name, doc.GetAllocator()), dh::Value(true), doc.GetAllocator());
}

TEST_F(Datastore, AStartupOnlyEditSurvivesLaterWrites) {
    // While running and startup are equal, one export serves both imports.
    running_is(R"({"a:a":1})");
    handler->datastore().edit([](Document& doc) { add_marker(doc, "b:b"); });
    EXPECT_EQ(fake->commands(), (texts{ns + "sysrepocfg --export -f json -d running -t 30",
                                       import_running, import_startup}));
    EXPECT_EQ(imports("startup"), texts{R"({"a:a":1,"b:b":true})"});

    // A startup-only edit makes them differ.
    fake->clear();
    handler->datastore().edit_startup([](Document& doc) { add_marker(doc, "mode:m"); });
    fake->on("--export -f json -d startup", fake_executor::reply{0, imports("startup").back()});
    handler->datastore().edit([](Document& doc) { add_marker(doc, "ntp:n"); });
    EXPECT_EQ(imports("running"), texts{R"({"a:a":1,"ntp:n":true})"});
    EXPECT_EQ(last_import("startup"), parse(R"({"a:a":1,"mode:m":true,"ntp:n":true})"));
}

TEST_F(Datastore, AFailedWriteChangesNothing) {
    const auto imported = [](const char* ds, const char* outcome) {
        return metric_count("dh_datastore_imports_total",
                            {{"datastore", ds}, {"outcome", outcome}});
    };
    const double running_ok = imported("running", "ok"),
                 running_failed = imported("running", "failed"),
                 startup_failed = imported("startup", "failed");
    running_is(R"({"a:a":1})");
    // The edit refuses: nothing is imported.
    EXPECT_EQ(error_of([&] {
                  handler->datastore().edit([](Document&) { throw dh_error(-22, "refused"); });
              }),
              "-22 refused");
    EXPECT_TRUE(fake->count("--import") == 0);

    // Running refuses the document: startup is left alone.
    fake->on(import_running, fake_executor::reply{256, ""});
    EXPECT_EQ(
        error_of([&] { handler->datastore().edit([](Document& d) { add_marker(d, "b:b"); }); }),
        "256 Failed to call: " + import_running);
    EXPECT_TRUE(imports("startup").empty());

    // Startup refuses it: running gets back the document it had.
    fake->clear();
    fake->on(import_running, fake_executor::reply{0, ""});
    fake->on(import_startup, fake_executor::reply{256, ""});
    EXPECT_THROW(handler->datastore().edit([](Document& d) { add_marker(d, "b:b"); }), dh_error);
    EXPECT_EQ(imports("running"), (texts{R"({"a:a":1,"b:b":true})", R"({"a:a":1})"}));

    // Counted: the refused running import, the refused startup import, then the running import
    // and its rollback.
    EXPECT_EQ(imported("running", "failed"), running_failed + 1);
    EXPECT_EQ(imported("startup", "failed"), startup_failed + 1);
    EXPECT_EQ(imported("running", "ok"), running_ok + 2);
}

TEST_F(Datastore, OperationalDocumentsAreCachedOneSecondAndChecked) {
    fake->on("-d o -m ietf-interfaces", fake_executor::reply{0, R"({"i:i":{"n":1}})"});
    EXPECT_EQ(to_json(handler->datastore().cached_oper("ietf-interfaces")), R"({"i:i":{"n":1}})");
    sched.advance(999ms);
    handler->datastore().cached_oper("ietf-interfaces");
    EXPECT_EQ(fake->count("-m ietf-interfaces"), 1u);
    sched.advance(1ms);
    handler->datastore().cached_oper("ietf-interfaces");
    EXPECT_EQ(fake->count("-m ietf-interfaces"), 2u);
    // A write empties the cache.
    running_is("{}");
    handler->datastore().edit([](Document&) {});
    handler->datastore().cached_oper("ietf-interfaces");
    EXPECT_EQ(fake->count("-m ietf-interfaces"), 3u);

    fake->on("-m other", fake_executor::reply{0, "not json"});
    EXPECT_EQ(error_of([&] { handler->datastore().cached_oper("other"); }),
              "22 Invalid json in response");
}

}  // namespace
