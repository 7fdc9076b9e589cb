#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "HttpFakes.h"
#include "http/Request.h"

namespace tavrel {
namespace {

using Lines = std::vector<std::string>;

std::string Fields(const Request& r) {
  return r.Method() + "|" + r.page() + "|" + r.Query() + "|" + r.header() + "|" + r.Payload();
}

std::string Pairs(const Request::Collection& col) {
  std::string out;
  for (const auto& e : col) out += "[" + e.key + "=" + e.value.Value + "]";
  return out;
}

TEST(RequestParse, RequestLineHeaderAndBody) {
  const struct {
    const char* packet;
    const char* fields;
  } cases[] = {
      {"GET /wol?x=1&y=a+b HTTP/1.1\r\nHost: h\r\n\r\n", "GET|/wol|x=1&y=a b|HTTP/1.1\r\nHost: h|"},
      // A body of three bytes or more in the same packet marks a POST as "POSTx"; CR LF leave the body.
      {"POST /wol HTTP/1.1\r\n\r\nk=v\r\n&x", "POSTx|/wol||HTTP/1.1|k=v&x"},
      {"POST /wol HTTP/1.1\r\n\r\nab", "POST|/wol||HTTP/1.1|"},
      {"POST /wol HTTP/1.1\r\n\r\n", "POST|/wol||HTTP/1.1|"},
      {"PUT /wol HTTP/1.1\r\n\r\nabc", "PUT|/wol||HTTP/1.1|abc"},
      // The target is decoded before the split, and the version is found in any case.
      {"GET /a%3Fb=1%26c=%3A http/1.0", "GET|/a|b=1&c='|http/1.0|"},
      {"GET /x HTTP/1.1\r\nHost: h\r\n", "GET|/x||HTTP/1.1\r\nHost: h\r\n|"},
      // "HTTP" inside the path ends the target there.
      {"GET /http/x HTTP/1.1", "GET|||http/x HTTP/1.1|"},
      {"GET /wol", "GET||||"},
      {"GET HTTP/1.1", "GET||||"},
      {"GETHTTP/1.1", "||||"},
      {"", "||||"},
  };
  for (const auto& c : cases) {
    Request r;
    r.ParsePage(c.packet);
    EXPECT_EQ(Fields(r), c.fields) << c.packet;
  }
}

TEST(RequestParse, HeaderLinesAndServerVariables) {
  Request r;
  r.ParsePage(
      "GET / HTTP/1.1\r\nUser-Agent: UA 1\r\nHost: example.org:8019\r\nX: a: b\r\nhost: second\r\nBare\r\n"
      "Empty: \r\n\r\nbody: x");
  EXPECT_EQ(r.HeaderCol().Keys(), (Lines{"User-Agent", "Host", "Empty"}));
  EXPECT_EQ(r.ServerVariables("HTTP_User_Agent"), "UA 1");
  EXPECT_EQ(r.ServerVariables("REMOTE_ADDR"), "example.org");
  EXPECT_EQ(r.ServerVariables("HOST"), "example.org:8019");
  EXPECT_EQ(r.ServerVariables("x") + r.ServerVariables("body") + r.ServerVariables("Missing"), "");
  Request portless;
  portless.ParsePage("GET / HTTP/1.1\r\nHost: example.org\r\n\r\n");
  EXPECT_EQ(portless.ServerVariables("remote_addr"), "example.org");
}

TEST(RequestDecode, EscapesAsTheProgramReadsThem) {
  const struct {
    const char* in;
    std::string out;
  } cases[] = {
      {"a+b%41%42", "a bAB"},
      {"%3A|%3a|%2F", "'|/|/"},    // lower-case "a" counts as -1: 16 * 3 - 1 = 47
      {"%0D%0A%00%zz%", "     "},  // control codes and negative codes become blanks
      {"%2525", "%25"},            // the decoded "%" is not read again
      {"x%4", "x?"},               // a missing digit counts as -1 too
      {"%FF%+1", "\xFF "},
  };
  for (const auto& c : cases) EXPECT_EQ(Request::Decode(c.in), c.out) << c.in;
}

TEST(RequestCollections, FirstKeyWinsWithoutRegardToCaseAndValuesAreOnlyPartlyDecoded) {
  test::RecordingLog log;
  Request r(&log);
  r.ParsePage("POST /wol?A=1&a=2&c&=e HTTP/1.1\r\nHost: h\r\n\r\nk%3A=x+y%3A%5B%5D%5C%41&k%3a=no");
  r.AddPostData("K%3A=late&z=1=2");
  EXPECT_EQ(Pairs(r.QueryStringCol()), "[A=1][c=][=e]");
  EXPECT_EQ(Pairs(r.FormCol()), "[k%3A=x y:[]\\%41][z=1]");
  EXPECT_EQ(r.Payload(), "k%3A=x+y%3A%5B%5D%5C%41&k%3a=no");
  EXPECT_EQ(r.QueryString("a"), "1");
  EXPECT_EQ(r.Form("K%3a"), "x y:[]\\%41");
  EXPECT_EQ(r.Form("absent"), "");
  EXPECT_EQ(log.lines, (Lines{"KeyValue A = 1", "KeyValue a = 2", "KeyValue c = ", "KeyValue  = e",
                              "KeyValue k%3A = x y:[]\\%41", "KeyValue k%3a = no", "KeyValue K%3A = late",
                              "KeyValue z = 1", "Querystring a=1", "Form K%3a=x y:[]\\%41"}));
}

TEST(RequestContent, DropsTheFirstBodyByte) {
  EXPECT_EQ(Request::GetContent("h\r\n\r\nbody\r\n\r\nmore"), "ody\r\n\r\nmore");
  EXPECT_EQ(Request::GetContent("h\r\n\r\nb") + Request::GetContent("h\r\nbody"), "");
}

}  // namespace
}  // namespace tavrel
