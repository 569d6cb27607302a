#include "quorconfig.h"
#include "quoraccount.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <new>

#include "momsg.h"
#include "quordebug.h"
#include "quorderr.h"
#include "quorkids.h"
#include "quortev.h"
#include "quortupgm.h"
#include "textlines.h"

namespace {

constexpr std::string_view kSource = "../src/quorconfig";

void report_bad_line(int line_number, std::string_view text) {
  MOmsgf(2, __LINE__, kSource, mo_identifier(125, 2), MO_LOG | 2,
         {std::to_string(line_number), without_newline(text)});
}

// A decimal number as the configuration writes it: leading blanks and a sign
// allowed, nothing after the digits, within 32 bits.
std::optional<long long> parse_number(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size() && (text[i] == ' ' || (text[i] >= '\t' && text[i] <= '\r'))) ++i;
  bool negative = false;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
  std::size_t digits = i;
  long long value = 0;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    value = value * 10 + (text[i] - '0');
    if (value > INT32_MAX + 1LL) return std::nullopt;
  }
  if (i == digits || i != text.size()) return std::nullopt;
  value = negative ? -value : value;
  if (value < INT32_MIN || value > INT32_MAX) return std::nullopt;
  return value;
}

// The value of a "KEY: value" line: after the first ":" and any white
// space, up to the first blank or newline (a tab does not end it).
std::optional<std::string_view> line_value(std::string_view line) {
  std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  std::size_t i = colon + 1;
  while (i < line.size() && (line[i] == ' ' || (line[i] >= '\t' && line[i] <= '\r'))) ++i;
  std::size_t end = i;
  while (end < line.size() && line[end] != ' ' && line[end] != '\n') ++end;
  if (end == i) return std::nullopt;
  return line.substr(i, end - i);
}

enum class Key { ObjectMap, LanguageMap, TransactionTimeout, LoginTimeout, LoginRequired, DefaultLogin, AdminNodes };

// Tried in this order; a line matches a key when it begins with it.
constexpr std::array<std::pair<std::string_view, Key>, 7> kKeys = {{
    {"OBJECT_MAP_FILE", Key::ObjectMap},
    {"LANGUAGE_MAP_FILE", Key::LanguageMap},
    {"TRANSACTION_TIMEOUT", Key::TransactionTimeout},
    {"LOGIN_TIMEOUT", Key::LoginTimeout},
    {"LOGIN_REQUIRED", Key::LoginRequired},
    {"DEFAULT_LOGIN_NAME", Key::DefaultLogin},
    {"ADMIN_NODES", Key::AdminNodes},
}};

// A comma-separated list of node names; empty entries are skipped.
std::vector<std::string> node_list(std::string_view value) {
  std::vector<std::string> nodes;
  while (!value.empty()) {
    std::size_t comma = std::min(value.find(','), value.size());
    if (comma > 0) nodes.emplace_back(value.substr(0, comma));
    value.remove_prefix(std::min(comma + 1, value.size()));
  }
  return nodes;
}

std::optional<Key> line_key(std::string_view line) {
  for (const auto& [name, key] : kKeys)
    if (line.starts_with(name)) return key;
  return std::nullopt;
}

