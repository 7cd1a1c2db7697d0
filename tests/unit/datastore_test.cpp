#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "log_capture.hpp"
#include "sysrepo_device_handler.hpp"

namespace {

const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

std::string to_json(const dh::Value& v) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    v.Accept(writer);
    return buffer.GetString();
}

template <typename F>
dh_error catch_dh_error(F&& f) {
    try {
        f();
    } catch (const dh_error& e) {
        return e;
    }
    ADD_FAILURE() << "no dh_error thrown";
    return dh_error(0, "");
}

class Datastore : public testing::Test {
  protected:
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);

    std::size_t count(const std::string& needle) {
        std::size_t n = 0;
        for (auto& c : fake->commands())
            if (c.find(needle) != std::string::npos) ++n;
        return n;
    }
};

TEST_F(Datastore, ExportCommandTextsKeepTheDoubleBlank) {
    fake->on("--export", fake_runner::reply{0, "{\n  \"m:a\": {\"x\": 1}\n}\n"});
    fake->clear();

    auto doc = export_or_else_throw(datastore::running, "");
    EXPECT_EQ(to_json(doc), R"({"m:a":{"x":1}})");
    export_or_else_throw(datastore::factory_default, "-m 'ietf-interfaces'");
    get_ietf_ifaces_oper();
    get_ietf_ifaces_oper("e13.21");
    handler->export_data(false);
    handler->export_data(true);

    const std::vector<std::string> expected = {
        ns + " /bin/sysrepocfg --export -f json -d r ",
        ns + " /bin/sysrepocfg --export -f json -d f -m 'ietf-interfaces'",
        ns + " /bin/sysrepocfg --export -f json -d o -x '/ietf-interfaces:interfaces'",
        ns + " /bin/sysrepocfg --export -f json -d o "
             "-x '/ietf-interfaces:interfaces/interface[name=\"e13.21\"]'",
        ns + "sysrepocfg --export -f json -d running -t 30",
        ns + "sysrepocfg --export -f json -d startup -t 30",
    };
    EXPECT_EQ(fake->commands(), expected);
}

TEST_F(Datastore, InvalidJsonThrowsFromExportOrElseThrowOnly) {
    for (const char* output : {"sysrepocfg: not ready", "", "{\"a\": 1} trailing"}) {
        fake->on("--export", fake_runner::reply{0, output});
        log_capture logs;
        auto e = catch_dh_error([] { export_or_else_throw(datastore::operational, ""); });
        EXPECT_EQ(e.code(), 22) << output;
        EXPECT_EQ(e.message(), "Invalid json in response");
        auto recs = logs.find("Invalid json response: " + std::string(output));
        ASSERT_EQ(recs.size(), 1u) << output;
        EXPECT_EQ(recs[0].severity, 3);
        EXPECT_EQ(recs[0].channel, "export_or_else_throw");

        Document doc;
        EXPECT_NO_THROW(doc = handler->export_data(false));
        EXPECT_TRUE(doc.IsNull());
    }
}

TEST_F(Datastore, ExportFailurePassesExecErrorThrough) {
    fake->on("--export", fake_runner::reply{256, "{}"});
    auto e = catch_dh_error([] { export_or_else_throw(datastore::running, ""); });
    EXPECT_EQ(e.code(), -1);
    EXPECT_EQ(e.message(), "Failed to call: " + ns + " /bin/sysrepocfg --export -f json -d r ");
    EXPECT_THROW(handler->export_data(true), dh_error);
}

TEST_F(Datastore, ImportWritesCompactJsonToRunningThenStartup) {
    Document doc;
    doc.Parse(R"({ "m:a" : { "n" : [ 1, 2.5, "x" ] } })");
    handler->import_data(doc, false);
    handler->import_data(doc, true);

    auto calls = fake->calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[0].cmd, ns + "sysrepocfg --import -f json -d running -t 30");
    EXPECT_EQ(calls[1].cmd, ns + "sysrepocfg --import -f json -d startup -t 30");
    EXPECT_EQ(calls[2].cmd, ns + "sysrepocfg --import -f json -d startup -t 30");
    for (auto& c : calls) {
        EXPECT_EQ(c.kind, fake_runner::call::feed);
        EXPECT_EQ(c.input, R"({"m:a":{"n":[1,2.5,"x"]}})");
    }
}

