// quorctl: the raw text form, the decoder on real and damaged bytes, the commands against a fake server for the replies
// the daemon never sends, the quorctl binary itself (exit statuses, help, JSON, the real daemon, check-config), and its
// data-file tools.
#include <gmock/gmock.h>

#include "ctl_commands.h"
#include "ctl_files.h"
#include "daemon_util.h"
#include "forked_server.h"
#include "momsg.h"
#include "quorRDW.h"
#include "quorcal.h"
#include "quorconfig.h"
#include "quorlsfl.h"

using testutil::EnvGuard;
using testutil::read_file;
using testutil::TempDir;
using ::testing::AllOf;
using ::testing::Contains;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using ::testing::StartsWith;
namespace fs = std::filesystem;

static void PrintTo(const CtlOutcome& o, std::ostream* os) {
  *os << o.status << ", out \"" << o.out << "\", error \"" << o.error << "\"";
}

// An outcome with this status whose output and error match.
template <class Out, class Error>
auto Outcome(int status, Out out, Error error) {
  using ::testing::Field;
  return AllOf(Field(&CtlOutcome::status, status), Field(&CtlOutcome::out, out), Field(&CtlOutcome::error, error));
}

namespace {

// `b` with its size printed into its length prefix.
std::vector<char> with_prefix(std::vector<char> b) {
  char prefix[24];
  std::snprintf(prefix, sizeof prefix, "%5zu", b.size());
  std::copy(prefix, prefix + LENGTH_PREFIX, b.begin());
  return b;
}

// A plain buffer with its length prefix: a transaction header, one segment holding `items`, the trailer.
std::vector<char> buffer(std::string_view code, const std::vector<std::string>& items, std::string_view more,
                         std::string_view tag = "ZZZSTS") {
  return with_prefix(testutil::plain_request(code, {{tag, items}}, more));
}

std::vector<char> error_reply(const std::string& rc, const std::string& rm) {
  return buffer("E", {"RC", rc, "RM", rm}, "N", "ZZZRET");
}

// The quorctl binary run with `args` and `input` on standard input: its exit
// status, standard output and standard error.
CtlOutcome quorctl(const std::vector<std::string>& args, const std::string& input = "") {
  TempDir dir;
  std::ofstream(dir.path() / "in", std::ios::binary) << input;
  std::string cmd = QUORCTL_PATH;
  for (const auto& a : args) cmd += " '" + a + "'";  // none holds a quote
  int status = std::system((cmd + " <" + dir.str() + "/in >" + dir.str() + "/out 2>" + dir.str() + "/err").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, testutil::read_file(dir.path() / "out"),
          testutil::read_file(dir.path() / "err")};
}

// A fake daemon for the replies the real one never sends, serving `conn` in a child process. F: a report in three
// buffers, two partial; B: first a reply whose last buffer wrongly announces more, later an error reply; P: one partial
// buffer, then silence; D: a buffer with a wrong segment length; T: exit 0. A malformed request, or another type, ends
// it with another status.
constexpr const char* kFake = "TEST.SRV";

int serve(ConnRecord& conn) {
  ConnRecord partial;  // partial buffers come from a name of their own
  if (quor_tev_register(partial.local, partial.fb, "QUORFAKE.P") != 0) return 20;
  std::vector<char> buf(BUFFER_MAX);
  for (int brief = 0;;) {
    if (quor_tev_receive(conn, buf) != 0) return 21;
    // Every request names the process that sent it and has the trailer N.
    TransactionHeader h;
    Trailer trl;
    if (!tran_header_read(buf, h) || !quor_trl_read(buf, trl) || trl.more_data != "N" || !conn.inquiry.valid ||
        h.pid != std::to_string(conn.inquiry.pid) || h.continuation != "N" || h.ostype != "UNIX1")
      return 22;
    partial.remote = conn.remote;
    // Each buffer as a conversation from the second registration, but for the
    // last one, which is the DATA reply unless `stall`.
    auto reply = [&](std::vector<std::vector<char>> buffers, bool stall = false) {
      for (std::size_t i = 0; i < buffers.size(); ++i) {
        std::vector<char>& b = buffers[i];
        bool conv = stall || i + 1 < buffers.size();
        if ((conv ? quor_tev_converse(partial, b, b.size()) : quor_tev_send(conn, b, b.size())) != 0) return false;
      }
      return true;
    };
    bool sent = false;
    if (h.type() == 'T') return 0;
    if (h.type() == 'F')
      sent = reply({buffer("F", {"status line 1\n", "status line 2\n"}, "Y"),
                    buffer("S", {"status line 3\n", "line 4 without a newline"}, "Y"),
                    buffer("S", {"status line 5\n"}, "N")});
    else if (h.type() == 'B')
      sent = reply({++brief == 1 ? buffer("B", {"cut short\n"}, "Y")
                                 : error_reply("12", "status not available\nsee the log")});
    else if (h.type() == 'P')
      sent = reply({buffer("P", {"first of several\n"}, "Y")}, true);
    else if (h.type() == 'D')
      sent = reply({ctl_parse_text("header D\nsegment ZZZSTS 9\nstring x\nend\ntrailer N\n").bytes});
    if (!sent) return 30;
  }
}

CtlTarget fake(int timeout_ms = 5000) { return CtlTarget{kFake, timeout_ms}; }

}  // namespace

