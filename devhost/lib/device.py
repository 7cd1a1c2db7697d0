"""The default simulated device: the files of DIR/sim that `devhost up` fills in where missing.

Datastore documents are in the YANG JSON form the daemon reads and writes. Representation
choices (documented in docs/devhost.md):
- interface types: front ports and "mgmt" "infix-if-type:ethernet", "lo" "infix-if-type:loopback",
  the bridge "br0" "infix-if-type:bridge", tunnel sub-interfaces "infix-if-type:vlan" with
  "infix-interfaces:vlan": {"tag-type": "ieee802-dot1q-types:c-vlan", "id": VLAN,
  "lower-layer-if": PORT};
- bridge membership: "infix-interfaces:bridge-port": {"bridge": "br0"} (e11, e12 and e28);
- sub-interfaces e1.8 .. e11.8 are configured off ("enabled": false), the others on;
- operational state per interface: "admin-status" and "oper-status" ("up"/"down"),
  "phys-address" (distinct MACs), and for a port whose link is up
  "ieee802-ethernet-interface:ethernet": {"speed": GBPS} with the speed in Gb/s as the canonical
  decimal64 text: "0.01" (10BaseT), "0.1" (100BaseT), "1.0" (1000BaseT), "10.0" (10G).
"""

import copy
import json
import os

MGMT_ADDRESS = "192.0.2.10"
MGMT_PREFIX = 24
GATEWAY = "192.0.2.1"
NTP_SERVER = "192.0.2.123"
DNS_SERVER = "192.0.2.53"
OSPF_AREA = "0.0.0.1"

PORTS = ["e%d" % i for i in range(1, 29)]
RDM = ["e%d" % i for i in range(1, 13)]
QMX2 = ["e17", "e18", "e19", "e20"]
EXT = ["e21", "e22", "e23", "e24", "e25", "e26"]
TUNNELS = [("e%d.8" % i, "e%d" % i, 8) for i in range(1, 13)]
for _port in ("e13", "e14", "e15", "e16"):
    TUNNELS += [("%s.%d" % (_port, vlan), _port, vlan) for vlan in (8, 21, 22, 23, 24)]
BRIDGE_PORTS = ["e11", "e12", "e28"]
# Interface modes of the internal ports follow from bridge membership and the VLAN 8
# sub-interface: e1..e10 tunnelOnly (not bridged, VLAN 8 off), e11 mgmtOnly (bridged, VLAN 8 off),
# e12 mgmtAndTunnel (bridged, VLAN 8 on).
DISABLED_TUNNELS = ["e%d.8" % i for i in range(1, 12)]

# Link state of the front ports: (oper-status, speed in Gb/s or None when the link is down).
LINKS = {p: ("up", "1.0") for p in PORTS}
LINKS.update({"e13": ("up", "10.0"), "e14": ("up", "10.0"), "e15": ("down", None), "e16": ("down", None)})
LINKS.update({p: ("down", None) for p in ("e21", "e22", "e23", "e24", "e25")})
LINKS.update({"e26": ("up", "0.01"), "e27": ("up", "0.1")})

VERSION = "QMX QMX-RB-16E 2.3.1 -- build 20261101\n"
IMAGE_NAME = "qmx-dh-container 1.0.0\n"


def mac(name):
    if name.startswith("e") and name[1:].isdigit():
        return "02:00:00:00:00:%02x" % int(name[1:])
    return {"mgmt": "02:00:00:00:01:00", "br0": "02:00:00:00:02:00", "lo": "00:00:00:00:00:00"}[name]


def ipv4(address, prefix, forwarding):
    return {"forwarding": forwarding, "address": [{"ip": address, "prefix-length": prefix}]}


def interfaces(with_addresses):
    """The configured interfaces; with_addresses puts the management address on "mgmt" and its
    /32 copies on "lo" and the internal interfaces, as the daemon writes them."""
    result = []

    def add(entry, address=None):
        if with_addresses and address:
            entry["ietf-ip:ipv4"] = ipv4(*address)
        result.append(entry)

    add({"name": "lo", "type": "infix-if-type:loopback", "enabled": True}, (MGMT_ADDRESS, 32, False))
    add({"name": "mgmt", "type": "infix-if-type:ethernet", "enabled": True},
        (MGMT_ADDRESS, MGMT_PREFIX, True))
    add({"name": "br0", "type": "infix-if-type:bridge", "enabled": True})
    for port in PORTS:
        entry = {"name": port, "type": "infix-if-type:ethernet", "enabled": True}
        if port in BRIDGE_PORTS:
            entry["infix-interfaces:bridge-port"] = {"bridge": "br0"}
        if port == "e28":  # the port under "mgmt" carries the management address too
            add(entry, (MGMT_ADDRESS, MGMT_PREFIX, True))
        else:
            add(entry, (MGMT_ADDRESS, 32, True) if port in RDM else None)
    for name, lower, vlan in TUNNELS:
        add({"name": name, "type": "infix-if-type:vlan", "enabled": name not in DISABLED_TUNNELS,
             "infix-interfaces:vlan": {"tag-type": "ieee802-dot1q-types:c-vlan", "id": vlan,
                                       "lower-layer-if": lower}},
            (MGMT_ADDRESS, 32, True))
    return {"interface": result}


