#include <chrono>
#include <mutex>
#include <string>

#include <fmt/format.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include "dh_error.hpp"
#include "msg_log.hpp"
#include "sysrepo_common.hpp"
#include "sysrepo_device_handler.hpp"

using sysrepo_common::NSENTER_CMD;

namespace {

// Parse-stack capacity of the documents made here; datastore exports are a few kilobytes.
constexpr std::size_t document_capacity = 1024;

// Operational documents are served from the cache for this long after their export.
constexpr std::chrono::nanoseconds cache_lifetime{1'000'000'000};

Document parse(const std::string& text) {
    Document doc(nullptr, document_capacity);
    doc.Parse(text.c_str(), text.size());
    return doc;
}

Document deep_copy(const Document& from) {
    Document doc(nullptr, document_capacity);
    doc.CopyFrom(from, doc.GetAllocator());
    return doc;
}

}  // namespace

Document export_or_else_throw(datastore ds, std::string_view args) {
    const std::string cmd = fmt::format("{} /bin/sysrepocfg --export -f json -d {} {}", NSENTER_CMD,
                                        static_cast<char>(ds), args);
    const std::string output = sysrepo_common::exec(cmd, true);
    Document doc = parse(output);
    if (doc.HasParseError()) {
        MSG_LOG(3, "export_or_else_throw") << fmt::format("Invalid json response: {}", output)
                                           << msg_log::getCodeTrace(__FILE__, __LINE__);
        throw dh_error(22, "Invalid json in response");
    }
    return doc;
}

Document get_ietf_ifaces_oper() {
    return export_or_else_throw(datastore::operational, "-x '/ietf-interfaces:interfaces'");
}

Document get_ietf_ifaces_oper(const std::string& name) {
    return export_or_else_throw(
        datastore::operational,
        fmt::format("-x '/ietf-interfaces:interfaces/interface[name=\"{}\"]'", name));
}

// The parse result is not checked: unparsable output gives a null document, in which every
// lookup of the caller finds nothing and its own "not found" handling applies.
Document sysrepo_device_handler::export_data(bool startup) {
    const std::string cmd =
        NSENTER_CMD + (startup ? "sysrepocfg --export -f json -d startup -t 30"
                               : "sysrepocfg --export -f json -d running -t 30");
    return parse(sysrepo_common::exec(cmd, true));
}

// Called with `mutex` held. Running is written before startup, so a refused document never
// reaches the configuration that survives a reboot.
void sysrepo_device_handler::import_data(Document& doc, bool startup_only) {
    std::string json;
    try {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        doc.Accept(writer);
        json.assign(buffer.GetString(), buffer.GetSize());
        if (!startup_only)
            sysrepo_common::exec(NSENTER_CMD + "sysrepocfg --import -f json -d running -t 30",
                                 std::string_view(json));
        sysrepo_common::exec(NSENTER_CMD + "sysrepocfg --import -f json -d startup -t 30",
                             std::string_view(json));
    } catch (...) {
        MSG_LOG(3, "import_module")
            << "Failed when trying to set: " + json << msg_log::getCodeTrace(__FILE__, __LINE__);
        doc_cache.clear();
        throw;
    }
    doc_cache.clear();
}

Document sysrepo_device_handler::_cached_oper_get(std::string_view module) {
    std::lock_guard lock(mutex);
    if (auto it = doc_cache.find(module);
        it != doc_cache.end() && std::chrono::steady_clock::now() < it->second.expires)
        return deep_copy(it->second.doc);

    Document fresh = export_or_else_throw(datastore::operational, fmt::format("-m '{}'", module));
    TempDoc entry{deep_copy(fresh), std::chrono::steady_clock::now() + cache_lifetime};
    doc_cache.insert_or_assign(module, std::move(entry));
    return fresh;
}
