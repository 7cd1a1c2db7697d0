#pragma once

#include <stdlib.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <rapidjson/pointer.h>

#include "dh_error.hpp"
#include "door.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"
#include "write_batch.hpp"

using namespace std::chrono_literals;

// The host-namespace prefix of every command, spelled out so that a changed prefix fails.
inline const std::string ns = "nsenter -m/1/ns/mnt -u/1/ns/uts -i/1/ns/ipc -n/1/ns/net ";

using texts = std::vector<std::string>;

// An executor that starts nothing. Every command is recorded with its argv, its options and its
// text (host::command_text); the latest rule whose needle the text or the standard input contains
// answers it (exit 0 and no output when none does).
class fake_executor : public host::executor {
  public:
    struct call {
        host::argv_t argv;
        host::options opts;
        std::string cmd;
        std::string input() const { return opts.input.value_or(""); }
    };
    struct reply {
        int status = 0;
        std::string output;
    };
    using rule = std::function<reply(const call&)>;

    void on(std::string needle, reply r) {
        on(std::move(needle), [r](const call&) { return r; });
    }
    void on(std::string needle, rule f) {
        std::lock_guard lock(mutex_);
        rules_.insert(rules_.begin(), {std::move(needle), std::move(f)});
    }
    std::vector<call> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    texts commands() const {
        texts out;
        for (const auto& c : calls()) out.push_back(c.cmd);
        return out;
    }
    // The standard input of every command whose text is `cmd`.
    texts inputs(const std::string& cmd) const {
        texts out;
        for (const auto& c : calls())
            if (c.cmd == cmd) out.push_back(c.input());
        return out;
    }
    // How many recorded commands contain `needle`.
    std::size_t count(std::string_view needle) const {
        std::size_t n = 0;
        for (const auto& c : calls()) n += c.cmd.find(needle) != std::string::npos;
        return n;
    }
    void clear() {
        std::lock_guard lock(mutex_);
        calls_.clear();
    }

    host::result run(const host::argv_t& argv, const host::options& opts) override {
        call c{argv, opts, host::command_text(argv, opts)};
        std::unique_lock lock(mutex_);
        calls_.push_back(c);
        auto it = std::find_if(rules_.begin(), rules_.end(), [&](const auto& r) {
            return c.cmd.find(r.first) != std::string::npos ||
                   c.input().find(r.first) != std::string::npos;
        });
        const rule f = it != rules_.end() ? it->second : rule();
        lock.unlock();
        const reply r = f ? f(c) : reply{};
        return {r.status, false, r.output};
    }

  private:
    mutable std::mutex mutex_;  // guards both lists
    std::vector<call> calls_;
    std::vector<std::pair<std::string, rule>> rules_;
};

