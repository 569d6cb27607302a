// quorctl: the raw text form, the decoder on real and damaged bytes, the
// commands against a fake server speaking the transport from a child
// process, and the quorctl binary itself (exit statuses, help, JSON, and a
// request to the real daemon).
#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "core_util.h"
#include "ctl_commands.h"
#include "ctl_decode.h"
#include "ctl_request.h"
#include "ctl_text.h"
#include "daemon_util.h"
#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

// ---------------------------------------------------------------------------
// Buffers made with the daemon's writers.

// The bytes written so far, with the length prefix printed in front: a plain
// buffer as a receiver holds it after unscrambling.
std::vector<char> plain_of(const std::array<char, BUFFER_MAX>& buf, const OutBuf& out) {
  std::vector<char> v(buf.begin(), buf.begin() + static_cast<long>(out.pos));
  char prefix[16];
  std::snprintf(prefix, sizeof prefix, "%5ld", static_cast<long>(out.pos));
  std::copy(prefix, prefix + LENGTH_PREFIX, v.begin());
  return v;
}

std::vector<char> wire_of(std::vector<char> plain) {
  EXPECT_EQ(quor_wire_seal(plain, plain.size()), 0);
  return plain;
}

// An error reply as the daemon sends it: transcode E, ZZZRET with RC and RM,
// trailer N.
std::vector<char> error_reply(const std::string& rc, const std::string& rm) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put("E", "N", out);
  std::size_t field = buf_begin_segment(out, "ZZZRET");
  buf_add_item(out, "RC");
  buf_add_item(out, rc);
  buf_add_item(out, "RM");
  buf_add_item(out, rm);
  buf_end_segment(out, field);
  quor_trl_put("N", out);
  return plain_of(buf, out);
}

// One buffer of a status report: a transaction header, the lines in a
// "ZZZSTS" segment and the trailer.
std::vector<char> status_buffer(std::string_view transcode, std::string_view continuation,
                                const std::vector<std::string>& lines, std::string_view more) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put(transcode, continuation, out);
  std::size_t field = buf_begin_segment(out, "ZZZSTS");
  for (const auto& l : lines) buf_add_item(out, l);
  buf_end_segment(out, field);
  quor_trl_put(more, out);
  return plain_of(buf, out);
}

bool has_problem(const CtlDecoded& d, const std::string& text) {
  for (const auto& p : d.problems)
    if (p == text) return true;
  return false;
}

std::string problems_of(const CtlDecoded& d) {
  std::string s;
  for (const auto& p : d.problems) s += p + "\n";
  return s;
}

// ---------------------------------------------------------------------------
// The quorctl binary.

struct ToolRun {
  int status = -1;
  std::string out;
  std::string err;
};

ToolRun quorctl(const std::vector<std::string>& args, const std::string& input = "") {
  TempDir dir;
  auto in = dir.path() / "in", out = dir.path() / "out", err = dir.path() / "err";
  std::ofstream(in, std::ios::binary) << input;
  pid_t pid = fork();
  if (pid == 0) {
    int fds[3] = {open(in.c_str(), O_RDONLY), open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600),
                  open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600)};
    for (int i = 0; i < 3; ++i)
      if (fds[i] < 0 || dup2(fds[i], i) < 0) _exit(126);
    std::vector<std::string> argv = {QUORCTL_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    std::vector<char*> a;
    for (auto& s : argv) a.push_back(s.data());
    a.push_back(nullptr);
    execv(a[0], a.data());
    _exit(127);
  }
  ToolRun r;
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) r.status = WEXITSTATUS(status);
  r.out = testutil::read_file(out);
  r.err = testutil::read_file(err);
  return r;
}

// ---------------------------------------------------------------------------
// A fake daemon: a registration made here, served by a child process that
// answers with the transport operations themselves. Status requests get a
// report in three buffers (two partial ones sent as conversations from a
// second registration, then the final DATA reply); refresh requests an error
// reply with RC 3 for kMissingPath and RC 0 otherwise; the first brief status
// request a reply whose last buffer wrongly announces more, later ones an
// error reply; type P one partial buffer and then silence; type D a final
// buffer with a wrong segment length; type C nothing. Type T ends the child with status 0;
// anything unexpected ends it with another status.

constexpr const char* kFake = "QUORFAKE";
constexpr const char* kFakePartial = "QUORFAKE.P";
constexpr const char* kMissingPath = "/etc/quor/missing.cfg";

const std::vector<std::vector<std::string>> kReportBuffers = {
    {"status line 1\n", "status line 2\n"},
    {"status line 3\n", "line 4 without a newline"},
    {"status line 5\n"},
};

