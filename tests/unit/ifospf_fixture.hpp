#pragma once

#include <memory>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <rapidjson/pointer.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"
#include "fake_runner.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

// A handler whose host commands go to a fake runner; the running (and startup) export answers
// whatever document the test last gave, and every import is recorded.
class handler_test : public testing::Test {
  protected:
    fake_runner::guard fake;
    dh_db db;
    std::shared_ptr<sysrepo_device_handler> handler = std::make_shared<sysrepo_device_handler>(db);

    static std::string to_json(const dh::Value& v) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        v.Accept(writer);
        return buffer.GetString();
    }

    static Document parse(const std::string& json) {
        Document doc;
        doc.Parse(json.c_str());
        EXPECT_FALSE(doc.HasParseError()) << json;
        return doc;
    }

    template <typename F>
    static dh_error catch_dh_error(F&& f) {
        try {
            f();
        } catch (const dh_error& e) {
            return e;
        }
        ADD_FAILURE() << "no dh_error thrown";
        return dh_error(0, "");
    }

    void running_is(const std::string& json) {
        fake->on("--export -f json -d running", fake_runner::reply{0, json});
    }
    void startup_is(const std::string& json) {
        fake->on("--export -f json -d startup", fake_runner::reply{0, json});
    }

    // The documents fed to imports of datastore `ds` ("running" or "startup"), in order.
    std::vector<std::string> imports(const std::string& ds = "running") const {
        std::vector<std::string> out;
        for (const auto& c : fake->calls())
            if (c.kind == fake_runner::call::feed &&
                c.cmd.find("--import -f json -d " + ds) != std::string::npos)
                out.push_back(c.input);
        return out;
    }

    // The last document imported to running; fails the test when there was none.
    Document last_import() {
        auto all = imports();
        if (all.empty()) {
            ADD_FAILURE() << "nothing imported";
            return Document(rapidjson::kObjectType);
        }
        return parse(all.back());
    }

    // Feeds the last imported document back as the running configuration.
    void keep_last_import() {
        auto all = imports();
        ASSERT_FALSE(all.empty());
        running_is(all.back());
    }

    static const dh::Value* at(const dh::Value& doc, const std::string& pointer) {
        return rapidjson::Pointer(pointer.c_str()).Get(doc);
    }

    // The interface entry `name` of "ietf-interfaces:interfaces", or nullptr.
    static const dh::Value* iface(const dh::Value& doc, std::string_view name) {
        const auto* list = at(doc, "/ietf-interfaces:interfaces/interface");
        if (!list || !list->IsArray()) return nullptr;
        for (const auto& e : list->GetArray())
            if (e["name"].GetString() == name) return &e;
        return nullptr;
    }

    // A device configuration: lo, mgmt, br0, e1..e28 and the tunnel sub-interfaces, without
    // addresses; `extra` is appended to the top-level object (it starts with a comma).
    // Bridged ports and enabled tunnel sub-interfaces as named.
    static std::string device(const std::vector<std::string>& bridged = {},
                              const std::vector<std::string>& vlans_on = {},
                              const std::string& extra = "") {
        std::string list = R"({"name":"lo"},{"name":"mgmt"},{"name":"br0"})";
        for (auto name : sysrepo_common::OSPF_INTERFACES) {
            const bool in_br0 =
                std::find(bridged.begin(), bridged.end(), std::string(name)) != bridged.end();
            list +=
                fmt::format(R"(,{{"name":"{}","enabled":true{}}})", name,
                            in_br0 ? R"(,"infix-interfaces:bridge-port":{"bridge":"br0"})" : "");
        }
        for (const auto& tun : sysrepo_common::TUN_INTERFACES) {
            const bool on = std::find(vlans_on.begin(), vlans_on.end(), std::string(tun.name)) !=
                            vlans_on.end();
            list += fmt::format(R"(,{{"name":"{}","enabled":{}}})", tun.name, on);
        }
        return R"({"ietf-interfaces:interfaces":{"interface":[)" + list + "]}" + extra + "}";
    }
};
