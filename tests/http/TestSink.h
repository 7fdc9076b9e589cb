#pragma once

#include <memory>
#include <string>

#include "http/Response.h"

namespace tavrel::test {

// A connection that keeps what is sent to it; a body's pieces are sent at once.
class TestSink final : public ConnectionSink {
 public:
  int Index() const override { return 3; }
  int State() const override { return state; }
  void SetTag(std::string_view) override {}
  void SendData(std::string bytes) override { sent += bytes; }
  void StartBody(std::unique_ptr<BinaryBody> body) override {
    while (body->Next()) continue;
  }
  std::string sent;
  int state = kConnected;
};

}  // namespace tavrel::test
