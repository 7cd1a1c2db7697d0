#pragma once

#include <string>
#include <string_view>

#include <boost/log/sources/record_ostream.hpp>
#include <boost/log/sources/severity_channel_logger.hpp>

// Numeric severities follow syslog: 0 emergency ... 3 error, 4 warning, 5 notice, 6 info, 7 debug.
namespace msg_log_slg {

using logger_type = boost::log::sources::severity_channel_logger_mt<int, std::string>;

// The one process-wide logger. The first call installs the standard-error sink, one line per
// record ("UTC-time severity [channel] message"), and the minimum severity from DH_LOG_LEVEL
// (a number 0-7 or a name such as "warning"; default info).
logger_type& construct_logger();

// Reads DH_LOG_LEVEL text: a number or a severity name; anything else gives info (6).
int parse_level(std::string_view text);

}  // namespace msg_log_slg

namespace msg_log {

// The code trace that ends a record: " (file:line)", the file without its directories.
std::string getCodeTrace(std::string_view file, int line);

const char* severity_name(int severity);

}  // namespace msg_log

// MSG_LOG(6, "init") << "text" << msg_log::getCodeTrace(__FILE__, __LINE__);
#define MSG_LOG(severity, channel) \
    BOOST_LOG_CHANNEL_SEV(msg_log_slg::construct_logger(), std::string(channel), (severity))

// Logs text with the code trace of the calling line appended.
#define MSG_LOG_TRACE(severity, channel, text) \
    MSG_LOG(severity, channel) << (text) << msg_log::getCodeTrace(__FILE__, __LINE__)
