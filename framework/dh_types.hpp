#pragma once

#include <rapidjson/document.h>

namespace dh {

// Node values, events and datastore subtrees are rapidjson documents (UTF-8, memory-pool
// allocator).
using Document = rapidjson::Document;
using Value = rapidjson::Value;
using Allocator = rapidjson::Document::AllocatorType;

}  // namespace dh
