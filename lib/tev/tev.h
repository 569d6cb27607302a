// tev: the message transport that the daemon, its agents and its clients
// talk through.
//
// Six operations make up the interface the daemon is written against:
// TevInit (register an application name), TevRecv, TevSend, Tev_Conv (send
// and wait for a short answer), TevTerm (deregister) and APICHECK (check the
// inquiry handles of a receive). Every operation returns 0 on success and
// non-zero on failure, and fills the feedback block it is given; on failure
// FB_Prc / FB_Src / FB_Error_Detail / FB_ErrorText say why (see docs/transport.md
// for the table of codes).
//
// The operations are backend-neutral. The backend every installation has is
// the local one: datagrams over Unix-domain sockets in the rendezvous
// directory named by TEV_DIR (default /tmp/tev). Its wire layout is a contract
// with independent clients and is documented in docs/transport.md.
//
// The library keeps a process-wide table of the registrations this process
// holds; operations find the socket of a registration by the application name
// of the local identity block they are given.
#pragma once

#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// ---------------------------------------------------------------------------
// Identity block: 87 bytes exchanged with peers and carried in every datagram.
//   offset 0   1 byte   flag (zero when built by this library's users)
//   offset 1   65 bytes system id, at most 64 characters, NUL-padded
//   offset 66  21 bytes application name, at most 20 characters, NUL-padded
inline constexpr std::size_t kTevIdentitySize = 87;
inline constexpr std::size_t kTevSystemIdOffset = 1;
inline constexpr std::size_t kTevSystemIdField = 65;
inline constexpr std::size_t kTevAppNameOffset = 66;
inline constexpr std::size_t kTevAppNameField = 21;
inline constexpr std::size_t kTevMaxSystemId = kTevSystemIdField - 1;
inline constexpr std::size_t kTevMaxAppName = kTevAppNameField - 1;
static_assert(kTevAppNameOffset + kTevAppNameField == kTevIdentitySize);

class TevIdentity {
 public:
  std::array<std::uint8_t, kTevIdentitySize> bytes{};

  std::uint8_t flag() const { return bytes[0]; }
  void set_flag(std::uint8_t f) { bytes[0] = f; }
  // Text of the field up to its first NUL (never beyond the field).
  std::string_view system_id() const;   // ID_systemid
  std::string_view app_name() const;    // ID_appname
  // Copy at most 64 / 20 characters (stopping at a NUL); the rest of the
  // field is zero-filled.
  void set_system_id(std::string_view id);
  void set_app_name(std::string_view name);
  void clear() { bytes.fill(0); }

  friend bool operator==(const TevIdentity&, const TevIdentity&) = default;
};

// ---------------------------------------------------------------------------
// Feedback block: the status record that every operation fills.
inline constexpr std::size_t kTevMaxErrorText = 42;

struct TevFeedback {
  std::uint32_t FB_ConversId = 0;      // conversation of the last send/converse
  std::uint32_t FB_InConversId = 0;    // conversation of the last message received
  std::int16_t FB_Prc = 0;             // primary return code
  std::int16_t FB_Src = 0;             // secondary return code
  std::int32_t FB_Error_Detail = 0;    // detail code (errno for system errors)
  std::int16_t FB_Error_Text_Code = 0;
  std::string FB_ErrorText;            // at most 42 characters
  std::uint32_t FB_DataLen = 0;        // payload length of the last message received
  TevIdentity FB_Remote_Id;            // the peer of the last operation
  TevIdentity FB_Local_Id;             // ourselves, as registered
  std::int32_t FB_Inqy_Count = 0;
  std::int16_t FB_Inqy_Len = 0;
  std::int32_t FB_Inqy_Buffer = 0;
  // Kind of the last message received: kTevKindData or kTevKindConv. A CONV
  // must be answered (TevAnswer) with FB_InConversId.
  std::uint8_t FB_InKind = 0;
  // Datagrams dropped as malformed by receives on this block (cumulative).
  std::uint32_t FB_Dropped = 0;
};

// Return codes left in FB_Prc / FB_Src.
inline constexpr std::int16_t kTevPrcOk = 0x00;
inline constexpr std::int16_t kTevPrcLogicErr = 0x08;
inline constexpr std::int16_t kTevPrcUnrecoverable = 0x10;
inline constexpr std::int16_t kTevPrcPlistErr = 0x14;
inline constexpr std::int16_t kTevSrcNoRcvr = 0x06;
inline constexpr std::int16_t kTevSrcRcvCnc = 0x0C;
inline constexpr std::int16_t kTevSrcSndDrc = 0x0E;
inline constexpr std::int16_t kTevSrcIntDrc = 0x10;
inline constexpr std::int16_t kTevSrcNoPath = 0x20;
inline constexpr std::int16_t kTevSrcRtmOut = 0x22;

// Message kinds on the wire.
inline constexpr std::uint8_t kTevKindData = 1;
inline constexpr std::uint8_t kTevKindConv = 2;
inline constexpr std::uint8_t kTevKindAnswer = 3;

