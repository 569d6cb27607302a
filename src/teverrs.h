// Return-code tables of the transport: primary (Prc), secondary (Src) and
// detail (Drc) codes with their short names and texts, searched in order.
#pragma once

#include <span>

struct TevCodeEntry {
  int code;
  const char* name;
  const char* text;
};

std::span<const TevCodeEntry> tev_prc_table();
std::span<const TevCodeEntry> tev_src_table();
std::span<const TevCodeEntry> tev_drc_table();

// First entry with `code`, or null.
const TevCodeEntry* tev_code_lookup(std::span<const TevCodeEntry> table, int code);
