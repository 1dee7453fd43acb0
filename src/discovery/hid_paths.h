// Where the kernel's HID drivers live in sysfs (before KernelPath's root prefix).
#pragma once

constexpr int kKernelPathMax = 256;

constexpr const char* kModuleMtDir = "/sys/module/hid_multitouch/drivers/hid:hid-multitouch/";
constexpr const char* kModuleMtNewId =
    "/sys/module/hid_multitouch/drivers/hid:hid-multitouch/new_id";
constexpr const char* kBusMtDir = "/sys/bus/hid/drivers/hid-multitouch";
constexpr const char* kBusMtNewId = "/sys/bus/hid/drivers/hid-multitouch/new_id";
constexpr const char* kBusGenericDir = "/sys/bus/hid/drivers/hid-generic";
constexpr const char* kBusGenericNewId = "/sys/bus/hid/drivers/hid-generic/new_id";
