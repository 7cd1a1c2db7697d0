#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "datastore.hpp"

// How an internal interface carries OSPF: not at all, over its tunnel sub-interface(s) only, or
// on the port itself (the model's reset value).
enum class tunnel_mode_t : int { none = 0, tunnel = 1, port = 2 };

// The OSPF instance and its per-interface settings. The datastore's OSPF entry is generated from
// the in-memory model; a setter works on a copy of the model and adopts it only after the
// datastore took the generated entry, so a failed write leaves the model as it was. Inside a
// write batch the model is adopted at once, so that the batch's next OSPF write builds on it,
// and put back if the batch fails.
class ospf_unit {
  public:
    // Writes the OSPF entry generated from a candidate model into a document.
    using generator = std::function<void(Document&)>;

    explicit ospf_unit(datastore_service& ds);

    void ospf_init();
    void set_ospf_area_id(const std::string& id);
    std::string get_ospf_area_id(const Document& doc);
    void set_ospf_adminStatus(const std::string& status);
    std::string get_ospf_adminStatus(const Document& doc);

    void set_ospf_if_adminStatus(std::string_view name, const std::string& status);
    std::string get_ospf_if_adminStatus(const Document& doc, std::string_view name);
    void set_ospf_interface_metric(std::string_view name, unsigned int metric);
    unsigned int get_ospf_interface_metric(const Document& doc, std::string_view name);
    void set_ospf_interface_passive(std::string_view name, bool passive);
    bool get_ospf_interface_passive(const Document& doc, std::string_view name);
    void set_ospf_interface_area_id(std::string_view name, std::string& id);

    // The router id is the management address. Called by the interfaces unit: `write` gets the
    // generator for the new id and runs the datastore edit; the id is adopted once it returned.
    // OSPF's lock is held throughout, so the lock order is interfaces -> ospf -> datastore.
    void change_router_id(const std::string& id,
                          const std::function<void(const generator&)>& write);
    // The router id read at start-up.
    void adopt_router_id(const std::string& id);

    static const dh::Value& get_control_plane_protocol(const Document& doc);
    static dh::Value& get_control_plane_protocol(Document& doc);

  private:
    struct model {
        std::string area_id;
        std::string router_id;
        bool admin_up = false;
        std::map<std::string, std::optional<bool>, std::less<>> enabled;
        std::map<std::string, std::optional<bool>, std::less<>> passive;
        std::map<std::string, unsigned int, std::less<>> cost;
        std::map<std::string, std::string, std::less<>> uplink_area_id;
        std::map<std::string, bool, std::less<>> flag;
        std::map<std::string, tunnel_mode_t, std::less<>> tunnel_mode;
    };

    // Replaces the OSPF entry of the document (wherever it stands) with one generated from `m`,
    // or removes it when OSPF is administratively down.
    static void update_ospf_status(Document& doc, const model& m);
    static void _update_ospf_tunnel_mode(model& m, std::string_view name);
    static void _set_ospf_interface_metric(Document& doc, const model& m, std::string_view name,
                                           unsigned int metric);
    static unsigned int _get_ospf_interface_metric(const Document& doc, std::string_view name);
    static bool _set_ospf_interface_passive(Document& doc, const model& m, std::string_view name,
                                            bool passive);
    static std::optional<bool> _get_ospf_interface_passive(const Document& doc,
                                                           std::string_view name);
    // Applies `change` to a copy of the model, writes the entry generated from it, and adopts it.
    // mutex_ held.
    void regenerate(model m);

    datastore_service& ds_;
    // Guards model_. Taken by every method; held across the datastore edit of a write.
    std::mutex mutex_;
    model model_;
};
