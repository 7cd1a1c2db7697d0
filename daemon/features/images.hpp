#pragma once

#include <map>
#include <mutex>
#include <string>

#include "door.hpp"

// Software images: installation into the slot that is not booted, switching the boot slot, the
// text of the last install step, and the extra package that may come with an image.
class images_unit {
  public:
    explicit images_unit(const host::door& door);

    bool boot_image(const std::string& arg);
    bool run_rauc_install_command(const std::string& url);
    bool switch_image(const std::string& arg);
    std::string get_install_status();
    void handle_extra_package(const std::string& url);

  private:
    void set_install_status(std::string text);
    std::map<std::string, std::string> query_rauc_status();

    const host::door& door_;
    // Held for the whole of boot_image and switch_image: one image operation at a time.
    std::mutex image_mutex;
    // Guards install_status only, for the moment of a copy or an assignment.
    std::mutex install_status_mutex;
    std::string install_status;
};
