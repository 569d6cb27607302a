#include "ctl_request.h"

#include <array>
#include <cstdio>

#include "quortev.h"
#include "quortran.h"
#include "quortrl.h"
#include "quorutl.h"
#include "tev_client.h"

namespace {

CtlRequest finish(std::array<char, BUFFER_MAX>& buf, const OutBuf& out) {
  CtlRequest r;
  if (out.overflow) {
    r.error = "request does not fit in " + std::to_string(BUFFER_MAX) + " bytes";
    return r;
  }
  r.bytes.assign(buf.begin(), buf.begin() + static_cast<long>(out.pos));
  return r;
}

int hex_digit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// C escapes; nothing when an escape is malformed.
std::optional<std::string> unescape(std::string_view s) {
  std::string out;
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\') {
      out.push_back(s[i]);
      continue;
    }
    if (++i == s.size()) return std::nullopt;
    switch (s[i]) {
      case 'n': out.push_back('\n'); break;
      case 't': out.push_back('\t'); break;
      case 'r': out.push_back('\r'); break;
      case '0': out.push_back('\0'); break;
      case '\\': out.push_back('\\'); break;
      case 'x': {
        int hi = i + 1 < s.size() ? hex_digit(s[i + 1]) : -1;
        int lo = i + 2 < s.size() ? hex_digit(s[i + 2]) : -1;
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<char>(hi * 16 + lo));
        i += 2;
        break;
      }
      default: return std::nullopt;
    }
  }
  return out;
}

// Appends raw bytes and a NUL (embedded NULs from "\0" are kept: the raw
// form exists to send exactly such damaged requests).
void put_raw(OutBuf& out, const std::string& bytes) {
  if (out.room() < bytes.size() + 1) {
    out.overflow = true;
    return;
  }
  std::copy(bytes.begin(), bytes.end(), out.data.begin() + static_cast<long>(out.pos));
  out.data[out.pos + bytes.size()] = '\0';
  out.pos += bytes.size() + 1;
}

}  // namespace

CtlRequest ctl_build_request(std::string_view type, std::optional<std::string_view> path) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  tran_header_put(type, "N", out);
  if (path) {
    std::size_t lf = buf_begin_segment(out, "ZZZFIL");
    buf_add_item(out, *path);
    buf_end_segment(out, lf);
  }
  quor_trl_put("N", out);
  return finish(buf, out);
}

CtlRequest ctl_parse_text(std::string_view text) {
  std::array<char, BUFFER_MAX> buf{};
  OutBuf out(buf);
  bool in_segment = false;
  std::size_t segment_length_field = 0;
  int line_no = 0;
  auto fail = [&](const std::string& why) {
    CtlRequest r;
    r.error = "line " + std::to_string(line_no) + ": " + why;
    return r;
  };
  while (!text.empty()) {
    ++line_no;
    std::size_t nl = text.find('\n');
    std::string_view line = text.substr(0, nl);
    text.remove_prefix(nl == std::string_view::npos ? text.size() : nl + 1);
    if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
    std::size_t start = line.find_first_not_of(" \t");
    if (start == std::string_view::npos || line[start] == '#') continue;
    line.remove_prefix(start);
    std::size_t sp = line.find_first_of(" \t");
    std::string_view word = line.substr(0, sp);
    std::string_view rest = sp == std::string_view::npos ? std::string_view() : line.substr(sp + 1);

    if (word == "header") {
      tran_header_put(rest, "N", out);
    } else if (word == "segment") {
      if (in_segment) return fail("segment inside an open segment (missing 'end')");
      if (rest.empty()) return fail("segment needs a tag");
      segment_length_field = buf_begin_segment(out, rest);
      in_segment = true;
    } else if (word == "item" || word == "string") {
      if (!in_segment) return fail(std::string(word) + " outside a segment");
      if (word == "item") {
        std::size_t gap = rest.find_first_of(" \t");
        auto name = unescape(rest.substr(0, gap));
        auto value = unescape(gap == std::string_view::npos ? std::string_view() : rest.substr(gap + 1));
        if (!name || !value) return fail("bad escape");
        if (name->empty()) return fail("item needs a name");
        put_raw(out, *name);
        put_raw(out, *value);
      } else {
        auto value = unescape(rest);
        if (!value) return fail("bad escape");
        put_raw(out, *value);
      }
    } else if (word == "end") {
      if (!in_segment) return fail("end without a segment");
      buf_end_segment(out, segment_length_field);
      in_segment = false;
    } else if (word == "trailer") {
      if (in_segment) return fail("trailer inside an open segment");
      if (rest != "Y" && rest != "N") return fail("trailer takes Y or N");
      quor_trl_put(rest, out);
    } else if (word == "eod") {
      buf_add_item(out, kEndOfData);
    } else {
      return fail("unknown directive '" + std::string(word) + "'");
    }
    if (out.overflow) return fail("request does not fit in " + std::to_string(BUFFER_MAX) + " bytes");
  }
  if (in_segment) return fail("segment not closed with 'end'");
  if (out.pos < kMinMessage) return fail("empty request");
  return finish(buf, out);
}

CtlExchange ctl_exchange(std::string_view server, CtlRequest request, int timeout_ms,
                         bool expect_reply) {
  CtlExchange ex;
  if (!request.error.empty()) {
    ex.error = request.error;
    return ex;
  }
  if (quor_wire_seal(request.bytes, request.bytes.size()) != 0) {
    ex.error = "request length " + std::to_string(request.bytes.size()) + " is out of range";
    return ex;
  }
  TevClient client;
  if (!client.ok()) {
    ex.error = "cannot register with the transport: " + client.feedback().FB_ErrorText;
    return ex;
  }
  TevCallResult r = client.call(
      server, std::vector<std::uint8_t>(request.bytes.begin(), request.bytes.end()), timeout_ms,
      expect_reply);
  for (const TevReply& reply : r.replies) {
    std::vector<char> bytes(reply.payload.begin(), reply.payload.end());
    CtlDecoded d;
    if (ctl_unwire(bytes))
      d = ctl_decode(bytes);
    else
      d.problems.push_back("reply with an unusable length prefix");
    ex.replies.push_back(std::move(d));
    ex.kinds.emplace_back(reply.kind == kTevKindConv ? "CONV" : "DATA");
    ex.senders.push_back(reply.sender);
  }
  if (r.rc != 0) {
    if (r.fb.FB_Src == kTevSrcNoRcvr)
      ex.error = "daemon not running (no receiver at " + std::string(server) + ")";
    else if (r.fb.FB_Src == kTevSrcRtmOut)
    {
      char secs[32];
      std::snprintf(secs, sizeof secs, "%.1f", timeout_ms / 1000.0);
      ex.error = "no reply from " + std::string(server) + " within " + secs + " s";
    }
    else
      ex.error = "transport error: " + r.fb.FB_ErrorText;
    return ex;
  }
  ex.ok = true;
  return ex;
}