def ospf_interfaces():
    """The interface list the daemon generates from its model defaults with OSPF up: every
    interface configured off, uplinks without an area left out."""
    result = [{"name": "lo", "enabled": True}]
    for name in [t[0] for t in TUNNELS] + RDM:
        result.append({"name": name, "enabled": False, "interface-type": "point-to-point",
                       "bfd": {"enabled": True}, "passive": False})
    for name in QMX2:
        result.append({"name": name, "enabled": False, "bfd": {"enabled": False}, "passive": True})
    for name in EXT:
        result.append({"name": name, "enabled": False, "bfd": {"enabled": False}, "passive": True})
    return result


def configuration():
    return {
        "ietf-interfaces:interfaces": interfaces(with_addresses=True),
        "ietf-routing:routing": {"control-plane-protocols": {"control-plane-protocol": [
            {"type": "infix-routing:ospfv2", "name": "default", "ietf-ospf:ospf": {
                "explicit-router-id": MGMT_ADDRESS,
                "areas": {"area": [{"area-id": OSPF_AREA, "area-type": "nssa-area",
                                    "interfaces": {"interface": ospf_interfaces()}}]}}},
            {"type": "infix-routing:static", "name": "default", "static-routes": {
                "ietf-ipv4-unicast-routing:ipv4": {"route": [
                    {"destination-prefix": "0.0.0.0/0", "next-hop": {"next-hop-address": GATEWAY}}]}}},
        ]}},
        "ietf-system:system": {
            "ntp": {"enabled": True, "server": [
                {"udp": {"address": NTP_SERVER}, "name": "primary", "association-type": "server",
                 "iburst": True, "prefer": True}]},
            "dns-resolver": {"server": [{"name": "primary", "udp-and-tcp": {"address": DNS_SERVER}}]},
        },
    }


def operational(config):
    """Operational state: the configured interfaces with their state added."""
    oper = copy.deepcopy(config["ietf-interfaces:interfaces"])
    lower_of = {name: lower for name, lower, _ in TUNNELS}
    for entry in oper["interface"]:
        name = entry["name"]
        status, speed = LINKS.get(lower_of.get(name, name), ("up", None))
        entry["admin-status"] = "up" if entry["enabled"] else "down"
        entry["oper-status"] = status if entry["enabled"] else "down"
        entry["phys-address"] = mac(lower_of.get(name, name))
        if speed and name in LINKS:
            entry["ieee802-ethernet-interface:ethernet"] = {"speed": speed}
    return {"ietf-interfaces:interfaces": oper}


def factory_default():
    return {"ietf-interfaces:interfaces": interfaces(with_addresses=False)}


def sfp_text(values):
    return "".join("\t%-41s : %s\n" % (k, v) for k, v in values)


def sfp_module(serial, wavelength, tx, rx, temperature, transceiver, part):
    return sfp_text([
        ("Identifier", "0x03 (SFP)"),
        ("Extended identifier", "0x04 (GBIC/SFP defined by 2-wire interface ID)"),
        ("Connector", "0x07 (LC)"),
        ("Transceiver codes", "0x20 0x00 0x00 0x00 0x00 0x00 0x00 0x00 0x00"),
        ("Transceiver type", transceiver),
        ("Encoding", "0x06 (64B/66B)"),
        ("BR, Nominal", "10300MBd"),
        ("Rate identifier", "0x00 (unspecified)"),
        ("Length (SMF,km)", "10km"),
        ("Length (SMF)", "10000m"),
        ("Length (50um)", "0m"),
        ("Length (62.5um)", "0m"),
        ("Length (Copper)", "0m"),
        ("Length (OM3)", "0m"),
        ("Laser wavelength", "%dnm" % wavelength),
        ("Vendor name", "QMX OPTICS"),
        ("Vendor OUI", "00:1b:21"),
        ("Vendor PN", part),
        ("Vendor rev", "A1"),
        ("Option values", "0x00 0x1a"),
        ("BR margin, max", "0%"),
        ("BR margin, min", "0%"),
        ("Vendor SN", serial),
        ("Date code", "251104"),
        ("Optical diagnostics support", "Yes"),
        ("Laser bias current", "35.120 mA"),
        ("Laser output power", tx),
        ("Receiver signal average optical power", rx),
        ("Module temperature", temperature),
        ("Module voltage", "3.3010 V"),
        ("Alarm/warning flags implemented", "Yes"),
        ("Laser bias current high alarm", "Off"),
        ("Laser output power high alarm", "Off"),
        ("Laser output power low alarm", "Off"),
        ("Module temperature high alarm", "Off"),
        ("Laser rx power high alarm", "Off"),
        ("Laser rx power low alarm", "Off"),
        ("Laser bias current high alarm threshold", "90.000 mA"),
        ("Laser output power high alarm threshold", "1.2589 mW / 1.00 dBm"),
        ("Laser output power low alarm threshold", "0.1000 mW / -10.00 dBm"),
        ("Module temperature high alarm threshold", "75.00 degrees C / 167.00 degrees F"),
        ("Module temperature low alarm threshold", "-5.00 degrees C / 23.00 degrees F"),
        ("Module temperature high warning threshold", "70.00 degrees C / 158.00 degrees F"),
        ("Laser rx power high alarm threshold", "1.0000 mW / 0.00 dBm"),
        ("Laser rx power low alarm threshold", "0.0100 mW / -20.00 dBm"),
        ("Laser rx power high warning threshold", "0.7943 mW / -1.00 dBm"),
        ("Laser rx power low warning threshold", "0.0200 mW / -16.99 dBm"),
    ])