int serve(TevIdentity local) {
  TevFeedback pfb;
  TevIdentity partial;
  partial.set_app_name(kFakePartial);
  if (TevInit(pfb, partial, kTevModeNormal) != 0) return 20;
  partial = pfb.FB_Local_Id;
  int brief_requests = 0;

  for (;;) {
    std::vector<char> buf(BUFFER_MAX);
    TevFeedback fb;
    TevIdentity remote;
    TevInquiry inquiry;
    if (TevRecv(fb, local, remote, buf.data(), buf.size(), kTevModeRecvAny, inquiry) != 0) return 21;
    std::uint32_t conversation = fb.FB_InConversId;
    if (quor_wire_open(buf, fb.FB_DataLen) == 0) return 22;
    TransactionHeader h;
    if (!tran_header_read(buf, h)) return 23;
    Trailer trl;
    if (!quor_trl_read(buf, trl) || trl.more_data != "N") return 24;
    // The header names the process that sent the request.
    if (!inquiry.valid || h.pid != std::to_string(inquiry.pid) || h.continuation != "N" ||
        h.ostype != "UNIX1")
      return 25;

    auto converse = [&](std::vector<char> plain) {
      auto wire = wire_of(std::move(plain));
      char answer[kTevMaxAnswer] = {};
      TevFeedback cfb;
      return Tev_Conv(cfb, partial, remote, wire.data(), wire.size(), answer, sizeof answer,
                      kTevModeNormal, 5) == 0 &&
             std::string_view(answer, 2) == "OK";
    };
    auto send = [&](std::vector<char> plain) {
      auto wire = wire_of(std::move(plain));
      TevFeedback sfb;
      return TevSend(sfb, local, remote, wire.data(), wire.size(), kTevModeNormal, conversation) == 0;
    };

    switch (h.type()) {
      case 'F':
        if (!converse(status_buffer("F", "N", kReportBuffers[0], "Y"))) return 30;
        if (!converse(status_buffer("S", "Y", kReportBuffers[1], "Y"))) return 31;
        if (!send(status_buffer("S", "Y", kReportBuffers[2], "N"))) return 32;
        break;
      case 'B':
        if (!send(++brief_requests == 1 ? status_buffer("B", "N", {"cut short\n"}, "Y")
                                        : error_reply("12", "status not available\nsee the log")))
          return 33;
        break;
      case 'R': {
        std::string path;
        if (auto at = buf_find_segment(buf, "ZZZFIL")) path = std::string(buf_string(buf, *at).value_or(""));
        bool bad = path == kMissingPath;
        if (!send(bad ? error_reply("3", "cannot open " + path + "\n")
                      : error_reply("0", path.empty() ? "configuration re-read" : "re-read " + path)))
          return 34;
        break;
      }
      case 'P':
        if (!converse(status_buffer("P", "N", {"first part\n"}, "Y"))) return 35;
        break;
      case 'D': {
        auto plain = status_buffer("D", "N", {"x\n"}, "N");
        auto at = buf_find_segment(plain, "ZZZSTS");
        if (!at) return 36;
        plain[*at - 2] = '9';  // the last digit of the segment's length field
        if (!send(plain)) return 37;
        break;
      }
      case 'C':
        break;  // like the daemon: no reply
      case 'T':
        return 0;
      default:
        return 40;
    }
  }
}

class FakeServer {
 public:
  FakeServer() : env_("TEV_DIR", dir_.str()) {
    id_.set_app_name(kFake);
    registered_ = TevInit(fb_, id_, kTevModeNormal) == 0;
    if (registered_) {
      id_ = fb_.FB_Local_Id;
      child_.emplace([id = id_] { return serve(id); });
    }
  }
  ~FakeServer() {
    child_.reset();  // killed if still running
    if (registered_) TevTerm(fb_, id_, kTevModeNormal);
  }
  bool ok() const { return registered_; }
  CtlTarget target(int timeout_ms = 5000) const { return CtlTarget{kFake, timeout_ms}; }
  // Ends the child with a terminate request; its exit status says whether
  // every request before was as expected.
  int finish() {
    EXPECT_EQ(ctl_notify(target(), 'T', false).status, kCtlOk);
    return wait();
  }
  int wait() { return child_->wait(); }

 private:
  TempDir dir_;
  EnvGuard env_;
  TevIdentity id_;
  TevFeedback fb_;
  bool registered_ = false;
  std::optional<testutil::Child> child_;
};

}  // namespace

// ---------------------------------------------------------------------------
// The raw text form

TEST(RawTextForm, WritesTheBytesItDescribes) {
  CtlRequest r = ctl_parse_text(
      "# a refresh naming another file\n"
      "header R\n"
      "segment ZZZFIL\n"
      "string /opt/quor/etc/alt config\n"
      "end\n"
      "  segment ZZZXYZ\n"
      "item NAME tab\\there\\\\\n"
      "item EMPTY\n"
      "item LEAD   two blanks \n"
      "item HEX \\x41\\xfF\n"
      "item CUT a\\0b\r\n"
      "end\n"
      "trailer N\n");
  ASSERT_EQ(r.error, "");
  CtlDecoded d = ctl_decode(r.bytes);
  EXPECT_TRUE(d.ok()) << problems_of(d);
  EXPECT_EQ(d.prefix, static_cast<long>(r.bytes.size()));
  ASSERT_EQ(d.segments.size(), 4u);

  TransactionHeader h;
  ASSERT_TRUE(tran_header_read(r.bytes, h));
  EXPECT_EQ(h.transcode, "R");
  EXPECT_EQ(h.continuation, "N");
  EXPECT_EQ(h.pid, std::to_string(getpid()));
  EXPECT_EQ(h.ostype, "UNIX1");

  EXPECT_EQ(d.segments[1].strings, std::vector<std::string>{"/opt/quor/etc/alt config"});
  // The segment as bytes, spelled out: a "\0" escape splits its value.
  std::string body = testutil::nul_join({"NAME", "tab\there\\", "EMPTY", "", "LEAD", "  two blanks ",
                                         "HEX", "A\xFF", "CUT", "a", "b", "ZZZEOS"});
  char length[8];
  std::snprintf(length, sizeof length, "%5zu", body.size() + 6);
  std::string expected = testutil::nul_join({"ZZZXYZ", "ZZZLEN", length}) + body;
  std::size_t at = d.segments[2].offset;
  ASSERT_LE(at + expected.size(), r.bytes.size());
  EXPECT_EQ(std::string(r.bytes.data() + at, expected.size()), expected);

  Trailer trl;
  ASSERT_TRUE(quor_trl_read(r.bytes, trl));
  EXPECT_EQ(trl.more_data, "N");
  EXPECT_EQ(std::string(r.bytes.end() - 7, r.bytes.end()), std::string("ZZZEOD\0", 7));
}

