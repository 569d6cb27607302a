// List files: plain text, one entry per line, carried in a segment of any
// tag with one item per line. Inbound, the items of a request's segment
// become the lines of a file (a list may span several request buffers);
// outbound, the lines of a file become the items of reply segments.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "quorRDW.h"

// Writes the items of the buffer's segment `tag` as lines of the transfer's
// file (created, or truncated, by the first buffer). An item that holds a
// newline is written as it stands, any other gets one. 0; 3 an empty item
// or one that runs off the buffer; 4 no such segment; 6 a write failed; 7
// the file cannot be created. The file is closed when the buffer's trailer
// says no more data follows (or it has none).
int buffer_to_list(FileTransfer& transfer, std::string_view tag, InBuf buf);

// Appends the lines of the file at `path` as items of `tag` segments, each
// with its newline (a line of more than 259 characters in pieces); full
// buffers go out as partial replies whose next buffer continues as a "U"
// transaction. The new write position, or 2 a partial send failed, 7 the
// file cannot be opened.
std::size_t list_to_buffer(const std::string& path, OutBuf& out, std::size_t capacity, ConnRecord& conn,
                           std::string_view tag);
