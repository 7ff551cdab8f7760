#ifndef KANDB_TOOLS_TEXT_H_
#define KANDB_TOOLS_TEXT_H_

// How the operator tools show and read the system's values as text: keys
// and other byte strings, timestamps, numbers, lists and durations.

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/status.h"

namespace kandb::tools {

// Printable ASCII (space to '~') stays as it is, a backslash becomes "\\",
// every other byte "\xNN" (two lower-case hex digits). The result is plain
// ASCII, so it is safe in a terminal and in a JSON string, and
// UnescapeBytes turns it back into the same bytes.
std::string EscapeBytes(std::string_view bytes);

// The inverse of EscapeBytes; also accepts upper-case hex digits. Any other
// backslash sequence fails with InvalidArgument "bad escape at offset N".
Status UnescapeBytes(std::string_view text, std::string* out);

// A timestamp of the timestamp oracle: physical milliseconds since the Unix
// epoch in the high 46 bits, a logical counter in the low 18.
inline constexpr int kTsoLogicalBits = 18;
struct TsoParts {
  uint64_t physical_ms = 0;
  uint64_t logical = 0;
};
TsoParts SplitTso(uint64_t timestamp);
// "2023-11-14T22:13:20.123Z" (UTC, milliseconds).
std::string FormatUtcMillis(uint64_t millis);

// "1h02m03s", "2m05s", "7s": a span of milliseconds in whole seconds,
// rounded down.
std::string FormatElapsed(uint64_t millis);
// "512 B", "12.3 KiB", "4.5 MiB", "1.2 GiB", "3.5 TiB" (binary units, one
// decimal).
std::string FormatBytes(double bytes);

// A whole decimal number in [0, max], nothing else around it.
// InvalidArgument "not a number: 'TEXT'" or "out of range (max MAX): 'TEXT'".
Status ParseUint(std::string_view text, uint64_t max, uint64_t* out);
// Comma-separated numbers ("1,2,3"); an empty text is an empty list.
Status ParseUintList(std::string_view text, std::vector<uint64_t>* out);
// A duration: a number with the unit "ms", "s" or "m" (a bare number is
// seconds), e.g. "500ms", "3s", "2m". Fails with InvalidArgument "bad duration: 'TEXT'".
Status ParseDurationMillis(std::string_view text, int64_t* millis);

}  // namespace kandb::tools

#endif  // KANDB_TOOLS_TEXT_H_
