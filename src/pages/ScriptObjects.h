#pragma once

#include <string>
#include <vector>

#include "http/Request.h"
#include "http/Response.h"
#include "platform/ScriptControl.h"
#include "settings/Hs.h"

namespace tavrel {

// The settings object as scripts see it, under the name "hs": the INI functions over the home's Config
// folder, the version, and the placeholders framework scripts call (always empty).
class HsObject final : public platform::ScriptObject {
 public:
  explicit HsObject(Hs& hs) : hs_(hs) {}
  const std::vector<std::string>& Members() const override;
  platform::ScriptValue Call(size_t member, const std::vector<std::string>& args) override;

 private:
  Hs& hs_;
};

// The request being served, as the scripts' Request. Scripts may keep the object past its request; it
// then answers every call with an error, as an object that is no longer set.
class RequestObject final : public platform::ScriptObject {
 public:
  explicit RequestObject(const Request& request) : request_(&request) {}
  void Detach() { request_ = nullptr; }
  const std::vector<std::string>& Members() const override;
  platform::ScriptValue Call(size_t member, const std::vector<std::string>& args) override;

 private:
  const Request* request_;
};

// The answer of the request being served, as the scripts' Response: a script that sends through it has
// answered the request itself, and the page is then not sent.
class ResponseObject final : public platform::ScriptObject {
 public:
  explicit ResponseObject(Response& response) : response_(&response) {}
  void Detach() { response_ = nullptr; }
  const std::vector<std::string>& Members() const override;
  platform::ScriptValue Call(size_t member, const std::vector<std::string>& args) override;

 private:
  Response* response_;
};

}  // namespace tavrel