TEST(RawTextForm, HeaderContinuationAndAStatedSegmentLength) {
  CtlRequest r = ctl_parse_text("header S Y\nsegment ZZZABC 77\nitem A B\nend\neod\n");
  ASSERT_EQ(r.error, "");
  TransactionHeader h;
  ASSERT_TRUE(tran_header_read(r.bytes, h));
  EXPECT_EQ(h.transcode, "S");
  EXPECT_EQ(h.continuation, "Y");
  CtlDecoded d = ctl_decode(r.bytes);
  ASSERT_EQ(d.segments.size(), 2u);
  EXPECT_EQ(d.segments[1].declared_length, 77);
  EXPECT_EQ(d.segments[1].actual_length, 6 + 4 + 7);
  EXPECT_EQ(d.problems, std::vector<std::string>{
                            "offset " + std::to_string(d.segments[1].offset + 14) +
                            ": segment ZZZABC declares length 77, its ZZZEOS ends 17 bytes after "
                            "the length field"});
  EXPECT_EQ(ctl_request_type(r.bytes), 'S');
}

TEST(RawTextForm, ADecodedBufferWrittenAsTextRebuildsTheSameBytes) {
  std::vector<std::vector<char>> buffers = {
      error_reply("3", "cannot open /x:\n\tNo such file \\ \x01\xE9 end "),
      status_buffer("S", "Y", {"", " lead", "line\n", "#not a comment"}, "Y"),
  };
  // A pair segment with an empty item name and an odd item count, and a
  // declared length that is wrong on purpose.
  CtlRequest odd = ctl_parse_text(
      "header B\nsegment ZZZODD\nstring\nstring value\nstring lone\nend\n"
      "segment ZZZLIE 40\nitem K V\nend\ntrailer N\n");
  ASSERT_EQ(odd.error, "");
  buffers.push_back(odd.bytes);

  for (const auto& plain : buffers) {
    CtlDecoded d = ctl_decode(plain);
    std::string text = ctl_to_text(d);
    CtlRequest again = ctl_parse_text(text);
    ASSERT_EQ(again.error, "") << text;
    EXPECT_EQ(again.bytes, plain) << text;
  }
}

TEST(RawTextForm, RejectsBadLinesNamingTheLine) {
  struct Case {
    std::string text;
    std::string error;
  };
  std::string huge = "segment ZZZBIG\n";
  for (int i = 0; i < 330; ++i) huge += "string " + std::string(100, 'x') + "\n";
  huge += "end\n";
  const Case cases[] = {
      {"header B\nitem A B\n", "line 2: item outside a segment"},
      {"string x\n", "line 1: string outside a segment"},
      {"segment ZZZA\nsegment ZZZB\n", "line 2: segment inside an open segment (missing 'end')"},
      {"segment ZZZA\nheader B\n", "line 2: header inside an open segment (missing 'end')"},
      {"segment ZZZA\ntrailer N\n", "line 2: trailer inside an open segment (missing 'end')"},
      {"\r\n# c\r\nsegment ZZZA\r\nstring \\q\r\n", "line 4: bad escape"},
      {"segment ZZZA\nstring ends in \\\n", "line 2: bad escape"},
      {"segment ZZZA\nitem N \\x4\n", "line 2: bad escape"},
      {"segment ZZZA\nitem\n", "line 2: item needs a name"},
      {"segment\n", "line 1: segment needs a tag"},
      {"segment ZZZA 123456\n", "line 1: segment length must be a number below 100000"},
      {"segment ZZZA 12 13\n", "line 1: segment takes a tag and an optional length"},
      {"end\n", "line 1: end without a segment"},
      {"segment ZZZA\nend now\n", "line 2: end takes no argument"},
      {"frobnicate\n", "line 1: unknown directive 'frobnicate'"},
      {"header B\nsegment ZZZA\n", "line 2: segment not closed with 'end'"},
      {"trailer X\n", "line 1: trailer takes Y or N"},
      {"trailer\n", "line 1: trailer takes Y or N"},
      {"header B N extra\n", "line 1: header takes a type and a continuation flag"},
      {"# nothing\n\n", "line 2: no directives: empty request"},
      {huge, "line 326: request does not fit in 32767 bytes"},
  };
  for (const auto& c : cases) {
    CtlRequest r = ctl_parse_text(c.text);
    EXPECT_EQ(r.error, c.error) << c.text.substr(0, 60);
    EXPECT_TRUE(r.bytes.empty());
  }
}

