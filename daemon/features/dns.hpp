#pragma once

#include <mutex>
#include <optional>
#include <string>

#include "datastore.hpp"
#include "door.hpp"

// The DNS servers: the running datastore's resolver list and the host's /etc/resolv.conf.
class dns_unit {
  public:
    dns_unit(const host::door& door, datastore_service& ds);

    Document get_dns_servers(const Document& doc);
    void set_dns_servers(const Document& servers);
    static void update_dns_server(Document& doc, const std::string& role,
                                  const std::string& address);
    void update_resolv_conf(const std::string& primary, const std::string& secondary);

  private:
    void write_resolv_conf(const std::string& text);
    // The file's text; nothing when it cannot be read.
    std::optional<std::string> read_resolv_conf() const;

    const host::door& door_;
    datastore_service& ds_;
    // Held by set_dns_servers across its write and the resolver file, so the file follows the
    // datastore in the order the writes were made.
    std::mutex mutex_;
};