// Every directive and escape makes the bytes it describes; decode --text output parses back to the very same bytes,
// also for a pair segment with an empty name and an odd item count, a stated length, and values that need escapes
// (other buffers: the fuzz target and the binary's decode below).
TEST(RawTextForm, WritesTheBytesItDescribesAndReadsBackItsOwnText) {
  CtlRequest r = ctl_parse_text(
      "# a refresh naming another file\nheader R Y\nsegment ZZZFIL\nstring /opt/quor/etc/alt config\nend\n"
      "  segment ZZZXYZ\nitem NAME tab\\there\\\\\nitem EMPTY\nitem LEAD   two blanks \nitem HEX \\x41\\xfF\n"
      "item CUT a\\0b\r\nend\nsegment ZZZODD\nstring\nstring value\nstring lone\nend\n"
      "segment ZZZLIE 40\nitem K V\nend\ntrailer Y\n");
  ASSERT_EQ(r.error, "");
  TransactionHeader h;
  ASSERT_TRUE(tran_header_read(r.bytes, h));
  EXPECT_EQ(h.transcode + h.continuation + h.pid, "RY" + std::to_string(getpid()));
  // The bytes after the header, spelled out: a "\0" escape splits a value.
  const std::string bytes(r.bytes.begin(), r.bytes.end());
  EXPECT_EQ(bytes.substr(bytes.find("ZZZFIL")),
            testutil::nul_join({"ZZZFIL", "ZZZLEN", "   38", "/opt/quor/etc/alt config", "ZZZEOS", "ZZZXYZ", "ZZZLEN",
                                "   69", "NAME", "tab\there\\", "EMPTY", "", "LEAD", "  two blanks ", "HEX", "A\xFF",
                                "CUT", "a", "b", "ZZZEOS", "ZZZODD", "ZZZLEN", "   25", "", "value", "lone", "ZZZEOS",
                                "ZZZLIE", "ZZZLEN", "   40", "K", "V", "ZZZEOS", "ZZZTRL", "ZZZLEN", "   18", "MD", "Y",
                                "ZZZEOS", "ZZZEOD"}));
  const std::string text = ctl_to_text(ctl_decode(r.bytes));
  CtlRequest again = ctl_parse_text(text);
  ASSERT_EQ(again.error, "") << text;
  EXPECT_EQ(again.bytes, r.bytes) << text;
  // The text form escapes every blank of a name, and the last one of a value.
  EXPECT_EQ(ctl_text_escape("a b ", true), "a\\x20b\\x20");
  EXPECT_EQ(ctl_text_escape("a b ", false), "a b\\x20");
}