// ---------------------------------------------------------------------------
// The decoder on real bytes

TEST(Decoder, PrintsAnErrorReplyFromTheWire) {
  auto plain = error_reply("3", "cannot open /x:\n\tgone\x01");
  auto wire = wire_of(plain);
  CtlLoaded loaded = ctl_load(wire, CtlForm::Auto);
  EXPECT_EQ(loaded.plain, plain);
  const CtlDecoded& d = loaded.decoded;
  EXPECT_TRUE(d.ok()) << problems_of(d);
  EXPECT_TRUE(d.wire);

  TransactionHeader h;
  ASSERT_EQ(tran_header_fill("E", "N", h), 0);
  ASSERT_EQ(d.segments.size(), 3u);
  std::size_t ret = d.segments[1].offset, trl = d.segments[2].offset;
  std::string expected =
      "wire buffer (unscrambled with seed " + std::to_string(plain.size() % 256) + "), " +
      std::to_string(plain.size()) + " bytes, length prefix " + std::to_string(plain.size()) + "\n" +
      "ZZZTRN at 6, length " + std::to_string(ret - 20) + "\n" +
      "  COD=E\n  PID=" + h.pid + "\n  NOD=" + h.node + "\n  USR=" + h.user + "\n  GID=" + h.gid +
      "\n  ADD=N\n  OS=UNIX1\n" +
      "ZZZRET at " + std::to_string(ret) + ", length " + std::to_string(trl - ret - 14) + "\n" +
      "  RC=3\n  RM=cannot open /x:\\n\\tgone\\x01\n" +
      "ZZZTRL at " + std::to_string(trl) + ", length 18\n  MD=N\nZZZEOD\n";
  EXPECT_EQ(ctl_format(d), expected);

  std::string json = ctl_format_json(d);
  EXPECT_EQ(json.rfind("{\"form\":\"wire\",\"size\":" + std::to_string(plain.size()), 0), 0u) << json;
  EXPECT_NE(json.find("{\"tag\":\"ZZZRET\",\"offset\":" + std::to_string(ret) +
                      ",\"length\":" + std::to_string(trl - ret - 14) +
                      ",\"closed\":true,\"items\":[[\"RC\",\"3\"],[\"RM\",\"cannot open "
                      "/x:\\n\\tgone\\u0001\"]]}"),
            std::string::npos)
      << json;
  EXPECT_NE(json.find("\"end_of_data\":true,\"problems\":[]}"), std::string::npos);

  // The same buffer read as plain is garbage after the prefix; read as wire
  // when it is plain, likewise.
  EXPECT_FALSE(ctl_load(wire, CtlForm::Plain).decoded.ok());
  EXPECT_FALSE(ctl_load(plain, CtlForm::Wire).decoded.ok());
  EXPECT_FALSE(ctl_load(plain, CtlForm::Auto).decoded.wire);
}

TEST(Decoder, EveryTruncationIsReportedWithoutReadingPastIt) {
  auto plain = status_buffer("F", "N", {"one\n", "two\n"}, "N");
  auto wire = wire_of(plain);
  for (std::size_t n = 0; n < plain.size(); ++n) {
    // Exactly n bytes on the heap, so that the sanitizer build sees any
    // read past them.
    std::vector<char> cut(plain.begin(), plain.begin() + static_cast<long>(n));
    CtlDecoded d = ctl_decode(cut);
    ASSERT_FALSE(d.ok()) << n;
    if (n >= LENGTH_PREFIX) {
      EXPECT_TRUE(has_problem(d, "offset 0: length prefix says " + std::to_string(plain.size()) +
                                     " but the buffer has " + std::to_string(n) + " bytes"))
          << n << "\n" << problems_of(d);
    }

    // A truncated capture of the wire form is still recognised and read as
    // far as it goes.
    std::vector<char> wire_cut(wire.begin(), wire.begin() + static_cast<long>(n));
    CtlLoaded loaded = ctl_load(wire_cut, CtlForm::Auto);
    ASSERT_FALSE(loaded.decoded.ok()) << n;
    if (n >= LENGTH_PREFIX + 3) {
      EXPECT_TRUE(loaded.decoded.wire) << n;
      EXPECT_EQ(loaded.plain, cut) << n;
    }
  }
  // Cut inside the first report line: the segment is shown, not closed.
  auto sts = buf_find_segment(plain, "ZZZSTS");
  ASSERT_TRUE(sts);
  std::vector<char> cut(plain.begin(), plain.begin() + static_cast<long>(*sts + 2));
  CtlDecoded d = ctl_decode(cut);
  ASSERT_EQ(d.segments.size(), 2u);
  EXPECT_FALSE(d.segments[1].closed);
  EXPECT_TRUE(d.segments[1].strings.empty());
  EXPECT_TRUE(has_problem(d, "offset " + std::to_string(*sts) +
                                 ": segment ZZZSTS runs off the end of the buffer (no ZZZEOS)"))
      << problems_of(d);
}

