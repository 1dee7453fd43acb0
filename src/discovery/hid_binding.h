// Teaching the kernel's hid-generic and hid-multitouch drivers the controllers' product
// ids through their new_id files.
#pragma once

void CheckVIDinlsusb(const char* vid);
int CheckModuleInSystem(const char* module_name, const char* dir_name);
int CheckPIDinInputDevice(const char* pid);
int IsPidInModule(const char* pid);
int IsPidInSysModule(const char* pid);
int IsPidInSysHIDGeneric(const char* pid);
int AddPidToModule(const char* vid, const char* pid);
int AddPidToSysModule(const char* vid, const char* pid);
int AddPidToSysHIDGeneric(const char* vid, const char* pid);
void ModprobeHidMultitouch();
int AddPIDintoModuleRoutine(const char* vid, const char* pid);
