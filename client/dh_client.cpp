#include "dh_client.hpp"

#include <deque>
#include <utility>

#include <fmt/format.h>
#include <openssl/ssl.h>
#include <rapidjson/error/en.h>
#include <rapidjson/prettywriter.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <boost/asio.hpp>
#include <boost/asio/ssl.hpp>

namespace dh::client {

namespace asio = boost::asio;
using boost::system::error_code;

namespace {

bool closed_by_peer(const error_code& ec) {
    return ec == asio::error::eof || ec == asio::error::broken_pipe ||
           ec == asio::error::connection_reset;
}

using steady = std::chrono::steady_clock;

std::string request_line(const std::uint64_t* id, std::string_view method,
                         const rapidjson::Value* params) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.StartObject();
    writer.Key("jsonrpc");
    writer.String("2.0");
    if (id) {
        writer.Key("id");
        writer.Uint64(*id);
    }
    writer.Key("method");
    writer.String(method.data(), static_cast<rapidjson::SizeType>(method.size()));
    if (params) {
        writer.Key("params");
        params->Accept(writer);
    }
    writer.EndObject();
    std::string line(buffer.GetString(), buffer.GetSize());
    line += '\n';
    return line;
}

// Makes `member` (a value inside `doc`) the root of `doc` without copying it. The old root stays
// in doc's memory pool, which frees everything at once.
void make_root(rapidjson::Document& doc, rapidjson::Value& member) {
    rapidjson::Value taken;
    taken.Swap(member);
    static_cast<rapidjson::Value&>(doc).Swap(taken);
}

std::string string_member(const rapidjson::Value& object, const char* name) {
    auto it = object.FindMember(name);
    if (it == object.MemberEnd() || !it->value.IsString()) return {};
    return {it->value.GetString(), it->value.GetStringLength()};
}

rapidjson::Document path_params(std::string_view path) {
    rapidjson::Document params(rapidjson::kObjectType);
    params.AddMember("path",
                     rapidjson::Value(path.data(), static_cast<rapidjson::SizeType>(path.size()),
                                      params.GetAllocator()),
                     params.GetAllocator());
    return params;
}

}  // namespace

rpc_error::rpc_error(int code, std::string message, const rapidjson::Value* data)
    : client_error(fmt::format("error {}: {}", code, message)),
      code_(code),
      message_(std::move(message)) {
    auto doc = std::make_shared<rapidjson::Document>();
    if (data) doc->CopyFrom(*data, doc->GetAllocator());
    data_ = std::move(doc);
}

struct client::impl {
    asio::io_context io;
    asio::generic::stream_protocol::socket socket{io};
    // Set for TLS connections: reads and writes then go through the stream on top of socket.
    std::unique_ptr<asio::ssl::context> tls_context;
    std::unique_ptr<asio::ssl::stream<asio::generic::stream_protocol::socket&>> tls;
    options opts;
    std::string address;
    // Bytes received and not yet consumed; may hold the start of the next line.
    std::string input;
    std::uint64_t next_id = 1;
    std::deque<event> events;

    enum class got { response, event, timeout };

    // Runs the started operation until its handler has run. When the deadline passes first the
    // operation is cancelled, and its handler sees operation_aborted unless it had completed.
    void wait(const bool& done, steady::time_point deadline) {
        io.restart();
        io.run_until(deadline);
        if (done) return;
        error_code ignored;
        socket.cancel(ignored);
        io.run();
    }

    void connect_to(const asio::generic::stream_protocol::endpoint& endpoint,
                    steady::time_point deadline) {
        if (socket.is_open()) socket.close();
        socket.open(endpoint.protocol());
        bool done = false;
        error_code result;
        socket.async_connect(endpoint, [&](error_code ec) {
            done = true;
            result = ec;
        });
        wait(done, deadline);
        if (result == asio::error::operation_aborted)
            throw timeout_error(fmt::format("cannot connect to {}: timed out", address));
        if (result)
            throw connection_error(
                fmt::format("cannot connect to {}: {}", address, result.message()));
    }

