#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include <rapidjson/document.h>

// A small synchronous client of the device-handler protocol: newline-delimited JSON-RPC 2.0 over
// a Unix socket or TCP. One client is one connection and is used from one thread at a time.
namespace dh::client {

// Base of every failure the client reports.
class client_error : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;
};

// The connection could not be opened, broke, or the server sent something that is not protocol.
class connection_error : public client_error {
  public:
    using client_error::client_error;
};

// The server did not answer (or accept the connection) in time. The connection stays usable: a
// late response is recognised by its id and dropped.
class timeout_error : public connection_error {
  public:
    using connection_error::connection_error;
};

// The server answered a request with a JSON-RPC error object.
class rpc_error : public client_error {
  public:
    rpc_error(int code, std::string message, const rapidjson::Value* data);

    int code() const noexcept { return code_; }
    const std::string& message() const noexcept { return message_; }
    // The error's "data" member; null when the server sent none.
    const rapidjson::Value& data() const noexcept { return *data_; }
    bool has_data() const noexcept { return !data_->IsNull(); }

  private:
    int code_;
    std::string message_;
    // Shared so that the exception stays cheaply copyable.
    std::shared_ptr<const rapidjson::Document> data_;
};

// One "event" notification: {"path","type","value","seq","time"}. The "sync" and "heartbeat"
// notifications of resumed subscriptions and heartbeats come as events too, with that type, no
// path and no value: seq, and `complete` (sync) or `time` (heartbeat).
struct event {
    std::string path;
    std::string type;
    std::uint64_t seq = 0;
    std::string time;
    rapidjson::Document value;
    bool complete = true;
};

// Optional members of a subscribe: replay the events after a seq, ask for heartbeats.
struct subscribe_options {
    std::optional<std::uint64_t> since_seq;
    std::optional<unsigned> heartbeat;
};

struct options {
    // Limit for connecting and for each call.
    std::chrono::milliseconds timeout{std::chrono::seconds(60)};
    // Longest line accepted from the server; answers to `list` and `history` can be long.
    std::size_t max_line_size = 64u << 20;
};

// Files of a TLS client: its certificate (chain) and key, and the CA that signed the server's
// certificate, all PEM.
struct tls_files {
    std::string cert;
    std::string key;
    std::string ca;
};

class client {
  public:
    // Connects to a Unix stream socket.
    static client unix_socket(const std::string& path, const options& opts = {});
    // Connects to host:port over TCP; host is a name, an IPv4 or an IPv6 address (brackets
    // allowed). Every address the name resolves to is tried in turn.
    static client tcp(const std::string& host, const std::string& port, const options& opts = {});
    // Connects to host:port over TCP and TLS (1.2 or later), showing the client certificate and
    // checking the server's against the CA and against `host`.
    static client tls(const std::string& host, const std::string& port, const tls_files& files,
                      const options& opts = {});

    client(client&&) noexcept;
    client& operator=(client&&) noexcept;
    ~client();

    // Sends a request with the next id and waits for its response. Events that arrive meanwhile
    // are queued for next_event(); responses to earlier, timed-out requests are dropped.
    // Throws rpc_error for an error response, connection_error / timeout_error otherwise.
    rapidjson::Document call(std::string_view method, const rapidjson::Value& params);
    rapidjson::Document call(std::string_view method);

    // Sends a notification (a request without id): the server carries it out and never answers.
    void notify(std::string_view method, const rapidjson::Value& params);

    // The next event, queued or read from the connection within `timeout`; nullopt on timeout.
    std::optional<event> next_event(std::chrono::milliseconds timeout);

    // Convenience wrappers for the protocol's methods.
    rapidjson::Document get(std::string_view path);
    void set(std::string_view path, const rapidjson::Value& value);
    rapidjson::Document run(std::string_view path, const rapidjson::Value& value);
    rapidjson::Document subscribe(std::string_view path);
    rapidjson::Document subscribe(std::string_view path, const subscribe_options& options);
    void unsubscribe(std::string_view path);
    rapidjson::Document info(std::string_view path);
    rapidjson::Document list(std::string_view prefix = "");
    rapidjson::Document history(std::size_t limit = 100);

    // Where the client is connected, e.g. "/tmp/x/dh.sock" or "localhost:9700".
    const std::string& address() const noexcept;
    void set_timeout(std::chrono::milliseconds timeout) noexcept;

  private:
    struct impl;
    explicit client(std::unique_ptr<impl> p);
    std::unique_ptr<impl> impl_;
};

// How dhctl reads a VALUE argument: text that parses as one JSON value is that value
// ("5", "true", "{\"a\":1}", "\"x\""); anything else is taken as a plain string ("abc").
rapidjson::Document parse_cli_value(std::string_view text);

// Serialises a value on one line.
std::string to_json(const rapidjson::Value& value);
// Serialises a value indented over several lines (scalars stay on one line).
std::string to_pretty_json(const rapidjson::Value& value);
// A value for people: a string bare, anything else as JSON; `pretty` indents containers.
std::string display_value(const rapidjson::Value& value, bool pretty);

}  // namespace dh::client
