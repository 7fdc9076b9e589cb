#include "settings/IniTool.h"

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <optional>
#include <system_error>
#include <utility>

#include "core/Files.h"
#include "core/Folders.h"
#include "core/Text.h"
#include "platform/LineEnd.h"
#include "settings/SectionPattern.h"

namespace fs = std::filesystem;

namespace tavrel {

namespace {

constexpr char kSeparator = '~';
constexpr std::string_view kSeparatorText = "~";

std::string ValueKey(std::string_view section, std::string_view key) {
  std::string k = UCase(section);
  k += kSeparator;
  k += UCase(key);
  return k;
}

// A section entry holds the name as written under its upper-case form.
bool IsSectionEntry(const std::string& key, const std::string& item) {
  if (key.size() != item.size()) return false;
  for (size_t i = 0; i < key.size(); ++i) {
    if (ToUpperAscii(item[i]) != key[i]) return false;
  }
  return true;
}

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// One line without its end, trimmed of blanks at both ends.
std::string_view CleanLine(std::string_view line) {
  size_t end = line.find_last_not_of(' ');
  if (end == std::string_view::npos) return {};
  size_t begin = line.find_first_not_of(' ');
  return line.substr(begin, end - begin + 1);
}

Err FileError(const std::error_code& ec) {
  return Err::Of(ec.message(), ec.value() != 0 ? ec.value() : Err::kPathFileAccess);
}

// The error of a failed stream operation: errno when the runtime set it.
Err StreamError(int savedErrno) {
  if (savedErrno == 0) return Err::Of("Path/File access error", Err::kPathFileAccess);
  return FileError(std::error_code(savedErrno, std::generic_category()));
}

struct Row {
  std::string_view header;
  std::string_view key;
  const std::string* item;
};

bool RowLess(const Row& a, const Row& b) {
  int byHeader = CompareNoCase(a.header, b.header);
  if (byHeader != 0) return byHeader < 0;
  return CompareNoCase(a.key, b.key) < 0;
}

void TakeLine(std::string_view line, std::string& sectionKey, OrderedDict<std::string>& table,
              Reporter& reporter) {
  if (line.empty() || line.front() == ';') return;
  if (line.size() >= 2 && line.front() == '[' && line.back() == ']') {
    std::string_view name = line.substr(1, line.size() - 2);
    sectionKey = UCase(name);
    table.Add(sectionKey, std::string(name));  // the first header of a name wins
    return;
  }
  size_t equal = line.find('=');
  if (equal == std::string_view::npos) {
    reporter.ReportEvent("IniTool", " Equal sign not found on line " + std::string(line));
    return;
  }
  std::string key = sectionKey;
  key += kSeparator;
  key += UCase(line.substr(0, equal));
  table.Add(key, std::string(line.substr(equal + 1)));  // the first of duplicate keys wins
}

// Whatever an editor may have written reads alike: a UTF-8 byte-order mark at the start is skipped, and
// CR LF, LF and a lone CR all end a line.
void Parse(std::string_view text, OrderedDict<std::string>& table, Reporter& reporter) {
  if (text.starts_with(kByteOrderMark)) text.remove_prefix(kByteOrderMark.size());
  std::string sectionKey;  // lines before the first header belong to the section ""
  for (std::string_view line : SplitLines(text)) TakeLine(CleanLine(line), sectionKey, table, reporter);
}

// Every entry whose key holds the separator is a row: header before it, key after it.
std::optional<Row> RowOf(const std::string& tableKey, const std::string& item) {
  size_t at = tableKey.find(kSeparator);
  if (at == std::string::npos) return std::nullopt;
  std::string_view key(tableKey);
  return Row{key.substr(0, at), key.substr(at + 1), &item};
}

// True when the line of the row reads back as the same row: nothing trims, splits or hides it.
bool RowReadsBack(const Row& row) {
  const std::string_view key = row.key, value = *row.item;
  if (row.header.find_first_of("\r\n") != std::string_view::npos) return false;
  if (key.find_first_of("=\r\n") != std::string_view::npos) return false;
  if (value.find_first_of("\r\n") != std::string_view::npos) return false;
  if (key.starts_with(' ') || key.starts_with(';') || value.ends_with(' ')) return false;
  return !(key.starts_with('[') && value.ends_with(']'));  // that would read as a header
}

// The file text of the table: the rows sorted by header and then key without regard to case; a header
// line opens each new header. The rows of the section "" come first and need no header line.
std::string Render(const OrderedDict<std::string>& table) {
  std::vector<Row> rows;
  rows.reserve(table.Count());
  size_t length = 0;
  for (const auto& entry : table) {
    if (auto row = RowOf(entry.key, entry.value)) {
      rows.push_back(*row);
      length += entry.key.size() + entry.value.size() + 8;
    }
  }
  std::stable_sort(rows.begin(), rows.end(), RowLess);

  std::string text;
  text.reserve(length);
  std::string_view previous;
  for (const auto& row : rows) {
    if (row.header != previous) {
      text += '[';
      text += row.header;
      text += ']';
      text += platform::kLineEnd;
      previous = row.header;
    }
    text += row.key;
    text += '=';
    text += *row.item;
    text += platform::kLineEnd;
  }
  // A first key that begins with the bytes of a byte-order mark keeps them: the reader skips only one.
  if (text.starts_with(kByteOrderMark)) text.insert(0, kByteOrderMark);
  return text;
}

void BackUp(const fs::path& fileName, Reporter& reporter) {
  std::error_code ec;
  if (!fs::exists(fileName, ec)) return;
  fs::path backup = fileName;
  backup += "_bck";
  // A fresh copy costs far less than truncating the old backup, which makes some file systems flush.
  fs::remove(backup, ec);
  fs::copy_file(fileName, backup, fs::copy_options::overwrite_existing, ec);
  if (ec) reporter.WriteLog(kModule, "IniTool Save ", FileError(ec));
}

// Writes the text beside the file and renames it over the file, so the file is always either the old
// or the new text. When the text cannot be written whole, the old file stays.
void WriteReplacing(const fs::path& fileName, const std::string& text, Reporter& reporter) {
  fs::path temp = fileName;
  temp += ".tmp";
  std::error_code ec;
  {
    errno = 0;
    std::ofstream out(temp, std::ios::binary | std::ios::trunc);
    if (out) out.write(text.data(), static_cast<std::streamsize>(text.size()));
    if (out) out.flush();
    if (!out) {
      reporter.WriteLog(kModule, "IniTool Save ", StreamError(errno));
      out.close();
      if (fs::is_regular_file(temp, ec)) fs::remove(temp, ec);
      return;
    }
  }
  fs::rename(temp, fileName, ec);
  if (ec) {
    reporter.WriteLog(kModule, "IniTool Save ", FileError(ec));
    fs::remove(temp, ec);
  }
}

}  // namespace

void IniTool::Load(const fs::path& fileName) {
  fileName_ = fileName;
  table_.RemoveAll();
  try {
    std::error_code ec;
    auto status = fs::status(fileName, ec);
    if (!fs::exists(status)) {
      CreateFolders(fileName.string(), reporter_);
      std::ofstream create(fileName, std::ios::binary);
      return;
    }
    // Anything but a plain file (a folder, a pipe) reads as empty instead of blocking or failing later.
    if (!fs::is_regular_file(status)) {
      reporter_.WriteLog(kModule, "IniTool Load ", Err::Of("Path/File access error", Err::kPathFileAccess));
      return;
    }
    const auto text = ReadWholeFile(fileName);
    if (!text) throw std::system_error(errno, std::generic_category(), "cannot open the file");
    LoadText(*text);
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "IniTool Load ", Err::From(e));
  }
}

