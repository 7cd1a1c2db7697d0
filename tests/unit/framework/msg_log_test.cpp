#include <iostream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "msg_log.hpp"

namespace {

// What the standard-error sink writes while it lives.
struct clog_capture {
    std::ostringstream out;
    std::streambuf* const old = std::clog.rdbuf(out.rdbuf());
    ~clog_capture() { std::clog.rdbuf(old); }
};

TEST(MsgLog, ClientTextCannotStartALineOrWriteRawControlBytesButKeepsTheRest) {
    msg_log_slg::construct_logger();
    using namespace std::string_literals;
    const std::string forged =
        "bad value \n2026-11-23T08:00:00.000Z critical [server] FORGED\r\x1b[2J end\0\x7f\t."s;
    clog_capture cap;
    MSG_LOG(3, "test") << forged;
    const std::string out = cap.out.str();
    // One line, with every control byte of the message escaped in place.
    ASSERT_EQ(out.find('\n'), out.size() - 1) << out;
    EXPECT_NE(out.find("[test] bad value \\n2026-11-23T08:00:00.000Z critical [server] FORGED\\r"
                       "\\x1b[2J end\\x00\\x7f\\t."),
              std::string::npos)
        << out;
    // Printable and multi-byte text is kept.
    EXPECT_EQ(msg_log::escape_control("Path \"a/b\" \\ \xc3\xa9t\xc3\xa9 ~"),
              "Path \"a/b\" \\ \xc3\xa9t\xc3\xa9 ~");
    EXPECT_EQ(msg_log::escape_control(std::string_view("\x01\x1f", 2)), "\\x01\\x1f");
}

}  // namespace
