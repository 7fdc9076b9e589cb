#include "http/Response.h"

#include <optional>
#include <stdexcept>
#include <utility>

#include "core/FastString.h"
#include "core/Files.h"
#include "core/Text.h"
#include "http/StaticFile.h"

namespace tavrel {

BinaryBody::BinaryBody(ConnectionSink& socket, std::ifstream file, std::string page, ServerLog* log,
                       Reporter& reporter)
    : socket_(socket), file_(std::move(file)), page_(std::move(page)), log_(log), reporter_(reporter) {}

bool BinaryBody::Next() {
  if (done_) return false;
  try {
    if (socket_.State() != ConnectionSink::kConnected || file_.peek() == std::ifstream::traits_type::eof()) {
      return Finish();
    }
    std::string piece(kPieceSize, '\0');
    file_.read(piece.data(), static_cast<std::streamsize>(kPieceSize));
    if (file_.bad()) throw std::runtime_error("reading " + page_ + " failed");
    if (log_) {
      log_->WriteLine(">>>>>>>>>>> SendingBinaryData " + page_ + " to socket " +
                      std::to_string(socket_.Index()));
    }
    socket_.SendData(std::move(piece));
    // The body is over as soon as its last piece is queued.
    if (file_.peek() == std::ifstream::traits_type::eof()) return Finish();
    return true;
  } catch (const std::exception& e) {
    reporter_.ReportEvent(kModule, "TCPServer_SendBinaryFile ", Err::From(e));
    return Finish();
  }
}

bool BinaryBody::Finish() {
  done_ = true;
  file_.close();
  socket_.SetTag("0");
  return false;
}

void Response::SendTextString(const std::string& text) {
  if (AlreadyAnswered("TextString")) return;
  try {
    FastString out = Header("HTTP/1.1 200 OK", "Date: ",
                            {"Expires: Tue, 04 Dec 1993 21:29:02 GMT", "Accept-Ranges: bytes",
                             "Content-Type: text/html", "Content-Length: " + std::to_string(text.size()),
                             "Cache-Control: no-cache", "Location: http://localhost:8080/other"});
    out.Reserve(out.Length() + text.size());
    out.Append(text);
    std::string answer = std::move(out).ToString();
    if (ctx_.log) {
      ctx_.log->Write(">>>>>>>>>>> SendingTextString >>>>>> to socket " + std::to_string(index()) + "\r\n" +
                      answer);
    }
    if (!SendText(std::move(answer))) {
      Debug({"Unable to send TextString to socket ", std::to_string(index()), " because State is ",
             std::to_string(socket_.State())});
    }
  } catch (const std::exception& e) {
    Fail("TCPSever_SendTextString ", e);
  }
}

void Response::SendTextFile(std::string_view page) {
  if (AlreadyAnswered("TextFile " + std::string(page))) return;
  try {
    const auto file = ResolveStaticFile(ctx_.htmlFolder, page);
    const auto text = file ? ReadWholeFile(*file) : std::nullopt;
    if (!text) {
      SendErrorResponse();
      return;
    }
    const std::string length = std::to_string(text->size());
    FastString out =
        Header("HTTP/1.0 200 OK", "Date: ",
               {"Accept-Ranges: bytes", "Content-Type: text/html",
                "Last-Modified " + FormatDateTime(FileDateTime(*file)), "Content-Length: " + length});
    out.Append(*text);
    if (SendText(std::move(out).ToString())) {
      Debug({">>>>>>>>>>> SendingTextFile ", std::string(page), " to socket ", std::to_string(index()),
             " with length ", length});
    } else {
      ctx_.reporter.ReportEvent(kModule, "TCPServer Unable to send TextFile " + std::string(page) +
                                             " to socket " + std::to_string(index()) + " because State is " +
                                             std::to_string(socket_.State()));
    }
  } catch (const std::exception& e) {
    Fail("TCPServer_SendTextFile ", e);
  }
}

void Response::SendErrorResponse() {
  if (AlreadyAnswered("Error Response")) return;
  try {
    static constexpr std::string_view kBody = "<html><h1>404 File Not Found</h1></html>";
    FastString out = Header(
        "HTTP/1.1 200 Object Not Found", "Date: ",
        {"Connection: Close", "Content-Type: text/html", "Content-Length: " + std::to_string(kBody.size())});
    out.Append(kBody);
    if (SendText(std::move(out).ToString())) {
      Debug({">>>>>>>>>>> SendingError  to socket ", std::to_string(index())});
    } else {
      Debug({"Unable to send Error Resonse to socket ", std::to_string(index()), " because State is ",
             std::to_string(socket_.State())});
    }
  } catch (const std::exception& e) {
    Fail("TCPServer_SendError_Response ", e);
  }
}

void Response::SendBinaryFile(std::string_view page) {
  if (AlreadyAnswered("BinaryFile " + std::string(page))) return;
  try {
    const auto file = ResolveStaticFile(ctx_.htmlFolder, page);
    std::ifstream in;
    if (file) in.open(*file, std::ios::binary);
    if (!in.is_open()) {
      FastString out = Header("HTTP/1.1 404 Not Found", "Date:", {});
      // A connection that carried an earlier binary body must still close after this answer.
      socket_.SetTag("0");
      socket_.SendData(std::move(out).ToString());
      answered_ = true;
      return;
    }
    FastString out = Header("HTTP/1.1 200 OK", "Date:",
                            {"Last-Modified: " + FormatDateTime(FileDateTime(*file)), "Accept-Ranges: bytes",
                             "Content-Length: " + std::to_string(std::filesystem::file_size(*file)),
                             "Connection: Close", "Content-Type: " + GetContentType(page).type});
    socket_.SetTag("1");
    Debug({">>>>>>>>>>> SendingBinaryHeader ", std::string(page), " to socket ", std::to_string(index())});
    socket_.SendData(std::move(out).ToString());
    answered_ = true;
    socket_.StartBody(
        std::make_unique<BinaryBody>(socket_, std::move(in), std::string(page), ctx_.log, ctx_.reporter));
  } catch (const std::exception& e) {
    Fail("TCPServer_SendBinaryFile ", e);
  }
}

void Response::RedirectToHS(std::string_view address, const Request& request) {
  if (AlreadyAnswered("Redirect")) return;
  try {
    const std::string& page = request.page();
    const std::string location = "http://" + std::string(address) + Replace(page, "\\", "/");
    const std::string idx = std::to_string(index());
    FastString out;
    if (request.ServerVariables("http_user_agent").find("audrey") != std::string::npos) {
      out = Header(
          "HTTP/1.0 307 NoSupport", "Date: ",
          {"Connection: close", "Content-Type: text/html", "Location: " + location, "Content-Length: 0"});
      Debug({">>>>>>>>>>> Redirect", page, " to location ", location, " socket ", idx});
    } else {
      // Everything here but the address comes from the network, so it is escaped.
      FastString body;
      body.Append("<HTML><HEAD><SCRIPT LANGUAGE=\"JavaScript\">");
      body.Append("function initialize() {document.redo.submit();}");
      body.Append("</script></HEAD><body onLoad='initialize()'>");
      body.Append("<form name='redo' action='" + HtmlEscape(location) + "' method='" +
                  HtmlEscape(request.Method()) + "'>");
      for (const Request::Collection* fields : {&request.QueryStringCol(), &request.FormCol()}) {
        for (const auto& entry : *fields) {
          body.Append("<input type='hidden' name='" + HtmlEscape(entry.value.Key) + "' value='" +
                      HtmlEscape(entry.value.Value) + "'>");
        }
      }
      body.Append("</form></HTML>");
      out = Header("HTTP/1.0 200 OK", "Date: ",
                   {"Connection: close", "Content-Type: text/html", "Location: " + location,
                    "Content-Length: " + std::to_string(body.Length())});
      out.Append(body.ToString());
      Debug({">>>>>>>>>>> Resubmit", page, " to location ", location, " socket ", idx});
    }
    if (!SendText(std::move(out).ToString())) {
      Debug({"Unable to send TextString to socket ", idx, " because State is ",
             std::to_string(socket_.State())});
    }
  } catch (const std::exception& e) {
    Fail("TCPSever_RedirectToHS ", e);
  }
}

void Response::SendStatus(std::string_view status, std::string_view text, std::string_view extraHeader) {
  SendClosing(status, "text/plain", text, extraHeader);
}

void Response::SendJson(std::string_view status, std::string_view json, std::string_view extraHeader) {
  SendClosing(status, "application/json", json, extraHeader);
}

void Response::SendClosing(std::string_view status, std::string_view contentType, std::string_view body,
                           std::string_view extraHeader) {
  if (AlreadyAnswered(status)) return;
  try {
    FastString out = Header("HTTP/1.1 " + std::string(status), "Date: ",
                            {extraHeader, "Connection: close", "Content-Type: " + std::string(contentType),
                             "Content-Length: " + std::to_string(body.size())});
    out.Append(body);
    if (SendText(std::move(out).ToString()))
      Debug({">>>>>>>>>>> ", std::string(status), " to socket ", std::to_string(index())});
  } catch (const std::exception& e) {
    Fail("TCPSever_SendTextString ", e);
  }
}

ContentType Response::GetContentType(std::string_view path) {
  auto has = [&](std::string_view ext) { return path.find(ext) != std::string_view::npos; };
  if (has(".txt")) return {"text/plain", true, false};
  if (has(".htm")) return {"text/html", true, false};  // ".html" too
  if (has(".jpg")) return {"image/jpg", false, false};
  if (has(".gif")) return {"image/gif", false, false};
  if (has(".bmp")) return {"image/bmp", false, false};
  if (has(".php")) return {"text/html", true, true};
  return {"unknown/binary", false, false};
}

std::string Response::PagePath(std::string_view page) { return LCase(Replace(page, "/", "\\")); }

bool Response::AlreadyAnswered(std::string_view what) const {
  if (!answered_) return false;
  Debug({"Not sending ", what, " to socket ", std::to_string(index()), ": the request has its answer"});
  return true;
}

FastString Response::Header(std::string_view statusLine, std::string_view dateField,
                            std::initializer_list<std::string_view> fields) const {
  FastString out;
  for (std::string_view line : {statusLine, std::string_view("Server: zel")}) {
    out.Append(line);
    out.Append("\r\n");
  }
  out.Append(dateField);
  out.Append(FormatMediumDate(ctx_.clock.Now()));
  out.Append("\r\n");
  for (std::string_view field : fields) {
    if (field.empty()) continue;
    out.Append(field);
    out.Append("\r\n");
  }
  out.Append("\r\n");
  return out;
}

bool Response::SendText(std::string answer) {
  // One answer per request, however often a script asks.
  if (answered_) return false;
  socket_.SetTag("0");
  if (socket_.State() != ConnectionSink::kConnected) return false;
  socket_.SendData(std::move(answer));
  answered_ = true;
  return true;
}

void Response::Debug(std::initializer_list<std::string_view> pieces) const {
  if (ctx_.log) ctx_.log->WriteLine(Concat(pieces));
}

void Response::Fail(std::string_view label, const std::exception& e) const {
  ctx_.reporter.ReportEvent(kModule, label, Err::From(e));
}

}  // namespace tavrel