TEST(Decoder, NamesTheOffsetAndTheFaultOfDamagedFraming) {
  const auto good = error_reply("3", "bad");
  ASSERT_TRUE(ctl_decode(good).ok());
  const std::size_t n = good.size();
  const std::size_t ret = *buf_find_segment(good, "ZZZRET") - 20;  // the tag
  auto patched = [&](std::size_t at, std::string_view bytes) {
    auto b = good;
    std::copy(bytes.begin(), bytes.end(), b.begin() + static_cast<long>(at));
    return b;
  };
  auto resized = [&](std::vector<char> b) {
    char prefix[16];
    std::snprintf(prefix, sizeof prefix, "%5zu", b.size());
    std::copy(prefix, prefix + 6, b.begin());
    return b;
  };
  std::vector<char> with_tail = good;
  with_tail.insert(with_tail.end(), {'x', '\0', 'y'});
  std::vector<char> without_eod(good.begin(), good.end() - 7);
  std::vector<char> huge(BUFFER_MAX + 1, 'Z');
  // "RC" left without a value: "3\0RM\0bad\0" cut out.
  std::vector<char> odd = good;
  odd.erase(odd.begin() + static_cast<long>(ret + 20 + 3), odd.begin() + static_cast<long>(ret + 20 + 12));
  const std::string prefix_digits(good.data(), 5);

  struct Case {
    std::vector<char> bytes;
    std::string problem;
  };
  const Case cases[] = {
      {patched(0, "  500"), "offset 0: length prefix says 500 but the buffer has " + std::to_string(n) + " bytes"},
      {patched(0, std::string_view("1x3\0\0\0", 6)), "offset 0: length prefix \"1x3\\x00\\x00\\x00\" is not a length printed in 5 "
                          "characters and a NUL"},
      {patched(5, "7"), "offset 0: length prefix \"" + prefix_digits + "7\" is not a length "
                        "printed in 5 characters and a NUL"},
      {patched(13, "ZZZLEX"), "offset 13: expected ZZZLEN after tag \"ZZZTRN\", found \"ZZZLEX\""},
      {patched(20, "    9"), "offset 20: segment ZZZTRN declares length 9, its ZZZEOS ends " +
                               std::to_string(ret - 20) + " bytes after the length field"},
      {patched(20, " 12x "), "offset 20: length field \" 12x \" of segment ZZZTRN is not a length "
                             "printed in 5 characters"},
      {patched(ret, "ZZZret"), "offset " + std::to_string(ret) +
                                   ": tag \"ZZZret\" is not ZZZ and three upper-case letters"},
      {patched(n - 14, "ZZZEOD"), "offset " + std::to_string(n - 14) +
                                      ": ZZZEOD inside segment ZZZTRL (no ZZZEOS)"},
      {resized(with_tail), "offset " + std::to_string(n) + ": 3 bytes after ZZZEOD"},
      {resized(without_eod), "offset " + std::to_string(n - 7) + ": buffer ends without ZZZEOD"},
      {resized(odd), "offset " + std::to_string(ret + 20) +
                         ": item \"RC\" of segment ZZZRET has no value"},
      {huge, "buffer of 32768 bytes exceeds the 32767-byte maximum"},
      {std::vector<char>(5, ' '), "buffer of 5 bytes is shorter than the 6-byte length prefix"},
  };
  for (const auto& c : cases) {
    CtlDecoded d = ctl_decode(c.bytes);
    EXPECT_TRUE(has_problem(d, c.problem)) << "want: " << c.problem << "\ngot:\n" << problems_of(d);
  }
}

TEST(Decoder, EscapesForPeopleAndForJson) {
  EXPECT_EQ(ctl_escape(std::string("a\n\t\r\\\x01\x7F\xff", 8)), "a\\n\\t\\r\\\\\\x01\\x7F\\xFF");
  EXPECT_EQ(ctl_json_string(std::string("q\"\\\n\t\x02\xe9", 7)), "\"q\\\"\\\\\\n\\t\\u0002\\u00E9\"");
  for (std::string s : {std::string("a b "), std::string(" \\\n\x01\x80#"), std::string("")}) {
    EXPECT_EQ(ctl_text_unescape(ctl_text_escape(s, true)), s);
    EXPECT_EQ(ctl_text_unescape(ctl_text_escape(s, false)), s);
    EXPECT_EQ(ctl_text_escape(s, true).find(' '), std::string::npos);
  }
  EXPECT_EQ(ctl_text_escape("a b ", false), "a b\\x20");
}

// ---------------------------------------------------------------------------
// The commands against a fake server over the real transport

