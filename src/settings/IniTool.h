#pragma once

#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "core/KeyValuePair.h"
#include "core/OrderedDict.h"
#include "core/Reporter.h"

namespace tavrel {

// The program's only reader and writer of INI files: loads one file into a flat table, answers reads,
// takes writes and deletions, and writes the whole file back sorted, keeping a "_bck" copy.
// Table keys: a section entry is the upper-case section name (item: the name as written); a value entry
// is upper-case section + "~" + upper-case key (item: the value as written).
class IniTool {
 public:
  explicit IniTool(Reporter& reporter) : reporter_(reporter) {}

  // Empties the table and reads the file; a missing file is created empty.
  void Load(const std::filesystem::path& fileName);
  // Empties the table and reads text as the content of a file; FileName stays.
  void LoadText(std::string_view text);
  // The text Save writes: sections sorted, keys sorted within each, names upper case, values as written.
  std::string ToText() const;
  std::string Read(std::string_view section, std::string_view key, std::string_view defaultValue) const;
  void WriteKey(std::string_view section, std::string_view key, std::string_view value);
  // Writes the pairs into the section as that many rounds of Load, WriteKey and Save on one file would,
  // so that one Save afterwards leaves the file those rounds would have left.
  void WriteKeysAsRounds(std::string_view section, const std::vector<KeyValuePair>& pairs);
  void Remove(std::string_view section, std::string_view key);
  void RemoveSection(std::string_view section);
  // All section names as written; empty when there is none.
  std::vector<std::string> Sections() const;
  // The upper-case key names of the section; the name is a pattern (see SectionPattern.h). No match
  // gives one empty element.
  std::vector<std::string> Keys(std::string_view section) const;
  void Clear() { table_.RemoveAll(); }
  // Writes ToText() to FileName, after copying the file there to FileName + "_bck".
  void Save();

  const std::filesystem::path& FileName() const { return fileName_; }
  // The whole table in order: section entries (key: the upper-case name) and value entries
  // (key: "SECTION~KEY"), for callers that walk a section.
  const OrderedDict<std::string>& Table() const { return table_; }

 private:
  // True when every row of the table reads back unchanged from the text it renders to.
  bool TableReadsBack() const;

  Reporter& reporter_;
  std::filesystem::path fileName_;
  OrderedDict<std::string> table_;
};

}  // namespace tavrel
