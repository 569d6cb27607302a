// quorctl: the raw text form, the decoder on real and damaged bytes, and the
// tool itself against a fake server and the real daemon.
#include <gtest/gtest.h>

#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <fstream>
#include <string>

#include "core_util.h"
#include "ctl_decode.h"
#include "ctl_request.h"
#include "daemon_util.h"
#include "quorderr.h"
#include "quortev.h"
#include "quortrl.h"
#include "quorutl.h"

using testutil::EnvGuard;
using testutil::TempDir;

namespace {

// A request as a client would hold it after receiving: prefix written.
std::vector<char> with_prefix(CtlRequest r) {
  quor_wire_seal(r.bytes, r.bytes.size());
  ctl_unwire(r.bytes);
  return r.bytes;
}

struct ToolRun {
  int status;
  std::string out;
};

// Runs the quorctl binary with `args` (a shell word list) and standard input
// from `input`.
ToolRun quorctl(const std::string& args, const std::string& input = "") {
  TempDir dir;
  std::string in = (dir.path() / "in").string();
  std::ofstream(in) << input;
  std::string cmd = std::string(QUORCTL_PATH) + " " + args + " <" + in + " 2>&1";
  ToolRun r{0, ""};
  FILE* p = popen(cmd.c_str(), "r");
  char buf[4096];
  std::size_t n;
  while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
  int status = pclose(p);
  r.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

}  // namespace

TEST(RawTextForm, BuildsTheBytesItDescribes) {
  CtlRequest r = ctl_parse_text(
      "# a refresh with a path\n"
      "header R\n"
      "segment ZZZFIL\n"
      "string /opt/quor/etc/alt.config\n"
      "end\n"
      "segment ZZZXYZ\n"
      "item NAME tab\\there\n"
      "item EMPTY\n"
      "item RAW \\x41\\0B\n"
      "end\n"
      "trailer N\n");
  ASSERT_EQ(r.error, "");
  CtlDecoded d = ctl_decode(r.bytes);
  EXPECT_TRUE(d.end_of_data);
  ASSERT_EQ(d.segments.size(), 4u);
  EXPECT_EQ(ctl_item(d.segments[0], "COD"), "R");
  EXPECT_EQ(d.segments[1].strings, std::vector<std::string>{"/opt/quor/etc/alt.config"});
  EXPECT_EQ(d.segments[1].declared_length, 38);  // 6 + 25 + 7
  EXPECT_EQ(ctl_item(d.segments[2], "NAME"), "tab\there");
  EXPECT_EQ(ctl_item(d.segments[2], "EMPTY"), "");
  // "\0" splits the value: the reader sees "A" as the value and "B" as a name.
  EXPECT_EQ(ctl_item(d.segments[2], "RAW"), "A");
  EXPECT_EQ(ctl_item(d.segments[3], "MD"), "N");
  // The prefix is left for sending; everything else is consistent.
  EXPECT_EQ(d.problems, std::vector<std::string>{"length prefix says 0 but the buffer has " +
                                                 std::to_string(r.bytes.size()) + " bytes"});
}

TEST(RawTextForm, ReportsTheLineOfEachMistake) {
  EXPECT_EQ(ctl_parse_text("header B\nitem A B\n").error, "line 2: item outside a segment");
  EXPECT_EQ(ctl_parse_text("segment ZZZA\nsegment ZZZB\n").error,
            "line 2: segment inside an open segment (missing 'end')");
  EXPECT_EQ(ctl_parse_text("\n\nsegment ZZZA\nstring \\q\n").error, "line 4: bad escape");
  EXPECT_EQ(ctl_parse_text("frobnicate\n").error, "line 1: unknown directive 'frobnicate'");
  EXPECT_EQ(ctl_parse_text("segment ZZZA\n").error, "line 1: segment not closed with 'end'");
  EXPECT_EQ(ctl_parse_text("trailer X\n").error, "line 1: trailer takes Y or N");
  EXPECT_EQ(ctl_parse_text("# nothing\n").error, "line 1: empty request");
  std::string huge = "segment ZZZBIG\n";
  for (int i = 0; i < 400; ++i) huge += "string " + std::string(100, 'x') + "\n";
  EXPECT_NE(ctl_parse_text(huge).error.find("does not fit"), std::string::npos);
}

TEST(Decoder, NamesTheOffsetWhereADamagedBufferGoesWrong) {
  auto bytes = with_prefix(ctl_build_request("B"));
  EXPECT_TRUE(ctl_decode(bytes).problems.empty());
  // Every truncation decodes to a report of what is missing, never a crash
  // (the sanitizer build checks the reads).
  for (std::size_t n = 0; n < bytes.size(); ++n) {
    CtlDecoded d = ctl_decode(std::span<const char>(bytes.data(), n));
    EXPECT_FALSE(d.problems.empty()) << n;
  }
  auto broken = bytes;
  std::string("ZZZLEX").copy(broken.data() + 13, 6);  // the first ZZZLEN
  CtlDecoded d = ctl_decode(broken);
  ASSERT_FALSE(d.problems.empty());
  EXPECT_EQ(d.problems[0], "offset 13: expected ZZZLEN after tag \"ZZZTRN\"");

  auto wrong_length = bytes;
  wrong_length[20 + 3] = '9';  // "  1xx" -> declared length differs
  d = ctl_decode(wrong_length);
  ASSERT_FALSE(d.problems.empty());
  EXPECT_NE(d.problems[0].find("segment ZZZTRN declares length"), std::string::npos);
}

TEST(Decoder, EscapesAndJson) {
  EXPECT_EQ(ctl_escape(std::string("a\n\t\\\x01\xff", 6)), "a\\n\\t\\\\\\x01\\xFF");
  EXPECT_EQ(ctl_json_string("q\"\n\x02"), "\"q\\\"\\n\\u0002\"");
  CtlRequest r = ctl_build_request("R", "/x");
  quor_wire_seal(r.bytes, r.bytes.size());
  ASSERT_TRUE(ctl_unwire(r.bytes));
  std::string json = ctl_format_json(ctl_decode(r.bytes));
  EXPECT_NE(json.find("{\"tag\":\"ZZZFIL\",\"length\":16,\"strings\":[\"/x\"]}"), std::string::npos)
      << json;
  EXPECT_NE(json.find("\"end_of_data\":true,\"problems\":[]"), std::string::npos);
}

TEST(QuorctlTool, HelpUsageAndExitStatuses) {
  ToolRun r = quorctl("--help");
  EXPECT_EQ(r.status, 0);
  EXPECT_NE(r.out.find("usage: quorctl"), std::string::npos);
  for (const char* c : {"status", "refresh", "cleanup", "terminate", "killall", "decode", "raw"}) {
    ToolRun h = quorctl(std::string(c) + " --help");
    EXPECT_EQ(h.status, 0) << c;
    EXPECT_NE(h.out.find(std::string("usage: quorctl ") + c), std::string::npos) << c;
  }
  EXPECT_EQ(quorctl("").status, 2);
  EXPECT_EQ(quorctl("frob").status, 2);
  EXPECT_EQ(quorctl("status --bogus").status, 2);
  EXPECT_EQ(quorctl("--timeout x status").status, 2);
  EXPECT_EQ(quorctl("decode /nonexistent/file").status, 1);
}

TEST(QuorctlTool, ReportsAMissingDaemonInOneLine) {
  TempDir dir;
  EnvGuard tev("TEV_DIR", dir.str());
  ToolRun r = quorctl("--timeout 1 terminate");
  EXPECT_EQ(r.status, 1);
  EXPECT_EQ(r.out, "quorctl: daemon not running (no receiver at MO_QUORUNIX_SERVER)\n");
}

TEST(QuorctlTool, DecodesAWireBufferFromAFile) {
  TempDir dir;
  CtlRequest r = ctl_build_request("F");
  quor_wire_seal(r.bytes, r.bytes.size());
  std::string path = (dir.path() / "buf").string();
  std::ofstream(path, std::ios::binary).write(r.bytes.data(), static_cast<long>(r.bytes.size()));
  ToolRun out = quorctl("decode " + path);
  EXPECT_EQ(out.status, 0) << out.out;
  EXPECT_NE(out.out.find("ZZZTRN (length"), std::string::npos);
  EXPECT_NE(out.out.find("  COD = \"F\"\n"), std::string::npos) << out.out;
  EXPECT_NE(out.out.find("ZZZEOD\n"), std::string::npos);
  ToolRun json = quorctl("--json decode --wire " + path);
  EXPECT_EQ(json.out.rfind("{\"length\":", 0), 0u) << json.out;
}

// A fake daemon: answers status with three buffers and refresh with RC 3.
TEST(QuorctlTool, JoinsAMultiBufferStatusAndReportsRefreshResults) {
  TempDir dir;
  EnvGuard tev("TEV_DIR", dir.str());
  EnvGuard root("MOXGLBL0000", dir.str());
  ConnRecord server;
  ASSERT_EQ(quor_tev_register(server.local, server.fb, kServerName), 0);
  testutil::Child fake([&] {
    for (int request = 0; request < 2; ++request) {
      std::array<char, BUFFER_MAX> buf{};
      if (quor_tev_receive(server, buf) != 0) return 1;
      TransactionHeader h;
      tran_header_read(buf, h);
      if (h.type() == 'R') return quor_error_reply(3, "cannot open it", server) == 0 ? 0 : 2;
      OutBuf out(buf);
      tran_header_put("F", "N", out);
      std::size_t lf = buf_begin_segment(out, "ZZZSTS");
      for (int i = 0; i < 8000; ++i)
        if (buf_add_item_split(out, "line " + std::to_string(i) + "\n", BUFFER_MAX, server,
                               "ZZZSTS", lf) != 0)
          return 3;
      buf_end_segment(out, lf);
      quor_trl_put("N", out);
      if (quor_tev_send(server, buf, out.pos) != 0) return 4;
    }
    return 0;
  });
  ToolRun status = quorctl("--json status --full");
  EXPECT_EQ(status.status, 0) << status.out;
  EXPECT_NE(status.out.find("\"buffers\":3"), std::string::npos) << status.out.substr(0, 300);
  EXPECT_NE(status.out.find("\"line 0\\n\",\"line 1\\n\""), std::string::npos);
  EXPECT_NE(status.out.find("\"line 7999\\n\"]}"), std::string::npos);

  ToolRun refresh = quorctl("refresh /no/such/file");
  EXPECT_EQ(refresh.status, 3);
  EXPECT_EQ(refresh.out, "RC 3: cannot open it\n");
  EXPECT_EQ(fake.wait(), 0);
  quor_tev_deregister(server.local, server.fb);
}

TEST(QuorctlTool, RawRequestsReachTheRealDaemon) {
  testutil::Daemon d;
  ASSERT_TRUE(d.wait_ready()) << d.output();
  ToolRun raw = quorctl("raw --no-reply -", "header Q\ntrailer N\n");
  EXPECT_EQ(raw.status, 0) << raw.out;
  ToolRun term = quorctl("terminate");
  EXPECT_EQ(term.status, 0) << term.out;
  EXPECT_EQ(d.wait_exit(), 0);
  EXPECT_NE(d.output().find("transcode=Q"), std::string::npos) << d.output();
}