TEST(QuorctlExchange, StatusJoinsThePartialBuffersInOrder) {
  FakeServer fake;
  ASSERT_TRUE(fake.ok());
  CtlOutcome o = ctl_status(fake.target(), true, false);
  EXPECT_EQ(o.status, kCtlOk) << o.error;
  EXPECT_EQ(o.out,
            "status line 1\nstatus line 2\nstatus line 3\nline 4 without a newline\nstatus line 5\n");

  o = ctl_status(fake.target(), true, true);
  EXPECT_EQ(o.out,
            "{\"type\":\"F\",\"buffers\":3,\"lines\":[\"status line 1\\n\",\"status line 2\\n\","
            "\"status line 3\\n\",\"line 4 without a newline\",\"status line 5\\n\"]}\n");

  // Brief status: first a reply whose last buffer says more follow, then
  // an error reply.
  o = ctl_status(fake.target(), false, false);
  EXPECT_EQ(o.status, kCtlFailed);
  EXPECT_EQ(o.error, "the reply ends with a buffer whose trailer says more follow");
  EXPECT_EQ(o.out, "");
  o = ctl_status(fake.target(), false, true);
  EXPECT_EQ(o.status, kCtlDaemonError);
  EXPECT_EQ(o.error, "the daemon refused the status request: RC 12: status not available");
  EXPECT_EQ(o.out, "{\"rc\":12,\"message\":\"status not available\\nsee the log\"}\n");

  // raw shows every buffer with its kind and sender.
  CtlRequest f = ctl_parse_text("header F\ntrailer N\n");
  o = ctl_raw(fake.target(), f.bytes, std::nullopt, false);
  EXPECT_EQ(o.status, kCtlOk) << o.error;
  EXPECT_EQ(o.out.rfind("request delivered to QUORFAKE\n-- reply buffer 1 of 3: partial (CONV) from "
                        "QUORFAKE.P\nwire buffer",
                        0),
            0u)
      << o.out;
  EXPECT_NE(o.out.find("-- reply buffer 2 of 3: partial (CONV) from QUORFAKE.P\nwire buffer"),
            std::string::npos)
      << o.out;
  EXPECT_NE(o.out.find("-- reply buffer 3 of 3: final (DATA) from QUORFAKE\nwire buffer"),
            std::string::npos);
  EXPECT_NE(o.out.find("  \"line 4 without a newline\"\n"), std::string::npos);

  EXPECT_EQ(fake.finish(), 0);
}

TEST(QuorctlExchange, RefreshPrintsTheReturnCode) {
  FakeServer fake;
  ASSERT_TRUE(fake.ok());
  CtlOutcome o = ctl_refresh(fake.target(), std::string(kMissingPath), false);
  EXPECT_EQ(o.status, kCtlDaemonError);
  EXPECT_EQ(o.out, "RC 3: cannot open /etc/quor/missing.cfg\n");
  EXPECT_EQ(o.error, "refresh failed with RC 3");

  o = ctl_refresh(fake.target(), std::nullopt, false);
  EXPECT_EQ(o.status, kCtlOk) << o.error;
  EXPECT_EQ(o.out, "RC 0: configuration re-read\n");

  o = ctl_refresh(fake.target(), std::string("/etc/other \"cfg\""), true);
  EXPECT_EQ(o.status, kCtlOk) << o.error;
  EXPECT_EQ(o.out, "{\"rc\":0,\"message\":\"re-read /etc/other \\\"cfg\\\"\"}\n");
  EXPECT_EQ(fake.finish(), 0);
}

TEST(QuorctlExchange, DamagedAndMissingRepliesAreReported) {
  FakeServer fake;
  ASSERT_TRUE(fake.ok());
  // A final buffer with a wrong segment length.
  CtlOutcome o = ctl_raw(fake.target(), ctl_parse_text("header D\ntrailer N\n").bytes, std::nullopt, false);
  EXPECT_EQ(o.status, kCtlFailed);
  EXPECT_EQ(o.error, "reply buffer 1 of 1 has framing problems");
  EXPECT_NE(o.out.find("problem: offset "), std::string::npos) << o.out;

  // One partial buffer, then nothing: what arrived is shown, and why it
  // stopped.
  o = ctl_raw(fake.target(300), ctl_parse_text("header P\ntrailer N\n").bytes, std::nullopt, true);
  EXPECT_EQ(o.status, kCtlNoReply);
  EXPECT_EQ(o.error, "reply from QUORFAKE stopped after 1 partial buffer(s): nothing more within 0.3 s");
  EXPECT_NE(o.out.find("\"delivered\":true,\"expect_reply\":true,\"replies\":[{\"kind\":\"CONV\","
                       "\"sender\":\"QUORFAKE.P\""),
            std::string::npos)
      << o.out;
  EXPECT_NE(o.out.find("\"strings\":[\"first part\\n\"]"), std::string::npos);

  // A request the server never answers: raw does not wait for one unless
  // told to.
  CtlRequest cleanup = ctl_parse_text("header C\ntrailer N\n");
  o = ctl_raw(fake.target(300), cleanup.bytes, std::nullopt, false);
  EXPECT_EQ(o.status, kCtlOk) << o.error;
  EXPECT_EQ(o.out, "request delivered to QUORFAKE\n");
  o = ctl_raw(fake.target(300), cleanup.bytes, true, false);
  EXPECT_EQ(o.status, kCtlNoReply);
  EXPECT_EQ(o.error, "no reply from QUORFAKE within 0.3 s");
  EXPECT_EQ(fake.finish(), 0);
}

