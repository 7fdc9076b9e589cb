#include "lan/ComputerActions.h"
#include "lan/LanScan.h"
#include "pages/RemoteASP.h"

namespace tavrel {

PageActions PageActions::ForLan(LanScan& scan, XapGlobal& xap, Reporter& reporter,
                                std::function<std::string()> localIP) {
  PageActions actions;
  actions.SendWOL = [&reporter](const std::string& mac, const std::string& ip) {
    return tavrel::SendWOL(mac, ip, reporter);
  };
  actions.SendComputerControl = [&xap](const std::string& computer, const std::string& action) {
    tavrel::SendComputerControl(computer, action, xap);
  };
  actions.QueryLAN = [&scan] { scan.QueryLAN(); };
  actions.ProcessExists = [&scan] { return scan.ProcessExists(); };
  actions.LocalIP = std::move(localIP);
  return actions;
}

}  // namespace tavrel
