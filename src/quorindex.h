// Hash indexes beside the daemon's tables. A key maps to the entries that
// have it, newest first, so that a lookup finds the entry a walk of the
// table from its front would have found first.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// Hash of a pair of strings (a client's pid and node, a user and node).
struct StringPairHash {
  std::size_t operator()(const std::pair<std::string, std::string>& k) const {
    return std::hash<std::string>()(k.first) * 31 + std::hash<std::string>()(k.second);
  }
};

// Puts `entry`, the `made`th made (larger is newer), under `key`, in
// newest-first order; `made_of` tells when an entry already there was made.
template <class Map, class Key, class Entry, class MadeOf>
void index_add(Map& map, const Key& key, Entry* entry, std::uint64_t made, MadeOf made_of) {
  std::vector<Entry*>& bucket = map[key];
  bucket.insert(std::find_if(bucket.begin(), bucket.end(), [&](Entry* e) { return made_of(e) < made; }), entry);
}

// Takes `entry` from under `key`; a key left without entries goes.
template <class Map, class Key, class Entry>
void index_remove(Map& map, const Key& key, Entry* entry) {
  auto it = map.find(key);
  if (it == map.end()) return;
  std::erase(it->second, entry);
  if (it->second.empty()) map.erase(it);
}