TEST_F(Datastore, FailedRunningImportLeavesStartupAlone) {
    fake->on("-d running", fake_runner::reply{256, ""});
    Document doc;
    doc.Parse(R"({"m:a":1})");
    log_capture logs;
    auto e = catch_dh_error([&] { handler->import_data(doc, false); });
    EXPECT_EQ(e.code(), 256);
    EXPECT_EQ(e.message(),
              "Failed to call: " + ns + "sysrepocfg --import -f json -d running -t 30");
    EXPECT_EQ(count("-d startup"), 0u);
    auto recs = logs.find("Failed when trying to set: {\"m:a\":1}");
    ASSERT_EQ(recs.size(), 1u);
    EXPECT_EQ(recs[0].severity, 3);
    EXPECT_EQ(recs[0].channel, "import_module");
}

TEST_F(Datastore, CacheServesDeepCopiesUntilAnImport) {
    fake->on("-d o -m 'ietf-interfaces'",
             fake_runner::reply{0, R"({"ietf-interfaces:interfaces":{"n":1}})"});
    const std::string oper_cmd = ns + " /bin/sysrepocfg --export -f json -d o -m 'ietf-interfaces'";

    auto first = handler->_cached_oper_get("ietf-interfaces");
    first["ietf-interfaces:interfaces"]["n"].SetInt(99);
    auto second = handler->_cached_oper_get("ietf-interfaces");
    EXPECT_EQ(to_json(second), R"({"ietf-interfaces:interfaces":{"n":1}})");
    second["ietf-interfaces:interfaces"]["n"].SetInt(98);
    EXPECT_EQ(to_json(handler->_cached_oper_get("ietf-interfaces")),
              R"({"ietf-interfaces:interfaces":{"n":1}})");
    EXPECT_EQ(count(oper_cmd), 1u);

    Document doc;
    doc.Parse(R"({"m:a":1})");
    handler->import_data(doc, false);
    handler->_cached_oper_get("ietf-interfaces");
    EXPECT_EQ(count(oper_cmd), 2u);

    // A failed import empties the cache as well.
    fake->on("--import", fake_runner::reply{256, ""});
    EXPECT_THROW(handler->import_data(doc, true), dh_error);
    handler->_cached_oper_get("ietf-interfaces");
    EXPECT_EQ(count(oper_cmd), 3u);
}

TEST_F(Datastore, CacheKeepsOldEntryOnFailedExportAndExpiresAfterOneSecond) {
    fake->on("-m 'ietf-interfaces'", fake_runner::reply{0, R"({"v":1})"});
    handler->_cached_oper_get("ietf-interfaces");
    const auto exported = std::chrono::steady_clock::now();

    // Poll until the entry goes stale; every call before that is a cache hit.
    const auto deadline = exported + std::chrono::seconds(3);
    while (count("-m 'ietf-interfaces'") == 1 && std::chrono::steady_clock::now() < deadline) {
        handler->_cached_oper_get("ietf-interfaces");
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    EXPECT_EQ(count("-m 'ietf-interfaces'"), 2u);
    EXPECT_GE(std::chrono::steady_clock::now() - exported, std::chrono::milliseconds(1000));

    fake->on("-m 'other'", fake_runner::reply{0, "garbage"});
    EXPECT_THROW(handler->_cached_oper_get("other"), dh_error);
    EXPECT_THROW(handler->_cached_oper_get("other"), dh_error);
    EXPECT_EQ(count("-m 'other'"), 2u);
}

}  // namespace
