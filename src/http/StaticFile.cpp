#include "http/StaticFile.h"

#include <algorithm>
#include <string>
#include <system_error>
#include <vector>

#include "core/Text.h"
#include "platform/LocalTime.h"

namespace tavrel {

namespace fs = std::filesystem;

namespace {

// The pieces of a page path, or nothing when one of them could climb out or name a drive or stream.
std::optional<std::vector<std::string>> PathPieces(std::string_view page) {
  std::vector<std::string> pieces;
  for (const std::string& slashed : Split(page, "\\")) {
    for (const std::string& piece : Split(slashed, "/")) {
      if (piece.empty() || piece == ".") continue;
      if (piece == ".." || piece.find(':') != std::string::npos || piece.find('\0') != std::string::npos) {
        return std::nullopt;
      }
      pieces.push_back(piece);
    }
  }
  if (pieces.empty()) return std::nullopt;
  return pieces;
}

// The entry of folder named piece: the exact name when it exists, else the first name equal but for case.
std::optional<fs::path> FindEntry(const fs::path& folder, const std::string& piece) {
  std::error_code ec;
  fs::path exact = folder / piece;
  if (fs::exists(exact, ec)) return exact;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    if (EqualsNoCase(it->path().filename().string(), piece)) return it->path();
  }
  return std::nullopt;
}

bool IsInside(const fs::path& base, const fs::path& path) {
  auto [b, p] = std::mismatch(base.begin(), base.end(), path.begin(), path.end());
  return b == base.end() && p != path.end();
}

}  // namespace

std::optional<fs::path> ResolveStaticFile(const fs::path& htmlFolder, std::string_view page) {
  const auto pieces = PathPieces(page);
  if (!pieces) return std::nullopt;
  fs::path path = htmlFolder;
  for (const std::string& piece : *pieces) {
    auto next = FindEntry(path, piece);
    if (!next) return std::nullopt;
    path = std::move(*next);
  }
  std::error_code ec;
  const fs::path base = fs::canonical(htmlFolder, ec);
  if (ec) return std::nullopt;
  fs::path file = fs::canonical(path, ec);
  if (ec || !IsInside(base, file) || !fs::is_regular_file(file, ec)) return std::nullopt;
  return file;
}

DateTime FileDateTime(const fs::path& file) {
  using namespace std::chrono;
  const auto written = file_clock::to_sys(fs::last_write_time(file));
  return platform::LocalTimeAt(system_clock::to_time_t(time_point_cast<seconds>(written)));
}

}  // namespace tavrel