// A bad line gives an error naming the line (and no bytes: the fuzz target).
TEST(RawTextForm, RejectsBadLinesNamingTheLine) {
  std::string huge = "segment ZZZBIG\n";
  for (int i = 0; i < 330; ++i) huge += "string " + std::string(100, 'x') + "\n";
  const std::pair<std::string, std::string> cases[] = {
      {"header B\nitem A B\n", "line 2: item outside a segment"}, {"string x\n", "line 1: string outside a segment"},
      {"segment ZZZA\nsegment ZZZB\n", "line 2: segment inside an open segment (missing 'end')"},
      {"segment ZZZA\nheader B\n", "line 2: header inside an open segment (missing 'end')"},
      {"segment ZZZA\ntrailer N\n", "line 2: trailer inside an open segment (missing 'end')"},
      {"\r\n# c\r\nsegment ZZZA\r\nstring \\q\r\n", "line 4: bad escape"}, {"segment\n", "line 1: segment needs a tag"},
      {"segment ZZZA\nstring ends in \\\n", "line 2: bad escape"}, {"trailer X\n", "line 1: trailer takes Y or N"},
      {"segment ZZZA\nitem N \\x4\n", "line 2: bad escape"}, {"segment ZZZA\nitem\n", "line 2: item needs a name"},
      {"segment ZZZA 123456\n", "line 1: segment length must be a number below 100000"},
      {"segment ZZZA 12 13\n", "line 1: segment takes a tag and an optional length"},
      {"end\n", "line 1: end without a segment"}, {"segment ZZZA\nend now\n", "line 2: end takes no argument"},
      {"frobnicate\n", "line 1: unknown directive 'frobnicate'"},
      {"# nothing\n\n", "line 2: no directives: empty request"},
      {"header B\nsegment ZZZA\n", "line 2: segment not closed with 'end'"},
      {"header B N extra\n", "line 1: header takes a type and a continuation flag"},
      {huge, "line 326: request does not fit in 32767 bytes"},
  };

  for (const auto& [text, error] : cases) EXPECT_EQ(ctl_parse_text(text).error, error) << text.substr(0, 60);
}

// Each kind of damage is named with the offset where it is.
TEST(Decoder, NamesTheOffsetAndTheFaultOfDamagedFraming) {
  const auto good = error_reply("3", "bad");
  ASSERT_TRUE(ctl_decode(good).ok());
  const std::size_t n = good.size();
  const std::size_t ret = *buf_find_segment(good, "ZZZRET") - 20;  // the tag
  // `good` with `remove` bytes at `at` replaced by `insert`.
  auto splice = [&](std::size_t at, std::size_t remove, std::string_view insert) {
    auto b = good;
    b.erase(b.begin() + static_cast<long>(at), b.begin() + static_cast<long>(at + remove));
    b.insert(b.begin() + static_cast<long>(at), insert.begin(), insert.end());
    return b;
  };
  const std::string digits(good.data(), 5);
  auto at = [](std::size_t offset, const std::string& why) { return "offset " + std::to_string(offset) + ": " + why; };
  const std::pair<std::vector<char>, std::string> cases[] = {
      {splice(0, 5, "  500"), "offset 0: length prefix says 500 but the buffer has " + std::to_string(n) + " bytes"},
      {splice(0, 6, {"1x3\0\0\0", 6}),
       "offset 0: length prefix \"1x3\\x00\\x00\\x00\" is not a length printed in 5 characters and a NUL"},
      {splice(5, 1, "7"),
       "offset 0: length prefix \"" + digits + "7\" is not a length printed in 5 characters and a NUL"},
      {splice(13, 6, "ZZZLEX"), "offset 13: expected ZZZLEN after tag \"ZZZTRN\", found \"ZZZLEX\""},
      {splice(20, 5, "    9"), "offset 20: segment ZZZTRN declares length 9, its ZZZEOS ends " +
                               std::to_string(ret - 20) + " bytes after the length field"},
      {splice(20, 5, " 12x "),
       "offset 20: length field \" 12x \" of segment ZZZTRN is not a length printed in 5 characters"},
      {splice(ret, 6, "ZZZret"), at(ret, "tag \"ZZZret\" is not ZZZ and three upper-case letters")},
      {splice(n - 14, 6, "ZZZEOD"), at(n - 14, "ZZZEOD inside segment ZZZTRL (no ZZZEOS)")},
      {with_prefix(splice(n, 0, {"x\0y", 3})), at(n, "3 bytes after ZZZEOD")},
      {with_prefix(splice(n - 7, 7, "")), at(n - 7, "buffer ends without ZZZEOD")},
      // "RC" left without a value: "3\0RM\0bad\0" cut out.
      {with_prefix(splice(ret + 23, 9, "")), at(ret + 20, "item \"RC\" of segment ZZZRET has no value")},
      // Cut inside the first item: the segment runs off the end.
      {std::vector<char>(good.begin(), good.begin() + static_cast<long>(ret + 22)),
       at(ret + 20, "segment ZZZRET runs off the end of the buffer (no ZZZEOS)")},
      {std::vector<char>(BUFFER_MAX + 1, 'Z'), "buffer of 32768 bytes exceeds the 32767-byte maximum"},
      {std::vector<char>(5, ' '), "buffer of 5 bytes is shorter than the 6-byte length prefix"},
  };
  for (const auto& [bytes, problem] : cases) EXPECT_THAT(ctl_decode(bytes).problems, Contains(problem));
}

