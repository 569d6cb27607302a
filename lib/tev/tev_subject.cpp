#include "tev_subject.h"

#include <vector>

namespace {

constexpr std::string_view kUnicast = "tev1";
constexpr std::string_view kBroadcast = "tev1all";
constexpr char kHex[] = "0123456789ABCDEF";

bool plain(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
}

int hex_value(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::vector<std::string_view> split(std::string_view text) {
  std::vector<std::string_view> tokens;
  for (;;) {
    std::size_t dot = text.find('.');
    tokens.push_back(text.substr(0, dot));
    if (dot == std::string_view::npos) return tokens;
    text.remove_prefix(dot + 1);
  }
}

}  // namespace

std::string tev_subject_token(std::string_view name) {
  std::string token;
  token.reserve(name.size());
  for (char c : name) {
    if (plain(c)) {
      token += c;
      continue;
    }
    auto byte = static_cast<unsigned char>(c);
    token += '%';
    token += kHex[byte >> 4];
    token += kHex[byte & 0xF];
  }
  return token;
}

std::optional<std::string> tev_subject_untoken(std::string_view token) {
  if (token.empty()) return std::nullopt;
  std::string name;
  for (std::size_t i = 0; i < token.size(); ++i) {
    char c = token[i];
    if (plain(c)) {
      name += c;
      continue;
    }
    if (c != '%' || i + 2 >= token.size()) return std::nullopt;
    int high = hex_value(token[i + 1]), low = hex_value(token[i + 2]);
    if (high < 0 || low < 0) return std::nullopt;
    char decoded = static_cast<char>(high * 16 + low);
    // One spelling per name: a byte that stands for itself is never encoded.
    if (plain(decoded) || decoded == '\0') return std::nullopt;
    name += decoded;
    i += 2;
  }
  return name;
}

std::string tev_subject_text(const TevSubject& s) {
  std::string tail = tev_subject_token(s.receiver_app) + "." + tev_subject_token(s.sender_node) + "." +
                     tev_subject_token(s.sender_app);
  if (s.receiver_node == kTevEveryNode) return std::string(kBroadcast) + "." + tail;
  return std::string(kUnicast) + "." + tev_subject_token(s.receiver_node) + "." + tail;
}

std::optional<TevSubject> tev_subject_parse(std::string_view text) {
  std::vector<std::string_view> tokens = split(text);
  bool broadcast = tokens.size() == 4 && tokens[0] == kBroadcast;
  if (!broadcast && !(tokens.size() == 5 && tokens[0] == kUnicast)) return std::nullopt;
  std::vector<std::string> names;
  for (std::size_t i = 1; i < tokens.size(); ++i) {
    std::optional<std::string> name = tev_subject_untoken(tokens[i]);
    if (!name) return std::nullopt;
    names.push_back(std::move(*name));
  }
  if (broadcast) return TevSubject{std::string(kTevEveryNode), names[0], names[1], names[2]};
  return TevSubject{names[0], names[1], names[2], names[3]};
}

std::string tev_subject_inbox(std::string_view node, std::string_view app) {
  return std::string(kUnicast) + "." + tev_subject_token(node) + "." + tev_subject_token(app) + ".*.*";
}

std::string tev_subject_broadcast_inbox(std::string_view app) {
  return std::string(kBroadcast) + "." + tev_subject_token(app) + ".*.*";
}
