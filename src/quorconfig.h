// The configuration file and the object map.
//
// The configuration file holds "KEY: value" lines (see docs/configuration.md).
// A load reads the configuration, the object map and the language map into
// new records beside the current ones and installs all three only when every
// one was read, so a failed load leaves the running configuration in force.
//
// The object map names the program that serves each object: one
// "OBJECT program" pair per line; a program without "/" lies in the
// installation's quor/bin directory.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "quorenvd.h"
#include "quortran.h"

struct ConnRecord;

inline constexpr std::size_t kMaxLoginName = 32;

struct QuorConfig {
  std::time_t load_time = 0;            // time of the last successful load
  std::string config_path;              // the file that was read
  std::string object_map_path;          // OBJECT_MAP_FILE
  std::int32_t transaction_timeout = 0; // TRANSACTION_TIMEOUT, seconds
  std::int32_t login_timeout = 0;       // LOGIN_TIMEOUT, stored in seconds
  LanguageMap language_map;             // LANGUAGE_MAP_FILE and its entries
  std::string nologin_user;             // DEFAULT_LOGIN_NAME, at most 32 characters
  std::int32_t login_required = 1;      // LOGIN_REQUIRED; 0: run as nologin_user
  pid_t default_login_child = 0;        // login program of nologin_user
  std::vector<std::string> admin_nodes; // ADMIN_NODES: hosts whose clients may control the daemon
};

// Whether clients on host `node` may control the daemon (ADMIN_NODES).
bool quor_admin_node(std::string_view node);

struct ObjectMapEntry {
  std::string object_name;
  std::string program_path;
};
using ObjectMap = std::vector<ObjectMapEntry>;  // in file order

// The current configuration and object map.
QuorConfig& quor_config();
ObjectMap& quor_objmap();

// The installation root ($MOXGLBL0000, empty when unset).
std::string quor_install_root();

// Where the daemon makes its temporary files: $TMPDIR when it names a
// directory, else /tmp.
std::string quor_temp_dir();

// Creates a new file "<temp dir>/<prefix>XXXXXX" with an unpredictable name,
// exclusively and mode 0600, opened with `flags` added. Returns the open
// descriptor and sets `path`, or -1.
int quor_temp_file(std::string_view prefix, int flags, std::string& path);

// Clears `config` and sets the defaults. 0, or 1 out of memory (message 1).
int quor_config_defaults(QuorConfig& config);

// Applies one line (leading white space already skipped). 0 applied, 1 out
// of memory, 3 invalid: no ":", empty value, unknown key or bad number.
int quor_config_line(QuorConfig& config, std::string_view line);

// The whole load, from `path` or, when none, the installation's
// quor/etc/quor.config. 0 loaded; 1 out of memory or the default login
// program could not be started; 3 configuration or object map error; 5
// language map read error; 7 language map cannot be opened.
int quor_config_load(ObjectMap& map, QuorConfig& config, std::optional<std::string_view> path);

// The reading steps of a load, from the same file, without installing
// anything or starting the default login program: what a load would read
// goes into `read`, the current configuration stays as it is. Problems are
// logged as a load logs them. Returns the code the load would return.
int quor_config_check(std::optional<std::string_view> path, QuorConfig& read);

// Reads an object map. 0 at least one entry; 1 out of memory; 3 not opened
// (message 112), no entries (114) or read error (108).
int quor_objmap_load(ObjectMap& map, const std::string& path);

// The first entry of the current map named exactly `name`, or none.
const ObjectMapEntry* quor_objmap_find(std::string_view name);

// The REFRESH request: reloads from the path in a "ZZZFIL" segment, or from
// the default path when there is none, and answers with an error reply whose
// return code is the load's result. Returns that result.
int quor_refresh(ConnRecord& conn, InBuf request);
