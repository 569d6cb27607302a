#include "quorenvd.h"

#include <array>
#include <new>
#include <string_view>

#include "momsg.h"
#include "quorconfig.h"
#include "quordebug.h"
#include "quorderr.h"
#include "textlines.h"

namespace {

constexpr std::string_view kSource = "../src/quorenvd";
constexpr std::string_view kDefaultLanguage = "DEFAULT";

void report_bad_line(int line_number, const std::string& path) {
  MOmsgf(2, __LINE__, kSource, mo_identifier(131, 2), MO_LOG | 2,
         {std::to_string(line_number), path});
}

// The message directory for `language`: the first entry of that exact name,
// else the default entry. An empty map has no entry to fall back on, so the
// installation's messages directory itself is used.
std::string directory_for(const LanguageMap& map, std::string_view language) {
  for (std::size_t i = 0; i < map.names.size(); ++i)
    if (map.names[i] == language) return map.directories[i];
  if (map.count > 0 && static_cast<std::size_t>(map.default_index) < map.directories.size())
    return map.directories[static_cast<std::size_t>(map.default_index)];
  return {};
}

}  // namespace

int quor_langmap_load(LanguageMap& map) {
  map.count = 0;
  map.names.clear();
  map.directories.clear();
  map.default_index = 0;
  TextLines lines(map.path);
  if (!lines.is_open()) {
    if (!lines.refusal().empty()) quor_msg_log(310, 2, map.path + ": " + lines.refusal());
    return 7;
  }
  try {
    std::string_view line;
    while (lines.next(line)) {
      if (is_comment(line)) continue;
      TwoWords words = two_words(line);
      if (words.first.empty() || words.second.empty()) {
        if (lines.report_bad_line()) report_bad_line(lines.number(), map.path);
        continue;
      }
      map.names.emplace_back(words.first);
      map.directories.emplace_back(words.second);
      if (words.first == kDefaultLanguage) map.default_index = static_cast<int>(map.names.size() - 1);
      if (quor_debug())
        quor_trace("language map, %s = %s\n", map.names.back().c_str(), map.directories.back().c_str());
    }
  } catch (const std::bad_alloc&) {
    map.names.clear();
    map.directories.clear();
    return 1;
  }
  report_unreported(lines, map.path);
  if (lines.failed()) {
    quor_msg_log(108, 2, map.path);
    std::string path = map.path;
    map = LanguageMap{};
    map.path = path;
    return 5;
  }
  map.count = static_cast<int>(map.names.size());
  return 0;
}

void quor_langmap_free(LanguageMap& map) {
  if (map.count <= 0) return;
  map = LanguageMap{};
}

std::optional<EnvBlock> quor_env_read(InBuf buf) {
  static constexpr std::array<std::string_view, 2> kNames = {"DAT", "LAN"};
  std::array<std::string_view, 2> values{};
  if (!buf_read_segment(buf, "ZZZENV", values, kNames)) return std::nullopt;
  EnvBlock env{std::string(values[0]), std::string(values[1])};
  if (quor_debug()) quor_trace("    moxdate=%s, moxmsg=%s\n", env.date_format.c_str(), env.message.c_str());
  (void)quor_env_build(env);
  return env;
}

int quor_env_build(EnvBlock& env, const LanguageMap* map) {
  try {
    const LanguageMap& languages = map != nullptr ? *map : quor_config().language_map;
    env.date_format = "MOX_DATEFMT=" + env.date_format;
    std::string directory = directory_for(languages, env.message);
    if (!directory.empty() && directory.front() == '/') {
      env.message = "MO_MOXMESSAGE=" + directory;
    } else {
      env.message = "MO_MOXMESSAGE=" + quor_install_root() + "/messages";
      if (!directory.empty()) env.message += "/" + directory;
    }
  } catch (const std::bad_alloc&) {
    return 1;
  }
  return 0;
}
