#include "app/ServerLogFile.h"

#include "platform/LineEnd.h"

namespace tavrel {

ServerLogFile::ServerLogFile(const std::filesystem::path& file, const Clock& clock)
    : out_(file, std::ios::binary | std::ios::app), clock_(clock) {}

void ServerLogFile::WriteLine(std::string_view text) {
  if (!out_.is_open()) return;
  out_ << FormatDateTime(clock_.Now()) << " | " << text << platform::kLineEnd;
  out_.flush();
}

void ServerLogFile::Write(std::string_view text) {
  if (!out_.is_open()) return;
  out_ << text;
  out_.flush();
}

}  // namespace tavrel