TEST(QuorctlExchange, AnUnboundOrSilentServer) {
  TempDir dir;
  EnvGuard tev("TEV_DIR", dir.str());
  for (char type : {'C', 'T', 'K'}) {
    CtlOutcome o = ctl_notify(CtlTarget{"NOBODY", 1000}, type, false);
    EXPECT_EQ(o.status, kCtlNotRunning);
    EXPECT_EQ(o.error, "daemon not running (no receiver at NOBODY)");
  }
  EXPECT_EQ(ctl_status(CtlTarget{"NOBODY", 1000}, false, false).status, kCtlNotRunning);

  // Registered but never reading: the request is delivered, the reply never
  // comes.
  TevIdentity silent;
  silent.set_app_name("SILENT");
  TevFeedback fb;
  ASSERT_EQ(TevInit(fb, silent, kTevModeNormal), 0);
  silent = fb.FB_Local_Id;
  CtlOutcome o = ctl_notify(CtlTarget{"SILENT", 1000}, 'C', false);
  EXPECT_EQ(o.status, kCtlOk);
  EXPECT_EQ(o.out, "clean-up request delivered to SILENT\n");
  o = ctl_status(CtlTarget{"SILENT", 200}, true, false);
  EXPECT_EQ(o.status, kCtlNoReply);
  EXPECT_EQ(o.error, "no reply from SILENT within 0.2 s");
  o = ctl_refresh(CtlTarget{"SILENT", 200}, std::nullopt, false);
  EXPECT_EQ(o.status, kCtlNoReply);
  TevTerm(fb, silent, kTevModeNormal);
}

// ---------------------------------------------------------------------------
// The quorctl binary

TEST(QuorctlTool, HelpAndUsageErrors) {
  ToolRun r = quorctl({"--help"});
  EXPECT_EQ(r.status, 0);
  EXPECT_EQ(r.out.rfind("usage: quorctl [--server NAME] [--timeout SECONDS] [--json] COMMAND", 0), 0u);
  for (const char* c : {"status", "refresh", "cleanup", "terminate", "killall", "decode", "raw"}) {
    ToolRun h = quorctl({c, "--help"});
    EXPECT_EQ(h.status, 0) << c;
    EXPECT_EQ(h.out.rfind(std::string("usage: quorctl ") + c, 0), 0u) << c;
    EXPECT_EQ(h.err, "");
  }
  const std::vector<std::vector<std::string>> usage_errors = {
      {},
      {"frob"},
      {"status", "--bogus"},
      {"status", "extra"},
      {"--timeout", "x", "status"},
      {"--timeout", "0", "status"},
      {"--timeout", "nan", "status"},
      {"--timeout"},
      {"--json=yes", "status"},
      {"refresh", "a", "b"},
      {"cleanup", "now"},
      {"terminate", "--full"},
      {"decode"},
      {"decode", "--wire", "--plain", "f"},
      {"--json", "decode", "--text", "f"},
      {"raw", "--no-reply", "--expect-reply"},
      {"raw", "--wire"},
      {"raw", "--file", "a", "b"},
  };
  for (const auto& args : usage_errors) {
    ToolRun u = quorctl(args);
    std::string joined;
    for (const auto& a : args) joined += a + " ";
    EXPECT_EQ(u.status, kCtlUsage) << joined;
    EXPECT_EQ(u.out, "") << joined;
    // One line on standard error.
    EXPECT_EQ(u.err.rfind("quorctl: ", 0), 0u) << joined;
    EXPECT_EQ(u.err.find('\n'), u.err.size() - 1) << joined << u.err;
  }
  ToolRun bad_text = quorctl({"raw", "-"}, "header B\nitem A B\n");
  EXPECT_EQ(bad_text.status, kCtlUsage);
  EXPECT_EQ(bad_text.err, "quorctl: standard input: line 2: item outside a segment\n");
  ToolRun missing = quorctl({"decode", "/nonexistent/buffer"});
  EXPECT_EQ(missing.status, kCtlFailed);
  EXPECT_EQ(missing.err, "quorctl: cannot read /nonexistent/buffer\n");
}

TEST(QuorctlTool, NoDaemonIsOneLineAndAnExitStatus) {
  TempDir dir;
  EnvGuard tev("TEV_DIR", dir.str());
  for (const char* c : {"cleanup", "terminate", "killall", "status", "refresh"}) {
    ToolRun r = quorctl({"--json", "--timeout", "1", c});
    EXPECT_EQ(r.status, kCtlNotRunning) << c;
    EXPECT_EQ(r.out, "") << c;
    EXPECT_EQ(r.err, "quorctl: daemon not running (no receiver at MO_QUORUNIX_SERVER)\n") << c;
  }
  ToolRun other = quorctl({"--server=ELSEWHERE", "raw", "-"}, "header B\ntrailer N\n");
  EXPECT_EQ(other.status, kCtlNotRunning);
  EXPECT_EQ(other.err, "quorctl: daemon not running (no receiver at ELSEWHERE)\n");
}

