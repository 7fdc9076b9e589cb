// Feeds arbitrary bytes to the xAP message handler, once as a whole received text and once behind a valid
// header of each class it serves, so the class handlers see hostile bodies too. Nothing may crash or hang,
// and whatever the text, what is learned is at most one plain lower-case instance name that the settings
// file can hold and give back.
#include <cstdint>
#include <filesystem>
#include <random>
#include <string>

#include "FuzzSupport.h"
#include "core/Clock.h"
#include "settings/ComputerRegistry.h"
#include "settings/Hs.h"
#include "xap/XapHandler.h"
#include "xapsend/XapGlobal.h"

namespace {

using namespace tavrel;

struct NullSend : XapSendOperation {
  void Send(const std::string&, const std::string&, const std::string&, const std::string&) override {}
};

struct Home {  // one temporary home for the whole run
  std::filesystem::path path = std::filesystem::temp_directory_path() /
                               ("tavrel-fuzz-handler-" + std::to_string(std::random_device{}()));
  ~Home() { std::filesystem::remove_all(path); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Home home;
  static fuzz::CountingReporter reporter;
  static NullSend send;
  static Hs hs(home.path / "Config", reporter);
  static const ManualClock clock{MakeDateTime(2026, 11, 22, 8, 30, 0)};
  // The INI files go before every input so learned names do not pile up over a long run.
  std::filesystem::remove_all(home.path / "Config");

  XapGlobal xap;
  xap.SetTransport(&send);
  ComputerRegistry computers(hs, clock);
  ComputerRegistry::Edits edits;
  computers.Rename("", "pc7", "198.51.100.7", edits);
  computers.MergeArp({{"198.51.100.7", "00-11-22-33-44-55"}});
  XapHandler handler(XapHandler::Context{computers, hs, xap, send, reporter, clock,
                                         [](const std::string&, const std::string&) {}, "zel.WOL.host1",
                                         "/opt/tavrel/tavrel"});

  const std::string input(reinterpret_cast<const char*>(data), size);
  handler.Handle(input);
  for (const char* header : {"class=Homeseer.Role\n", "class=Computer.Process\ntarget=x.y.pc7\n",
                             "class=WDT.Echo\ntarget=zel.WOL.host1\n", "class=Time.Today\n"}) {
    handler.Handle("xap-header\n{\nv=12\nhop=1\nuid=FF123400\nsource=acme.controller.pc7\n" +
                   std::string(header) + "}\n" + input);
  }
  fuzz::Check(computers.Count() <= 2);
  for (const auto& row : computers.Rows())
    fuzz::Check(!row.computer ||
                (IsStorableName(row.name) &&
                 row.name.find_first_of(".:ABCDEFGHIJKLMNOPQRSTUVWXYZ") == std::string::npos));
  return 0;
}
