// Parser of message catalogue sources (the gencat text format).
//
//   $set N           following messages belong to set N
//   $delset N        forget set N
//   $quote C         C quotes message texts from now on (none: no quoting)
//   $ comment        (a '$' followed by a blank or tab, or a lone '$')
//   NUMBER TEXT      message NUMBER; escapes \n \t \v \b \r \f \\ and \ooo;
//                    a backslash at the end of a line continues the text on
//                    the next line; with a quote character set, a quoted
//                    text is taken between the quotes
//   NUMBER           (alone) deletes the message
//
// Lines that fit none of these are skipped. The parser looks only at the
// bytes it is given.
#pragma once

#include <map>
#include <string>
#include <string_view>

// Messages of set `set` in `source`, by number.
std::map<int, std::string> catalogue_parse(std::string_view source, int set = 1);

// The built-in copy of messages/quor.msg, parsed once.
const std::map<int, std::string>& catalogue_builtin();
