// check-config: the daemon's own reading of a configuration and its maps,
// with the messages the daemon would log shown instead of logged.
#include <cstdlib>

#include "ctl_commands.h"
#include "momsg.h"
#include "quorconfig.h"

namespace {

// Why a load with return code `rc` fails, beyond the messages it logged.
std::string refusal(int rc, const QuorConfig& read) {
  switch (rc) {
    case 1: return "out of memory";
    case 5: return "the language map " + read.language_map.path + " could not be read to its end";
    case 7: return "the language map " + read.language_map.path + " cannot be opened";
    default: return "see the messages above";
  }
}

}  // namespace

CtlOutcome ctl_check_config(const std::optional<std::string>& path) {
  CtlOutcome o;
  const char* root = std::getenv("MOXGLBL0000");
  if (root == nullptr || *root == '\0') {
    o.status = kCtlUsage;
    o.error = "check-config needs MOXGLBL0000, the installation root, as the daemon does";
    return o;
  }
  std::size_t messages = 0;
  mo_set_log_sink([&](std::uint32_t id, std::string_view text) {
    o.out += mo_tag(id) + " " + std::string(text) + "\n";
    ++messages;
  });
  QuorConfig read;
  std::optional<std::string_view> p;
  if (path) p = *path;
  int rc = quor_config_check(p, read);
  mo_set_log_sink({});

  if (rc != 0) {
    o.status = kCtlDaemonError;
    o.error = read.config_path + ": the daemon would not load this configuration (RC " + std::to_string(rc) +
              "): " + refusal(rc, read);
  } else if (messages == 0) {
    o.out += read.config_path + ": loads without problems\n";
  } else {
    o.out += read.config_path + ": loads; the lines reported above are skipped\n";
  }
  return o;
}
