#pragma once

#include <string>
#include <string_view>

#include <boost/log/core/record.hpp>
#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_logger.hpp>

// Numeric severities follow syslog: 0 emergency ... 3 error, 4 warning, 5 notice, 6 info, 7 debug.
namespace msg_log_slg {

using logger_type = boost::log::sources::severity_logger_mt<int>;

// The one process-wide logger. The first call installs the standard-error sink, one line per
// record ("UTC-time severity [channel] message"), and the minimum severity from DH_LOG_LEVEL
// (a number 0-7 or a name such as "warning"; default info).
logger_type& construct_logger();

// Opens a record of the global logger; empty when the severity is filtered out. The channel is
// attached to the record itself: setting it on the shared logger would race between threads.
boost::log::record open_record(int severity, std::string_view channel);

// Reads DH_LOG_LEVEL text: a number or a severity name; anything else gives info (6).
int parse_level(std::string_view text);

}  // namespace msg_log_slg

namespace msg_log {

// The code trace that ends a record: " (file:line)", the file without its directories.
std::string getCodeTrace(std::string_view file, int line);

const char* severity_name(int severity);

// Message text as the sink writes it: C0 control characters and DEL become escapes (\n, \r,
// \t, \xHH), so text from a client can neither end a record's line early
// nor put bytes into the log that a terminal or a reader would act on.
std::string escape_control(std::string_view text);

}  // namespace msg_log

// MSG_LOG(6, "init") << "text" << msg_log::getCodeTrace(__FILE__, __LINE__);
#define MSG_LOG(severity, channel)                                                                 \
    for (::boost::log::record msg_log_record_ = ::msg_log_slg::open_record((severity), (channel)); \
         !!msg_log_record_;)                                                                       \
    ::boost::log::aux::make_record_pump(::msg_log_slg::construct_logger(), msg_log_record_).stream()