// The commands against the fake server, for replies the daemon never sends. At the end a terminate request ends the
// server; its exit status says whether every request before was as expected.
using QuorctlExchange = forked::ForkedServer;

TEST_F(QuorctlExchange, StatusAndRawCheckAndShowTheReplies) {
  testutil::Child child([this] { return serve(server_); });  // killed if still running

  // A report in several buffers is joined in order; a reply whose last
  // buffer announces more, or an error reply, fails the status command.
  EXPECT_THAT(ctl_status(fake(), true, false),
              Outcome(0, "status line 1\nstatus line 2\nstatus line 3\nline 4 without a newline\nstatus line 5\n",
                      ""));
  EXPECT_EQ(ctl_status(fake(), true, true).out,
            "{\"type\":\"F\",\"buffers\":3,\"lines\":[\"status line 1\\n\",\"status line 2\\n\","
            "\"status line 3\\n\",\"line 4 without a newline\",\"status line 5\\n\"]}\n");
  EXPECT_THAT(ctl_status(fake(), false, false),
              Outcome(kCtlFailed, "", "the reply ends with a buffer whose trailer says more follow"));
  EXPECT_THAT(ctl_status(fake(), false, true),
              Outcome(kCtlDaemonError, "{\"rc\":12,\"message\":\"status not available\\nsee the log\"}\n",
                      "the daemon refused the status request: RC 12: status not available"));

  // raw shows every buffer with its kind and sender, and says why a reply is damaged or stopped.
  auto raw = [](char type, int timeout_ms, bool json) {
    return ctl_raw(fake(timeout_ms), ctl_parse_text(std::string("header ") + type + "\ntrailer N\n").bytes,
                   std::nullopt, json);
  };
  EXPECT_THAT(raw('F', 5000, false),
              Outcome(0,
                      AllOf(StartsWith("request delivered to TEST.SRV\n"
                                       "-- reply buffer 1 of 3: partial (CONV) from QUORFAKE.P\nwire buffer"),
                            HasSubstr("\n-- reply buffer 2 of 3: partial (CONV) from QUORFAKE.P\nwire buffer"),
                            HasSubstr("\n-- reply buffer 3 of 3: final (DATA) from TEST.SRV\nwire buffer"),
                            HasSubstr("\n  \"line 4 without a newline\"\n")),
                      ""));
  EXPECT_THAT(raw('D', 5000, false),
              Outcome(kCtlFailed, HasSubstr("\nproblem: offset "), "reply buffer 1 of 1 has framing problems"));
  // One partial buffer, then nothing: what arrived is shown, and why it stopped.
  EXPECT_THAT(raw('P', 300, true),
              Outcome(kCtlNoReply,
                      AllOf(HasSubstr("\"delivered\":true,\"expect_reply\":true,\"replies\":[{\"kind\":\"CONV\","
                                      "\"sender\":\"QUORFAKE.P\",\"buffer\":{"),
                            HasSubstr("\"strings\":[\"first of several\\n\"]")),
                      "reply from TEST.SRV stopped after 1 partial buffer(s): nothing more within 0.3 s"));
  ASSERT_EQ(ctl_notify(fake(), 'T', false).status, kCtlOk);
  EXPECT_EQ(child.wait(), 0);

  // The binary where no daemon has registered: exit status 4.
  for (const char* c : {"cleanup", "terminate", "killall", "status", "refresh"})
    EXPECT_THAT(quorctl({"--json", "--timeout", "1", c}),
                Outcome(kCtlNotRunning, "", "quorctl: daemon not running (no receiver at MO_QUORUNIX_SERVER)\n"));
  EXPECT_THAT(quorctl({"--server=ELSEWHERE", "raw", "-"}, "header B\ntrailer N\n"),
              Outcome(kCtlNotRunning, "", "quorctl: daemon not running (no receiver at ELSEWHERE)\n"));
}

