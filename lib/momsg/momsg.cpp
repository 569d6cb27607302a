#include "momsg.h"

#include <fcntl.h>
#include <nl_types.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <map>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "catalogue.h"

namespace {

// Process-wide state of the message library: the opened catalogue and the
// names shown in log lines.
struct MsgState {
  bool catalogue_tried = false;
  nl_catd catalogue = reinterpret_cast<nl_catd>(-1);
  bool syslog_open = false;
  std::string program = "quordaemon";
  MoLogSink sink;  // set: logged messages go here instead
};

MsgState& state() {
  static MsgState s;
  return s;
}

bool catalogue_open(const MsgState& s) { return s.catalogue != reinterpret_cast<nl_catd>(-1); }

void open_catalogue(MsgState& s) {
  s.catalogue_tried = true;
  if (const char* root = std::getenv("MOXGLBL0000"); root != nullptr && *root != '\0') {
    std::string path = std::string(root) + "/quor/messages/quor.cat";
    s.catalogue = catopen(path.c_str(), 0);
    if (catalogue_open(s)) return;
  }
  s.catalogue = catopen("quor", NL_CAT_LOCALE);
}

// The catalogue text of message `number`, or the built-in one.
std::string lookup(int number) {
  MsgState& s = state();
  if (!s.catalogue_tried) open_catalogue(s);
  if (catalogue_open(s)) {
    if (const char* text = catgets(s.catalogue, 1, number, nullptr); text != nullptr)
      return text;
  }
  const auto& builtin = catalogue_builtin();
  auto it = builtin.find(number);
  return it == builtin.end() ? std::string() : it->second;
}

// Fills "%s" (next value), "%N$s" (value N) and "%%" in `text`. The values
// are inserted as they are, never interpreted again.
std::string substitute(std::string_view text, const std::vector<std::string_view>& values) {
  std::string out;
  out.reserve(text.size() + 32);
  std::size_t next = 0;
  auto value = [&](std::size_t i) { return i < values.size() ? values[i] : std::string_view(); };
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%' || i + 1 == text.size()) {
      out.push_back(text[i]);
      continue;
    }
    char c = text[i + 1];
    if (c == '%') {
      out.push_back('%');
      ++i;
    } else if (c == 's') {
      out.append(value(next++));
      ++i;
    } else if (c >= '1' && c <= '9' && i + 3 < text.size() && text[i + 2] == '$' &&
               text[i + 3] == 's') {
      out.append(value(static_cast<std::size_t>(c - '1')));
      i += 3;
    } else {
      out.push_back('%');
    }
  }
  return out;
}

char severity_letter(unsigned severity) {
  switch (severity) {
    case 0: return 'T';
    case 1: return 'I';
    case 2: return 'E';
    case 4: return 'S';
    default: return static_cast<char>('0' + severity);
  }
}

int syslog_priority(unsigned severity) {
  switch (severity) {
    case 0: return LOG_DEBUG;
    case 1: return LOG_INFO;
    case 2: return LOG_ERR;
    case 4: return LOG_CRIT;
    default: return LOG_NOTICE;
  }
}

// mkdir -p for the directories of the message log. The log directory itself
// is private to root and its group; the ones above it stay traversable, since
// programs started under users' accounts live beside it.
void make_directories(const std::string& dir) {
  for (std::size_t at = 1; at <= dir.size(); ++at) {
    if (at == dir.size() || dir[at] == '/') {
      std::string part = dir.substr(0, at);
      if (mkdir(part.c_str(), at == dir.size() ? 0750 : 0755) != 0 && errno != EEXIST) return;
    }
  }
}

// Appends one line to the message log with a single write, so lines from
// several processes never interleave.
void append_to_log(const std::string& line) {
  const char* root = std::getenv("MOXGLBL0000");
  if (root == nullptr || *root == '\0') return;
  std::string dir = std::string(root) + "/quor/log";
  std::string path = dir + "/quordaemon.log";
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  if (fd < 0 && errno == ENOENT) {
    make_directories(dir);
    fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
  }
  if (fd < 0) return;
  std::string record = line + "\n";
  ssize_t written = write(fd, record.data(), record.size());
  (void)written;  // a full disk must not stop the daemon; nothing better to do
  close(fd);
}

void send_to_syslog(unsigned severity, const std::string& tagged_text) {
  MsgState& s = state();
  if (!s.syslog_open) {
    openlog(s.program.c_str(), LOG_PID | LOG_NDELAY, LOG_DAEMON);
    s.syslog_open = true;
  }
  syslog(syslog_priority(severity), "%s", tagged_text.c_str());
}