    void write(const std::string& line, steady::time_point deadline) {
        bool done = false;
        error_code result;
        auto written = [&](error_code ec, std::size_t) {
            done = true;
            result = ec;
        };
        if (tls)
            asio::async_write(*tls, asio::buffer(line), written);
        else
            asio::async_write(socket, asio::buffer(line), written);
        wait(done, deadline);
        if (result == asio::error::operation_aborted)
            throw timeout_error(fmt::format("sending to {} timed out", address));
        if (closed_by_peer(result))
            throw connection_error(fmt::format("connection to {} closed by the server", address));
        if (result)
            throw connection_error(
                fmt::format("connection to {} failed: {}", address, result.message()));
    }

    // One line without its newline; nullopt when the deadline passes first.
    std::optional<std::string> read_line(steady::time_point deadline) {
        bool done = false;
        error_code result;
        std::size_t length = 0;
        auto got_line = [&](error_code ec, std::size_t n) {
            done = true;
            result = ec;
            length = n;
        };
        if (tls)
            asio::async_read_until(*tls, asio::dynamic_buffer(input, opts.max_line_size), '\n',
                                   got_line);
        else
            asio::async_read_until(socket, asio::dynamic_buffer(input, opts.max_line_size), '\n',
                                   got_line);
        wait(done, deadline);
        if (result == asio::error::operation_aborted) return std::nullopt;
        if (closed_by_peer(result) || result == asio::ssl::error::stream_truncated)
            throw connection_error(fmt::format("connection to {} closed by the server", address));
        if (result == asio::error::not_found)
            throw connection_error(
                fmt::format("line from {} longer than {} bytes", address, opts.max_line_size));
        if (result)
            throw connection_error(
                fmt::format("connection to {} failed: {}", address, result.message()));
        std::string line = input.substr(0, length - 1);
        input.erase(0, length);
        return line;
    }

    void queue_event(rapidjson::Document& message) {
        auto params = message.FindMember("params");
        if (params == message.MemberEnd() || !params->value.IsObject()) return;
        rapidjson::Value& p = params->value;
        event e;
        const std::string method = string_member(message, "method");
        e.path = string_member(p, "path");
        e.type = method == "event" ? string_member(p, "type") : method;
        e.time = string_member(p, "time");
        auto complete = p.FindMember("complete");
        if (complete != p.MemberEnd() && complete->value.IsBool())
            e.complete = complete->value.GetBool();
        auto seq = p.FindMember("seq");
        if (seq != p.MemberEnd() && seq->value.IsUint64()) e.seq = seq->value.GetUint64();
        auto value = p.FindMember("value");
        if (value != p.MemberEnd()) {
            make_root(message, value->value);
            e.value = std::move(message);
        }
        events.push_back(std::move(e));
    }

    // Reads one message: an event is queued, a response handed back in `response`.
    got read_message(steady::time_point deadline, rapidjson::Document& response) {
        for (;;) {
            auto line = read_line(deadline);
            if (!line) return got::timeout;
            if (line->find_first_not_of(" \t\r") == std::string::npos) continue;
            rapidjson::Document message;
            message.Parse<rapidjson::kParseIterativeFlag>(line->data(), line->size());
            if (message.HasParseError())
                throw connection_error(
                    fmt::format("invalid JSON from {}: {} at offset {}", address,
                                rapidjson::GetParseError_En(message.GetParseError()),
                                message.GetErrorOffset()));
            // We never send batches, so anything but an object is not for us.
            if (!message.IsObject()) continue;
            if (!message.HasMember("id")) {
                const std::string method = string_member(message, "method");
                if (method != "event" && method != "sync" && method != "heartbeat") continue;
                queue_event(message);
                return got::event;
            }
            response = std::move(message);
            return got::response;
        }
    }

    rapidjson::Document call(std::string_view method, const rapidjson::Value* params) {
        const std::uint64_t id = next_id++;
        const auto deadline = steady::now() + opts.timeout;
        write(request_line(&id, method, params), deadline);
        for (;;) {
            rapidjson::Document response;
            const got kind = read_message(deadline, response);
            if (kind == got::timeout)
                throw timeout_error(fmt::format("no answer from {} to \"{}\" within {} ms", address,
                                                method, opts.timeout.count()));
            if (kind != got::response) continue;
            const rapidjson::Value& rid = response["id"];
            // An error with id null is the server refusing the line it could not read.
            const bool ours = (rid.IsUint64() && rid.GetUint64() == id) ||
                              (rid.IsNull() && response.HasMember("error"));
            if (ours) return take_result(response);
        }
    }

