#pragma once

#include <mutex>
#include <string>

#include "door.hpp"
#include "ntp.hpp"

// Date and time through the klish shell, CLI passthrough, and the automation mode file.
class system_unit {
  public:
    system_unit(const host::door& door, ntp_unit& ntp);

    std::string run_cli_command(const std::string& cmd);
    std::string get_date_time();
    bool set_date_time(const std::string& when);
    void set_automation_mode(const std::string& mode);
    std::string get_automation_mode();

  private:
    const host::door& door_;
    ntp_unit& ntp_;
    // Guards the automation mode file while it is written.
    std::mutex mutex_;
};
