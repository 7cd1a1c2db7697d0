#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "datastore.hpp"
#include "door.hpp"

// The NTP servers and switch in the running datastore, the NTP daemon's restart, and the
// synchronisation state read from chrony. Holds no state of its own besides the last overall
// state it read: the datastore service serialises its writes.
class ntp_unit {
  public:
    ntp_unit(const host::door& door, datastore_service& ds);

    static std::string get_ntp_adminStatus(const Document& doc);
    void set_ntp_adminStatus(const std::string& status);
    static std::string get_ntp_server(const Document& doc, bool primary);
    void set_ntp_server(bool primary, const std::string& address);
    Document get_ntp_status();
    // The overall code (ntp_status::synchronised, ...) of the last get_ntp_status(); nothing
    // before the first.
    std::optional<int> last_overall() const;
    // Restarts the NTP daemon in the background; its outcome is not waited for.
    void restart_ntpd();

  private:
    // restart_ntpd() once the datastore write (or the write batch) took effect.
    void restart_after_commit();
    static void edit_server(Document& doc, const char* role, bool primary,
                            const std::string& address);

    const host::door& door_;
    datastore_service& ds_;
    // -1 until a status was read.
    std::atomic<int> last_overall_{-1};
};