def lldp_neighbour(name, mac_address, address, port, description):
    return {
        "via": "LLDP", "rid": "1", "age": "0 day, 01:12:40",
        "chassis": {name: {
            "id": {"type": "mac", "value": mac_address},
            "descr": description,
            "mgmt-ip": address,
            "capability": [{"type": "Bridge", "enabled": True}, {"type": "Router", "enabled": True}],
        }},
        "port": {"id": {"type": "ifname", "value": port}, "descr": port, "ttl": "120"},
    }


def rauc_state():
    return {"booted": "rootfs.0", "primary": "rootfs.0", "slots": [
        {"name": "rootfs.0", "bootname": "primary", "status": "ok", "installed_count": 1,
         "activated_count": 1, "bundle_description": "QMX-RB-16E system image",
         "bundle_version": "2.3.1"},
        {"name": "rootfs.1", "bootname": "secondary", "status": "ok", "installed_count": 1,
         "activated_count": 1, "bundle_description": "QMX-RB-16E system image",
         "bundle_version": "2.2.0"},
    ]}


def pretty(doc):
    return json.dumps(doc, indent=2) + "\n"


def default_files():
    """Relative path under DIR/sim -> text, for every file of the default device."""
    config = configuration()
    neighbours = {"lldp": {"interface": [
        {"e1": lldp_neighbour("qmx-ila-1", "02:00:00:00:10:01", "192.0.2.21", "e3", "QMX ILA node 1")},
        {"e2": lldp_neighbour("qmx-ila-2", "02:00:00:00:20:01", "192.0.2.22", "e1", "QMX ILA node 2")},
        {"e2": lldp_neighbour("qmx-ila-3", "02:00:00:00:30:01", "192.0.2.23", "e5", "QMX ILA node 3")},
    ]}}
    return {
        "datastore/startup.json": pretty(config),
        "datastore/operational.json": pretty(operational(config)),
        "datastore/factory-default.json": pretty(factory_default()),
        "sfp/e13.txt": sfp_module("QX25110401", 1310, "0.5012 mW / -3.00 dBm", "0.4000 mW / -3.98 dBm",
                                  "35.00 degrees C / 95.00 degrees F", "10G Ethernet: 10G Base-LR",
                                  "QXS-10G-LR"),
        "sfp/e14.txt": sfp_module("QX25110402", 1550, "0.6310 mW / -2.00 dBm", "0.3162 mW / -5.00 dBm",
                                  "41.50 degrees C / 106.70 degrees F", "10G Ethernet: 10G Base-ER",
                                  "QXS-10G-ER"),
        "lldp/neighbours.json": json.dumps(neighbours, indent=2) + "\n",
        "chrony/selectdata": "*,%s,N,-P---,-----,5,1.000,-0.000012000,0.000034000,N\n" % NTP_SERVER,
        "rauc/state.json": pretty(rauc_state()),
        "files/etc/version": VERSION,
        "files/etc/image/image_name.txt": IMAGE_NAME,
    }


SIM_DIRS = ["datastore", "fail", "log", "sock", "klish", "sfp", "lldp", "chrony", "rauc", "files"]


def populate(sim):
    """Creates the DIR/sim layout and writes each default file that is missing."""
    for d in SIM_DIRS:
        os.makedirs(os.path.join(sim, d), exist_ok=True)
    for rel, text in default_files().items():
        path = os.path.join(sim, rel)
        if not os.path.lexists(path):
            os.makedirs(os.path.dirname(path), exist_ok=True)
            with open(path, "w") as f:
                f.write(text)
