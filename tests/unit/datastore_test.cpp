#include <string>

#include "handler_fixture.hpp"

namespace {

using Datastore = handler_test;

TEST_F(Datastore, ExportCommandTextsKeepTheDoubleBlankAndInvalidJsonThrowsOnlyThere) {
    fake->on("--export", fake_runner::reply{0, "{\n  \"m:a\": {\"x\": 1}\n}\n"});
    EXPECT_EQ(to_json(export_or_else_throw(datastore::running, "")), R"({"m:a":{"x":1}})");
    export_or_else_throw(datastore::factory_default, "-m 'ietf-interfaces'");
    get_ietf_ifaces_oper();
    get_ietf_ifaces_oper("e13.21");
    handler->export_data(false);
    handler->export_data(true);
    const std::string sysrepocfg = ns + " /bin/sysrepocfg --export -f json -d ";
    EXPECT_EQ(fake->commands(),
              (texts{sysrepocfg + "r ", sysrepocfg + "f -m 'ietf-interfaces'",
                     sysrepocfg + "o -x '/ietf-interfaces:interfaces'",
                     sysrepocfg + "o -x '/ietf-interfaces:interfaces/interface[name=\"e13.21\"]'",
                     ns + "sysrepocfg --export -f json -d running -t 30",
                     ns + "sysrepocfg --export -f json -d startup -t 30"}));

    for (const std::string output : {"sysrepocfg: not ready", "", "{\"a\": 1} trailing"}) {
        fake->on("--export", fake_runner::reply{0, output});
        log_capture logs;
        EXPECT_EQ(error_of([] { export_or_else_throw(datastore::operational, ""); }),
                  "22 Invalid json in response");
        EXPECT_EQ(logs.where("Invalid json response: " + output), texts{"3 export_or_else_throw"});
        EXPECT_TRUE(handler->export_data(false).IsNull());
    }
    fake->on("--export", fake_runner::reply{256, "{}"});
    EXPECT_EQ(error_of([] { export_or_else_throw(datastore::running, ""); }),
              "-1 Failed to call: " + sysrepocfg + "r ");
    EXPECT_EQ(error_of([&] { handler->export_data(true); }),
              "-1 Failed to call: " + ns + "sysrepocfg --export -f json -d startup -t 30");
}

TEST_F(Datastore, ImportWritesCompactJsonToRunningThenStartup) {
    Document doc = parse(R"({ "m:a" : { "n" : [ 1, 2.5, "x" ] } })");
    handler->import_data(doc, false);
    handler->import_data(doc, true);
    const auto running = ns + "sysrepocfg --import -f json -d running -t 30";
    const auto startup = ns + "sysrepocfg --import -f json -d startup -t 30";
    EXPECT_EQ(fake->commands(), (texts{running, startup, startup}));
    for (const auto& c : fake->calls()) {
        EXPECT_EQ(c.kind, fake_runner::call::feed);
        EXPECT_EQ(c.input, R"({"m:a":{"n":[1,2.5,"x"]}})");
    }

    // A refused running import leaves startup alone.
    fake->clear();
    fake->on("-d running", fake_runner::reply{256, ""});
    log_capture logs;
    EXPECT_EQ(error_of([&] { handler->import_data(doc, false); }),
              "256 Failed to call: " + running);
    EXPECT_EQ(fake->commands(), texts{running});
    EXPECT_EQ(logs.where(R"(Failed when trying to set: {"m:a":{"n":[1,2.5,"x"]}})"),
              texts{"3 import_module"});
}

TEST_F(Datastore, OperationalCacheServesCopiesUntilAnImportOrForOneSecond) {
    const std::string oper = ns + " /bin/sysrepocfg --export -f json -d o -m 'ietf-interfaces'";
    fake->on("-m 'ietf-interfaces'", fake_runner::reply{0, R"({"i:i":{"n":1}})"});
    auto first = handler->_cached_oper_get("ietf-interfaces");
    const auto exported = std::chrono::steady_clock::now();
    first["i:i"]["n"].SetInt(99);
    EXPECT_EQ(to_json(handler->_cached_oper_get("ietf-interfaces")), R"({"i:i":{"n":1}})");
    EXPECT_EQ(fake->count(oper), 1u);
    // Every call is a cache hit until the entry goes stale.
    EXPECT_TRUE(eventually(
        [&] {
            handler->_cached_oper_get("ietf-interfaces");
            return fake->count(oper) == 2;
        },
        3s));
    EXPECT_GE(std::chrono::steady_clock::now() - exported, 1000ms);

    Document doc = parse(R"({"m:a":1})");
    handler->import_data(doc, false);
    handler->_cached_oper_get("ietf-interfaces");
    EXPECT_EQ(fake->count(oper), 3u);
    // A failed import empties the cache as well, and a failed export keeps nothing.
    fake->on("--import", fake_runner::reply{256, ""});
    EXPECT_THROW(handler->import_data(doc, true), dh_error);
    handler->_cached_oper_get("ietf-interfaces");
    EXPECT_EQ(fake->count(oper), 4u);
    fake->on("-m 'other'", fake_runner::reply{0, "garbage"});
    EXPECT_THROW(handler->_cached_oper_get("other"), dh_error);
    EXPECT_THROW(handler->_cached_oper_get("other"), dh_error);
    EXPECT_EQ(fake->count("-m 'other'"), 2u);
}

}  // namespace
