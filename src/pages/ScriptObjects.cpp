#include "pages/ScriptObjects.h"

#include <memory>
#include <optional>
#include <utility>

#include "core/Clock.h"
#include "core/OrderedDict.h"
#include "core/Text.h"

namespace tavrel {

using platform::ScriptDate;
using platform::ScriptError;
using platform::ScriptObject;
using platform::ScriptValue;

namespace {

// The argument list a member accepts; a call outside it fails as the script runtime would.
void Arity(const std::vector<std::string>& args, size_t least, size_t most) {
  if (args.size() < least || args.size() > most)
    throw ScriptError(Err::kWrongArgumentCount, "Wrong number of arguments or invalid property assignment");
}

[[noreturn]] void NotSet() {
  throw ScriptError(Err::kObjectNotSet, "Object variable or With block variable not set");
}
[[noreturn]] void NoSuchMember() {
  throw ScriptError(Err::kNoSuchMember, "Object doesn't support this property or method");
}

// A few named values (a KeyValuePair, a content type); a member named "" is the record's default.
class RecordObject final : public ScriptObject {
 public:
  RecordObject(const std::vector<std::string>& names, std::vector<ScriptValue> values)
      : names_(names), values_(std::move(values)) {}
  const std::vector<std::string>& Members() const override { return names_; }
  ScriptValue Call(size_t member, const std::vector<std::string>& args) override {
    Arity(args, 0, 0);
    return values_.at(member);
  }

 private:
  const std::vector<std::string>& names_;
  std::vector<ScriptValue> values_;
};

// A read-only collection: Item (the default member) by key, without regard to case, or else by
// position from 1; Count; and its items for For Each.
class CollectionObject final : public ScriptObject {
 public:
  void Add(const std::string& key, ScriptValue item) {
    if (keys_.Add(key, items_.size())) items_.push_back(std::move(item));
  }
  const std::vector<std::string>& Members() const override {
    static const std::vector<std::string> members{"", "Item", "Count"};
    return members;
  }
  ScriptValue Call(size_t member, const std::vector<std::string>& a) override {
    if (member == 2) {
      Arity(a, 0, 0);
      return static_cast<double>(items_.size());
    }
    Arity(a, 1, 1);
    if (const size_t* at = keys_.Find(a[0])) return items_[*at];
    long long position = 0;
    if (ParseInt(Trim(a[0]), 1, static_cast<long long>(items_.size()), position))
      return items_[static_cast<size_t>(position - 1)];
    throw ScriptError(Err::kInvalidCall, "Invalid procedure call or argument");
  }
  std::optional<std::vector<ScriptValue>> Items() override { return items_; }

 private:
  OrderedDict<size_t> keys_{true};
  std::vector<ScriptValue> items_;
};

std::shared_ptr<ScriptObject> PairsCollection(const Request::Collection& pairs) {
  static const std::vector<std::string> names{"Key", "Value"};
  auto collection = std::make_shared<CollectionObject>();
  for (const auto& entry : pairs) {
    collection->Add(entry.key, std::make_shared<RecordObject>(
                                   names, std::vector<ScriptValue>{entry.value.Key, entry.value.Value}));
  }
  return collection;
}

std::shared_ptr<ScriptObject> TextCollection(const OrderedDict<std::string>& texts) {
  auto collection = std::make_shared<CollectionObject>();
  for (const auto& entry : texts) collection->Add(entry.key, entry.value);
  return collection;
}

// A time as heard ("6:45", "06:45:10", "6:45 PM") or a date and time ("2026-11-24 06:45:00") as a date; a
// time alone falls on the script runtime's day zero, 30 December 1899, as its own times do. Any other text
// ("Unknown", or nothing heard yet) as it stands.
ScriptValue DateOrText(const std::string& text) {
  DateTime full;
  if (ParseDateTime(text, full)) return ScriptDate{full};
  std::string time = UCase(Trim(text));
  int afternoon = -1;
  if (time.ends_with("AM") || time.ends_with("PM")) {
    afternoon = time.ends_with("PM") ? 12 : 0;
    time = RTrim(time.substr(0, time.size() - 2));
  }
  const std::vector<std::string> parts = Split(time, ":");
  long long h = 0, m = 0, s = 0;
  if (parts.size() < 2 || parts.size() > 3 || !ParseInt(parts[0], 0, 23, h) ||
      !ParseInt(parts[1], 0, 59, m) || (parts.size() == 3 && !ParseInt(parts[2], 0, 59, s))) {
    return text;
  }
  if (afternoon >= 0) {
    if (h < 1 || h > 12) return text;
    h = h % 12 + afternoon;
  }
  return ScriptDate{
      MakeDateTime(1899, 12, 30, static_cast<int>(h), static_cast<int>(m), static_cast<int>(s))};
}

// An INI file name of a script, refused unless it names a file inside the Config folder.
const std::string& ConfigFile(const std::string& name) {
  if (Hs::IsConfigFileName(name)) return name;
  std::string shown = name.substr(0, 80);
  for (char& c : shown)
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = '?';
  throw ScriptError(Err::kBadFileName, "Bad file name or number: \"" + shown +
                                           "\" is not a plain file name of the Config folder");
}

enum HsMember : size_t {
  kGetINISetting,
  kSystemUpTime,
  kVersion,
  kWEBLoggedInUser,
  kDeviceString,
  kSunrise,
  kSunset,
  kSaveIniSetting,
  kGetINISection,
  kClearINISection,
};

enum RequestMember : size_t {
  kForm,
  kQueryString,
  kServerVariables,
  kPage,
  kQuery,
  kMethod,
  kHeader,
  kPayload,
  kRemoteIp,
  kFormCol,
  kQueryStringCol,
  kHeaderCol,
  kGetContent,
  kDecode,
  kParsePage,
  kAddPostData,
};

enum ResponseMember : size_t {
  kSend,
  kSendTextString,
  kIndex,
  kSendTextFile,
  kSendBinaryFile,
  kSendErrorResponse,
  kRedirectToHS,
  kGetContentType,
  kRedirect,
};

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
    case kGetINISetting:
      Arity(a, 3, 4);
      return hs_.GetINISetting(a[0], a[1], a[2], ConfigFile(a.size() > 3 ? a[3] : std::string()));
    case kVersion:
      Arity(a, 0, 0);
      return hs_.Version();
    case kDeviceString:
      Arity(a, 1, 1);
      return std::string();
    case kSunrise:
      Arity(a, 0, 0);
      return DateOrText(hs_.Sunrise());
    case kSunset:
      Arity(a, 0, 0);
      return DateOrText(hs_.Sunset());
    case kSaveIniSetting:
      Arity(a, 4, 4);
      hs_.SaveIniSetting(a[0], a[1], a[2], ConfigFile(a[3]));
      return {};
    case kGetINISection:
      Arity(a, 2, 2);
      return hs_.GetINISection(a[0], ConfigFile(a[1]));
    case kClearINISection:
      Arity(a, 2, 2);
      hs_.ClearINISection(a[0], ConfigFile(a[1]));
      return {};
    default:  // SystemUpTime, WEBLoggedInUser and the default member
      Arity(a, 0, 0);
      return std::string();
  }
}

