#include "rpc_codec.hpp"

#include <algorithm>
#include <cstring>
#include <exception>

#include <fmt/format.h>
#include <rapidjson/memorystream.h>

#include "dh_error.hpp"
#include "msg_log.hpp"

namespace dh::server::codec {

namespace {

// Lines are parsed straight from the read buffer, but not in situ: strings are copied into the
// request's pool, because rapidjson's Value copies share strings that are not marked as copied,
// and nodes keep copies of what they are given.
constexpr unsigned parse_flags =
    rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag;

// Forwards the parser's events to the document and stops the parse once arrays and objects
// nest deeper than allowed, before the document (or any later recursive walk) sees them.
template <typename Handler>
class depth_limiter {
  public:
    depth_limiter(Handler& h, unsigned max_depth) : h_(h), max_(max_depth) {}

    bool too_deep() const noexcept { return too_deep_; }

    bool Null() { return h_.Null(); }
    bool Bool(bool b) { return h_.Bool(b); }
    bool Int(int i) { return h_.Int(i); }
    bool Uint(unsigned u) { return h_.Uint(u); }
    bool Int64(std::int64_t i) { return h_.Int64(i); }
    bool Uint64(std::uint64_t u) { return h_.Uint64(u); }
    bool Double(double d) { return h_.Double(d); }
    bool RawNumber(const char* s, rapidjson::SizeType n, bool copy) {
        return h_.RawNumber(s, n, copy);
    }
    bool String(const char* s, rapidjson::SizeType n, bool copy) { return h_.String(s, n, copy); }
    bool Key(const char* s, rapidjson::SizeType n, bool copy) { return h_.Key(s, n, copy); }
    bool StartObject() { return enter() && h_.StartObject(); }
    bool EndObject(rapidjson::SizeType n) {
        --depth_;
        return h_.EndObject(n);
    }
    bool StartArray() { return enter() && h_.StartArray(); }
    bool EndArray(rapidjson::SizeType n) {
        --depth_;
        return h_.EndArray(n);
    }

  private:
    bool enter() {
        if (++depth_ <= max_) return true;
        too_deep_ = true;
        return false;
    }

    Handler& h_;
    const unsigned max_;
    unsigned depth_ = 0;
    bool too_deep_ = false;
};

void write_head(json_writer& w, const dh::Value* id) {
    w.StartObject();
    w.Key("jsonrpc");
    w.String("2.0");
    w.Key("id");
    if (id)
        id->Accept(w);
    else
        w.Null();
}

void write_string(json_writer& w, const std::string& s) {
    w.String(s.data(), static_cast<rapidjson::SizeType>(s.size()));
}

bool is_blank(const char* s, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i)
        if (s[i] != ' ' && s[i] != '\t' && s[i] != '\r') return false;
    return true;
}

}  // namespace

method_id parse_method(std::string_view m) {
    if (m == "get") return method_id::get;
    if (m == "set") return method_id::set;
    if (m == "run") return method_id::run;
    if (m == "subscribe") return method_id::subscribe;
    if (m == "unsubscribe") return method_id::unsubscribe;
    if (m == "info") return method_id::info;
    if (m == "list") return method_id::list;
    if (m == "history") return method_id::history;
    if (m == "set_many") return method_id::set_many;
    if (m == "confirm") return method_id::confirm;
    return method_id::unknown;
}

rpc_error error_from_current_exception() {
    try {
        throw;
    } catch (const dh_error& e) {
        return {e.code(), e.message()};
    } catch (const json_value_conversion_error& e) {
        return {-22, fmt::format("Invalid value type: expected {}, got {}", e.expected, e.actual),
                rpc_error::data_kind::conversion, e.expected, e.actual};
    } catch (const std::exception& e) {
        MSG_LOG(4, "server") << "Node operation failed: " << e.what()
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
        return {-1, "Unknown error!", rpc_error::data_kind::what, e.what()};
    } catch (...) {
        MSG_LOG(4, "server") << "Node operation failed with a non-standard exception"
                             << msg_log::getCodeTrace(__FILE__, __LINE__);
        return {-1, "Unknown error!", rpc_error::data_kind::what, "unknown exception"};
    }
}

void write_error(string_buffer& sb, json_writer& w, const dh::Value* id, const rpc_error& e) {
    sb.Clear();
    w.Reset(sb);
    write_head(w, id);
    w.Key("error");
    w.StartObject();
    w.Key("code");
    w.Int(e.code);
    w.Key("message");
    write_string(w, e.message);
    if (e.kind != rpc_error::data_kind::none || e.update) {
        w.Key("data");
        w.StartObject();
        if (e.kind == rpc_error::data_kind::conversion) {
            w.Key("expected");
            write_string(w, e.first);
            w.Key("actual");
            write_string(w, e.second);
        } else if (e.kind == rpc_error::data_kind::what) {
            w.Key("what");
            write_string(w, e.first);
        }
        if (e.update) {
            w.Key("index");
            w.Uint64(e.update->first);
            w.Key("path");
            write_string(w, e.update->second);
        }
        w.EndObject();
    }
    w.EndObject();
    w.EndObject();
}

void write_result(string_buffer& sb, json_writer& w, const dh::Value* id, const dh::Value& result) {
    sb.Clear();
    w.Reset(sb);
    write_head(w, id);
    w.Key("result");
    if (result.Accept(w)) {
        w.EndObject();
        return;
    }
    // Only NaN and infinities make the writer refuse a value.
    write_error(
        sb, w, id,
        {-1, "Unknown error!", rpc_error::data_kind::what, "result is not representable in JSON"});
}

