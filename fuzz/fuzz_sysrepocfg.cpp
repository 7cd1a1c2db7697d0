// `sysrepocfg --export -f json` output as the datastore service reads it, then the lookups the
// features make in such a document.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "datastore.hpp"
#include "dh_error.hpp"
#include "door.hpp"
#include "yang_doc.hpp"

namespace {

// Answers every command with the fuzzer's input.
class canned : public host::executor {
  public:
    std::string output;
    host::result run(const host::argv_t&, const host::options&) override {
        return {0, false, output};
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static auto exec = std::make_shared<canned>();
    static const host::door door(exec, "/nonexistent");
    exec->output.assign(reinterpret_cast<const char*>(data), size);
    datastore_service ds(door);
    auto running = ds.export_running();
    for (const char* name : {"e1", "mgmt", "br0", "e12.8"})
        yang_doc::interface_entry(running, name);
    try {
        auto oper = ds.export_checked(datastore::operational, {"-m", "ietf-interfaces"});
        yang_doc::interface_entry(oper, "e1");
        yang_doc::require_object(oper);
    } catch (const dh_error&) {
    }
    return 0;
}