// Mode values. Registration, send, converse and deregistration use
// kTevModeNormal; a receive of any message uses kTevModeRecvAny.
inline constexpr int kTevModeNormal = 2;
inline constexpr int kTevModeRecvAny = 5;

inline constexpr std::size_t kTevMaxPayload = 65535;
inline constexpr std::size_t kTevMaxAnswer = 10;

// Inquiry handle: what the kernel reported about the sender of the message
// last received with it. Handlers may trust these values for local senders.
struct TevInquiry {
  bool valid = false;
  pid_t pid = 0;
  uid_t uid = static_cast<uid_t>(-1);
  gid_t gid = static_cast<gid_t>(-1);
  std::string host;  // the verified sending node of a message from another host; empty for a local one
};

// ---------------------------------------------------------------------------
// The six operations.

// Register the application name of `id` (1 to 20 characters, no '/' or NUL).
// On success FB_Local_Id holds the completed identity (system id = this
// host's node name). Fails with 0x08/0x20 NOPATH when the name is in use.
int TevInit(TevFeedback& fb, TevIdentity& id, int mode);

// Deregister: close the registration's socket and remove its name.
int TevTerm(TevFeedback& fb, const TevIdentity& id, int mode);

// Wait for the next DATA or CONV message to the registration `local`. Copies
// at most `size` payload bytes into `buffer` (larger messages are dropped as
// malformed), fills `remote` and FB_Remote_Id with the sender, FB_InConversId,
// FB_InKind, FB_DataLen and the inquiry handle. A signal interrupting the wait
// ends it with 0x08/0x0C RCVCNC. Messages queued by an earlier Tev_Conv are
// delivered first, in order.
int TevRecv(TevFeedback& fb, const TevIdentity& local, TevIdentity& remote,
            void* buffer, std::size_t size, int mode, TevInquiry& inquiry);

// Send DATA with conversation id `convers_id` (0: starts nothing) from the
// registration `local` to `remote`.
int TevSend(TevFeedback& fb, const TevIdentity& local, const TevIdentity& remote,
            const void* buffer, std::size_t length, int mode,
            std::uint32_t convers_id);

// Send CONV with a fresh conversation id and wait up to `wait_seconds` for
// the peer's ANSWER; copies at most `answer_size` answer bytes into `answer`.
// DATA/CONV arriving meanwhile are queued for later TevRecv calls. No answer
// in time: 0x08/0x22 RTMOUT.
int Tev_Conv(TevFeedback& fb, const TevIdentity& local, const TevIdentity& remote,
             const void* buffer, std::size_t length, void* answer,
             std::size_t answer_size, int mode, int wait_seconds);

// Check a list of inquiry handles (null entries are refused). 0 when all are
// valid handles of received messages.
int APICHECK(std::span<const TevInquiry* const> handles);

// ---------------------------------------------------------------------------
// Beyond the six operations.

// Answer a CONV received on `local` from `remote` (at most 10 payload bytes).
int TevAnswer(TevFeedback& fb, const TevIdentity& local, const TevIdentity& remote,
              std::uint32_t convers_id, std::string_view payload);

// Like TevRecv, but gives up after `timeout_ms` milliseconds (-1: no limit)
// with 0x08/0x22 RTMOUT. Used by clients and tests.
int TevRecvTimed(TevFeedback& fb, const TevIdentity& local, TevIdentity& remote,
                 void* buffer, std::size_t size, TevInquiry& inquiry,
                 int timeout_ms);

// How long sends from the registration `local` wait for a peer whose queue
// is full before failing with SNDDRC (default 5000 ms; 0: fail at once). A
// server that must never be held up by a client that does not read sets 0.
int TevSetSendWait(TevFeedback& fb, const TevIdentity& local, int milliseconds);

// Sends (and conversations) from `local` reach only registrations made by
// root; a name held by anybody else counts as nobody registered (NORCVR).
// For clients that send secrets, such as passwords, to the daemon.
int TevRequireRootPeers(TevFeedback& fb, const TevIdentity& local, bool on);

// The rendezvous directory in use (TEV_DIR, default /tmp/tev), as an
// absolute path without trailing or repeated slashes, so that every process
// names the same directory the same way. Names registered by root live in
// its subdirectory "root".
std::string tev_directory();

// This host's node name, as put into identity blocks.
std::string tev_node_name();

// ---------------------------------------------------------------------------
// The broker backend (docs/transport.md). With TEV_URL set, every
// registration also listens on the broker, and a message whose receiver
// block names another node goes through it; with TEV_URL unset everything
// stays on this host.

// Whether TEV_URL names a broker.
bool tev_broker_configured();

// The receiver node that addresses the registrations of that name on every
// host that listens on the broker (a broadcast).
inline constexpr std::string_view kTevEveryNode = "*";

// Called from a receiving thread, once each time the broker connection is
// found lost or back: `connected`, and the broker's address (without
// credentials) or the reason.
using TevBrokerNotice = void (*)(bool connected, const std::string& detail);
void TevSetBrokerNotice(TevBrokerNotice notice);