int apply(QuorConfig& config, Key key, std::string_view value) {
  switch (key) {
    case Key::ObjectMap:
      config.object_map_path = value;
      if (quor_debug()) quor_trace("object map file = %s\n", config.object_map_path.c_str());
      return 0;
    case Key::LanguageMap:
      config.language_map.path = value;
      if (quor_debug()) quor_trace("language map file = %s\n", config.language_map.path.c_str());
      return 0;
    case Key::DefaultLogin:
      config.nologin_user = value.substr(0, kMaxLoginName);
      if (quor_debug()) quor_trace("nologinUser = %s\n", config.nologin_user.c_str());
      return 0;
    case Key::AdminNodes:
      config.admin_nodes = node_list(value);
      return 0;
    default:
      break;
  }
  std::optional<long long> number = parse_number(value);
  if (!number) return 3;
  switch (key) {
    case Key::TransactionTimeout:
      if (*number < 0) return 3;
      config.transaction_timeout = static_cast<std::int32_t>(*number);
      if (quor_debug()) quor_trace("tranTimeout = %d\n", config.transaction_timeout);
      return 0;
    case Key::LoginTimeout: {
      long long seconds = *number * 60;
      if (seconds < 0 || seconds > INT32_MAX) return 3;
      config.login_timeout = static_cast<std::int32_t>(seconds);
      if (quor_debug()) quor_trace("loginTimeout = %d\n", config.login_timeout);
      return 0;
    }
    case Key::LoginRequired:
      config.login_required = static_cast<std::int32_t>(*number);
      if (quor_debug()) quor_trace("requireLogin = %d\n", config.login_required);
      return 0;
    default:
      return 3;
  }
}

// Reads the configuration file into `config`; 0, or the load's failure code.
int read_config_file(QuorConfig& config) {
  if (quor_debug()) quor_trace("config file pathname = %s\n", config.config_path.c_str());
  TextLines lines(config.config_path);
  if (!lines.is_open()) {
    report_unopened(lines, config.config_path, 109);
    return 3;
  }
  std::string_view line;
  while (lines.next(line)) {
    if (is_comment(line)) continue;
    int rc = quor_config_line(config, line);
    if (rc == 1) {
      quor_msg_log(1, 4);
      return 1;
    }
    if (rc == 3 && lines.report_bad_line()) {
      quor_msg_log(110, 2, config.config_path);
      report_bad_line(lines.number(), line);
    }
  }
  report_unreported(lines, config.config_path);
  if (lines.failed()) {
    quor_msg_log(108, 2, config.config_path);
    return 3;
  }
  return 0;
}

// Steps of a load that may fail, on the new records only.
int load_new(ObjectMap& map, QuorConfig& config, std::optional<std::string_view> path) {
  if (quor_config_defaults(config) != 0) return 1;
  config.config_path = path ? std::string(*path) : quor_install_root() + "/quor/etc/quor.config";
  if (int rc = read_config_file(config); rc != 0) return rc;
  if (config.login_required == 0) {
    const passwd* account = getpwnam(config.nologin_user.c_str());
    if (account == nullptr) {
      quor_msg_log(137, 2);
      return 3;
    }
    // Requests without a login run as this account: never as root.
    if (account->pw_uid == 0) {
      quor_msg_log(312, 2, config.nologin_user);
      return 3;
    }
  }
  if (int rc = quor_objmap_load(map, config.object_map_path); rc != 0) return rc;
  return quor_langmap_load(config.language_map);
}

}  // namespace

QuorConfig& quor_config() {
  static QuorConfig config;
  return config;
}

ObjectMap& quor_objmap() {
  static ObjectMap map;
  return map;
}

bool quor_admin_node(std::string_view node) {
  const std::vector<std::string>& nodes = quor_config().admin_nodes;
  return !node.empty() && std::find(nodes.begin(), nodes.end(), node) != nodes.end();
}

std::string quor_install_root() {
  const char* root = std::getenv("MOXGLBL0000");
  return root != nullptr ? root : "";
}

std::string quor_temp_dir() {
  const char* dir = std::getenv("TMPDIR");
  struct stat st {};
  return dir != nullptr && *dir != '\0' && stat(dir, &st) == 0 && S_ISDIR(st.st_mode) ? dir : "/tmp";
}

int quor_temp_file(std::string_view prefix, int flags, std::string& path) {
  std::string name = quor_temp_dir() + "/" + std::string(prefix) + "XXXXXX";
  int fd = mkostemp(name.data(), flags | O_CLOEXEC);
  if (fd >= 0) path = std::move(name);
  return fd;
}

