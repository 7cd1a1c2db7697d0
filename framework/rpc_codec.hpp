#pragma once

// The JSON-RPC side of the server without any socket: splitting a byte stream into lines under
// the length limit, parsing a line under the nesting limit, checking request envelopes, and
// writing responses. Everything here is single-threaded and owned by one caller.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <rapidjson/reader.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_types.hpp"

namespace dh::server::codec {

constexpr std::int32_t code_parse_error = -32700;
constexpr std::int32_t code_invalid_request = -32600;
constexpr std::int32_t code_method_not_found = -32601;
constexpr std::int32_t code_invalid_params = -32602;
constexpr std::int32_t code_no_such_node = -32001;
constexpr std::int32_t code_too_many_connections = -32000;
constexpr std::int32_t code_permission_denied = -32003;

enum class method_id {
    get,
    set,
    run,
    subscribe,
    unsubscribe,
    info,
    list,
    history,
    set_many,
    confirm,
    unknown
};

method_id parse_method(std::string_view m);

using string_buffer = rapidjson::StringBuffer;
using json_writer = rapidjson::Writer<string_buffer>;

// One JSON-RPC error as it goes on the wire.
struct rpc_error {
    enum class data_kind { none, conversion, what };

    rpc_error(std::int32_t c, std::string m, data_kind k = data_kind::none, std::string f = {},
              std::string s = {})
        : code(c), message(std::move(m)), kind(k), first(std::move(f)), second(std::move(s)) {}

    std::int32_t code = -1;
    std::string message;
    data_kind kind = data_kind::none;
    std::string first;
    std::string second;
    // The update of a multi-path write that failed: "index" and "path" join the error's "data".
    std::optional<std::pair<std::size_t, std::string>> update;
};

// Maps the exception in flight to its wire form: a dh_error keeps its code and text, a
// conversion error becomes -22 with the two type names, anything else -1 with its what().
rpc_error error_from_current_exception();

// Replace what `sb` holds with one response object (no newline). A result JSON cannot carry
// (NaN, infinities) becomes error -1 instead.
void write_error(string_buffer& sb, json_writer& w, const dh::Value* id, const rpc_error& e);
void write_result(string_buffer& sb, json_writer& w, const dh::Value* id, const dh::Value& result);
// An error with id null as one text, for answers outside any request.
std::string error_text(const rpc_error& e);
// A server notification {"jsonrpc":"2.0","method":M,"params":P} as one text (no newline).
std::string notification_text(const char* method, const dh::Value& params);

// The request envelope after its checks.
struct request {
    method_id method = method_id::unknown;
    const dh::Value* id = nullptr;  // null id where absent or unusable
    bool answer = true;             // false for a notification
    const dh::Value* params = nullptr;
};

// Checks the envelope. On failure the request is still to be answered (Invalid Request), with
// its id where that id is usable.
bool parse_envelope(const dh::Value& v, request& r);
const dh::Value* find_param(const dh::Value* params, const char* name);
std::string_view trim_slashes(std::string_view path);
inline std::string_view as_view(const dh::Value& v) {
    return {v.GetString(), v.GetStringLength()};
}

// The answer to a batch from the answers of its elements (empty for notifications), in their
// order; empty when nothing is to be sent.
std::string join_batch(const std::vector<std::string>& slots);

// The request document allocates its values and its parse stack from one pool that is emptied
// before each line, so parsing a request normally touches no heap at all.
using request_document =
    rapidjson::GenericDocument<rapidjson::UTF8<>, dh::Allocator, dh::Allocator>;

// Parses one line at a time into a document that lives until the next line.
class line_parser {
  public:
    enum class outcome { blank, parsed, parse_error, too_deep };

    explicit line_parser(unsigned max_depth);
    line_parser(const line_parser&) = delete;
    line_parser& operator=(const line_parser&) = delete;

    // `line` holds `len` bytes followed by a NUL; a NUL inside it is a parse error.
    outcome parse(const char* line, std::size_t len);
    request_document& document() { return *doc_; }
    // The pool answers are built in; emptied by the next parse().
    dh::Allocator& pool() { return pool_; }

  private:
    const unsigned max_depth_;
    rapidjson::Reader reader_;
    alignas(16) char buffer_[32 * 1024];
    dh::Allocator pool_;
    std::optional<request_document> doc_;
};

// A connection's input: bytes read from the socket, handed out line by line. The buffer starts
// small (there may be a thousand connections), doubles up to `kept` while reads fill it, grows
// further only to hold one long line, and shrinks back once empty.
class line_framer {
  public:
    enum class status { line, need_more, too_large };

    line_framer(std::size_t max_line, std::size_t initial = 16 * 1024,
                std::size_t kept = 64 * 1024);

    // Where the next read goes; never empty.
    char* space() { return buf_.data() + len_; }
    std::size_t space_size() const { return buf_.size() - len_; }
    void commit(std::size_t n);

    // The next complete line, NUL-terminated in place (its newline replaced), valid until
    // compact(). too_large once a line, complete or not, is longer than max_line.
    status next(char*& line, std::size_t& len);
    // After the lines are handled: keeps the unfinished rest for the next read.
    void compact();
    // At the end of the stream: the unfinished rest as a last line (NUL-terminated), if any.
    bool rest(char*& line, std::size_t& len);
    void clear();
    std::size_t capacity() const { return buf_.size(); }

  private:
    const std::size_t max_line_;
    const std::size_t initial_;
    const std::size_t kept_;
    std::vector<char> buf_;
    std::size_t len_ = 0;
    std::size_t start_ = 0;  // first byte not handed out yet
    std::size_t scan_ = 0;   // bytes before it hold no newline
    bool filled_ = false;    // the last read filled the buffer
};

}  // namespace dh::server::codec