// Help for the tool and each command; a usage error is exit status 2 and one line on standard error.
TEST(QuorctlTool, HelpAndUsageErrors) {
  const std::string options = "[--server NAME] [--timeout SECONDS] [--user NAME] [--json] COMMAND";
  EXPECT_THAT(quorctl({"--help"}), Outcome(0, StartsWith("usage: quorctl " + options), ""));
  for (const char* c : {"status", "refresh", "check-config", "cleanup", "terminate", "killall", "decode", "raw",
                        "login", "logoff", "util", "table-to-csv", "csv-to-table", "calendar", "build"})
    EXPECT_THAT(quorctl({c, "--help"}), Outcome(0, StartsWith(std::string("usage: quorctl ") + c), ""));
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {"frob"}, {"status", "--bogus"}, {"status", "extra"}, {"--timeout", "x", "status"},
           {"--timeout", "0", "status"}, {"--timeout", "nan", "status"}, {"--timeout"}, {"--json=yes", "status"},
           {"refresh", "a", "b"}, {"cleanup", "now"}, {"terminate", "--full"}, {"decode"},
           {"decode", "--wire", "--plain", "f"}, {"--json", "decode", "--text", "f"},
           {"raw", "--no-reply", "--expect-reply"}, {"raw", "--wire"}, {"raw", "--file", "a", "b"},
           {"util"}, {"login", "x"}, {"logoff", "x"}, {"--user", "", "login"}, {"build"}, {"calendar"},
           {"build", "--type", "SS", "--out", "p"}, {"build", "--table", "a", "--list", "b", "--out", "p"},
           {"build", "--select", "A", "--out", "p"}, {"csv-to-table", "a"}, {"--json", "table-to-csv", "t"},
           {"check-config", "a", "b"}, {"--json", "check-config"}})
    EXPECT_THAT(quorctl(args), Outcome(kCtlUsage, "", MatchesRegex("quorctl: [^\n]+\n")));
  EXPECT_THAT(quorctl({"raw", "-"}, "header B\nitem A B\n"),
              Outcome(kCtlUsage, "", "quorctl: standard input: line 2: item outside a segment\n"));
  EXPECT_THAT(quorctl({"decode", "/nonexistent/buffer"}),
              Outcome(kCtlFailed, "", "quorctl: cannot read /nonexistent/buffer\n"));
}

