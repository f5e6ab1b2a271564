// The host's configuration store: integer and text values by name. Values come from, in
// order of precedence: values set in this process (setConfigValue), the environment
// (PLAYFILE_<name>), the configuration file (PLAYFILE_CONFIG, else
// $XDG_CONFIG_HOME/playfile/playfile.conf), and the caller's default.
//
// The file holds "name = value" lines; '#' and ';' start comments and "[section]" lines
// are ignored. It is read once, on first use.
#pragma once

#include "host/core/LightweightString.h"

int config_int(const char* name, int defaultValue);
String config_string(const char* name, const String& defaultValue = String());

// Stores a value for the rest of the process (or until cleared with a null value).
void setConfigValue(const char* name, const String& value);
void setConfigValue(const char* name, int value);
void clearConfigValue(const char* name);
// Forgets the file's values and reads the file again on next use.
void reloadConfig();
