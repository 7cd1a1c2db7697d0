#pragma once

#include <cstdint>
#include <source_location>
#include <string>
#include <string_view>

#include "dh_error.hpp"
#include "msg_log.hpp"

namespace dh {

// Logs `message` at error on `channel`, with the caller's file and line, then throws it as
// dh_error `code`: the one way a refusal or failure leaves a handler method.
[[noreturn]] inline void raise(std::int32_t code, const std::string& message,
                               std::string_view channel,
                               std::source_location where = std::source_location::current()) {
    MSG_LOG(3, channel) << message
                        << msg_log::getCodeTrace(where.file_name(), static_cast<int>(where.line()));
    throw dh_error(code, message);
}

}  // namespace dh
