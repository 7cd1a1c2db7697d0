#pragma once

#include <cmath>
#include <cstdint>
#include <string>
#include <type_traits>
#include <typeinfo>

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <boost/core/demangle.hpp>

#include "dh_error.hpp"
#include "dh_types.hpp"

// Conversions between clients' JSON values and the C++ types of handler methods.
//
// Client value -> parameter type (from_json):
//   std::string   any JSON; a string as it is, anything else as its compact JSON text
//   bool          true or false                                   else expected "bool"
//   unsigned int  a number that fits an unsigned 32-bit integer   else expected "uint"
//   int           a number that fits a signed 32-bit integer      else expected "int"
//   double        any number                                      else expected "double"
//   Document      an object or an array (deep copy)               else expected "object or array"
//                 a string whose text parses to an object or array,
//                 else expected "stringified object or array"
// A mismatch throws json_value_conversion_error{expected, json_type_name(value)}.
namespace dh::api {

template <class>
inline constexpr bool always_false_v = false;

// The type of a client's JSON value, as a conversion error reports it.
inline std::string json_type_name(const Value& v) {
    switch (v.GetType()) {
        case rapidjson::kNullType:
            return "null";
        case rapidjson::kFalseType:
        case rapidjson::kTrueType:
            return "bool";
        case rapidjson::kObjectType:
            return "object";
        case rapidjson::kArrayType:
            return "array";
        case rapidjson::kStringType:
            return "string";
        case rapidjson::kNumberType:
            if (v.IsUint()) return "32-bit unsigned integer";
            if (v.IsInt()) return "32-bit signed integer";
            if (v.IsUint64()) return "64-bit unsigned integer";
            if (v.IsInt64()) return "64-bit signed integer";
            return std::fabs(v.GetDouble()) <= 3.4028234e38 ? "float" : "double";
    }
    return "unknown";
}

// Readable name of a value type, published as "valueType" and "returnType" in descriptions.
// Texts are "string"; JSON documents "document"; the rest their C++ names.
template <class T>
std::string type_name() {
    if constexpr (std::is_same_v<T, std::string>)
        return "string";
    else if constexpr (std::is_same_v<T, Document> || std::is_same_v<T, Value>)
        return "document";
    else if constexpr (std::is_void_v<T>)
        return "void";
    else if constexpr (std::is_same_v<T, bool>)
        return "bool";
    else if constexpr (std::is_same_v<T, unsigned int>)
        return "unsigned int";
    else if constexpr (std::is_same_v<T, int>)
        return "int";
    else if constexpr (std::is_same_v<T, double>)
        return "double";
    else if constexpr (std::is_same_v<T, float>)
        return "float";
    else
        return boost::core::demangle(typeid(T).name());
}

inline std::string to_json_text(const Value& v) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    v.Accept(writer);
    return std::string(buffer.GetString(), buffer.GetSize());
}

template <class T>
T from_json(const Value& v) {
    if constexpr (std::is_same_v<T, std::string>) {
        if (v.IsString()) return std::string(v.GetString(), v.GetStringLength());
        return to_json_text(v);
    } else if constexpr (std::is_same_v<T, bool>) {
        if (v.IsBool()) return v.GetBool();
        throw json_value_conversion_error{"bool", json_type_name(v)};
    } else if constexpr (std::is_same_v<T, unsigned int>) {
        if (v.IsUint()) return v.GetUint();
        throw json_value_conversion_error{"uint", json_type_name(v)};
    } else if constexpr (std::is_same_v<T, int>) {
        if (v.IsInt()) return v.GetInt();
        throw json_value_conversion_error{"int", json_type_name(v)};
    } else if constexpr (std::is_same_v<T, double>) {
        if (v.IsNumber()) return v.GetDouble();
        throw json_value_conversion_error{"double", json_type_name(v)};
    } else if constexpr (std::is_same_v<T, Document>) {
        Document d;
        if (v.IsObject() || v.IsArray()) {
            d.CopyFrom(v, d.GetAllocator());
            return d;
        }
        if (v.IsString()) {
            d.Parse(v.GetString(), v.GetStringLength());
            if (!d.HasParseError() && (d.IsObject() || d.IsArray())) return d;
            throw json_value_conversion_error{"stringified object or array", "string"};
        }
        throw json_value_conversion_error{"object or array", json_type_name(v)};
    } else {
        static_assert(always_false_v<T>, "no conversion from JSON to this parameter type");
    }
}

// Writes v into out as JSON; strings and documents are copied with `allocator`. A number that
// is not finite (JSON has none) is written as null.
template <class T>
void to_json(const T& v, Allocator& allocator, Value& out) {
    if constexpr (std::is_same_v<T, std::string>) {
        out.SetString(v.data(), static_cast<rapidjson::SizeType>(v.size()), allocator);
    } else if constexpr (std::is_base_of_v<Value, T>) {
        out.CopyFrom(v, allocator);
    } else if constexpr (std::is_same_v<T, bool>) {
        out.SetBool(v);
    } else if constexpr (std::is_enum_v<T>) {
        to_json(static_cast<std::underlying_type_t<T>>(v), allocator, out);
    } else if constexpr (std::is_floating_point_v<T>) {
        if (std::isfinite(v))
            out.SetDouble(static_cast<double>(v));
        else
            out.SetNull();
    } else if constexpr (std::is_integral_v<T> && std::is_signed_v<T>) {
        if constexpr (sizeof(T) <= sizeof(int))
            out.SetInt(v);
        else
            out.SetInt64(static_cast<std::int64_t>(v));
    } else if constexpr (std::is_integral_v<T>) {
        if constexpr (sizeof(T) <= sizeof(unsigned))
            out.SetUint(v);
        else
            out.SetUint64(static_cast<std::uint64_t>(v));
    } else {
        static_assert(always_false_v<T>, "no JSON form for this value type");
    }
}

template <class T>
Value to_json_value(const T& v, Allocator& allocator) {
    Value out;
    to_json(v, allocator, out);
    return out;
}

// A deep copy (documents are move-only).
template <class T>
T copy_of(const T& v) {
    if constexpr (std::is_same_v<T, Document>) {
        Document d;
        d.CopyFrom(v, d.GetAllocator());
        return d;
    } else {
        return v;
    }
}

// Value equality; documents compare deeply.
template <class T>
bool same_value(const T& a, const T& b) {
    if constexpr (std::is_base_of_v<Value, T>)
        return static_cast<const Value&>(a) == static_cast<const Value&>(b);
    else
        return a == b;
}

// Sets member `name` of object `obj`, replacing an existing member of that name.
inline void set_member(Value& obj, const char* name, Value&& v, Allocator& allocator) {
    auto it = obj.FindMember(name);
    if (it != obj.MemberEnd())
        it->value = std::move(v);
    else
        obj.AddMember(Value(name, allocator), std::move(v), allocator);
}

// {"read": ..., "write": ..., "subscribe": ...} with only the capabilities a node has.
inline Value capabilities(bool read, bool write, bool subscribe, Allocator& allocator) {
    Value caps(rapidjson::kObjectType);
    if (read) caps.AddMember("read", true, allocator);
    if (write) caps.AddMember("write", true, allocator);
    if (subscribe) caps.AddMember("subscribe", true, allocator);
    return caps;
}

}  // namespace dh::api