int quor_config_defaults(QuorConfig& config) {
  try {
    config = QuorConfig{};
    std::string root = quor_install_root();
    config.object_map_path = root + "/quor/etc/quorobj.map";
    config.language_map.path = root + "/quor/etc/quorlang.map";
    config.nologin_user = "nobody";
  } catch (const std::bad_alloc&) {
    quor_msg_log(1, 4);
    return 1;
  }
  return 0;
}

int quor_config_line(QuorConfig& config, std::string_view line) {
  std::optional<std::string_view> value = line_value(line);
  if (!value) return 3;
  std::optional<Key> key = line_key(line);
  if (!key) return 3;
  try {
    return apply(config, *key, *value);
  } catch (const std::bad_alloc&) {
    return 1;
  }
}

int quor_config_load(ObjectMap& map, QuorConfig& config, std::optional<std::string_view> path) {
  try {
    QuorConfig fresh;
    ObjectMap fresh_map;
    if (int rc = load_new(fresh_map, fresh, path); rc != 0) return rc;

    if (config.default_login_child >= 1 && config.login_required == 0) {
      quor_terminate_pid(config.default_login_child);
      config.default_login_child = 0;
    }
    if (fresh.login_required == 0) {
      fresh.default_login_child = quor_login_start(fresh.nologin_user, "DEFAULT_LOGIN", 0);
      if (fresh.default_login_child == 0) {
        quor_msg_log(122, 2, "quoruserpgm");
        return 1;
      }
    }
    fresh.load_time = std::time(nullptr);
    config = std::move(fresh);
    map = std::move(fresh_map);
  } catch (const std::bad_alloc&) {
    quor_msg_log(1, 4);
    return 1;
  }
  return 0;
}

int quor_config_check(std::optional<std::string_view> path, QuorConfig& read) {
  try {
    ObjectMap map;
    return load_new(map, read, path);
  } catch (const std::bad_alloc&) {
    quor_msg_log(1, 4);
    return 1;
  }
}

int quor_objmap_load(ObjectMap& map, const std::string& path) {
  map.clear();
  TextLines lines(path);
  if (!lines.is_open()) {
    report_unopened(lines, path, 112);
    return 3;
  }
  std::string root = quor_install_root();
  std::string_view line;
  while (lines.next(line)) {
    if (is_comment(line)) continue;
    TwoWords words = two_words(line);
    if (words.first.empty() || words.second.empty()) {
      if (lines.report_bad_line()) {
        quor_msg_log(113, 2, path);
        report_bad_line(lines.number(), line.substr(words.second_at));
      }
      continue;
    }
    ObjectMapEntry& entry = map.emplace_back();
    entry.object_name = words.first;
    if (words.second.find('/') != std::string_view::npos)
      entry.program_path = words.second;
    else
      entry.program_path = root + "/quor/bin/" + std::string(words.second);
    if (quor_debug())
      quor_trace(" Loaded object = %s, path = %s\n", entry.object_name.c_str(), entry.program_path.c_str());
  }
  report_unreported(lines, path);
  if (lines.failed()) {
    quor_msg_log(108, 2, path);
    map.clear();
    return 3;
  }
  if (map.empty()) {
    quor_msg_log(114, 2, path);
    return 3;
  }
  return 0;
}

const ObjectMapEntry* quor_objmap_find(std::string_view name) {
  for (const ObjectMapEntry& entry : quor_objmap())
    if (entry.object_name == name) return &entry;
  return nullptr;
}

int quor_refresh(ConnRecord& conn, InBuf request) {
  quor_accounts_forget();  // accounts may have changed too
  std::optional<std::string_view> path;
  if (std::optional<std::size_t> at = buf_find_segment(request, "ZZZFIL")) path = buf_string(request, *at);
  int rc = quor_config_load(quor_objmap(), quor_config(), path);
  std::string text = rc == 0   ? quor_msg_text(402, 1)
                     : rc == 1 ? quor_msg_text(24, 4)
                               : quor_msg_text(130, 2);
  quor_error_reply(rc, text, conn);
  return rc;
}
