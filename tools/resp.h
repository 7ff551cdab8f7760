#ifndef KANDB_TOOLS_RESP_H_
#define KANDB_TOOLS_RESP_H_

// The request/reply protocol that Redis speaks (RESP), as far as the load
// generator needs it to drive a Redis server beside kandb-meta: commands
// as arrays of bulk strings, and the replies of one value each. Replies
// are taken out of a receive buffer one at a time, so that a reply split
// over several reads or several replies in one read cost nothing special.

#include <cstddef>
#include <initializer_list>
#include <string>
#include <string_view>

#include "common/status.h"

namespace kandb::tools::resp {

// A bulk reply longer than this is refused before its bytes are waited for.
inline constexpr size_t kMaxBulkLength = size_t{64} << 20;
// A status, error or integer line without its end after this many bytes is
// refused, so that a peer that never ends its line cannot fill the memory.
inline constexpr size_t kMaxLineLength = size_t{64} << 10;

// One reply: its type byte ('+' status, '-' error, ':' integer, '$' bulk)
// and its text: the line after the type byte, or the bulk's bytes. A null
// bulk ("$-1") has null set and no text.
struct Reply {
  char type = 0;
  std::string text;
  bool null = false;
};

// Appends the command made of `args` (e.g. {"SET", key, value}) to *out.
void AppendCommand(std::string* out, std::initializer_list<std::string_view> args);

// Takes the reply at the start of `in`: when it is whole, fills *reply and
// sets *size to its length in bytes; when more bytes must arrive, sets
// *size to 0. Fails (Corruption, "resp: ...") only on bytes that can never
// become one of the replies above; arrays are not among them, as no command
// the load generator sends is answered by one.
Status ParseReply(std::string_view in, Reply* reply, size_t* size);

}  // namespace kandb::tools::resp

#endif  // KANDB_TOOLS_RESP_H_
