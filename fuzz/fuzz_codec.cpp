// The protocol codec on arbitrary bytes: framing in reads of varying size, then parsing,
// envelope checks and answer writing for each line, with small limits so they are reached.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "rpc_codec.hpp"

using namespace dh::server::codec;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    // The first byte chooses the read size, so that lines straddle reads in every way.
    const std::size_t chunk = 1 + data[0] % 64;
    ++data;
    --size;
    line_framer framer(512, 16, 64);
    line_parser parser(8);
    string_buffer sb;
    json_writer w(sb);
    std::vector<std::string> answers;
    auto handle = [&](const char* line, std::size_t len) {
        if (parser.parse(line, len) != line_parser::outcome::parsed) return;
        auto& doc = parser.document();
        auto one = [&](const dh::Value& v) {
            request r;
            const bool ok = parse_envelope(v, r);
            if (ok && r.params && r.params->IsObject()) {
                if (const auto* path = find_param(r.params, "path"); path && path->IsString())
                    trim_slashes(as_view(*path));
                if (const auto* value = find_param(r.params, "value")) {
                    write_result(sb, w, r.id, *value);
                    answers.emplace_back(sb.GetString(), sb.GetSize());
                    return;
                }
            }
            write_error(sb, w, r.id, {-1, "x"});
            answers.emplace_back(sb.GetString(), sb.GetSize());
        };
        if (doc.IsArray())
            for (const auto& v : doc.GetArray()) one(v);
        else
            one(doc);
    };
    std::size_t done = 0;
    while (done < size) {
        const std::size_t n = std::min({chunk, size - done, framer.space_size()});
        std::memcpy(framer.space(), data + done, n);
        framer.commit(n);
        done += n;
        char* line = nullptr;
        std::size_t len = 0;
        line_framer::status st;
        while ((st = framer.next(line, len)) == line_framer::status::line) handle(line, len);
        if (st == line_framer::status::too_large) return 0;
        framer.compact();
    }
    char* line = nullptr;
    std::size_t len = 0;
    if (framer.rest(line, len)) handle(line, len);
    join_batch(answers);
    return 0;
}
