#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/Clock.h"
#include "core/FastString.h"
#include "core/Reporter.h"
#include "http/Request.h"
#include "http/Response.h"
#include "http/TCPServerModule.h"
#include "pages/HTMLIncludes.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"

namespace tavrel {

class LanScan;
class XapGlobal;

// What the page does to the network, handed in so the page runs without sockets. An empty function
// does nothing (ProcessExists: no scan running; LocalIP: "").
struct PageActions {
  // True when the magic packet went out.
  std::function<bool(const std::string& mac, const std::string& ip)> SendWOL;
  std::function<void(const std::string& computer, const std::string& action)> SendComputerControl;
  std::function<void()> QueryLAN;
  // True while a LAN scan runs; the page then offers no "Query LAN" button.
  std::function<bool()> ProcessExists;
  // This machine's IP address, for the default subnet.
  std::function<std::string()> LocalIP;

  // The program's own actions: the scan, SendWOL and SendComputerControl of the LAN layer.
  static PageActions ForLan(LanScan& scan, XapGlobal& xap, Reporter& reporter,
                            std::function<std::string()> localIP);
};

struct PageContext {
  ComputerRegistry& computers;
  Hs& hs;
  const Clock& clock;
  Reporter& reporter;
  PageActions actions;
  // The host of the framework's script pages, used only while they are switched on ("ScriptPages");
  // off, the built-in framework steps run and the host never creates a script control.
  HTMLIncludes* scripts = nullptr;
  bool scriptPagesEnabled = false;
};

// The management page: the computer table with its buttons, and the actions its form posts. One object
// lives for the whole run; it keeps the last click and the rows of the last rendering between requests.
class RemoteASP : public PageHandler {
 public:
  explicit RemoteASP(PageContext ctx) : ctx_(std::move(ctx)) {}

  // The page dispatch: the request drain calls it for the pages "\wol" and "\stat" and sends a non-empty
  // result with SendTextString (an empty one: nothing at all). Never throws; failures are reported.
  std::string RemotePage(Request& request, Response& response) override;

  // Runs the form's actions when the request posts the page's own form, then renders.
  std::string ManagementPage();
  std::string MainPage();
  // The header row, one row per computer and the closing tag.
  void WriteTableHeader(FastString& page);
  void UpdateDisplay(FastString& page);
  std::string FormatCell(std::string_view content, std::string_view cssClass, std::string_view colspan,
                         std::string_view align) const;
  void AppendCell(FastString& page, std::initializer_list<std::string_view> content,
                  std::string_view cssClass, std::string_view colspan, std::string_view align) const;
  void AcceptRemoteChanges();
  // What one post changes in the settings file, written at its end in one go.
  struct Changes {
    std::vector<KeyValuePair> wol;  // settings of section "WOL", in the order they were made
    ComputerRegistry::Edits computers;
  };
  void SaveChanges(const Changes& changes);

  bool ScriptPagesEnabled() const { return ctx_.scriptPagesEnabled; }

  // The built-in framework steps.
  void XStartMiscFunctionsASP();
  // No security level: every visitor is served.
  void XSecurityCheck() {}
  bool xStartHeaderASP();

  bool TouchscreenClient() const { return touchscreenClient_; }
  const std::string& LastSortClick() const { return lastSortClick_; }

  // One row of the rendered table, found again by its Key when the form comes back.
  struct Row {
    std::string Online, Name, IP, MAC, Key, IPSort;
  };

 private:
  std::string Form(std::string_view name) const;
  void SaveSetting(std::string_view key, std::string_view value);
  std::string LocalIP();
  // The framework steps as script routines, the one-time set-up first.
  void RunScriptSteps(Request& request, Response& response);
  // The page's head and the end of its body: the framework's routines when script pages are on.
  std::string CustomHeader(const std::vector<std::string>& values) const;
  std::string CustomFooter() const;
  // Runs one step of the page; a failure is reported under label and the page goes on.
  template <class Step>
  void Guarded(std::string_view label, Step step);
  Row& AddRow(std::string name, std::string ip, std::string mac, bool ipSort);
  void SortRows();
  void CollectChanges(Changes& changes);
  void ActOnRow(const Row& row, bool save, Changes& changes);
  // The subnet list to store: the entries people type, each in its plain form.
  std::string StoreSubnets(const std::string& subnets);

  PageContext ctx_;
  const Request* currentRequest_ = nullptr;
  Response* currentResponse_ = nullptr;
  // The request and the response as the scripts hold them; cut off when the request ends.
  std::shared_ptr<RequestObject> scriptRequest_;
  std::shared_ptr<ResponseObject> scriptResponse_;
  bool touchscreenClient_ = false;
  std::string sortDirection_ = "ASC";
  std::string lastSortClick_;
  // The rows of the last rendering in their shown order; none before the first rendering.
  std::optional<std::vector<Row>> rows_;
  // Framework settings, the touch-screen addresses and the row style in force.
  std::map<std::string, std::string> framework_;
  std::vector<std::string> touchscreenIps_;
  bool useSound_ = false;
  std::string rowStyle_;
  // What the page refused in this request, already escaped, shown above the table.
  std::vector<std::string> notices_;
  std::string localIp_;
  std::optional<DateTime> localIpRead_;
};

}  // namespace tavrel
