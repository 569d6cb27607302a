// The language map and the environment entries handed to agents.
//
// The language map file pairs language names with message directories, one
// pair per line ("french /opt/msg/fr"); the name "DEFAULT" marks the entry
// used for languages the map does not know (the last such line counts). A
// directory that does not begin with "/" lies under the installation
// root's "messages" directory.
//
// A command request states the client's date format and language in a
// "ZZZENV" segment (items "DAT" and "LAN"); they become the two environment
// entries "MOX_DATEFMT=<format>" and "MO_MOXMESSAGE=<directory>".
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "quortran.h"

struct LanguageMap {
  std::string path;
  std::vector<std::string> names;        // in file order
  std::vector<std::string> directories;  // parallel to names
  int count = 0;                         // 0: no map loaded
  int default_index = 0;                 // the last "DEFAULT" entry, else 0
};

// Reads the map named by map.path. 0 read; 1 no memory; 5 read error
// (message 108, the partial map dropped); 7 the file cannot be opened.
// Bad lines are reported (message 131) and skipped.
int quor_langmap_load(LanguageMap& map);

// Empties a loaded map (count above 0), path included.
void quor_langmap_free(LanguageMap& map);

struct EnvBlock {
  std::string date_format;  // "MOX_DATEFMT=..." once built; raw "DAT" before
  std::string message;      // "MO_MOXMESSAGE=..." once built; raw "LAN" before
};

// Reads "ZZZENV" from the request and builds both entries from the current
// configuration's language map. Nothing when the segment is absent or
// malformed.
std::optional<EnvBlock> quor_env_read(InBuf buf);

// Turns the raw date format and language into the two entries, using
// `map` (the current configuration's when omitted). 0, or 1 out of memory.
int quor_env_build(EnvBlock& env, const LanguageMap* map = nullptr);
