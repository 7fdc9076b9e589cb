#pragma once

#include <filesystem>
#include <iosfwd>

#include "core/Reporter.h"

namespace tavrel {

// `tavrel set-password [--clear]`: stores the hash of a password read from standard input (asked twice,
// unseen, on a terminal) as "HTTPPasswordHash" in the home's Config/tavrel.ini, or with clear removes it.
// Says what it did on out, what went wrong on err; returns the exit code (2: refused input, 1: failure).
int SetPasswordCommand(const std::filesystem::path& home, bool clear, Reporter& reporter, std::ostream& out,
                       std::ostream& err);

}  // namespace tavrel