std::string error_text(const rpc_error& e) {
    string_buffer sb;
    json_writer w(sb);
    write_error(sb, w, nullptr, e);
    return {sb.GetString(), sb.GetSize()};
}

std::string notification_text(const char* method, const dh::Value& params) {
    string_buffer sb;
    json_writer w(sb);
    w.StartObject();
    w.Key("jsonrpc");
    w.String("2.0");
    w.Key("method");
    w.String(method);
    w.Key("params");
    params.Accept(w);
    w.EndObject();
    return {sb.GetString(), sb.GetSize()};
}

bool parse_envelope(const dh::Value& v, request& r) {
    r.answer = true;
    if (!v.IsObject()) return false;
    bool ok = true;
    auto id = v.FindMember("id");
    if (id == v.MemberEnd())
        r.answer = false;
    else if (id->value.IsString() || id->value.IsNumber() || id->value.IsNull())
        r.id = &id->value;
    else
        ok = false;
    auto version = v.FindMember("jsonrpc");
    if (version == v.MemberEnd() || !version->value.IsString() || as_view(version->value) != "2.0")
        ok = false;
    auto method = v.FindMember("method");
    if (method == v.MemberEnd() || !method->value.IsString())
        ok = false;
    else
        r.method = parse_method(as_view(method->value));
    auto params = v.FindMember("params");
    if (params != v.MemberEnd()) r.params = &params->value;
    if (!ok) r.answer = true;
    return ok;
}

const dh::Value* find_param(const dh::Value* params, const char* name) {
    if (!params) return nullptr;
    auto it = params->FindMember(name);
    return it == params->MemberEnd() ? nullptr : &it->value;
}

std::string_view trim_slashes(std::string_view path) {
    while (!path.empty() && path.front() == '/') path.remove_prefix(1);
    while (!path.empty() && path.back() == '/') path.remove_suffix(1);
    return path;
}

std::string join_batch(const std::vector<std::string>& slots) {
    std::size_t size = 2;
    for (const auto& s : slots) size += s.size() + 1;
    std::string out;
    out.reserve(size);
    out += '[';
    for (const auto& s : slots) {
        if (s.empty()) continue;
        if (out.size() > 1) out += ',';
        out += s;
    }
    // A batch of notifications only is not answered at all.
    if (out.size() == 1) return {};
    out += ']';
    return out;
}

line_parser::line_parser(unsigned max_depth)
    : max_depth_(max_depth), pool_(buffer_, sizeof buffer_) {}

line_parser::outcome line_parser::parse(const char* line, std::size_t len) {
    if (is_blank(line, len)) return outcome::blank;
    doc_.reset();
    pool_.Clear();
    doc_.emplace(&pool_, 1024, &pool_);
    // Bounded by len: a cut-off UTF-8 sequence at the end must not make the reader look past it.
    rapidjson::MemoryStream in(line, len);
    depth_limiter<request_document> limiter(*doc_, max_depth_);
    bool parsed = false;
    auto generate = [&](request_document&) {
        parsed = !reader_.Parse<parse_flags>(in, limiter).IsError();
        return parsed;
    };
    doc_->Populate(generate);
    if (limiter.too_deep()) return outcome::too_deep;
    // Stopping short of the line's end means a NUL byte inside it.
    if (!parsed || in.Tell() != len) return outcome::parse_error;
    return outcome::parsed;
}

line_framer::line_framer(std::size_t max_line, std::size_t initial, std::size_t kept)
    : max_line_(max_line), initial_(initial), kept_(kept), buf_(initial) {}

void line_framer::commit(std::size_t n) {
    filled_ = n == space_size();
    len_ += n;
}

line_framer::status line_framer::next(char*& line, std::size_t& len) {
    char* base = buf_.data();
    auto* nl = static_cast<char*>(std::memchr(base + scan_, '\n', len_ - scan_));
    if (!nl) {
        scan_ = len_;
        return len_ - start_ > max_line_ ? status::too_large : status::need_more;
    }
    const auto end = static_cast<std::size_t>(nl - base);
    if (end - start_ > max_line_) return status::too_large;
    *nl = '\0';
    line = base + start_;
    len = end - start_;
    start_ = scan_ = end + 1;
    return status::line;
}

void line_framer::compact() {
    const std::size_t rest = len_ - start_;
    if (start_ > 0 && rest > 0) std::memmove(buf_.data(), buf_.data() + start_, rest);
    scan_ -= start_;
    start_ = 0;
    len_ = rest;
    // Keep room for one more byte: a line's newline, or the terminator of a last line at EOF.
    if (len_ == buf_.size())
        buf_.resize(std::min(buf_.size() * 2, max_line_ + 1));
    else if (len_ == 0 && buf_.size() > kept_)
        std::vector<char>(initial_).swap(buf_);
    else if (filled_ && buf_.size() < kept_ && len_ < buf_.size() / 2)
        buf_.resize(buf_.size() * 2);
    filled_ = false;
}

bool line_framer::rest(char*& line, std::size_t& len) {
    if (len_ == start_) return false;
    buf_[len_] = '\0';
    line = buf_.data() + start_;
    len = len_ - start_;
    start_ = len_;
    return true;
}

void line_framer::clear() {
    len_ = start_ = scan_ = 0;
}

}  // namespace dh::server::codec