// A temporary directory that stands for the device's filesystem root.
class temp_root {
  public:
    temp_root() {
        std::string templ = (std::filesystem::temp_directory_path() / "dh-root-XXXXXX").string();
        path_ = mkdtemp(templ.data());
    }
    ~temp_root() {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    const std::filesystem::path& path() const { return path_; }
    // The text of a file under the root, or "absent".
    std::string read(const std::string& device_path) const {
        std::ifstream in(path_ / std::filesystem::path(device_path).relative_path());
        if (!in) return "absent";
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    void write(const std::string& device_path, const std::string& text) const {
        const auto file = path_ / std::filesystem::path(device_path).relative_path();
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << text;
    }

  private:
    std::filesystem::path path_;
};

inline std::string to_json(const dh::Value& v) {
    return json_text(v);
}

inline Document parse(const std::string& json) {
    Document doc;
    doc.Parse(json.c_str());
    EXPECT_FALSE(doc.HasParseError()) << json;
    return doc;
}

// "<code> <message>" of the dh_error that f throws, or "no error".
template <typename F>
std::string error_of(F&& f) {
    try {
        f();
    } catch (const dh_error& e) {
        return std::to_string(e.code()) + " " + e.message();
    }
    return "no error";
}

// A file of tests/unit/data.
inline std::string data_file(const std::string& name) {
    std::ifstream in(std::string(UNIT_DATA_DIR) + "/" + name);
    EXPECT_TRUE(in) << name;
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

// A node's current value as compact JSON, "error <code> <message>", or "missing".
inline std::string read_node(dh_db& db, const std::string& path) {
    auto node = db.find_leaf_node(path);
    if (!node) return "missing";
    Document doc;
    dh::Value out;
    const auto error = error_of([&] { node->get(path, doc.GetAllocator(), out); });
    return error == "no error" ? to_json(out) : "error " + error;
}

// A handler whose host commands go to a fake executor and whose files lie under a temporary
// root. Exports of running and startup answer whatever document the test last gave; every import
// is recorded.
class handler_test : public testing::Test {
  protected:
    temp_root root;
    std::shared_ptr<fake_executor> fake = std::make_shared<fake_executor>();
    dh_db db;
    // Time moves only when a test advances it; scheduled work runs on the test's thread.
    dh::manual_scheduler sched;
    std::unique_ptr<sysrepo_device_handler> handler =
        std::make_unique<sysrepo_device_handler>(db, fake, sched, root.path());

    // data/running.json, a running configuration as the device holds it, with `edits` (JSON
    // pointer, JSON text) applied.
    static Document running_doc(std::vector<std::pair<std::string, std::string>> edits = {}) {
        Document doc = parse(data_file("running.json"));
        for (const auto& [pointer, json] : edits) {
            const Document value = parse(json);  // const: Set copies it into doc
            rapidjson::Pointer(pointer.c_str()).Set(doc, value, doc.GetAllocator());
        }
        return doc;
    }
    void running_is(const std::string& json) {
        fake->on("--export -f json -d running", fake_executor::reply{0, json});
        fake->on("--export -f json -d startup", fake_executor::reply{0, json});
        Document doc;
        doc.Parse(json.c_str());
        handler->datastore().note_startup(doc, doc);
    }
    void running_is(const Document& doc) { running_is(to_json(doc)); }

    // The documents fed to imports of datastore `ds`, in order.
    texts imports(const std::string& ds = "running") const {
        return fake->inputs(ns + "sysrepocfg --import -f json -d " + ds + " -t 30");
    }
    // Fails the test (an empty text does not parse) when nothing was imported.
    Document last_import(const std::string& ds = "running") {
        const auto all = imports(ds);
        return parse(all.empty() ? "" : all.back());
    }
    // Serves the last imported document as the running configuration.
    void keep_last_import() {
        const auto all = imports();
        ASSERT_FALSE(all.empty());
        running_is(all.back());
    }

    // Starts the handler on data/running.json and data/operational.json, without optical modules.
    void start_handler() {
        running_is(running_doc());
        fake->on("-d o -x /ietf-interfaces:interfaces",
                 fake_executor::reply{0, data_file("operational.json")});
        fake->on("cat /etc/version",
                 fake_executor::reply{0, "QMX QMX-RB-16E 2.3.1 -- build 20261101\n"});
        root.write("/etc/image/image_name.txt", " qmx-dh-container 1.0.0 \n");
        fake->on("ethtool", fake_executor::reply{256, ""});
        handler->start();
    }

    using updates = std::vector<std::pair<std::string, std::string>>;  // path, JSON value

    // Sets the nodes in one write batch, as set_many does: "ok", or the failed update's index
    // followed by its error as error_of() gives it.
    std::string write_together(const updates& list) {
        dh::write_batch batch;
        for (std::size_t i = 0; i < list.size(); ++i) {
            batch.begin_update(i);
            const Document value = parse(list[i].second);
            const auto error =
                error_of([&] { db.find_leaf_node(list[i].first)->set(list[i].first, value); });
            if (error != "no error") return std::to_string(i) + " " + error;
        }
        const auto error = error_of([&] { batch.commit(); });
        return error == "no error" ? "ok" : std::to_string(batch.failed_index()) + " " + error;
    }

    static const dh::Value* at(const dh::Value& doc, const std::string& pointer) {
        return rapidjson::Pointer(pointer.c_str()).Get(doc);
    }
    // The compact JSON at `pointer`, or "absent".
    static std::string json_at(const dh::Value& doc, const std::string& pointer) {
        const auto* v = at(doc, pointer);
        return v ? to_json(*v) : "absent";
    }
    // The element of `list` with this "name", or nullptr.
    static const dh::Value* named(const dh::Value* list, std::string_view name) {
        if (list)
            for (const auto& e : list->GetArray())
                if (e["name"].GetString() == name) return &e;
        return nullptr;
    }
    static const dh::Value* iface(const dh::Value& doc, std::string_view name) {
        return named(at(doc, "/ietf-interfaces:interfaces/interface"), name);
    }
    // The OSPF interface object `name` in area `area` of a configuration, or "absent". Every
    // OSPF entry and both "area" members (the instance area and the uplink areas) are searched.
    static std::string ospf_iface(const dh::Value& doc, const std::string& area,
                                  const std::string& name) {
        const auto* protocols =
            at(doc, "/ietf-routing:routing/control-plane-protocols/control-plane-protocol");
        if (!protocols) return "absent";
        for (const auto& p : protocols->GetArray()) {
            if (p["type"].GetString() != std::string("infix-routing:ospfv2")) continue;
            const auto& areas = p["ietf-ospf:ospf"]["areas"];
            for (auto m = areas.MemberBegin(); m != areas.MemberEnd(); ++m)
                for (const auto& a : m->value.GetArray())
                    if (const auto* i = named(&a["interfaces"]["interface"], name);
                        i && a["area-id"].GetString() == area)
                        return to_json(*i);
        }
        return "absent";
    }
};