    rapidjson::Document take_result(rapidjson::Document& response) {
        auto error = response.FindMember("error");
        if (error != response.MemberEnd()) {
            const rapidjson::Value& e = error->value;
            if (!e.IsObject() || !e.HasMember("code") || !e["code"].IsInt() ||
                !e.HasMember("message") || !e["message"].IsString())
                throw connection_error(fmt::format("malformed error object from {}", address));
            auto data = e.FindMember("data");
            throw rpc_error(e["code"].GetInt(), string_member(e, "message"),
                            data == e.MemberEnd() ? nullptr : &data->value);
        }
        auto result = response.FindMember("result");
        if (result == response.MemberEnd())
            throw connection_error(
                fmt::format("response from {} has neither result nor error", address));
        make_root(response, result->value);
        return std::move(response);
    }
};

client::client(std::unique_ptr<impl> p) : impl_(std::move(p)) {}
client::client(client&&) noexcept = default;
client& client::operator=(client&&) noexcept = default;
client::~client() = default;

client client::unix_socket(const std::string& path, const options& opts) {
    auto p = std::make_unique<impl>();
    p->opts = opts;
    p->address = path;
    asio::local::stream_protocol::endpoint endpoint;
    try {
        endpoint = asio::local::stream_protocol::endpoint(path);
    } catch (const boost::system::system_error& e) {
        throw connection_error(fmt::format("cannot connect to {}: {}", path, e.code().message()));
    }
    p->connect_to(endpoint, steady::now() + opts.timeout);
    return client(std::move(p));
}

client client::tcp(const std::string& host, const std::string& port, const options& opts) {
    auto p = std::make_unique<impl>();
    p->opts = opts;
    std::string name = host;
    if (name.size() > 1 && name.front() == '[' && name.back() == ']')
        name = name.substr(1, name.size() - 2);
    p->address = name.find(':') == std::string::npos ? fmt::format("{}:{}", name, port)
                                                     : fmt::format("[{}]:{}", name, port);
    const auto deadline = steady::now() + opts.timeout;

    asio::ip::tcp::resolver resolver(p->io);
    bool done = false;
    error_code result;
    asio::ip::tcp::resolver::results_type endpoints;
    resolver.async_resolve(name, port, [&](error_code ec, auto found) {
        done = true;
        result = ec;
        endpoints = std::move(found);
    });
    p->io.restart();
    p->io.run_until(deadline);
    if (!done) {
        resolver.cancel();
        p->io.run();
        throw timeout_error(fmt::format("cannot resolve {}: timed out", name));
    }
    if (result)
        throw connection_error(fmt::format("cannot resolve {}: {}", name, result.message()));

    std::optional<connection_error> last;
    for (const auto& entry : endpoints) {
        try {
            p->connect_to(entry.endpoint(), deadline);
            return client(std::move(p));
        } catch (const timeout_error&) {
            throw;
        } catch (const connection_error& e) {
            last = e;
        }
    }
    if (last) throw *last;
    throw connection_error(fmt::format("cannot connect to {}: no address", p->address));
}

client client::tls(const std::string& host, const std::string& port, const tls_files& files,
                   const options& opts) {
    const auto deadline = steady::now() + opts.timeout;
    auto context = std::make_unique<asio::ssl::context>(asio::ssl::context::tls_client);
    ::SSL_CTX_set_min_proto_version(context->native_handle(), TLS1_2_VERSION);
    context->set_verify_mode(asio::ssl::verify_peer);
    auto load = [](const std::string& what, const std::string& file, auto&& step) {
        try {
            step();
        } catch (const boost::system::system_error& e) {
            throw connection_error(
                fmt::format("cannot use {} {}: {}", what, file, e.code().message()));
        }
    };
    load("CA file", files.ca, [&] { context->load_verify_file(files.ca); });
    // Without a certificate the client can still try; a server that asks for one refuses it.
    if (!files.cert.empty())
        load("certificate", files.cert, [&] { context->use_certificate_chain_file(files.cert); });
    if (!files.key.empty())
        load("key", files.key,
             [&] { context->use_private_key_file(files.key, asio::ssl::context::pem); });

    client c = tcp(host, port, opts);
    impl& p = *c.impl_;
    p.tls_context = std::move(context);
    p.tls = std::make_unique<asio::ssl::stream<asio::generic::stream_protocol::socket&>>(
        p.socket, *p.tls_context);
    std::string name = host;
    if (name.size() > 1 && name.front() == '[' && name.back() == ']')
        name = name.substr(1, name.size() - 2);
    p.tls->set_verify_callback(asio::ssl::host_name_verification(name));
    if (!::SSL_set_tlsext_host_name(p.tls->native_handle(), name.c_str()))
        throw connection_error("cannot set the TLS server name " + name);
    bool done = false;
    error_code result;
    p.tls->async_handshake(asio::ssl::stream_base::client, [&](error_code ec) {
        done = true;
        result = ec;
    });
    p.wait(done, deadline);
    if (result == asio::error::operation_aborted)
        throw timeout_error(fmt::format("TLS handshake with {} timed out", p.address));
    if (result)
        throw connection_error(
            fmt::format("TLS handshake with {} failed: {}", p.address, result.message()));
    return c;
}

