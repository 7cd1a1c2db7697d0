// The client library against the framework's real server, with two plain test nodes.

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "device_handler_api.hpp"
#include "dh_client.hpp"
#include "dh_session.hpp"

namespace dc = dh::client;
using namespace std::chrono_literals;

namespace {

rapidjson::Document json(const std::string& text) {
    rapidjson::Document d;
    d.Parse(text.c_str());
    return d;
}

// An integer leaf: read, write, subscribe; every write is an event and a history entry.
class number_node : public dh_db_event_node {
  public:
    number_node(dh_db& db, int value) : dh_db_event_node(db, {"test", "number"}), value_(value) {}

    void get(std::string_view, dh::Allocator&, dh::Value& out) override { out.SetInt(value()); }

    void set(std::string_view, const dh::Value& value) override {
        if (!value.IsInt()) throw json_value_conversion_error{"int", "other"};
        if (value.GetInt() < 0) throw dh_error(-34, "Numerical result out of range");
        {
            std::lock_guard lock(mutex_);
            value_ = value.GetInt();
        }
        send_event_impl(event(value.GetInt()));
        db().append_to_history(*this);
    }

    void subscribe(const std::shared_ptr<dh_session>& session, std::string_view path,
                   dh::Allocator& allocator, dh::Value& out,
                   std::unique_lock<std::mutex>& lock) override {
        dh_db_event_node::subscribe(session, path, allocator, out, lock);
        out.SetInt(value());
        send_event_to_session_impl(session, true, event(value()));
    }

    std::string get_info() override { return "test number (read,write,subscribe)"; }

  private:
    int value() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    dh::Document event(int v) const {
        auto e = create_value_changed_event();
        e.AddMember("value", v, e.GetAllocator());
        return e;
    }

    mutable std::mutex mutex_;
    int value_;
};

// A command on the worker pool that answers its input.
class echo_node : public dh_db_leaf_node {
  public:
    explicit echo_node(dh_db& db) : dh_db_leaf_node(db, {"test", "echo"}) {}
    void run(std::string_view, const dh::Value& in, dh::Allocator& allocator,
             dh::Value& out) override {
        out.CopyFrom(in, allocator);
    }
    bool is_async() override { return true; }
    bool write_returns_response() override { return true; }
    std::string get_info() override { return "test command"; }
};

class ClientServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        char pattern[] = "/tmp/dhserver-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        dir_ = pattern;
        api_ = std::make_unique<device_handler_api>(dir_, 0, true);
        api_->db.add_node(std::make_shared<number_node>(api_->db, 7));
        api_->db.add_node(std::make_shared<echo_node>(api_->db));
        serving_ = std::thread([this] { api_->start(); });
    }
    void TearDown() override {
        api_->stop();
        serving_.join();
        api_.reset();
        std::filesystem::remove_all(dir_);
    }

    dc::client connect() {
        dc::options opts;
        opts.timeout = 10s;
        return dc::client::unix_socket(api_->socket_path(), opts);
    }

    std::string dir_;
    std::unique_ptr<device_handler_api> api_;
    std::thread serving_;
};

TEST_F(ClientServerTest, DrivesNodesAndReceivesEvents) {
    auto watcher = connect();
    auto writer = connect();

    EXPECT_EQ(watcher.subscribe("test/number"), json("7"));
    auto initial = watcher.next_event(5s);
    ASSERT_TRUE(initial);
    EXPECT_EQ(initial->value, json("7"));

    writer.set("/test/number/", json("9"));
    EXPECT_EQ(writer.get("test/number"), json("9"));
    auto change = watcher.next_event(5s);
    ASSERT_TRUE(change);
    EXPECT_EQ(change->path, "test/number");
    EXPECT_EQ(change->type, "valueChanged");
    EXPECT_EQ(change->value, json("9"));
    EXPECT_GT(change->seq, initial->seq);

    EXPECT_EQ(writer.run("test/echo", json(R"({"a":[1,"x"]})")), json(R"({"a":[1,"x"]})"));
    EXPECT_EQ(writer.list("test"),
              json(R"([{"path":"test/echo","info":"test command"},)"
                   R"j({"path":"test/number","info":"test number (read,write,subscribe)"}])j"));
    auto history = writer.history(10);
    ASSERT_TRUE(history.IsArray());
    ASSERT_EQ(history.Size(), 1u);
    EXPECT_EQ(history[0]["value"], json("9"));
    EXPECT_EQ(writer.info("test/number")["description"], "test number (read,write,subscribe)");

    watcher.unsubscribe("test/number");
    writer.set("test/number", json("10"));
    EXPECT_FALSE(watcher.next_event(100ms));
}

TEST_F(ClientServerTest, ErrorsCarryCodesAndData) {
    auto c = connect();
    auto expect_error = [&](auto&& call, int code, const std::string& message) {
        try {
            call();
            ADD_FAILURE() << "no error, expected " << code;
            return dc::rpc_error(0, "", nullptr);
        } catch (const dc::rpc_error& e) {
            EXPECT_EQ(e.code(), code);
            EXPECT_EQ(e.message(), message);
            return e;
        }
    };
    expect_error([&] { c.get("no/leaf"); }, -32001, "No such node: no/leaf");
    expect_error([&] { c.set("test/number", json("-1")); }, -34, "Numerical result out of range");
    auto e = expect_error([&] { c.set("test/number", json(R"("x")")); }, -22,
                          "Invalid value type: expected int, got other");
    EXPECT_EQ(e.data(), json(R"({"expected":"int","actual":"other"})"));
    expect_error([&] { c.subscribe("test/echo"); }, -95, "Operation not supported");
    expect_error([&] { c.call("nonsense"); }, -32601, "Method not found");
    EXPECT_EQ(c.get("test/number"), json("7"));
}

TEST_F(ClientServerTest, SpeaksTcpToo) {
    auto c = dc::client::tcp("127.0.0.1", std::to_string(api_->tcp_port()));
    EXPECT_EQ(c.get("test/number"), json("7"));
}

}  // namespace
