#include "pages/HTMLIncludes.h"

#include <charconv>
#include <utility>

#include "core/Files.h"
#include "core/Text.h"
#include "http/StaticFile.h"
#include "settings/Settings.h"

namespace tavrel {

namespace fs = std::filesystem;
using platform::ScriptError;
using platform::ScriptValue;

namespace {

// The framework's include pages, loaded in this order.
constexpr std::string_view kIncludePages[] = {"includes\\style.asp", "includes\\misc_functions.asp",
                                              "includes\\header.asp", "includes\\menu_functions.asp"};

// Lets scripts bind the request and the response being served.
constexpr std::string_view kPrelude =
    "Dim Request, Response\r\n"
    "sub setObjects(pRequest,pResponse)\r\n"
    "Set Request = pRequest\r\n"
    "Set Response = pResponse\r\n"
    "End sub\r\n";

[[noreturn]] void TypeMismatch() { throw ScriptError(Err::kTypeMismatch, "Type mismatch"); }

// A name that climbs out of its folder or names a drive; such a name is never followed.
bool LeavesFolder(std::string_view name) {
  for (const std::string& piece : Split(Replace(name, "/", "\\"), "\\")) {
    if (piece == ".." || piece.find(':') != std::string::npos) return true;
  }
  return false;
}

}  // namespace

std::string PageToScript(std::string_view page) {
  std::string code = Replace(Replace(page, "<%", ""), "%>", "");
  code = Replace(code, "<!--", "'");
  return ReplaceNoCase(code, "Response.Write", "fsg.Add");
}

std::string CutIncludes(std::string code,
                        const std::function<void(const std::string& name, bool fromScripts)>& include) {
  for (size_t at = 0;;) {
    const size_t directive = FindNoCase(code, "#include", at);
    if (directive == std::string::npos) break;
    const size_t open = code.find('"', directive);
    const size_t close = open == std::string::npos ? open : code.find('"', open + 1);
    if (close == std::string::npos) break;
    const std::string name = Trim(Replace(code.substr(open + 1, close - open - 1), "/", "\\"));
    const bool fromScripts = FindNoCase(name, "..\\Scripts") != std::string::npos;
    include(fromScripts ? ReplaceNoCase(name, "..\\Scripts", "") : name, fromScripts);
    code.erase(directive, close + 1 - directive);
    at = directive;
  }
  return code;
}

std::string ScriptText(const ScriptValue& value) {
  if (const auto* text = std::get_if<std::string>(&value)) return *text;
  if (const auto* b = std::get_if<bool>(&value)) return *b ? "True" : "False";
  if (const auto* d = std::get_if<double>(&value)) {
    char buf[32];
    const auto end = std::to_chars(buf, buf + sizeof buf, *d).ptr;
    return std::string(buf, end);
  }
  if (std::holds_alternative<std::monostate>(value)) return {};
  TypeMismatch();
}

bool ScriptBool(const ScriptValue& value) {
  if (const auto* b = std::get_if<bool>(&value)) return *b;
  if (const auto* d = std::get_if<double>(&value)) return *d != 0;
  if (std::holds_alternative<std::monostate>(value)) return false;
  if (const auto* text = std::get_if<std::string>(&value)) {
    const std::string t = Trim(*text);
    if (EqualsNoCase(t, "True")) return true;
    if (EqualsNoCase(t, "False")) return false;
    double number = 0;
    const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), number);
    if (ec == std::errc() && end == t.data() + t.size() && !t.empty()) return number != 0;
  }
  TypeMismatch();
}

HTMLIncludes::HTMLIncludes(const fs::path& home, Hs& hs, Reporter& reporter, ControlFactory createControl)
    : htmlFolder_(home / "HTML"),
      scriptsFolder_(home / "Scripts"),
      hs_(hs),
      reporter_(reporter),
      createControl_(std::move(createControl)),
      hsObject_(std::make_shared<HsObject>(hs)) {}

void HTMLIncludes::HTMLInit() {
  try {
    const std::optional<long> timeout = ReadWolSettings(hs_).scriptTimeoutMs;
    if (!timeout) TypeMismatch();
    control_ = createControl_("VBScript", *timeout);
    control_->AddObject("hs", hsObject_, true);
    control_->AddCode(std::string(kPrelude));
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, std::string("HTMLInit: ") + e.what());
  }
}

void HTMLIncludes::HTMLBuild() {
  try {
    if (!control_) throw ScriptError(Err::kObjectNotSet, "Object variable or With block variable not set");
    for (std::string_view page : kIncludePages) AccumulateHTMLReferences(page, *control_);
    scriptInitialised_ = true;
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, std::string("HTMLBuild: ") + e.what());
  }
}

void HTMLIncludes::AccumulateHTMLReferences(std::string_view fileName, platform::ScriptControl& control) {
  Accumulate(Folder::HTML, fileName, control);
}

void HTMLIncludes::AccumulateReferences(std::string_view fileName, platform::ScriptControl& control) {
  Accumulate(Folder::Scripts, fileName, control);
}

void HTMLIncludes::Accumulate(Folder folder, std::string_view fileName, platform::ScriptControl& control) {
  const bool html = folder == Folder::HTML;
  const std::string label = html ? "AccumulateHTMLReferences: " : "AccumulateReferences: ";
  if (LeavesFolder(fileName)) {
    reporter_.WriteLog(
        kModule, label + "include refused, outside the HTML and Scripts folders: " + std::string(fileName));
    return;
  }
  // Missing files add nothing.
  const auto path = ResolveStaticFile(html ? htmlFolder_ : scriptsFolder_, fileName);
  if (!path) return;
  for (const fs::path& open : loading_) {
    if (open == *path) {
      reporter_.WriteLog(kModule, label + "include cycle, not loaded again: " + std::string(fileName));
      return;
    }
  }
  loading_.push_back(*path);
  try {
    auto text = ReadWholeFile(*path);
    if (!text) throw ScriptError(Err::kPathFileAccess, "Path/File access error");
    std::string code = std::move(*text);
    if (html) code = PageToScript(code);
    // Included files go in first.
    code = CutIncludes(std::move(code), [&](const std::string& name, bool fromScripts) {
      Accumulate(fromScripts ? Folder::Scripts : Folder::HTML, name, control);
    });
    control.AddCode(code);
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, label + e.what());
  }
  loading_.pop_back();
}

ScriptValue HTMLIncludes::Run(const std::string& routine, const std::vector<ScriptValue>& args) {
  if (!control_) throw ScriptError(Err::kObjectNotSet, "Object variable or With block variable not set");
  return control_->Run(routine, args);
}

}  // namespace tavrel