// decode: a wire buffer is recognised, unscrambled and printed in full, for people and as JSON, with every kind of
// escape; forcing the wrong form fails. Its text form saved by raw gives the plain bytes again, which decode recognises
// as plain.
TEST(QuorctlTool, DecodesAndSavesBuffers) {
  TempDir dir;
  const std::string file = dir.str() + "/wire", again = dir.str() + "/again";
  auto plain = error_reply("3", "cannot open /x:\n\tgone\r\x01\x7F\xe9\\\"");
  auto wire = plain;
  ASSERT_EQ(quor_wire_seal(wire, wire.size()), 0);
  testutil::write_file(file, std::string(wire.begin(), wire.end()));
  TransactionHeader h;
  ASSERT_EQ(tran_header_fill("E", "N", h), 0);
  const std::size_t ret = *buf_find_segment(plain, "ZZZRET") - 20, trl = *buf_find_segment(plain, "ZZZTRL") - 20;
  std::string size = std::to_string(plain.size()), ret_length = std::to_string(trl - ret - 14);
  EXPECT_THAT(quorctl({"decode", file}),
              Outcome(0,
                      "wire buffer (unscrambled with seed " + std::to_string(plain.size() % 256) + "), " + size +
                          " bytes, length prefix " + size + "\nZZZTRN at 6, length " + std::to_string(ret - 20) +
                          "\n  COD=E\n  PID=" + h.pid + "\n  NOD=" + h.node + "\n  USR=" + h.user + "\n  GID=" +
                          h.gid + "\n  ADD=N\n  OS=UNIX1\nZZZRET at " + std::to_string(ret) + ", length " +
                          ret_length + "\n  RC=3\n  RM=cannot open /x:\\n\\tgone\\r\\x01\\x7F\\xE9\\\\\"\nZZZTRL at " +
                          std::to_string(trl) + ", length 18\n  MD=N\nZZZEOD\n",
                      ""));
  EXPECT_THAT(quorctl({"--json", "decode", file}),
              Outcome(0,
                      AllOf(StartsWith("{\"form\":\"wire\",\"size\":" + size),
                            HasSubstr("{\"tag\":\"ZZZRET\",\"offset\":" + std::to_string(ret) + ",\"length\":" +
                                      ret_length + ",\"closed\":true,\"items\":[[\"RC\",\"3\"],[\"RM\",\"cannot open "
                                      "/x:\\n\\tgone\\r\\u0001\\u007F\\u00E9\\\\\\\"\"]]}"),
                            EndsWith("}],\"end_of_data\":true,\"problems\":[]}\n")),
                      ""));
  EXPECT_THAT(quorctl({"decode", "--plain", file}),
              Outcome(kCtlFailed, HasSubstr("\nproblem: "),
                      MatchesRegex("quorctl: [0-9]+ framing problem\\(s\\), the first: [^\n]+\n")));
  EXPECT_THAT(quorctl({"raw", "--save", again, "-"}, quorctl({"decode", "--text", file}).out),
              Outcome(0, "wrote " + size + " bytes to " + again + "\n", ""));
  EXPECT_EQ(read_file(again), std::string(plain.begin(), plain.end()));
  EXPECT_THAT(quorctl({"decode", again}), Outcome(0, StartsWith("plain buffer, " + size + " bytes, length"), ""));
  EXPECT_FALSE(ctl_load(plain, CtlForm::Wire).decoded.ok());

  // A wire capture cut short is still recognised, once it is long enough, and unscrambled as far as it goes; a shorter
  // one is left as it is (every cut: the fuzz target).
  for (std::size_t n : {LENGTH_PREFIX + 2, LENGTH_PREFIX + 3, plain.size() - 1}) {
    CtlLoaded cut = ctl_load(std::vector<char>(wire.begin(), wire.begin() + static_cast<long>(n)), CtlForm::Auto);
    EXPECT_FALSE(cut.decoded.ok()) << n;
    EXPECT_EQ(cut.decoded.wire, n >= LENGTH_PREFIX + 3) << n;
    const std::vector<char>& whole = cut.decoded.wire ? plain : wire;
    EXPECT_EQ(cut.plain, std::vector<char>(whole.begin(), whole.begin() + static_cast<long>(n))) << n;
  }
}

// Every command against the real daemon, which ends on terminate (the full
// report as JSON: the remote-host tests, over several buffers).
TEST(QuorctlTool, TalksToTheRealDaemon) {
  testutil::Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  const std::string first_line = "Status of quordaemon, pid=" + std::to_string(d.pid()) + ", on ";
  EXPECT_THAT(quorctl({"status"}),
              Outcome(0, AllOf(StartsWith(first_line), HasSubstr("\n    0 transactions in progress.\n")), ""));
  // The path goes with the request: a missing file is refused with RC 3.
  EXPECT_THAT(quorctl({"refresh", d.root().str() + "/missing.cfg"}),
              Outcome(kCtlDaemonError, MatchesRegex("RC 3: [^\n]+\n"), "quorctl: refresh failed with RC 3\n"));
  EXPECT_THAT(quorctl({"--json", "refresh"}), Outcome(0, StartsWith("{\"rc\":0,\"message\":\""), ""));

  // Requests that get no reply: raw waits for one only when the type gets one or it is told to.
  const std::string delivered = "request delivered to MO_QUORUNIX_SERVER\n";
  EXPECT_THAT(quorctl({"--timeout", "0.3", "raw", "--no-reply", "-"}, "header Q\ntrailer N\n"),
              Outcome(0, delivered, ""));
  EXPECT_THAT(quorctl({"--timeout", "0.3", "raw"}, "header C\ntrailer N\n"), Outcome(0, delivered, ""));
  EXPECT_THAT(quorctl({"--timeout", "0.3", "raw", "--expect-reply"}, "header C\ntrailer N\n"),
              Outcome(kCtlNoReply, delivered, "quorctl: no reply from MO_QUORUNIX_SERVER within 0.3 s\n"));
  EXPECT_THAT(quorctl({"cleanup"}), Outcome(0, "clean-up " + delivered, ""));
  EXPECT_THAT(quorctl({"--json", "cleanup"}),
              Outcome(0, "{\"request\":\"C\",\"server\":\"MO_QUORUNIX_SERVER\",\"delivered\":true}\n", ""));
  EXPECT_THAT(quorctl({"terminate"}), Outcome(0, "terminate " + delivered, ""));
  EXPECT_EQ(d.wait_exit(), 0);
  EXPECT_THAT(d.output(), HasSubstr("transcode=Q"));
}

