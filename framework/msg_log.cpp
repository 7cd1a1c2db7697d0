#include "msg_log.hpp"

#include <array>
#include <cstdlib>
#include <iostream>
#include <mutex>

#include <boost/algorithm/string/case_conv.hpp>
#include <boost/core/null_deleter.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/log/attributes/attribute_value_impl.hpp>
#include <boost/log/attributes/clock.hpp>
#include <boost/log/attributes/value_extraction.hpp>
#include <boost/log/core.hpp>
#include <boost/log/expressions.hpp>
#include <boost/log/sinks/sync_frontend.hpp>
#include <boost/log/sinks/text_ostream_backend.hpp>
#include <boost/log/support/date_time.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

namespace logging = boost::log;
namespace expr = boost::log::expressions;

namespace {

constexpr std::array<const char*, 8> severity_names = {"emergency", "alert",  "critical", "error",
                                                       "warning",   "notice", "info",     "debug"};

BOOST_LOG_ATTRIBUTE_KEYWORD(severity_kw, "Severity", int)

void format_record(const logging::record_view& rec, logging::formatting_ostream& out) {
    if (auto ts = logging::extract<boost::posix_time::ptime>("TimeStamp", rec)) {
        // ISO 8601 with milliseconds, UTC.
        auto iso = boost::posix_time::to_iso_extended_string(*ts);
        out << iso.substr(0, 23) << 'Z';
    }
    auto sev = logging::extract<int>("Severity", rec);
    out << ' ' << msg_log::severity_name(sev ? *sev : 6);
    if (auto ch = logging::extract<std::string>("Channel", rec)) out << " [" << *ch << ']';
    if (auto msg = logging::extract<std::string>(expr::smessage.get_name(), rec))
        out << ' ' << msg_log::escape_control(*msg);
}

void install_sink() {
    auto core = logging::core::get();
    core->add_global_attribute("TimeStamp", logging::attributes::utc_clock());
    using backend_t = logging::sinks::text_ostream_backend;
    auto backend = boost::make_shared<backend_t>();
    backend->add_stream(boost::shared_ptr<std::ostream>(&std::clog, boost::null_deleter()));
    backend->auto_flush(true);
    auto sink = boost::make_shared<logging::sinks::synchronous_sink<backend_t>>(backend);
    sink->set_formatter(&format_record);
    const char* env = std::getenv("DH_LOG_LEVEL");
    const int level = env ? msg_log_slg::parse_level(env) : 6;
    sink->set_filter(severity_kw <= level);
    core->add_sink(sink);
}

}  // namespace

namespace msg_log_slg {

logger_type& construct_logger() {
    static std::once_flag once;
    std::call_once(once, install_sink);
    static logger_type logger;
    return logger;
}

boost::log::record open_record(int severity, std::string_view channel) {
    auto rec = construct_logger().open_record(boost::log::keywords::severity = severity);
    if (rec)
        rec.attribute_values().insert(
            "Channel", boost::log::attributes::make_attribute_value(std::string(channel)));
    return rec;
}

int parse_level(std::string_view text) {
    std::string t = boost::algorithm::to_lower_copy(std::string(text));
    if (t.size() == 1 && t[0] >= '0' && t[0] <= '7') return t[0] - '0';
    for (std::size_t i = 0; i < severity_names.size(); ++i)
        if (t == severity_names[i]) return static_cast<int>(i);
    if (t == "warn") return 4;
    if (t == "err") return 3;
    if (t == "crit") return 2;
    if (t == "emerg") return 0;
    return 6;
}

}  // namespace msg_log_slg

namespace msg_log {

std::string getCodeTrace(std::string_view file, int line) {
    auto slash = file.find_last_of('/');
    if (slash != std::string_view::npos) file.remove_prefix(slash + 1);
    std::string out = " (";
    out.append(file);
    out += ':';
    out += std::to_string(line);
    out += ')';
    return out;
}

std::string escape_control(std::string_view text) {
    static constexpr char hex[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    for (const char ch : text) {
        const auto c = static_cast<unsigned char>(ch);
        if (c >= 0x20 && c != 0x7f) {
            out += ch;
            continue;
        }
        out += '\\';
        switch (c) {
            case '\n':
                out += 'n';
                break;
            case '\r':
                out += 'r';
                break;
            case '\t':
                out += 't';
                break;
            default:
                out += 'x';
                out += hex[c >> 4];
                out += hex[c & 0xf];
        }
    }
    return out;
}

const char* severity_name(int severity) {
    if (severity < 0 || severity >= static_cast<int>(severity_names.size())) return "unknown";
    return severity_names[severity];
}

}  // namespace msg_log
