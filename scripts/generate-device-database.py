#!/usr/bin/env python3
"""Writes CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist from the models list
scripts/device-models.tsv (one row per Quorvel ID of the built-in table).

Usage: scripts/generate-device-database.py [MODELS.tsv] [OUT.plist]

Each row names the model's Linux driver, its USB interfaces with the function each carries, the
interfaces the driver reserves (no tty: option.c's RSVD(), sierra.c's direct-IP list), and the
sources of these facts with any disagreement decided (docs/device-knowledge.md). Positions are
derived, never typed: on Linux port N is the N-th tty in interface order, so a port's position is
the number of ttys on lower interfaces (several ttys on one interface count in kernel-name order;
a CDC-ACM function's tty hangs on its first interface).

Families: Huawei, ZTE and Option models inherit from the generic family entries 15355, 15356 and
15354, Sierra models from 5059 (a model and the Sierra family at once); the models of every other
maker inherit from that maker's first model. An entry stores only what differs from what it
inherits; a value its ancestor has and it must not have is masked with an empty string.

Port patterns are positions ("ByPortNumber"), or a regular expression on the path ("ByRegex") for
single-port CDC-ACM phones, PC Card / PCI serial cards (ttyS*) and the nozomi driver's names. A
port that may be missing shifts the ports after it down by one, so those get the lower position
as alternative patterns; an optional port followed by other ports cannot be told apart from its
successor by position and is not described. The output depends on the models list only: running
the generator twice gives the same bytes.
"""
import csv
import plistlib
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
MODELS = ROOT / "scripts/device-models.tsv"
OUT = ROOT / "CoreLayer/QVDeviceObserver/Resources/DeviceDatabase.plist"

K = "DeviceDatabase."
CONTROL_CAPS = ("GroundInit, SignalStrength, DeviceRecognition, DeviceInfo, NetworkQuery, "
                "BandSelection, QuickConnectInfo, SimSecurity, PLMNMenuSelection, "
                "ControlWWANInterface, USSDServices, Unsolicited, SMS")
MODEM_CAPS = "DataTransport, ConnectInit, RadioLinkAccess"
GENERIC = {
    15354: ("Option", "Option-class device", "0x0AF0", "hso", "0=control,app 1=diag 2=modem", "hso:hso0"),
    15355: ("Huawei", "Huawei-class device", "0x12D1", "option", "0=modem 1=diag 2=pcui", "-"),
    15356: ("ZTE", "ZTE-device old generation", "0x19D2", "option", "0=diag 1=pcui 2=aux 3=modem", "-"),
}
FAMILY_OF_MAKER = {"Option": 15354, "Huawei": 15355, "ZTE": 15356, "Sierra": 5059}
# Kernel tty names per driver; the serial card and nozomi names are matched by expression.
TTY_PREFIX = {"option": "ttyUSB", "sierra": "ttyUSB", "qcserial": "ttyUSB", "cdc_acm": "ttyACM",
              "hso": "ttyHS", "serial": "ttyS", "nozomi": "noz"}
NO_TTY_ROLES = ("net", "none", "storage")
CONTROL_ROLES = ("control", "pcui")
# Model-specific preparation as configuration sequences (AT commands, in order).
NOVATEL_SWITCH = "AT$NWDMAT=1"  # ModemManager plugins/novatel/mm-common-novatel.c
NOVATEL_MODES = {  # "AT$NWRAT=a,b", ModemManager plugins/novatel/mm-broadband-modem-novatel.c
    "Sequence.2GOnly": "AT$NWRAT=1,1", "Sequence.3GOnly": "AT$NWRAT=2,1",
    "Sequence.2GPreferred": "AT$NWRAT=1,2", "Sequence.3GPreferred": "AT$NWRAT=2,2"}


def parse_interfaces(text):
    """"N=role", "N+M=role" (a CDC-ACM function: the tty hangs on its first interface N) or
    "N=role1,role2" (several ttys on one interface, in kernel-name order); "?" marks a port the
    device may lack. Returns [(number, [(role, optional), ...])] in interface order."""
    if text == "-":
        return []
    interfaces = []
    for token in text.split():
        number, roles = token.split("=")
        first = int(number.split("+")[0])
        interfaces.append((first, [(r.rstrip("?"), r.endswith("?")) for r in roles.split(",")]))
    interfaces.sort(key=lambda item: item[0])
    numbers = [n for n, _ in interfaces]
    if len(set(numbers)) != len(numbers):
        sys.exit(f"interface listed twice in {text!r}")
    return interfaces


