#!/usr/bin/env python3
"""Writes CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist from the model list
Tests/Data/table-models.tsv (one row per Quorvel ID of the built-in table, with the model's Linux
port layout in interface order).

Usage: scripts/generate-device-database.py [MODELS.tsv] [OUT.plist]

The model list's last column says where a layout comes from: "driver" (the Linux driver fixes the
port order: hso, nozomi, qcserial, cdc_ether/kalmia-only devices, serial cards), "mm-udev" (the
interface numbers ModemManager's udev rules give for that vendor/product), "family" (the maker's
usual layout for that generation, not confirmed for the single model).

Families: Huawei, ZTE and Option models inherit from the generic family entries 15355, 15356 and
15354, Sierra models from 5059 (a model and the Sierra family at once); the models of every other
maker inherit from that maker's first model. An entry stores only what differs from what it
inherits; a value its ancestor has and it must not have is masked with an empty string.

Port patterns are positions in the device's serial port list (the kernel names in interface order,
"ByPortNumber"), or a regular expression on the path ("ByRegex") for single-port phones, PC Card /
PCI serial cards (ttyS*) and the nozomi driver's fixed names. A port that may be missing shifts
the ports after it down by one, so those get the lower position as alternative patterns; an
optional port followed by other ports cannot be told apart from its successor by position and is
not described.
"""
import csv
import plistlib
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MODELS = ROOT / "Tests/Data/table-models.tsv"
OUT = ROOT / "CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist"

K = "DeviceDatabase."
CONTROL_CAPS = ("GroundInit, SignalStrength, DeviceRecognition, DeviceInfo, NetworkQuery, "
                "BandSelection, QuickConnectInfo, SimSecurity, PLMNMenuSelection, "
                "ControlWWANInterface, USSDServices, Unsolicited, SMS")
MODEM_CAPS = "DataTransport, ConnectInit, RadioLinkAccess"
GENERIC = {
    15354: ("Option", "Option-class device", "0x0AF0", "ttyHS0=control ttyHS1=app ttyHS2=diag ttyHS3=modem", "hso:hso0"),
    15355: ("Huawei", "Huawei-class device", "0x12D1", "ttyUSB0=modem ttyUSB1=diag ttyUSB2=pcui", "-"),
    15356: ("ZTE", "ZTE-device old generation", "0x19D2", "ttyUSB0=diag ttyUSB1=pcui ttyUSB2=aux ttyUSB3=modem", "-"),
}
FAMILY_OF_MAKER = {"Option": 15354, "Huawei": 15355, "ZTE": 15356, "Sierra": 5059}


def parse_ports(text):
    if text == "-":
        return []
    ports = []
    for token in text.split():
        name, role = token.split("=")
        ports.append((name, role.rstrip("?"), role.endswith("?")))
    return ports


def regex_for(name, single_acm):
    if name.endswith("*"):
        return r"/dev/cu\." + name[:-1] + "[0-9]+"
    if single_acm:
        return r"/dev/cu\.ttyACM[0-9]+"
    return r"/dev/cu\." + name


def desired_entry(model):
    ports = parse_ports(model["ports"])
    by_regex = any(n.endswith("*") or n.startswith("noz") for n, _, _ in ports) or (
        len(ports) == 1 and ports[0][0].startswith("ttyACM"))
    has_control = any(role in ("pcui", "control") for _, role, _ in ports)
    entry = {
        K + "Manufacturer": model["manufacturer"],
        K + "PortIdentificationStrategy": "ByRegex" if by_regex else "ByPortNumber",
        K + "ShouldSupressDriverDisk": model["driverDisk"],
        K + "NetworkAccessTechnology": model["technology"],
        K + "DeviceControllingAPIType": model["api"],
    }
    described = []
    for role_wanted in ("modem", "control", "pcui", "gps"):
        for position, (name, role, optional) in enumerate(ports):
            if role != role_wanted:
                continue
            if optional and position != len(ports) - 1:
                continue
            shifts = sum(1 for _, _, opt in ports[:position] if opt)
            described.append((position, name, role, optional, shifts))
    gps_described = any(role == "gps" for _, _, role, _, _ in described)
    for index, (position, name, role, optional, shifts) in enumerate(described):
        if by_regex:
            pattern = regex_for(name, len(ports) == 1)
        else:
            pattern = str(position)
        if role == "modem":
            caps = MODEM_CAPS if has_control else "ALL_CAPABILITIES"
        elif role == "gps":
            caps = "GPSData"
        else:
            caps = CONTROL_CAPS + (", GPSControl" if gps_described else "")
        if optional:
            caps += ", Optional"
        entry[f"{K}Pattern.Port-{index}"] = pattern
        entry[f"{K}Capabilities.Port-{index}"] = caps
        for alternative in range(shifts):
            entry[f"{K}PatternAlternative-{alternative}.Port-{index}"] = str(position - alternative - 1)
    if model["network"] != "-":
        entry[K + "Capabilities.Ethernet-0"] = "DataTransport" if ports else "ALL_CAPABILITIES"
    return entry


def load_models(path):
    with open(path, newline="") as handle:
        models = list(csv.DictReader(handle, delimiter="\t"))
    for quorvel_id, (maker, description, vendor, ports, network) in GENERIC.items():
        models.append({"quorvelID": str(quorvel_id), "vendor": vendor, "product": "-",
                       "description": description, "manufacturer": maker, "technology": "GSM",
                       "ports": ports, "network": network, "driverDisk": "YES",
                       "api": "ATInterface"})
    return sorted(models, key=lambda m: int(m["quorvelID"]))


def ancestors(models):
    first_of_maker = {}
    for model in models:
        first_of_maker.setdefault(model["manufacturer"], int(model["quorvelID"]))
    result = {}
    for model in models:
        own = int(model["quorvelID"])
        parent = FAMILY_OF_MAKER.get(model["manufacturer"], first_of_maker[model["manufacturer"]])
        result[own] = parent if parent != own else -1
    return result


def main():
    models_path = Path(sys.argv[1]) if len(sys.argv) > 1 else MODELS
    out_path = Path(sys.argv[2]) if len(sys.argv) > 2 else OUT
    models = load_models(models_path)
    parent_of = ancestors(models)
    resolved = {}
    entries = []
    # Parents first: a family root has the lowest ID of its maker or is one of the generic IDs,
    # which are handled before the models that name them.
    order = sorted(models, key=lambda m: (parent_of[int(m["quorvelID"])] != -1, int(m["quorvelID"])))
    for model in order:
        own = int(model["quorvelID"])
        want = desired_entry(model)
        parent = parent_of[own]
        inherited = resolved[parent] if parent != -1 else {}
        entry = {K + "QuorvelID": own}
        if parent != -1:
            entry[K + "AncestorQuorvelID"] = parent
        for key, value in want.items():
            if inherited.get(key) != value:
                entry[key] = value
        for key, value in inherited.items():
            if key not in want and value != "":
                if "PatternAlternative" in key or key.endswith("Strategy"):
                    sys.exit(f"{own}: cannot mask inherited {key}")
                entry[key] = ""
        resolved[own] = {**inherited, **{k: v for k, v in entry.items() if k.startswith(K) and
                                         not k.endswith("QuorvelID")}}
        entries.append(entry)
    entries.sort(key=lambda e: e[K + "QuorvelID"])
    out_path.write_bytes(plistlib.dumps(entries, fmt=plistlib.FMT_XML, sort_keys=False))
    print(f"{out_path}: {len(entries)} entries")


if __name__ == "__main__":
    main()
