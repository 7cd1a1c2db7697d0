#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <version>

#include "dh_error.hpp"
#include "msg_log.hpp"

#if __cpp_lib_source_location
#include <source_location>
#endif

namespace dh {

#if __cpp_lib_source_location
using source_location = std::source_location;
#else
// clang 14 (the fuzz build's compiler) has no std::source_location with libstdc++; its builtins
// give the same caller position.
struct source_location {
    static constexpr source_location current(const char* file = __builtin_FILE(),
                                             unsigned line = __builtin_LINE()) noexcept {
        return {file, line};
    }
    constexpr const char* file_name() const noexcept { return file_; }
    constexpr unsigned line() const noexcept { return line_; }

    const char* file_;
    unsigned line_;
};
#endif

// Logs `message` at error on `channel`, with the caller's file and line, then throws it as
// dh_error `code`: the one way a refusal or failure leaves a handler method.
[[noreturn]] inline void raise(std::int32_t code, const std::string& message,
                               std::string_view channel,
                               source_location where = source_location::current()) {
    MSG_LOG(3, channel) << message
                        << msg_log::getCodeTrace(where.file_name(), static_cast<int>(where.line()));
    throw dh_error(code, message);
}

}  // namespace dh