const std::vector<std::string>& RequestObject::Members() const {
  static const std::vector<std::string> members{
      "Form",       "QueryString", "ServerVariables", "page",       "Query",          "Method",
      "header",     "Payload",     "remoteip",        "FormCol",    "QueryStringCol", "HeaderCol",
      "GetContent", "Decode",      "ParsePage",       "AddPostData"};
  return members;
}

ScriptValue RequestObject::Call(size_t member, const std::vector<std::string>& a) {
  if (request_ == nullptr) NotSet();
  Request& r = *request_;
  const bool takesText = member <= kServerVariables || member >= kGetContent;
  Arity(a, takesText ? 1 : 0, takesText ? 1 : 0);
  switch (member) {
    case kForm:
      return r.Form(a[0]);
    case kQueryString:
      return r.QueryString(a[0]);
    case kServerVariables:
      return r.ServerVariables(a[0]);
    case kPage:
      return r.page();
    case kQuery:
      return r.Query();
    case kMethod:
      return r.Method();
    case kHeader:
      return r.header();
    case kPayload:
      return r.Payload();
    case kRemoteIp:
      return r.remoteip();
    case kFormCol:
      return PairsCollection(r.FormCol());
    case kQueryStringCol:
      return PairsCollection(r.QueryStringCol());
    case kHeaderCol:
      return TextCollection(r.HeaderCol());
    case kGetContent:
      return Request::GetContent(a[0]);
    case kDecode:
      return Request::Decode(a[0]);
    case kParsePage:
      r.ParsePage(a[0]);
      return {};
    case kAddPostData:
      r.AddPostData(a[0]);
      return {};
    default:
      NoSuchMember();
  }
}

const std::vector<std::string>& ResponseObject::Members() const {
  static const std::vector<std::string> members{"Send",         "SendTextString", "index",
                                                "SendTextFile", "SendBinaryFile", "SendErrorResponse",
                                                "RedirectToHS", "GetContentType", "Redirect"};
  return members;
}

ScriptValue ResponseObject::Call(size_t member, const std::vector<std::string>& a) {
  if (response_ == nullptr) NotSet();
  Response& r = *response_;
  switch (member) {
    case kSend:
      Arity(a, 1, 1);
      r.SendTextString(a[0]);
      return {};
    case kSendTextString:
      Arity(a, 2, 2);
      CheckIndex(a[1]);
      r.SendTextString(a[0]);
      return {};
    case kIndex:
      Arity(a, 0, 0);
      return static_cast<double>(r.index());
    case kSendTextFile:
      Arity(a, 2, 2);
      CheckIndex(a[1]);
      r.SendTextFile(Response::PagePath(a[0]));
      return {};
    case kSendBinaryFile:
      Arity(a, 2, 2);
      CheckIndex(a[1]);
      r.SendBinaryFile(Response::PagePath(a[0]));
      return {};
    case kSendErrorResponse:
      Arity(a, 1, 1);
      CheckIndex(a[0]);
      r.SendErrorResponse();
      return {};
    case kRedirectToHS:
      Arity(a, 3, 3);
      CheckIndex(a[2]);
      r.RedirectToHS(a[0], *request_);
      return {};
    case kGetContentType: {
      Arity(a, 1, 1);
      static const std::vector<std::string> names{"", "ContentType", "IsText", "IsScript"};
      const ContentType type = Response::GetContentType(a[0]);
      return std::make_shared<RecordObject>(
          names, std::vector<ScriptValue>{type.type, type.type, type.isText, type.isScript});
    }
    case kRedirect:
      // A page may ask for a redirect; the answer is always the refusal page.
      Arity(a, 1, 1);
      r.SendTextString("<HTML>Unauthorized Access<HTML>");
      return {};
    default:
      NoSuchMember();
  }
}

void ResponseObject::CheckIndex(const std::string& index) const {
  long long socket = 0;
  if (!ParseInt(Trim(index), -32768, 32767, socket)) throw ScriptError(Err::kTypeMismatch, "Type mismatch");
  if (socket != response_->index()) {
    throw ScriptError(Err::kInvalidCall, "Invalid procedure call or argument: socket " +
                                             std::to_string(socket) +
                                             " is not the connection of this request (" +
                                             std::to_string(response_->index()) + ")");
  }
}

}  // namespace tavrel