def derived_ports(model):
    """The ttys Linux gives the model, in the order the framework numbers them (interface
    order): [(interface, role, optional)]. An interface the driver reserves, or one a network
    driver or storage takes, has none."""
    reserved = set() if model["reserved"] == "-" else {int(n) for n in model["reserved"].split(",")}
    ports = []
    for number, roles in parse_interfaces(model["interfaces"]):
        if number in reserved:
            continue
        for role, optional in roles:
            if role not in NO_TTY_ROLES:
                ports.append((number, role, optional))
    return ports


def tty_names(model, ports):
    prefix = TTY_PREFIX.get(model["driver"])
    if prefix is None and ports:
        sys.exit(f"{model['quorvelID']}: no tty driver named for its ports")
    return [prefix + str(rank) for rank in range(len(ports))]


def regex_for(model, name, single):
    if model["driver"] == "serial":
        return r"/dev/cu\.ttyS[0-9]+"
    if single and model["driver"] == "cdc_acm":
        return r"/dev/cu\.ttyACM[0-9]+"
    return r"/dev/cu\." + name


def desired_entry(model):
    ports = derived_ports(model)
    names = tty_names(model, ports)
    by_regex = model["driver"] in ("serial", "nozomi") or (
        len(ports) == 1 and model["driver"] == "cdc_acm")
    has_control = any(role in CONTROL_ROLES for _, role, _ in ports)
    entry = {
        K + "Manufacturer": model["manufacturer"],
        K + "PortIdentificationStrategy": "ByRegex" if by_regex else "ByPortNumber",
        K + "ShouldSupressDriverDisk": model["driverDisk"],
        K + "NetworkAccessTechnology": model["technology"],
        K + "DeviceControllingAPIType": model["api"],
    }
    if model.get("model", "-") != "-":
        entry[K + "Description"] = model["model"]
    described = []  # (position, role, optional, shifts), in port index order
    for role_wanted in ("modem", "control", "pcui", "gps"):
        for position, (_, role, optional) in enumerate(ports):
            if role != role_wanted:
                continue
            # An optional port followed by others cannot be told from its successor by position.
            if optional and position != len(ports) - 1:
                continue
            shifts = sum(1 for _, _, opt in ports[:position] if opt)
            described.append((position, role, optional, shifts))
    gps_described = any(role == "gps" for _, role, _, _ in described)
    for index, (position, role, optional, shifts) in enumerate(described):
        pattern = regex_for(model, names[position], len(ports) == 1) if by_regex else str(position)
        if role == "modem":
            caps = MODEM_CAPS if has_control else "ALL_CAPABILITIES"
        elif role == "gps":
            caps = "GPSData"
        else:
            caps = CONTROL_CAPS + (", GPSControl" if gps_described else "")
            if not any(r == "modem" for _, r, _ in ports) and model["network"] == "-":
                caps += ", DataTransport, ConnectInit, RadioLinkAccess"
        if optional:
            caps += ", Optional"
        entry[f"{K}Pattern.Port-{index}"] = pattern
        entry[f"{K}Capabilities.Port-{index}"] = caps
        for alternative in range(shifts):
            entry[f"{K}PatternAlternative-{alternative}.Port-{index}"] = str(position - alternative - 1)
    # For people and `qvdevice db show`/`db check`: the USB interface each described port sits on,
    # and how many ttys the driver gives the model. The framework's classification reads neither.
    if described and model["driver"] not in ("serial", "nozomi"):
        entry[K + "Interfaces"] = [ports[position][0] for position, _, _, _ in described]
    if ports:
        entry[K + "DriverPortCount"] = len(ports)
    if model["network"] != "-":
        entry[K + "Capabilities.Ethernet-0"] = (
            "DataTransport" if any(r == "modem" for _, r, _ in ports) or not ports
            else "DataTransport, ConnectInit, RadioLinkAccess") if ports else "ALL_CAPABILITIES"
    if model["manufacturer"] == "Novatel" and model["technology"] == "GSM":
        for key, command in NOVATEL_MODES.items():
            entry[K + key] = [NOVATEL_SWITCH, command]
    return entry


def load_models(path):
    with open(path, newline="") as handle:
        models = list(csv.DictReader(handle, delimiter="\t"))
    for quorvel_id, (maker, description, vendor, driver, interfaces, network) in GENERIC.items():
        models.append({"quorvelID": str(quorvel_id), "vendor": vendor, "product": "-",
                       "description": description, "model": "-", "manufacturer": maker,
                       "technology": "GSM", "driver": driver, "interfaces": interfaces,
                       "reserved": "-", "network": network, "driverDisk": "YES",
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
