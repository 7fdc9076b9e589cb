#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

#include "core/Clock.h"
#include "core/FastString.h"
#include "core/Reporter.h"
#include "http/Request.h"
#include "http/ServerLog.h"

namespace tavrel {

class BinaryBody;

// One accepted connection as Response sees it; the listener implements it over its TCP socket.
// Every call comes from the program's one thread.
class ConnectionSink {
 public:
  // State() of an open connection; anything else means nothing may be sent.
  static constexpr int kConnected = 7;

  virtual ~ConnectionSink() = default;
  // The socket index, shown in log lines.
  virtual int Index() const = 0;
  // kConnected while open; the number is written into "because State is" lines otherwise.
  virtual int State() const = 0;
  // "0": the listener closes the connection when the answer's send completes. "1": a binary body is on
  // its way and the connection stays open across its pieces.
  virtual void SetTag(std::string_view tag) = 0;
  // Queues bytes to be written after those queued before; dropped when the connection is closed.
  virtual void SendData(std::string bytes) = 0;
  // Takes over a binary body after its header went to SendData. The listener calls body->Next() at once
  // and then each time everything queued has been written, or BinaryBody::kPieceTimeout after the last
  // call if that does not happen. When Next() returns false the body is over (the tag is "0" again):
  // the listener drops it and runs its send-complete handling, which closes the connection once the
  // queued bytes are written.
  virtual void StartBody(std::unique_ptr<BinaryBody> body) = 0;
};

// A file body sent one kPieceSize piece at a time; the last piece is padded with zero bytes to full
// size (Content-Length tells the client where the body ends).
class BinaryBody {
 public:
  static constexpr size_t kPieceSize = 1000;
  static constexpr std::chrono::milliseconds kPieceTimeout{5000};

  BinaryBody(ConnectionSink& socket, std::ifstream file, std::string page, ServerLog* log,
             Reporter& reporter);

  // Sends the next piece. False once the body is over: the file has been sent, the connection is no
  // longer open, or reading failed (reported); the tag is then "0".
  bool Next();

 private:
  bool Finish();

  ConnectionSink& socket_;
  std::ifstream file_;
  std::string page_;
  ServerLog* log_;
  Reporter& reporter_;
  bool done_ = false;
};

// What a file's type is taken to be from its name.
struct ContentType {
  std::string type;
  bool isText = false;
  bool isScript = false;
};

// Writes one HTTP answer to one connection. Every operation catches its own failure and reports it as
// an event; none throws.
class Response {
 public:
  // What every answer of the server shares.
  struct Context {
    // Static files come from this folder only.
    std::filesystem::path htmlFolder;
    const Clock& clock;
    Reporter& reporter;
    // The server log stream under --debug, else null.
    ServerLog* log = nullptr;
  };

  Response(ConnectionSink& socket, Context ctx) : socket_(socket), ctx_(std::move(ctx)) {}

  int index() const { return socket_.Index(); }
  // True once an answer has gone to the connection (a script page may answer by itself). Every send
  // after that sends nothing.
  bool Answered() const { return answered_; }

  // A generated page.
  void SendTextString(const std::string& text);
  // A text file of the HTML folder (the style sheets), or the not-found page.
  void SendTextFile(std::string_view page);
  // A file of the HTML folder in pieces (the images), or a bare 404 header.
  void SendBinaryFile(std::string_view page);
  // The not-found page (sent with status 200, as the program always has).
  void SendErrorResponse();
  // Sends the client on to the HomeSeer web server at address ("host:port"): a 307 for an "audrey"
  // browser, else a page that re-submits the request's query and form fields there.
  void RedirectToHS(std::string_view address, const Request& request);
  // A short plain-text answer of its own status ("403 Forbidden"), with an extra header line if given,
  // that closes the connection: refusals and the web root's jump to the page.
  void SendStatus(std::string_view status, std::string_view text, std::string_view extraHeader = {});
  // The same for a JSON document ("application/json"): the answers of the JSON interface.
  void SendJson(std::string_view status, std::string_view json, std::string_view extraHeader = {});

  static ContentType GetContentType(std::string_view path);
  // A page as the server's routes name its file: lower case, "\" between folders.
  static std::string PagePath(std::string_view page);

 private:
  // The header block of an answer: the status line, "Server: zel", dateField followed by the date, the
  // non-empty fields in order, and the empty line that ends it.
  FastString Header(std::string_view statusLine, std::string_view dateField,
                    std::initializer_list<std::string_view> fields) const;
  // A short answer of its own status and content type that closes the connection.
  void SendClosing(std::string_view status, std::string_view contentType, std::string_view body,
                   std::string_view extraHeader);
  // True (with a debug line) when the request already has its answer: one answer per request.
  bool AlreadyAnswered(std::string_view what) const;
  // Tag "0", then the answer to an open connection; false (nothing sent) when it is not open.
  bool SendText(std::string answer);
  // A debug line from pieces, put together only when debugging.
  void Debug(std::initializer_list<std::string_view> pieces) const;
  void Fail(std::string_view label, const std::exception& e) const;

  ConnectionSink& socket_;
  Context ctx_;
  bool answered_ = false;
};

}  // namespace tavrel