// Control characters would split or forge log lines; show them as blanks.
std::string one_line(std::string_view text) {
  std::string out(text);
  for (char& c : out)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  while (!out.empty() && out.back() == ' ') out.pop_back();
  return out;
}

}  // namespace

std::string mo_tag(std::uint32_t identifier) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "QUOR%04u%c", mo_number(identifier),
                severity_letter(mo_severity(identifier)));
  return buf;
}

namespace {

// Repeated messages: how many lines each number wrote in its current
// window, and how many it left out.
struct Flood {
  std::time_t window_start = 0;
  int written = 0;
  long left_out = 0;
};

struct Floods {
  std::map<unsigned, Flood> by_number;
  bool any_left_out = false;
};

Floods& floods() {
  static Floods f;
  return f;
}

void write_line(std::uint32_t identifier, const std::string& text, unsigned flags);

// Says how many lines of `number` were left out, if any.
void summarize(unsigned number, Flood& flood, unsigned flags) {
  if (flood.left_out == 0) return;
  std::string count = std::to_string(flood.left_out) + " more of message " + std::to_string(number) + " within " +
                      std::to_string(kMoLogWindow) + " s";
  flood.left_out = 0;
  write_line(mo_identifier(308, 2), substitute(lookup(308), {count}), flags);
}

// Whether a line of message `number` may be written now; counts it if not.
bool admit(unsigned number, unsigned flags) {
  std::time_t now = std::time(nullptr);
  Flood& flood = floods().by_number[number];
  if (now - flood.window_start >= kMoLogWindow) {
    summarize(number, flood, flags);
    flood.window_start = now;
    flood.written = 0;
  }
  if (flood.written < kMoLogBurst) {
    ++flood.written;
    return true;
  }
  ++flood.left_out;
  floods().any_left_out = true;
  return false;
}

}  // namespace

std::string mo_log_line(std::uint32_t identifier, std::string_view text, long long epoch_seconds,
                        int pid) {
  std::time_t t = static_cast<std::time_t>(epoch_seconds);
  std::tm utc{};
  gmtime_r(&t, &utc);
  char when[32];
  std::strftime(when, sizeof when, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return std::string(when) + " " + state().program + "[" + std::to_string(pid) +
         "]: " + mo_tag(identifier) + " " + one_line(text);
}

std::string MOmsgf(int /*version*/, int /*line*/, std::string_view /*source*/,
                   std::uint32_t identifier, unsigned flags,
                   std::initializer_list<std::string_view> values) {
  std::size_t count = flags & MO_VALUE_COUNT_MASK;
  std::vector<std::string_view> used(values.begin(),
                                     values.begin() + std::min(count, values.size()));
  std::string text = substitute(lookup(static_cast<int>(mo_number(identifier))), used);
  // A sink (a tool showing what the daemon's code raises) gets every line;
  // the log gets repeated ones within limits.
  if ((flags & MO_LOG) != 0 && state().sink) {
    state().sink(identifier, one_line(text));
    flags &= ~MO_LOG;
  }
  if ((flags & (MO_LOG | MO_STDOUT)) != 0 && admit(mo_number(identifier), flags)) write_line(identifier, text, flags);
  return text;
}

void mo_flush_left_out(bool force) {
  Floods& f = floods();
  if (!f.any_left_out) return;
  std::time_t now = std::time(nullptr);
  f.any_left_out = false;
  for (auto& [number, flood] : f.by_number) {
    if (force || now - flood.window_start >= kMoLogWindow) summarize(number, flood, MO_LOG);
    if (flood.left_out > 0) f.any_left_out = true;
  }
}

namespace {

void write_line(std::uint32_t identifier, const std::string& text, unsigned flags) {
  std::string line = mo_log_line(identifier, text, static_cast<long long>(std::time(nullptr)),
                                 static_cast<int>(getpid()));
  if (flags & MO_LOG) {
    append_to_log(line);
    send_to_syslog(mo_severity(identifier), mo_tag(identifier) + " " + one_line(text));
  }
  if (flags & MO_STDOUT) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
  }
}

}  // namespace

const char* mo_nodename() {
  static const std::string node = [] {
    utsname u{};
    return uname(&u) == 0 ? std::string(u.nodename) : std::string();
  }();
  return node.c_str();
}

void mo_set_program(std::string_view name) {
  MsgState& s = state();
  s.program = std::string(name);
  if (s.syslog_open) {
    closelog();
    s.syslog_open = false;
  }
}

void mo_set_log_sink(MoLogSink sink) { state().sink = std::move(sink); }

void mo_reset() {
  floods() = Floods{};
  MsgState& s = state();
  if (catalogue_open(s)) catclose(s.catalogue);
  s.catalogue = reinterpret_cast<nl_catd>(-1);
  s.catalogue_tried = false;
}
