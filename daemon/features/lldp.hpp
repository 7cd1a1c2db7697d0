#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string_view>

#include "dh_api/dh_api.hpp"
#include "door.hpp"

using Document = dh::Document;
using pushed_document_node =
    dh::api::hysteresis_filtered_value<dh::api::pushed_volatile_value_impl<Document>>;

// LLDP neighbours per internal port, read from lldpd, and the per-port switches that decide
// which ports publish them. The node map registers the nodes and hands them over before the
// first poll.
class lldp_unit {
  public:
    explicit lldp_unit(const host::door& door);

    // A port's neighbour node, switched off, and the node whose poll calls
    // lldp_update_neighbours (asked to poll at once when a port is switched on).
    void attach(std::string_view port, std::shared_ptr<pushed_document_node> neighbours);
    void attach_poll(std::weak_ptr<dh_db_leaf_node> any);

    void lldp_set_enable(std::string_view port, bool enable);
    bool lldp_get_enable(std::string_view port);
    // All neighbours; pushes each enabled port's list to its node.
    Document lldp_update_neighbours();

  private:
    const host::door& door_;
    // Guards the switches and the node maps; never held while lldpctl runs.
    std::mutex mutex_;
    std::map<std::string_view, bool> lldp_enabled;
    std::map<std::string_view, std::shared_ptr<pushed_document_node>> lldp_neighbour_nodes;
    std::weak_ptr<dh_db_leaf_node> poll_node_;
};
