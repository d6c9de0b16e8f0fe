// Probes and the disable-certificate search of the entry-point module.
#pragma once

#include <string>

// A "micom" kernel module is listed in /proc/modules: this is a television.
bool IsDTV();
// The file can be opened for reading; otherwise a line on standard error.
bool isFileExists(const char* path);
// A disable certificate "RTZOLOFF.cer" lies at the root of attached USB mass
// storage; its path is kept for the policy.
bool FindZOLDiableFile();
// The device's hardware unique identifier from the configuration store;
// empty (and logged) when the store holds none.
std::string GetDUID();
