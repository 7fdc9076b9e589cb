#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

#include "core/KeyValuePair.h"
#include "core/OrderedDict.h"
#include "http/ServerLog.h"

namespace tavrel {

// One HTTP request: the text of one received packet (and of the body packets joined to it) split into
// method, page, query, header lines and body. A pure parser: it never touches a socket and never throws
// on any input.
class Request {
 public:
  // The largest packet, and the largest joined body, the listener hands to a Request; it refuses longer
  // input before parsing.
  static constexpr size_t kMaxPacket = 64 * 1024;

  // Query and form pairs in arrival order; keys compare without regard to case and the first one wins.
  using Collection = OrderedDict<KeyValuePair>;

  // log receives the "Querystring ", "Form " and "KeyValue " debug lines; null writes none.
  explicit Request(ServerLog* log = nullptr) : log_(log) {}

  // Parses one request packet. A packet without a blank, or without "HTTP" after it, leaves the fields
  // that follow empty. The method becomes "POSTx" when a POST carries its body in this packet.
  void ParsePage(std::string_view text);
  // Adds the pairs of a further body packet to FormCol and its bytes to Body (Payload stays as ParsePage
  // left it).
  void AddPostData(std::string_view text);

  // "http_user_agent" (any case): the User-Agent header; "remote_addr": the Host header before its first
  // ":" (the name the client used, not its address); any other name: that header. "" when absent.
  std::string ServerVariables(std::string_view name) const;
  // The value of a query / form pair, "" when absent.
  std::string QueryString(std::string_view name) const;
  std::string Form(std::string_view name) const;

  // The text after the first blank line, less its first character (as the program has always done);
  // "" when there is no blank line.
  static std::string GetContent(std::string_view text);
  // URL decoding: "+" becomes a blank; "%" and two digits of "0123456789ABCDEF" (upper case only, any
  // other character counts as -1) become the byte 16 * first + second, where codes below 32 become a
  // blank and ":" (58) becomes "'".
  static std::string Decode(std::string_view text);
  // Splits "k=v&k=v" into pairs added to into. Keys stay as they are. Form values (formValues) are
  // decoded whole: "+" a blank, every "%" and two hexadecimal digits (either case) that byte. Query
  // values, whose target Decode has already been through, get "+" and the escapes %3A %5B %5D %5C (these
  // only) decoded. A piece without "=" gives an empty value.
  void ParseKeyValues(std::string_view text, Collection& into, bool formValues) const;
  // Form text decoding: "+" is a blank, "%XX" is the byte XX; a "%" not followed by two hexadecimal
  // digits stays as it is.
  static std::string DecodeFormValue(std::string_view text);

  const std::string& Method() const { return method_; }
  // The decoded request target without its query.
  const std::string& page() const { return page_; }
  // The decoded text after the first "?" of the target.
  const std::string& Query() const { return query_; }
  // The text after the first "?" of the target as it was sent, nothing decoded.
  const std::string& RawQuery() const { return rawQuery_; }
  // From the protocol version up to, not including, the blank line.
  const std::string& header() const { return header_; }
  // The body found in the first packet, with every CR LF removed.
  const std::string& Payload() const { return payload_; }
  // The body byte for byte: everything after the blank line of the first packet, then every body packet
  // joined to it.
  const std::string& Body() const { return body_; }
  const std::string& remoteip() const { return remoteip_; }
  void SetRemoteIp(std::string ip) { remoteip_ = std::move(ip); }

  const Collection& QueryStringCol() const { return queryStringCol_; }
  const Collection& FormCol() const { return formCol_; }
  // Header values by header name (any case; the first of a repeated header wins).
  const OrderedDict<std::string>& HeaderCol() const { return headerCol_; }

 private:
  std::string Header(std::string_view name) const;
  void Debug(std::initializer_list<std::string_view> pieces) const;

  ServerLog* log_;
  std::string method_, page_, query_, rawQuery_, header_, payload_, body_, remoteip_;
  Collection queryStringCol_{true};
  Collection formCol_{true};
  OrderedDict<std::string> headerCol_{true};
};

}  // namespace tavrel
