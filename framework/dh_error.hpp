#pragma once

#include <cstdint>
#include <exception>
#include <string>
#include <utility>

// The framework's error: a negative errno-style code (or whatever code a node raises) and a
// fixed English text. It reaches the client unchanged as a JSON-RPC error.
class dh_error : public std::exception {
  public:
    dh_error(std::int32_t code, std::string message) : code_(code), message_(std::move(message)) {}

    std::int32_t code() const noexcept { return code_; }
    const std::string& message() const noexcept { return message_; }
    const char* what() const noexcept override { return message_.c_str(); }

  private:
    std::int32_t code_;
    std::string message_;
};

// Thrown when a client's JSON value does not fit a handler method's parameter type. A plain pair
// of texts; the server answers it with code -22 and {"expected", "actual"} as error data.
struct json_value_conversion_error {
    std::string expected;
    std::string actual;
};
