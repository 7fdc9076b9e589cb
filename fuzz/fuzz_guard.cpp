// Reads any bytes as the header lines of a request from a LAN address and lets the guard decide, with a
// password, an allow-list and extra host names set: no crash, no hang, and a refusal is always answered.
#include <cstdint>
#include <string>
#include <string_view>

#include "../tests/http/TestSink.h"
#include "FuzzSupport.h"
#include "http/Guard.h"

using tavrel::fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > tavrel::Request::kMaxPacket) return 0;
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  // The first byte picks the method and the peer; the rest are header lines.
  const bool post = size > 0 && (data[0] & 1) != 0;
  const std::string peer = size > 0 && (data[0] & 2) != 0 ? "192.168.1.20" : "127.0.0.1";
  const std::string_view lines = input.substr(size > 0 ? 1 : 0);

  const tavrel::GuardHeaders headers = tavrel::GuardHeaders::Parse("HTTP/1.1\r\n" + std::string(lines));
  for (const auto* field : {&headers.host, &headers.origin, &headers.referer, &headers.authorization}) {
    Check(!*field || (*field)->find("\r\n") == std::string::npos);
  }
  Check(headers.hostCount >= (headers.host ? 1 : 0));

  tavrel::ManualClock clock{tavrel::MakeDateTime(2026, 11, 22)};
  tavrel::fuzz::CountingReporter quiet;
  tavrel::Guard guard{tavrel::Guard::Context{
      clock, quiet,
      [] {
        return tavrel::Guard::Settings{"192.168.1.0/24, 10.0.0.1", "pc.example", "h:secret"};
      },
      "pc", nullptr,
      [](std::string_view stored, std::string_view password) {
        return stored == "h:" + std::string(password);
      },
      nullptr}};
  tavrel::Request request;
  request.SetRemoteIp(peer);
  request.ParsePage(std::string(post ? "POST" : "GET") + " /wol HTTP/1.1\r\n" + std::string(lines) +
                    "\r\n\r\n");
  const auto verdict = guard.Check(request);
  tavrel::test::TestSink sink;
  tavrel::Response response(sink, {"", clock, quiet, nullptr});
  const bool admitted = guard.Admit(request, response);
  // The same request is decided the same way twice (one more wrong password cannot lock it out yet).
  Check(admitted == (verdict == tavrel::Guard::Verdict::kServe));
  Check(admitted == sink.sent.empty());
  Check(admitted || sink.sent.starts_with("HTTP/1.1 40"));
  return 0;
}