void IniTool::LoadText(std::string_view text) {
  table_.RemoveAll();
  Parse(text, table_, reporter_);
}

std::string IniTool::ToText() const { return Render(table_); }

bool IniTool::TableReadsBack() const {
  for (const auto& entry : table_) {
    auto row = RowOf(entry.key, entry.value);
    if (row && !RowReadsBack(*row)) return false;
  }
  return true;
}

// Between two rounds the file is written and read again, which changes the table only where a row does
// not read back as written; only then is that round trip made here, in memory.
void IniTool::WriteKeysAsRounds(std::string_view section, const std::vector<KeyValuePair>& pairs) {
  bool steady = TableReadsBack();
  const bool plainSection = section.find(kSeparator) == std::string_view::npos;
  for (size_t i = 0; i < pairs.size(); ++i) {
    WriteKey(section, pairs[i].Key, pairs[i].Value);
    if (i + 1 == pairs.size()) break;
    const std::string key = ValueKey(section, pairs[i].Key);
    if (steady && plainSection && RowReadsBack(*RowOf(key, pairs[i].Value))) continue;
    LoadText(ToText());
    steady = TableReadsBack();
  }
}

std::string IniTool::Read(std::string_view section, std::string_view key,
                          std::string_view defaultValue) const {
  const std::string* item = table_.Find(ValueKey(section, key));
  if (item == nullptr || item->empty()) return std::string(defaultValue);
  return *item;
}

void IniTool::WriteKey(std::string_view section, std::string_view key, std::string_view value) {
  std::string sectionKey = UCase(section);
  if (!table_.Exists(sectionKey)) table_.Add(sectionKey, std::string(section));
  table_[ValueKey(section, key)] = std::string(value);
}

void IniTool::Remove(std::string_view section, std::string_view key) {
  table_.Remove(ValueKey(section, key));
}

void IniTool::RemoveSection(std::string_view section) {
  for (const auto& key : Keys(section)) Remove(section, key);
}

std::vector<std::string> IniTool::Sections() const {
  // Joined and split at the separator, as the names are handed on: a name holding "~" comes out in pieces.
  std::string joined;
  bool any = false;
  for (const auto& entry : table_) {
    if (!IsSectionEntry(entry.key, entry.value)) continue;
    if (any) joined += kSeparator;
    joined += entry.value;
    any = true;
  }
  if (!any) return {};
  return Split(joined, kSeparatorText);
}

std::vector<std::string> IniTool::Keys(std::string_view section) const {
  const SectionPattern pattern(section);
  std::string joined;
  for (const auto& entry : table_) {
    if (!pattern.Matches(entry.key)) continue;
    std::string name = Trim(After(entry.key, kSeparatorText));
    if (name.empty()) continue;
    joined += name;
    joined += kSeparator;
  }
  if (!joined.empty()) joined.pop_back();
  auto names = Split(joined, kSeparatorText);
  if (names.empty()) names.emplace_back();
  return names;
}

void IniTool::Save() {
  if (fileName_.empty()) {
    reporter_.WriteLog(kModule, "IniTool Save ", Err::Of("Bad file name or number", Err::kBadFileName));
    return;
  }
  try {
    std::string text = ToText();
    BackUp(fileName_, reporter_);
    WriteReplacing(fileName_, text, reporter_);
  } catch (const std::exception& e) {
    reporter_.WriteLog(kModule, "IniTool Save ", Err::From(e));
  }
}

}  // namespace tavrel