rapidjson::Document client::call(std::string_view method, const rapidjson::Value& params) {
    return impl_->call(method, &params);
}

rapidjson::Document client::call(std::string_view method) {
    return impl_->call(method, nullptr);
}

void client::notify(std::string_view method, const rapidjson::Value& params) {
    impl_->write(request_line(nullptr, method, &params), steady::now() + impl_->opts.timeout);
}

std::optional<event> client::next_event(std::chrono::milliseconds timeout) {
    const auto deadline = steady::now() + timeout;
    for (;;) {
        if (!impl_->events.empty()) {
            event e = std::move(impl_->events.front());
            impl_->events.pop_front();
            return e;
        }
        // A response read here belongs to a request that timed out earlier: dropped.
        rapidjson::Document response;
        if (impl_->read_message(deadline, response) == impl::got::timeout) return std::nullopt;
    }
}

rapidjson::Document client::get(std::string_view path) {
    return call("get", path_params(path));
}

void client::set(std::string_view path, const rapidjson::Value& value) {
    auto params = path_params(path);
    params.AddMember("value", rapidjson::Value(value, params.GetAllocator()),
                     params.GetAllocator());
    call("set", params);
}

rapidjson::Document client::run(std::string_view path, const rapidjson::Value& value) {
    auto params = path_params(path);
    params.AddMember("value", rapidjson::Value(value, params.GetAllocator()),
                     params.GetAllocator());
    return call("run", params);
}

rapidjson::Document client::subscribe(std::string_view path) {
    return call("subscribe", path_params(path));
}

rapidjson::Document client::subscribe(std::string_view path, const subscribe_options& options) {
    auto params = path_params(path);
    if (options.since_seq) params.AddMember("since_seq", *options.since_seq, params.GetAllocator());
    if (options.heartbeat) params.AddMember("heartbeat", *options.heartbeat, params.GetAllocator());
    return call("subscribe", params);
}

void client::unsubscribe(std::string_view path) {
    call("unsubscribe", path_params(path));
}

rapidjson::Document client::info(std::string_view path) {
    return call("info", path_params(path));
}

rapidjson::Document client::list(std::string_view prefix) {
    return call("list", path_params(prefix));
}

rapidjson::Document client::history(std::size_t limit) {
    rapidjson::Document params(rapidjson::kObjectType);
    params.AddMember("limit", static_cast<std::uint64_t>(limit), params.GetAllocator());
    return call("history", params);
}

const std::string& client::address() const noexcept {
    return impl_->address;
}

void client::set_timeout(std::chrono::milliseconds timeout) noexcept {
    impl_->opts.timeout = timeout;
}

rapidjson::Document parse_cli_value(std::string_view text) {
    rapidjson::Document value;
    value.Parse<rapidjson::kParseIterativeFlag>(text.data(), text.size());
    if (value.HasParseError())
        value.SetString(text.data(), static_cast<rapidjson::SizeType>(text.size()),
                        value.GetAllocator());
    return value;
}

std::string to_json(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

std::string to_pretty_json(const rapidjson::Value& value) {
    rapidjson::StringBuffer buffer;
    rapidjson::PrettyWriter<rapidjson::StringBuffer> writer(buffer);
    writer.SetIndent(' ', 2);
    value.Accept(writer);
    return {buffer.GetString(), buffer.GetSize()};
}

std::string display_value(const rapidjson::Value& value, bool pretty) {
    if (value.IsString()) return {value.GetString(), value.GetStringLength()};
    return pretty ? to_pretty_json(value) : to_json(value);
}

}  // namespace dh::client
