#include "pages/RemoteASP.h"

#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Version.h"
#include "core/Text.h"
#include "lan/Subnet.h"
#include "pages/PageText.h"
#include "settings/IniTool.h"
#include "settings/Settings.h"

namespace tavrel {
namespace {

constexpr std::string_view kWol = "WOL";
constexpr std::array<std::string_view, 6> kSortKeys{"Online", "Name", "IP", "MAC", "Key", "IPSort"};
constexpr std::array<const char*, 16> kFrameworkKeys{
    "dbpath",         "dbname",         "dbusername",     "dbpassword", "dbserverip", "rowstyle",
    "usesecurity",    "linkfileext",    "dbtype",         "hsip",       "exthsip",    "footerlinkrule",
    "useslideinmenu", "audreyrowstyle", "touchscreenips", "usesound"};

// A failure with the number the program's reports have always carried for it.
struct RunTimeError : std::runtime_error {
  RunTimeError(long number, const char* text) : std::runtime_error(text), number(number) {}
  long number;
};

Err ErrOf(const std::exception& e) {
  const auto* rt = dynamic_cast<const RunTimeError*>(&e);
  return Err::From(e, rt ? rt->number : Err::kInvalidCall);
}

const std::string& RowField(const RemoteASP::Row& row, size_t field) {
  switch (field) {
    case 0:
      return row.Online;
    case 1:
      return row.Name;
    case 2:
      return row.IP;
    case 3:
      return row.MAC;
    case 4:
      return row.Key;
    default:
      return row.IPSort;
  }
}

}  // namespace

std::string RemoteASP::RemotePage(Request& request, Response& response) {
  const Hs::Pin pin(ctx_.hs);
  std::string result;
  try {
    currentRequest_ = &request;
    currentResponse_ = &response;
    if (ScriptPagesEnabled()) {
      RunScriptSteps(request, response);
    } else {
      XStartMiscFunctionsASP();
      XSecurityCheck();
      touchscreenClient_ = xStartHeaderASP();
    }
    // A visitor the framework has answered itself (turned away, say) gets nothing acted on.
    if (!response.Answered()) result = ManagementPage();
  } catch (const std::exception& e) {
    ctx_.reporter.ReportEvent(kModule, "RemotePage", ErrOf(e));
  }
  // The request and the response end with this call.
  currentRequest_ = nullptr;
  currentResponse_ = nullptr;
  if (scriptRequest_) scriptRequest_->Detach();
  if (scriptResponse_) scriptResponse_->Detach();
  return result;
}

void RemoteASP::RunScriptSteps(Request& request, Response& response) {
  if (!ctx_.scripts) throw RunTimeError(Err::kObjectNotSet, "Object variable or With block variable not set");
  HTMLIncludes& scripts = *ctx_.scripts;
  scriptRequest_ = std::make_shared<RequestObject>(request);
  scriptResponse_ = std::make_shared<ResponseObject>(response, request);
  const std::vector<platform::ScriptValue> objects{std::shared_ptr<platform::ScriptObject>(scriptRequest_),
                                                   std::shared_ptr<platform::ScriptObject>(scriptResponse_)};
  if (!scripts.ScriptInitialised()) {
    scripts.HTMLInit();
    scripts.Run("setObjects", objects);
    scripts.HTMLBuild();
    scripts.Run("startmiscfunctionsasp");
  } else {
    scripts.Run("setObjects", objects);
  }
  scripts.Run("SecurityCheck");
  touchscreenClient_ = ScriptBool(scripts.Run("startheaderasp"));
}

void RemoteASP::XStartMiscFunctionsASP() {
  try {
    for (const char* key : kFrameworkKeys) {
      framework_[key] = ctx_.hs.GetINISetting("Settings", key, "", kIniFile);
    }
    touchscreenIps_ = Split(framework_["touchscreenips"], ",");
    useSound_ = UCase(framework_["usesound"]) == "TRUE";
    rowStyle_ = framework_["rowstyle"];
  } catch (const std::exception& e) {
    ctx_.reporter.ReportEvent(kModule, std::string("XStartMiscFunctionsASP: ") + e.what());
  }
}

bool RemoteASP::xStartHeaderASP() {
  touchscreenClient_ = false;
  if (!currentRequest_) return false;
  const std::string address = currentRequest_->ServerVariables("REMOTE_ADDR");
  const bool listed = std::any_of(touchscreenIps_.begin(), touchscreenIps_.end(),
                                  [&](const std::string& ip) { return !ip.empty() && ip == address; });
  const std::string agent = currentRequest_->ServerVariables("HTTP_USER_AGENT");
  if (listed || agent.find("Audrey") != std::string::npos || agent.find("QNX") != std::string::npos) {
    touchscreenClient_ = true;
    rowStyle_ = framework_["audreyrowstyle"];
  }
  return touchscreenClient_;
}

std::string RemoteASP::ManagementPage() {
  sortDirection_ = ReadWolSettings(ctx_.hs).sortDir;
  notices_.clear();
  if (!Form("clientinput").empty()) AcceptRemoteChanges();
  return MainPage();
}

template <class Step>
void RemoteASP::Guarded(std::string_view label, Step step) {
  try {
    step();
  } catch (const std::exception& e) {
    ctx_.reporter.ReportEvent(kModule, label, ErrOf(e));
  }
}

std::string RemoteASP::MainPage() {
  FastString page;
  page.Append("<html><head>");
  Guarded("MainPage", [&] {
    FastString title;
    title.Append("Tavrel&nbsp;&nbsp;<small><font size='1'></b>");
    title.Append(" V" + std::to_string(kVersionMajor) + "." + std::to_string(kVersionMinor) + "." +
                 std::to_string(kVersionRevision));
    title.Append("</font></small>");
    page.Append(CustomHeader({title.ToString(), "", "#000000", "x", "StyleNoBody.css"}));
  });
  page.Append("<div><center><small>");
  for (const std::string& notice : notices_) page.Append("<p>" + notice + "</p>");
  page.Append("<table><tr><table>");
  page.Append("<form name='exe' method='post'>");
  page.Append("<input type='hidden' name='clientinput' value='yes'>");
  const auto cell = [&](std::string content) {
    Guarded("MainPage", [&] { AppendCell(page, {content}, "TABLEROWEVEN", "1", "Center"); });
  };
  cell("<input type='submit' name ='UpdateButton' value='Refresh'>");
  if (!(ctx_.actions.ProcessExists && ctx_.actions.ProcessExists())) {
    cell("<input type='submit' name ='QueryLAN' value='Query LAN'>");
  }
  cell("<input type='submit' name ='Save' value='Save Changes'>");
  page.Append("</table><table><tr>");
  const std::string localIP = LocalIP();
  const size_t lastDot = localIP.rfind('.');
  std::string subnets = ReadWolSettings(ctx_.hs).subnet;
  if (subnets.empty() && lastDot != std::string::npos) subnets = localIP.substr(0, lastDot);
  cell("Comma-separated subnets&nbsp;<input type='text' size='70' value='" + HtmlEscape(subnets) +
       "' name='subnet'>");
  page.Append("</tr></table><table>");
  WriteTableHeader(page);
  page.Append("</form></small></table></center></div>");
  Guarded("MainPage", [&] { page.Append(CustomFooter()); });
  page.Append("</body></html>");
  return std::move(page).ToString();
}

// This machine's address, for the default subnet, looked up again after a minute rather than for every page.
std::string RemoteASP::LocalIP() {
  const DateTime now = ctx_.clock.Now();
  if (!localIpRead_ || now < *localIpRead_ || now - *localIpRead_ >= std::chrono::minutes(1)) {
    localIp_ = ctx_.actions.LocalIP ? ctx_.actions.LocalIP() : std::string();
    localIpRead_ = now;
  }
  return localIp_;
}

std::string RemoteASP::CustomHeader(const std::vector<std::string>& values) const {
  if (!ScriptPagesEnabled()) return tavrel::CustomHeader(values);
  return ScriptText(ctx_.scripts->Run("CustomHeader", {values}));
}

std::string RemoteASP::CustomFooter() const {
  return ScriptPagesEnabled() ? ScriptText(ctx_.scripts->Run("CustomFooter")) : std::string();
}

void RemoteASP::WriteTableHeader(FastString& page) {
  page.Append("<Table width='625' border='5' frame='box'><tr>");
  for (std::string_view name : {"R", "Online", "Name", "IP", "MAC"}) {
    const std::string button =
        "<input type='submit' value='" + std::string(name) + "' name='" + std::string(name) + "'>";
    Guarded("RemoteASP", [&] { AppendCell(page, {button}, "TABLEHEADER", "1", "Center"); });
  }
  Guarded("RemoteASP", [&] { AppendCell(page, {"Control"}, "TABLEHEADER", "3", "Center"); });
  page.Append("</tr>");
  UpdateDisplay(page);
  page.Append("</table>");
}

RemoteASP::Row& RemoteASP::AddRow(std::string name, std::string ip, std::string mac, bool ipSort) {
  Row row;
  row.Name = std::move(name);
  row.IP = std::move(ip);
  row.MAC = std::move(mac);
  if (ipSort) row.IPSort = MakeIPSort(row.IP);
  row.Key = std::to_string(rows_->size());
  rows_->push_back(std::move(row));
  return rows_->back();
}

void RemoteASP::UpdateDisplay(FastString& page) {
  try {
    const std::string column = ReadWolSettings(ctx_.hs).sort;
    const bool ipSort = column == "IP";
    const DateTime now = ctx_.clock.Now();
    // Rows known only by address have a light once sweeps tell whether they answer.
    const bool sweeping = ctx_.computers.Presence().sweeping;
    rows_.emplace();
    for (ComputerRegistry::Row& computer : ctx_.computers.Rows()) {
      Row& row = AddRow(std::move(computer.name), std::move(computer.ip), std::move(computer.mac), ipSort);
      if (!computer.computer && !sweeping) continue;
      const std::string_view colour = !computer.lastSeen ? "yellow" : computer.Seen() ? "Green" : "Red";
      const long long age =
          std::clamp<long long>((now - computer.lastSeen.value_or(now)).count(),
                                std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max());
      row.Online =
          "<img src='\\led-" + std::string(colour) + ".gif'>&nbsp;" + FormatAge(static_cast<int32_t>(age));
    }
    SortRows();

    // About 800 bytes a row: the page grows once, not by doubling through hundreds of kilobytes.
    page.Reserve(page.Length() + rows_->size() * 800 + 1024);
    size_t index = 0;
    for (const Row& row : *rows_) {
      const std::string_view rowClass = index++ % 2 == 0 ? "TABLEROWODD" : "TABLEROWEVEN";
      const std::string& k = row.Key;
      const std::string name = HtmlEscape(row.Name), ip = HtmlEscape(row.IP), mac = HtmlEscape(row.MAC);
      const auto cell = [&](std::initializer_list<std::string_view> content) {
        AppendCell(page, content, rowClass, "1", "Left");
      };
      page.Append("<tr>");
      cell({"<input type='checkbox' value='1' name='R", k, "'>"});
      cell({row.Online});
      cell({"<input type='text' name='Name", k, "'size='8' value='", name, "'>"});
      cell({ip});
      cell({mac});
      if (row.MAC.empty()) {
        cell({"&nbsp;"});
      } else {
        cell({"<input type='submit' name='WOL", k, "' value='WOL'>"});
      }
      if (row.Name.empty()) {
        cell({"&nbsp;"});
        cell({"&nbsp;"});
      } else {
        cell({"<input type='submit' name='Reboot", k, "' value='Reboot'>"});
        cell({"<input type='submit' name='Shutdown", k, "' value='Shutdown'>"});
      }
      page.Append("</tr>");
    }
  } catch (const std::exception& e) {
    ctx_.reporter.ReportEvent(kModule, "UpdateDisplay", ErrOf(e));
  }
}

// Orders the rows by the "Sort" setting ("IP" meaning the padded address) in SortDirection; a column or
// direction that names nothing sorts by name and puts "Name" back into the setting.
void RemoteASP::SortRows() {
  std::string column = ReadWolSettings(ctx_.hs).sort;
  if (column == "IP") column = "IPSort";
  auto field = std::find_if(kSortKeys.begin(), kSortKeys.end(),
                            [&](std::string_view key) { return EqualsNoCase(key, column); });
  const bool ascending = sortDirection_.empty() || EqualsNoCase(sortDirection_, "ASC");
  bool descending = EqualsNoCase(sortDirection_, "DESC");
  if (field == kSortKeys.end() || !(ascending || descending)) {
    field = kSortKeys.begin() + 1;
    descending = false;
    SaveSetting("Sort", "Name");
  }
  const size_t f = static_cast<size_t>(field - kSortKeys.begin());
  std::stable_sort(rows_->begin(), rows_->end(), [&](const Row& a, const Row& b) {
    const int c = CompareNoCase(RowField(a, f), RowField(b, f));
    return descending ? c > 0 : c < 0;
  });
}

void RemoteASP::AppendCell(FastString& page, std::initializer_list<std::string_view> content,
                           std::string_view cssClass, std::string_view colspan,
                           std::string_view align) const {
  if (ScriptPagesEnabled()) {
    page.Append(FormatCell(Concat(content), cssClass, colspan, align));
  } else {
    tavrel::AppendCell(page, content, cssClass, colspan, align, touchscreenClient_);
  }
}

std::string RemoteASP::FormatCell(std::string_view content, std::string_view cssClass,
                                  std::string_view colspan, std::string_view align) const {
  if (ScriptPagesEnabled()) {
    return ScriptText(ctx_.scripts->Run("FormatCell", {std::string(content), std::string(cssClass),
                                                       std::string(colspan), std::string(align)}));
  }
  return tavrel::FormatCell(content, cssClass, colspan, align, touchscreenClient_);
}

void RemoteASP::AcceptRemoteChanges() {
  Changes changes;
  try {
    CollectChanges(changes);
  } catch (const std::exception& e) {
    ctx_.reporter.ReportEvent(kModule, "AcceptRemoteChanges", ErrOf(e));
    // What was changed before the failure is in memory, so it goes to the file too; the sections
    // emptied of removed entries are not rewritten.
    ComputerRegistry::KeepNewLinesOnly(changes.computers);
  }
  SaveChanges(changes);
}

void RemoteASP::CollectChanges(Changes& changes) {
  changes.wol.push_back({"Subnet", StoreSubnets(Replace(Form("subnet"), "%2C", ","))});
  for (std::string_view key : kSortKeys) {
    if (Form(key).empty()) continue;
    if (key != lastSortClick_) {
      lastSortClick_ = key;
    } else {
      sortDirection_ = sortDirection_ == "ASC" ? "DESC" : "ASC";
      changes.wol.push_back({"SortDir", sortDirection_});
    }
    changes.wol.push_back({"Sort", std::string(key)});
    return;
  }
  if (!Form("QueryLAN").empty()) {
    if (ctx_.actions.QueryLAN) ctx_.actions.QueryLAN();
    return;
  }
  if (!Form("Refresh").empty()) return;
  if (!rows_) throw RunTimeError(Err::kObjectNotSet, "Object variable or With block variable not set");
  const bool save = !Form("Save").empty();
  for (const Row& row : *rows_) ActOnRow(row, save, changes);
}

// Each entry in one of the forms people type ("192.168.1", "192.168.1.0", "192.168.1.0/24") is stored in
// its plain form; any other entry is left out, and the page names it, so no posted text reaches a scan.
std::string RemoteASP::StoreSubnets(const std::string& subnets) {
  std::vector<std::string> parsed;
  std::vector<std::string> refused;
  for (const std::string& entry : Split(subnets, ",")) {
    std::string text = Trim(entry);
    if (text.empty()) continue;
    for (std::string_view suffix : {".0/24", ".0"}) {
      if (text.size() > suffix.size() && text.ends_with(suffix) &&
          std::count(text.begin(), text.end(), '.') == 3) {
        text.resize(text.size() - suffix.size());
        break;
      }
    }
    if (std::optional<std::string> subnet = ParseSubnet(text)) {
      parsed.push_back(std::move(*subnet));
    } else {
      refused.push_back("\"" + entry + "\"");
    }
  }
  if (!refused.empty()) {
    notices_.push_back(HtmlEscape("Subnets left out: " + Join(refused, ", ") +
                                  ". A subnet is three numbers 0-255 separated by dots, such as 192.168.1 "
                                  "(or 192.168.1.0/24)."));
  }
  return Join(parsed, ",");
}

void RemoteASP::ActOnRow(const Row& row, bool save, Changes& changes) {
  const std::string& k = row.Key;
  if (!save) {
    if (!Form("Shutdown" + k).empty() && ctx_.actions.SendComputerControl) {
      ctx_.actions.SendComputerControl(row.Name, "Shutdown");
    }
    if (!Form("Reboot" + k).empty() && ctx_.actions.SendComputerControl) {
      ctx_.actions.SendComputerControl(row.Name, "Reboot");
    }
    if (!Form("WOL" + k).empty() && ctx_.actions.SendWOL) ctx_.actions.SendWOL(row.MAC, row.IP);
    return;
  }

  const std::string newName = UCase(Form("Name" + k));
  const bool renamed = newName != UCase(row.Name);
  // A name the settings file could not give back unchanged is refused, and the page says so.
  if (renamed) {
    switch (ctx_.computers.Rename(row.Name, newName, row.IP, changes.computers)) {
      case ComputerRegistry::Renamed::Unstorable:
        notices_.push_back(
            HtmlEscape("Not renamed: \"" + newName +
                       "\" cannot be stored as a computer name (1 to 63 characters; no control "
                       "characters, \"=\" or \"~\"; no \";\" or \"[\" first; no blank at either end)."));
        break;
      case ComputerRegistry::Renamed::NotFound:
        throw RunTimeError(Err::kElementNotFound, "Element not found");
      case ComputerRegistry::Renamed::Renamed:
        break;
    }
  }
  if (!Form("R" + k).empty()) ctx_.computers.Remove(newName, row.IP, changes.computers);
}

void RemoteASP::SaveChanges(const Changes& changes) {
  try {
    ctx_.hs.EditIni(kIniFile, [&](IniTool& ini) {
      ini.WriteKeysAsRounds(kWol, changes.wol);
      ctx_.computers.WriteEdits(ini, changes.computers);
    });
  } catch (const std::exception& e) {
    ctx_.reporter.ReportEvent(kModule, "AcceptRemoteChanges", ErrOf(e));
  }
}

std::string RemoteASP::Form(std::string_view name) const {
  return currentRequest_ ? currentRequest_->Form(name) : std::string();
}

void RemoteASP::SaveSetting(std::string_view key, std::string_view value) {
  ctx_.hs.SaveIniSetting(kWol, key, value, kIniFile);
}

}  // namespace tavrel
