// Command requests ('L' login, 'O' logoff, 'S' service, 'U' utility) and
// the start of their agents.
//
// A command request is a transaction of one or more request buffers from
// one client process. Its first buffer creates a shared-memory segment for
// the agent:
//
//   offset   0   87  the daemon's transport identity block
//   offset  87   87  the client's identity block
//   offset 174    8  the transaction header's "OS"
//   offset 182    8  the object header's "OP"
//   offset 190       the request record (see quorsmc.h)
//
// Every buffer adds its selection list and data (a table, calendar or, for
// 'U', the command list) to the record and the transaction's files; the
// last one starts the agent named by the object map for the request's
// object, with the segment id as its one argument. Agents of objects other
// than "LOGON" and "MOUTIL" run under the account named in the record,
// which then also owns the segment and the data file.
//
// Who may do what is decided on the sender the transport established
// (quoraccess.h): a client continues only its own transactions and uses
// only the sessions it logged in; a login starts only the logon agent and
// the utility agent serves only utility requests (both run as root); a
// client's unfinished transactions and running agents are limited.
#pragma once

#include <cstddef>
#include <string_view>

#include "quorkids.h"
#include "quortev.h"
#include "quorutl.h"

inline constexpr std::size_t kShmLocalId = 0;
inline constexpr std::size_t kShmRemoteId = 87;
inline constexpr std::size_t kShmOsType = 174;
inline constexpr std::size_t kShmOpText = 182;

// One buffer of a command request. 0 done, waiting for more buffers, or
// refused with an error reply already sent; 1 out of resources (the caller
// answers and stops the daemon); 3 failed (the caller answers); 4 to 7 a
// data transfer failed and was reported (no answer).
int quor_command_request(const TransactionHeader& header, InBuf buf, ConnRecord& conn);

// Starts the transaction's agent. 0, or 3 when it could not be started
// (reported).
int quor_agent_start(ChildEntry& entry);

// A new private, zeroed segment of `size` bytes attached at `address`. Its
// id, or -1. There is no second attempt: waiting for the system to free a
// segment would hold up every other client.
int quor_shm_create(std::size_t size, void*& address);

// Logs a failed transfer of the segment `tag`: a message for the failure
// and one naming the request's node, user and pid. Nothing for 0 and 4.
void quor_transfer_report(int code, std::string_view tag, const TransactionHeader& header);

// The FILEVERSION commands RESTORE, BACKUP and ARCHIVE name their files in
// a "NAME=<file" argument: the command file is written with the request's
// data file in place of that name, and the data file is made from the
// request's "ZZZLST" names. 0, 3, 4, 6 or 7.
int quor_fileversion_rewrite(std::span<char> record, InBuf buf, ChildEntry& entry, std::string_view tag);

// Writes a segment's items as list lines, trimmed of blanks; items of one
// character or less after trimming are left out. 0, 3, 4, 6 or 7.
int quor_write_list_items(FileTransfer& transfer, InBuf buf, std::string_view tag);

// Writes the NUL-separated pieces of `text` as lines, up to "ZZZEOS" or an
// empty piece; a piece that holds a newline, or ends `text` without a NUL,
// gets no newline added. Closes the file at the end when `close` is set.
// 0, 6 or 7.
int quor_write_items(FileTransfer& transfer, std::string_view text, bool close);
