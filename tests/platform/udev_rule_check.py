#!/usr/bin/env python3
"""Offline check of platform/linux/70-tavrine.rules.

`udevadm test` needs the real devices, so the rule file is run here by a small matcher of
the udev rule language against device property sets shaped like sysfs: the event node, then
its parents (the input device with `name` and `id/vendor`, the HID device, the USB device).
The matcher follows udev's semantics for the keys it knows and refuses any other key, so a
condition added to the rule cannot be skipped silently:
  - ACTION, SUBSYSTEM, KERNEL: the event device; TEST: a file exists;
  - ATTRS{x}: one ancestor (the device included) must have attribute x and satisfy the
    operator; a missing attribute satisfies neither == nor != (as in udev);
  - patterns: shell globs, alternatives separated by '|';
  - ENV{x}="v" assigns, GOTO jumps to its LABEL.
When `udevadm verify` exists (systemd 253 and later) the file is also checked by udev itself.

Usage: udev_rule_check.py RULES_FILE
"""
import fnmatch
import re
import subprocess
import sys

TOKEN = re.compile(r'\s*([A-Z_]+)(?:\{([^}]*)\})?\s*(==|!=|=)\s*"([^"]*)"\s*(?:,|$)')
DEVICE_KEYS = {"ACTION", "SUBSYSTEM", "KERNEL"}
KNOWN_KEYS = DEVICE_KEYS | {"ATTRS", "TEST", "ENV", "GOTO", "LABEL"}
ACTIVE = "/run/tavrined.active"


def parse(path):
    """The rule lines as lists of (key, attribute, operator, value)."""
    rules = []
    text = open(path, encoding="utf-8").read().replace("\\\n", "")
    for number, line in enumerate(text.splitlines(), 1):
        line = line.strip()
        if not line or line.startswith("#"):
            continue
        tokens, pos = [], 0
        while pos < len(line):
            match = TOKEN.match(line, pos)
            if not match or match.end() == pos:
                raise SystemExit(f"line {number}: cannot parse at: {line[pos:]}")
            key, attr, op, value = match.group(1, 2, 3, 4)
            if key not in KNOWN_KEYS:
                raise SystemExit(f"line {number}: key {key} unknown to this check")
            tokens.append((key, attr, op, value))
            pos = match.end()
        rules.append(tokens)
    return rules


def glob(value, pattern):
    return any(fnmatch.fnmatchcase(value, alt) for alt in pattern.split("|"))


def token_matches(device, key, attr, op, value):
    if key in DEVICE_KEYS:
        return glob(device[key], value) == (op == "==")
    if key == "TEST":
        return (value in device["files"]) == (op == "==")
    if key == "ATTRS":
        for attributes in device["chain"]:
            if attr in attributes and glob(attributes[attr], value) == (op == "=="):
                return True
        return False
    raise AssertionError(key)


def run(rules, device):
    """The device's properties after the rule file."""
    env = dict(device["env"])
    labels = {t[0][3]: i for i, t in enumerate(rules) if t[0][0] == "LABEL"}
    i = 0
    while i < len(rules):
        tokens = rules[i]
        matches = [t for t in tokens if t[2] in ("==", "!=")]
        if all(token_matches(device, *t) for t in matches):
            goto = None
            for key, attr, op, value in tokens:
                if key == "ENV" and op == "=":
                    env[attr] = value
                elif key == "GOTO":
                    goto = value
            if goto is not None:
                if goto not in labels:
                    raise SystemExit(f"GOTO {goto} has no LABEL")
                i = labels[goto]
        i += 1
    return env


def kernel_node(name, vendor, action="add", kernel="event5", subsystem="input", active=True):
    """An input event node of a device named `name` from USB vendor `vendor` (hex)."""
    return {
        "ACTION": action,
        "SUBSYSTEM": subsystem,
        "KERNEL": kernel,
        "files": {ACTIVE} if active else set(),
        "chain": [
            {"dev": "13:69"},
            {"name": name, "id/vendor": vendor, "id/product": "0001", "id/bustype": "0003"},
            {"country": "00"},  # the HID device: no id/ attributes
            {"idVendor": vendor, "idProduct": "0001"},  # the USB device
        ],
        "env": {"ID_INPUT": "1", "ID_INPUT_TOUCHSCREEN": "1"},
    }


HIDDEN = {"ID_INPUT": "", "ID_INPUT_TOUCHSCREEN": "", "LIBINPUT_IGNORE_DEVICE": "1"}
UNTOUCHED = {"ID_INPUT": "1", "ID_INPUT_TOUCHSCREEN": "1"}

CASES = [
    ("controller 3c7a while the daemon runs", kernel_node("QEVO Touch", "3c7a"), HIDDEN),
    ("controller 5d19 while the daemon runs", kernel_node("QEVO Pen", "5d19"), HIDDEN),
    ("change event while the daemon runs", kernel_node("QEVO Touch", "3c7a", "change"), HIDDEN),
    ("controller 3c7a, daemon stopped", kernel_node("QEVO Touch", "3c7a", active=False), UNTOUCHED),
    ("daemon's touch device (vendor 3c7a too)",
     kernel_node("MorvelTouch_VirtualDevice", "3c7a", kernel="event7"), UNTOUCHED),
    ("daemon's pen device", kernel_node("MorvelTouch_VirtualPen", "3c7a", kernel="event8"),
     UNTOUCHED),
    ("another vendor", kernel_node("Logitech Mouse", "046d"), UNTOUCHED),
    ("vendor id containing 3c7a", kernel_node("Other", "13c7a"), UNTOUCHED),
    ("controller's input device (not an event node)",
     kernel_node("QEVO Touch", "3c7a", kernel="input5"), UNTOUCHED),
    ("controller's hidraw node", kernel_node("QEVO Touch", "3c7a", kernel="hidraw0",
                                             subsystem="hidraw"), UNTOUCHED),
    ("controller removed", kernel_node("QEVO Touch", "3c7a", "remove"), UNTOUCHED),
]


def udevadm_verify(path):
    """udev's own syntax check when this udevadm has it; None when it does not."""
    try:
        probe = subprocess.run(["udevadm", "verify", "--help"], capture_output=True,
                               timeout=10)
    except (OSError, subprocess.TimeoutExpired):
        return None
    if probe.returncode != 0:
        return None
    result = subprocess.run(["udevadm", "verify", path], capture_output=True, text=True,
                            timeout=30)
    return result.returncode == 0, result.stdout + result.stderr


def main():
    path = sys.argv[1]
    rules = parse(path)
    passed = failed = 0
    for what, device, want in CASES:
        got = run(rules, device)
        if got == want:
            passed += 1
            print(f"ok      {what}")
        else:
            failed += 1
            print(f"FAILED  {what}: got {got}, want {want}")
    verified = udevadm_verify(path)
    if verified is None:
        print("udevadm verify: not available here (systemd before 253)")
    elif verified[0]:
        passed += 1
        print("ok      udevadm verify")
    else:
        failed += 1
        print(f"FAILED  udevadm verify:\n{verified[1]}")
    print(f"{passed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
