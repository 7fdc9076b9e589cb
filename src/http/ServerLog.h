#pragma once

#include <string_view>

namespace tavrel {

// Where the HTTP server's debug output goes: the server log stream, handed to the HTTP classes only while
// the debug flag is set (a null ServerLog* writes nothing). Writing must never fail the caller.
class ServerLog {
 public:
  virtual ~ServerLog() = default;
  // One debug line: the writer puts the date and time and " | " before the text and a line end after it.
  virtual void WriteLine(std::string_view text) = 0;
  // Text exactly as it stands: no prefix, no line end.
  virtual void Write(std::string_view text) = 0;
};

}  // namespace tavrel
