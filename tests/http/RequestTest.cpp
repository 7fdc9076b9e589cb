#include <string>

#include <gtest/gtest.h>

#include "http/Request.h"

namespace tavrel {
namespace {

std::string Pairs(const Request::Collection& col) {
  std::string out;
  for (const auto& e : col) out += "[" + e.key + "=" + e.value.Value + "]";
  return out;
}

// The parser's odd rules, which real clients seldom reach. How a row is read:
//   P  ParsePage: method|page|query|header|payload
//   V  ParsePage: header names, then the server variables User_Agent|REMOTE_ADDR|HOST|x|body
//   F  ParsePage, further body packets after each "\n~": query pairs|form pairs|raw query|body
//   D  Decode     C  GetContent
TEST(RequestTest, ParsingDecodingAndContentRules) {
  const struct {
    char how;
    const char* in;
    std::string out;
  } cases[] = {
      {'P', "GET /wol?x=1&y=a+b HTTP/1.1\r\nHost: h\r\n\r\n", "GET|/wol|x=1&y=a b|HTTP/1.1\r\nHost: h|"},
      // A body of three bytes or more in the same packet marks a POST as "POSTx"; CR LF leave the body.
      {'P', "POST /wol HTTP/1.1\r\n\r\nk=v\r\n&x", "POSTx|/wol||HTTP/1.1|k=v&x"},
      {'P', "POST /wol HTTP/1.1\r\n\r\nab", "POST|/wol||HTTP/1.1|"},
      {'P', "PUT /wol HTTP/1.1\r\n\r\nabc", "PUT|/wol||HTTP/1.1|abc"},
      // The target is decoded before the split; the version is found in any case, even inside the path.
      {'P', "GET /a%3Fb=1%26c=%3A http/1.0", "GET|/a|b=1&c='|http/1.0|"},
      {'P', "GET /x HTTP/1.1\r\nHost: h\r\n", "GET|/x||HTTP/1.1\r\nHost: h\r\n|"},
      {'P', "GET /http/x HTTP/1.1", "GET|||http/x HTTP/1.1|"},
      {'P', "GET /wol", "GET||||"},
      {'P', "GETHTTP/1.1", "||||"},
      // The first of a repeated header wins; lines without ": " and those after the blank line are no
      // headers.
      {'V',
       "GET / HTTP/1.1\r\nUser-Agent: UA 1\r\nHost: example.org:8019\r\nX: a: b\r\nhost: second\r\nBare\r\n"
       "Empty: \r\n\r\nbody: x",
       "User-Agent,Host,Empty|UA 1|example.org|example.org:8019||"},
      {'V', "GET / HTTP/1.1\r\nHost: example.org\r\n\r\n", "Host||example.org|example.org||"},
      // Keys keep the first of any case. Form values are decoded whole; query values, decoded with the
      // target already, only get "+" and %3A %5B %5D %5C, so nothing is decoded twice. The raw query and
      // the body keep every byte as sent.
      {'F',
       "POST /wol?A=1&a=2&c&=e&q=%2541 "
       "HTTP/1.1\r\n\r\nk%3A=x+y%3A%5B%5D%5C%41%27%e9%zz%4&k%3a=no\n~K%3A=late&z=1=2",
       "[A=1][c=][=e][q=%41]|[k%3A=x y:[]\\A'\xe9%zz%4][z=1]|A=1&a=2&c&=e&q=%2541|"
       "k%3A=x+y%3A%5B%5D%5C%41%27%e9%zz%4&k%3a=noK%3A=late&z=1=2"},
      {'D', "a+b%41%42", "a bAB"},
      {'D', "%3A|%3a|%2F|x%4", "'|/|/|x?"},  // lower-case "a" or no digit counts as -1: 16 * 3 - 1 = 47
      {'D', "%0D%0A%00%zz%", "     "},       // control codes and negative codes become blanks
      {'D', "%2525", "%25"},                 // the decoded "%" is not read again
      {'D', "%FF%+1", "\xFF "},
      {'C', "h\r\n\r\nbody\r\n\r\nmore", "ody\r\n\r\nmore"},  // less the first body byte
      {'C', "h\r\nbody", ""},
  };
  for (const auto& c : cases) {
    Request r;
    const std::string in = c.in;
    std::string out;
    if (c.how == 'D') {
      out = Request::Decode(in);
    } else if (c.how == 'C') {
      out = Request::GetContent(in);
    } else {
      r.ParsePage(in.substr(0, in.find("\n~")));
      for (size_t at = in.find("\n~"); at != std::string::npos; at = in.find("\n~", at + 2))
        r.AddPostData(in.substr(at + 2, in.find("\n~", at + 2) - at - 2));
      if (c.how == 'P')
        out = r.Method() + "|" + r.page() + "|" + r.Query() + "|" + r.header() + "|" + r.Payload();
      if (c.how == 'V') {
        for (const auto& key : r.HeaderCol().Keys()) out += (out.empty() ? "" : ",") + key;
        for (const char* name : {"HTTP_User_Agent", "REMOTE_ADDR", "HOST", "x", "body"})
          out += "|" + r.ServerVariables(name);
      }
      if (c.how == 'F')
        out = Pairs(r.QueryStringCol()) + "|" + Pairs(r.FormCol()) + "|" + r.RawQuery() + "|" + r.Body();
    }
    EXPECT_EQ(out, c.out) << c.how << " " << c.in;
  }
}

}  // namespace
}  // namespace tavrel