// check-config against the daemon's own load: for good files, bad lines, missing maps, a map that is not a regular file
// and a configuration file named on the command line instead, the check prints exactly the messages the load logs, and
// fails exactly when the load fails, without writing to the daemon's log (every kind of bad line: the configuration
// tests).
TEST(CheckConfig, ReportsWhatTheDaemonsLoadReports) {
  TempDir root;
  EnvGuard root_env("MOXGLBL0000", root.str());
  auto etc = [&](const std::string& name) { return root.str() + "/quor/etc/" + name; };
  // The sample files with `file` replaced by `text` (removed when "-", made a directory when "/"), what the check's
  // output or error holds, and whether the check and the load are given `file` by name.
  struct Case { std::string file, text, shows; bool named = false; };
  const Case cases[] = {
      {"quor.config", "# c\nTRANSACTION_TIMEOUT: 5x\n\nLOGIN_TIMEOUT 3\nNO_KEY: 1\n",
       "QUOR0110E Line not understood in the configuration file " + etc("quor.config") +
           ":\nQUOR0125E Line 2: TRANSACTION_TIMEOUT: 5x\n"},
      {"quorobj.map", "-", "QUOR0112E"},
      {"quorlang.map", "-", "the language map " + etc("quorlang.map") + " cannot be opened"},
      {"quorlang.map", "/", "QUOR0310E Refused to read " + etc("quorlang.map") + ": not a regular file"},
      {"other.config", "LOGIN_TIMEOUT: x\n",
       "QUOR0110E Line not understood in the configuration file " + etc("other.config") +
           ":\nQUOR0125E Line 1: LOGIN_TIMEOUT: x\n" + etc("other.config") + ": loads; the lines reported above are",
       true},
      {"", "", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file + " as " + c.text);
    fs::remove_all(root.path() / "quor");
    fs::create_directories(root.path() / "quor/etc");
    for (const char* file : {"quor.config", "quorobj.map", "quorlang.map"})
      fs::copy_file(fs::path(QUOR_SOURCE_DIR) / "etc" / file, etc(file));
    if (c.text == "-" || c.text == "/") fs::remove(etc(c.file));
    if (c.text == "/") fs::create_directory(etc(c.file));
    if (c.text.size() > 1) testutil::write_file(etc(c.file), c.text);
    mo_reset();
    const std::string config = etc(c.named ? c.file : "quor.config");
    CtlOutcome check = c.named ? quorctl({"check-config", config}) : quorctl({"check-config"});
    // The load's messages: each log line without its time and process.
    std::string log_path = root.str() + "/quor/log/quordaemon.log";
    EXPECT_FALSE(fs::exists(log_path)) << "the check wrote to the message log";
    int rc = quor_config_load(quor_objmap(), quor_config(),
                              c.named ? std::optional<std::string_view>(config) : std::nullopt);
    std::istringstream log(testutil::read_file(log_path));
    std::string line, messages;
    while (std::getline(log, line)) messages += line.substr(line.find("]: ") + 3) + "\n";
    const char* verdict =
        messages.empty() ? ": loads without problems\n" : ": loads; the lines reported above are skipped\n";
    if (rc == 0)
      EXPECT_THAT(check, Outcome(0, messages + config + verdict, ""));
    else
      EXPECT_THAT(check, Outcome(kCtlDaemonError, messages, HasSubstr("(RC " + std::to_string(rc) + ")")));
    EXPECT_THAT(check.out + check.error, HasSubstr(c.shows));
  }
  // Without the installation root there is nothing to check.
  EnvGuard no_root("MOXGLBL0000", std::nullopt);
  EXPECT_EQ(quorctl({"check-config"}).status, kCtlUsage);
  quor_config() = QuorConfig{};
  quor_objmap().clear();
}

