#include "pages/ScriptObjects.h"

namespace tavrel {

using platform::ScriptError;
using platform::ScriptValue;

namespace {

// The argument list a member accepts; a call outside it fails as the script runtime would.
void Arity(const std::vector<std::string>& args, size_t least, size_t most) {
  if (args.size() < least || args.size() > most)
    throw ScriptError(450, "Wrong number of arguments or invalid property assignment");
}

[[noreturn]] void NotSet() { throw ScriptError(91, "Object variable or With block variable not set"); }

}  // namespace

const std::vector<std::string>& HsObject::Members() const {
  // In the order scripts have always found them; the last, unnamed one is the default member.
  static const std::vector<std::string> members{
      "GetINISetting", "SystemUpTime",    "Version", "WEBLoggedInUser",
      "DeviceString",  "Sunrise",         "Sunset",  "SaveIniSetting",
      "GetINISection", "ClearINISection", ""};
  return members;
}

ScriptValue HsObject::Call(size_t member, const std::vector<std::string>& a) {
  switch (member) {
    case 0:
      Arity(a, 3, 4);
      return hs_.GetINISetting(a[0], a[1], a[2], a.size() > 3 ? a[3] : std::string());
    case 2:
      Arity(a, 0, 0);
      return hs_.Version();
    case 4:
      Arity(a, 1, 1);
      return std::string();
    case 5:
      Arity(a, 0, 0);
      return hs_.Sunrise();
    case 6:
      Arity(a, 0, 0);
      return hs_.Sunset();
    case 7:
      Arity(a, 4, 4);
      hs_.SaveIniSetting(a[0], a[1], a[2], a[3]);
      return {};
    case 8:
      Arity(a, 2, 2);
      return hs_.GetINISection(a[0], a[1]);
    case 9:
      Arity(a, 2, 2);
      hs_.ClearINISection(a[0], a[1]);
      return {};
    default:  // SystemUpTime, WEBLoggedInUser and the default member
      Arity(a, 0, 0);
      return std::string();
  }
}

const std::vector<std::string>& RequestObject::Members() const {
  static const std::vector<std::string> members{
      "Form", "QueryString", "ServerVariables", "page", "Query", "Method", "header", "Payload", "remoteip"};
  return members;
}

ScriptValue RequestObject::Call(size_t member, const std::vector<std::string>& a) {
  if (request_ == nullptr) NotSet();
  const Request& r = *request_;
  Arity(a, member < 3 ? 1 : 0, member < 3 ? 1 : 0);
  switch (member) {
    case 0:
      return r.Form(a[0]);
    case 1:
      return r.QueryString(a[0]);
    case 2:
      return r.ServerVariables(a[0]);
    case 3:
      return r.page();
    case 4:
      return r.Query();
    case 5:
      return r.Method();
    case 6:
      return r.header();
    case 7:
      return r.Payload();
    default:
      return r.remoteip();
  }
}

const std::vector<std::string>& ResponseObject::Members() const {
  static const std::vector<std::string> members{"Send", "SendTextString", "index"};
  return members;
}

ScriptValue ResponseObject::Call(size_t member, const std::vector<std::string>& a) {
  if (response_ == nullptr) NotSet();
  if (member == 2) {
    Arity(a, 0, 0);
    return static_cast<double>(response_->index());
  }
  Arity(a, 1, 1);
  response_->SendTextString(a[0]);
  return {};
}

}  // namespace tavrel
