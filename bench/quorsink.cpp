// quorsink: an agent for benchmarks that takes in the table it was sent.
// Reads the request's data file to the end, counting its bytes and
// records, removes it, and answers the client "RECEIVED <bytes> <records>",
// RC 0 (RC 1 when a record's length words do not match).
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "agentlib.h"

int main(int argc, char** argv) {
  if (argc < 2) return 2;
  AgentRequest request;
  if (!agent_take_request(std::atoi(argv[1]), request)) return 2;
  std::string path = request.field(smc::fileName);
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  std::uint64_t bytes = 0, records = 0;
  bool damaged = fd < 0;
  // Walks the records across read boundaries: `skip` bytes of the current
  // record remain, then its closing word.
  std::vector<unsigned char> chunk(1 << 20);
  std::uint64_t next_record = 0;  // file offset of the next record's leading word
  unsigned char word[2];
  int word_have = 0;
  for (ssize_t n; fd >= 0 && (n = read(fd, chunk.data(), chunk.size())) > 0;) {
    for (std::uint64_t at = next_record > bytes ? next_record - bytes : 0; at < static_cast<std::uint64_t>(n);) {
      word[word_have++] = chunk[at++];
      if (word_have < 2) continue;
      word_have = 0;
      std::uint16_t length;
      std::memcpy(&length, word, 2);
      next_record = bytes + (at - 2) + length + 2;
      ++records;
      at = next_record - bytes;
    }
    bytes += static_cast<std::uint64_t>(n);
  }
  if (fd >= 0) close(fd);
  if (bytes != next_record || word_have != 0) damaged = true;
  std::remove(path.c_str());
  AgentAnswer answer;
  if (!answer.open(request, "QUORSINK")) return 3;
  std::string text = "RECEIVED " + std::to_string(bytes) + " " + std::to_string(records) + "\n";
  return answer.send(text, damaged ? 1 : 0, damaged ? "damaged table" : "") == 0 ? 0 : 3;
}