// The data-file tools: CSV to a table file and back (quoting, empty values, trailing blanks, which the table format
// drops) and its errors; a calendar printed, and built into a request whose segment writes the same file again; a list
// built into a request gives the same lines (the readers and writers on any bytes: the csv, table, calendar and list
// fuzz targets).
TEST(CtlFiles, CsvTablesCalendarsAndLists) {
  TempDir dir;
  auto path = [&](const char* name) { return (dir.path() / name).string(); };
  auto csv_to_table = [&](std::string_view csv) {
    CtlCsvReader reader(csv);
    return ctl_csv_to_table(reader, path("t"), false);
  };
  EXPECT_EQ(csv_to_table("id,name,note\r\n1,\"Smith, J\",\"said \"\"hi\"\"\"\n2,,\"two\nlines\"\n3,x, y  ").status,
            kCtlOk);
  const std::string back = "id,name,note\n1,\"Smith, J\",\"said \"\"hi\"\"\"\n2,\"\",\"two\nlines\"\n3,x,\" y\"\n";
  EXPECT_THAT(ctl_table_to_csv(path("t")), Outcome(kCtlOk, back, ""));
  EXPECT_EQ(csv_to_table("a,b\n1\n").error, "CSV row 2 has 1 values, the first has 2");
  EXPECT_EQ(csv_to_table("a,\"b\nc").error, "CSV line 1: a double quote is never closed");
  EXPECT_EQ(csv_to_table(std::string(260, 'v')).status, kCtlUsage);
  EXPECT_EQ(ctl_table_to_csv(path("t")).out, back) << "a failed conversion left the table as it was";
  EXPECT_EQ(ctl_table_to_csv(path("none")).status, kCtlFailed);
  testutil::write_file(path("damaged"), std::string("\x05\x00\x01\x00", 4));
  EXPECT_EQ(ctl_table_to_csv(path("damaged")).error, path("damaged") + ": the first record is damaged");

  FileTransfer t;
  t.path = path("cal");
  std::vector<char> source =
      testutil::plain_request("S", {{kCalTag, {"PI=ab", "DS=desc", "RL=7", "AL=first", "AL=second"}}});
  ASSERT_EQ(buffer_to_cal(t, InBuf(source.data(), source.size())), 0);
  EXPECT_EQ(ctl_calendar_show(path("cal"), false).out,
            "PI: ab\nCU: \nUU: \nDS: desc\nRL: 7\nYN: 0\nFX: 0\nUT: 0\nDO: 0\ndata offset: 404\n"
            "AL: first\nAL: second\n");
  EXPECT_EQ(ctl_calendar_show(path("cal"), true).out,
            "{\"PI\":\"ab\",\"CU\":\"\",\"UU\":\"\",\"DS\":\"desc\",\"RL\":\"7\",\"YN\":\"0\",\"FX\":\"0\","
            "\"UT\":\"0\",\"DO\":\"0\",\"data_offset\":404,\"lines\":[\"first\\n\",\"second\\n\"]}\n");
  testutil::write_file(path("short"), "not a calendar");
  EXPECT_EQ(ctl_calendar_show(path("short"), false).status, kCtlFailed);

  CtlBuild spec;
  spec.data = CtlBuild::Data::Calendar;
  spec.source = path("cal");
  CtlBuilt built = ctl_build_transaction(spec);
  ASSERT_EQ(built.buffers.size(), 1u);
  t.path = path("again");  // a finished transfer takes the next file
  ASSERT_EQ(buffer_to_cal(t, built.buffers[0]), 0);
  EXPECT_EQ(read_file(path("again")), read_file(path("cal")));

  testutil::write_file(path("names"), "alpha\n\nbeta\n");
  spec.data = CtlBuild::Data::List;
  spec.source = path("names");
  built = ctl_build_transaction(spec);
  ASSERT_EQ(built.buffers.size(), 1u);
  t.path = path("list");
  ASSERT_EQ(buffer_to_list(t, "ZZZLST", built.buffers[0]), 0);
  EXPECT_EQ(read_file(path("list")), "alpha\nbeta\n");
  spec.source = path("missing");
  EXPECT_EQ(ctl_build_transaction(spec).error, "cannot read " + path("missing"));
}
