#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavrel::platform {

// The Windows program has no console of its own: started from one, it writes to that console (and reads
// from it) wherever standard output, error and input were not already sent to a file or pipe. Elsewhere
// nothing happens. Called first, before anything is printed.
void UseParentConsole();

// True when standard input is a terminal (a console on Windows), where a person types.
bool StdinIsTerminal();

// Writes prompt to standard error and reads one line from standard input, without its line end. On a
// terminal the typing is not shown, and showing it is restored however the read ends (Ctrl+C too).
// nullopt at the end of input.
std::optional<std::string> ReadSecretLine(std::string_view prompt);

// The terminal shows no typing until the returned object is gone (nothing happens off a terminal).
std::shared_ptr<void> HideTyping();

}  // namespace tavrel::platform