TEST(QuorctlTool, TalksToTheFakeServer) {
  FakeServer fake;
  ASSERT_TRUE(fake.ok());
  ToolRun status = quorctl({"--server", kFake, "--timeout", "5", "--json", "status", "--full"});
  EXPECT_EQ(status.status, 0) << status.err;
  EXPECT_EQ(status.out,
            "{\"type\":\"F\",\"buffers\":3,\"lines\":[\"status line 1\\n\",\"status line 2\\n\","
            "\"status line 3\\n\",\"line 4 without a newline\",\"status line 5\\n\"]}\n");
  EXPECT_EQ(status.err, "");

  ToolRun refresh = quorctl({"--server", kFake, "refresh", kMissingPath});
  EXPECT_EQ(refresh.status, kCtlDaemonError);
  EXPECT_EQ(refresh.out, "RC 3: cannot open /etc/quor/missing.cfg\n");
  EXPECT_EQ(refresh.err, "quorctl: refresh failed with RC 3\n");

  ToolRun json = quorctl({"--server", kFake, "--json", "refresh"});
  EXPECT_EQ(json.status, 0);
  EXPECT_EQ(json.out, "{\"rc\":0,\"message\":\"configuration re-read\"}\n");

  ToolRun term = quorctl({"--server", kFake, "--json", "terminate"});
  EXPECT_EQ(term.status, 0);
  EXPECT_EQ(term.out, "{\"request\":\"T\",\"server\":\"QUORFAKE\",\"delivered\":true}\n");
  EXPECT_EQ(fake.wait(), 0);
}

TEST(QuorctlTool, SavesDecodesAndRoundTripsBuffers) {
  TempDir dir;
  std::string saved = (dir.path() / "req").string(), again = (dir.path() / "again").string();
  std::string text = "header R\nsegment ZZZFIL\nstring /etc/alt config\nend\ntrailer N\n";
  ToolRun save = quorctl({"raw", "--save", saved}, text);
  ASSERT_EQ(save.status, 0) << save.err;
  std::string bytes = testutil::read_file(saved);
  EXPECT_EQ(save.out, "wrote " + std::to_string(bytes.size()) + " bytes to " + saved + "\n");
  CtlDecoded d = ctl_decode(std::vector<char>(bytes.begin(), bytes.end()));
  EXPECT_TRUE(d.ok()) << problems_of(d);
  ASSERT_EQ(d.segments.size(), 3u);
  EXPECT_EQ(d.segments[1].strings, std::vector<std::string>{"/etc/alt config"});

  ToolRun decoded = quorctl({"decode", saved});
  EXPECT_EQ(decoded.status, 0) << decoded.err;
  EXPECT_EQ(decoded.out.rfind("plain buffer, " + std::to_string(bytes.size()) + " bytes", 0), 0u);
  EXPECT_NE(decoded.out.find("\n  COD=R\n"), std::string::npos) << decoded.out;
  EXPECT_NE(decoded.out.find("\n  \"/etc/alt config\"\n"), std::string::npos);

  // decode --text, sent through raw --save again, gives the same bytes.
  ToolRun as_text = quorctl({"decode", "--text", saved});
  ASSERT_EQ(as_text.status, 0);
  ToolRun resave = quorctl({"raw", "--save", again, "-"}, as_text.out);
  ASSERT_EQ(resave.status, 0) << resave.err;
  EXPECT_EQ(testutil::read_file(again), bytes);

  // The wire form of the same buffer is recognised; forcing plain fails.
  std::vector<char> wire = wire_of(std::vector<char>(bytes.begin(), bytes.end()));
  std::ofstream(again, std::ios::binary).write(wire.data(), static_cast<long>(wire.size()));
  ToolRun auto_form = quorctl({"--json", "decode", again});
  EXPECT_EQ(auto_form.status, 0) << auto_form.err;
  EXPECT_EQ(auto_form.out.rfind("{\"form\":\"wire\",\"size\":" + std::to_string(wire.size()), 0), 0u);
  ToolRun forced = quorctl({"decode", "--plain", again});
  EXPECT_EQ(forced.status, kCtlFailed);
  EXPECT_EQ(forced.err.rfind("quorctl: ", 0), 0u);
  EXPECT_NE(forced.err.find(" framing problem(s), the first: "), std::string::npos) << forced.err;

  // A truncated copy (inside the item name "PID"): exit 1 with the offset
  // where it stops.
  std::ofstream(again, std::ios::binary).write(wire.data(), 33);
  ToolRun cut = quorctl({"decode", again});
  EXPECT_EQ(cut.status, kCtlFailed);
  EXPECT_NE(cut.out.find("problem: offset 0: length prefix says " + std::to_string(wire.size()) +
                         " but the buffer has 33 bytes\n"),
            std::string::npos)
      << cut.out;
  EXPECT_NE(cut.out.find("problem: offset 32: segment ZZZTRN runs off the end of the buffer"),
            std::string::npos)
      << cut.out;
}

TEST(QuorctlTool, RawRequestsReachTheRealDaemon) {
  testutil::Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  ToolRun raw = quorctl({"raw", "--no-reply", "-"}, "header Q\ntrailer N\n");
  EXPECT_EQ(raw.status, 0) << raw.err;
  EXPECT_EQ(raw.out, "request delivered to MO_QUORUNIX_SERVER\n");
  ToolRun term = quorctl({"terminate"});
  EXPECT_EQ(term.status, 0) << term.err;
  EXPECT_EQ(term.out, "terminate request delivered to MO_QUORUNIX_SERVER\n");
  EXPECT_EQ(d.wait_exit(), 0);
  EXPECT_NE(d.output().find("transcode=Q"), std::string::npos) << d.output();
}
