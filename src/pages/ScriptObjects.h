#pragma once

#include <string>
#include <vector>

#include "http/Request.h"
#include "http/Response.h"
#include "platform/ScriptControl.h"
#include "settings/Hs.h"

namespace tavrel {

// The settings object as scripts see it, under the name "hs": the INI functions over the home's Config
// folder (a file name that would reach outside it fails the call with error 52), the version, sunrise
// and sunset as dates, and the placeholders framework scripts call (always empty).
class HsObject final : public platform::ScriptObject {
 public:
  explicit HsObject(Hs& hs) : hs_(hs) {}
  const std::vector<std::string>& Members() const override;
  platform::ScriptValue Call(size_t member, const std::vector<std::string>& args) override;

 private:
  Hs& hs_;
};

// The request being served, as the scripts' Request. Scripts may keep the object past its request; it
// then answers every call with an error, as an object that is no longer set. Its collections (FormCol,
// QueryStringCol, HeaderCol) are copies taken when asked for: Item(name or position) as the default
// member, Count, and For Each over the items (KeyValuePair objects with Key and Value; header texts).
class RequestObject final : public platform::ScriptObject {
 public:
  explicit RequestObject(Request& request) : request_(&request) {}
  void Detach() { request_ = nullptr; }
  const std::vector<std::string>& Members() const override;
  platform::ScriptValue Call(size_t member, const std::vector<std::string>& args) override;

 private:
  Request* request_;
};

// The answer of the request being served, as the scripts' Response: a script that sends through it has
// answered the request itself, and the page is then not sent. The send members take the socket index
// last; it must be this request's own (Response.index), as the one connection this object answers.
// RedirectToHS re-submits the request being served, whatever its request argument holds.
class ResponseObject final : public platform::ScriptObject {
 public:
  ResponseObject(Response& response, const Request& request) : response_(&response), request_(&request) {}
  void Detach() {
    response_ = nullptr;
    request_ = nullptr;
  }
  const std::vector<std::string>& Members() const override;
  platform::ScriptValue Call(size_t member, const std::vector<std::string>& args) override;

 private:
  void CheckIndex(const std::string& index) const;

  Response* response_;
  const Request* request_;
};

}  // namespace tavrel
