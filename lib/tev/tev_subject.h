// Broker subjects of the transport. The sender's node and application name
// are part of every subject a message is published on, so that a broker
// which lets each host publish only as its own node verifies the sender.
//
//   tev1.<receiver node>.<receiver app>.<sender node>.<sender app>   one receiver
//   tev1all.<receiver app>.<sender node>.<sender app>                every host
//
// Node and application names are encoded into single tokens: letters,
// digits, '-' and '_' stand for themselves, every other byte (a '.' of a
// domain name, say) is written as '%' and two upper-case hex digits.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tev.h"

struct TevSubject {
  std::string receiver_node;  // kTevEveryNode for a broadcast
  std::string receiver_app;
  std::string sender_node;
  std::string sender_app;
};

std::string tev_subject_token(std::string_view name);
// Nothing when `token` is empty or not in the encoded form.
std::optional<std::string> tev_subject_untoken(std::string_view token);

std::string tev_subject_text(const TevSubject& subject);
// Nothing for a subject of another shape or with a badly encoded token.
std::optional<TevSubject> tev_subject_parse(std::string_view text);

// What one registration listens on: its own name on its own node, and the
// broadcasts to its name.
std::string tev_subject_inbox(std::string_view node, std::string_view app);
std::string tev_subject_broadcast_inbox(std::string_view app);
