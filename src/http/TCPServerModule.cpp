#include "http/TCPServerModule.h"

#include <exception>
#include <utility>

#include "core/Text.h"

namespace tavrel {

namespace {

constexpr auto kDropLogWindow = std::chrono::seconds(60);

bool IsImage(std::string_view ext) {
  return ext == ".jpg" || ext == ".gif" || ext == ".png" || ext == ".wmz";
}

}  // namespace

TCPServerModule::TCPServerModule(Context ctx)
    : ctx_(std::move(ctx)), serverTimer_(ctx_.timers.Create()), dropLogTimer_(ctx_.timers.Create()) {}

TCPServerModule::~TCPServerModule() = default;

void TCPServerModule::CreateSockets() {
  CloseAll();
  slots_.push_back(nullptr);  // 0 is the listener
  while (SocketsDefined() < kFirstSockets) AddSlot();
}

void TCPServerModule::AddSlot() { slots_.push_back(CreateSlot(static_cast<int>(slots_.size()), *this)); }

ConnectionSlot* TCPServerModule::Slot(int index) const {
  if (index < 1 || index > SocketsDefined()) return nullptr;
  return slots_[static_cast<size_t>(index)].get();
}

int TCPServerModule::Socket_ConnectionRequest(std::string_view requestId) {
  try {
    if (SocketsDefined() < 1) return 0;
    // At least four spare sockets beyond the open ones, up to kMaxSocketIndex.
    while (socketsOpen_ >= SocketsDefined() - 4 && SocketsDefined() < kMaxSocketIndex) AddSlot();
    const int count = SocketsDefined() + 1;
    int candidate = nextSocketIndex_;
    for (int tries = 0; tries < count; ++tries) {
      candidate = (candidate + 1) % count;
      if (candidate == 0) candidate = 1;
      if (slots_[static_cast<size_t>(candidate)]->State() > 0) continue;
      nextSocketIndex_ = candidate;
      ++socketsOpen_;
      refusing_ = false;
      WriteServerLog({"ConnectionRequest for socket ", std::to_string(candidate), " RequestID=",
                      std::string(requestId), ", Sockets Defined=", std::to_string(SocketsDefined()),
                      ", Sockets Open=", std::to_string(socketsOpen_)});
      return candidate;
    }
    // Every socket is busy: the newcomer is turned away rather than waited for.
    WriteServerLog({"ConnectionRequest refused, every socket busy: RequestID=", std::string(requestId),
                    ", Sockets Defined=", std::to_string(SocketsDefined()),
                    ", Sockets Open=", std::to_string(socketsOpen_)});
    if (!refusing_) {
      refusing_ = true;
      ctx_.reporter.ReportEvent(kModule, "socket_ConnectionRequest ",
                                Err::Of("All " + std::to_string(SocketsDefined()) +
                                        " connection sockets are busy; new connections are refused"));
    }
  } catch (const std::exception& e) {
    Fail("socket_ConnectionRequest ", e);
  }
  return 0;
}

void TCPServerModule::Socket_DataArrival(int index, std::string data) {
  try {
    const ConnectionSlot* slot = Slot(index);
    const int state = slot ? slot->State() : 0;
    const size_t size = data.size();
    std::string logged = ctx_.log ? data : std::string();
    switch (queue_.Add(index, std::move(data))) {
      case RequestQueue::Push::kTooLong:
        Dropped("Packet of " + std::to_string(size) + " bytes from socket " + std::to_string(index) +
                " dropped: longer than " + std::to_string(Request::kMaxPacket));
        return;
      case RequestQueue::Push::kFull:
        Dropped("Packet from socket " + std::to_string(index) +
                " dropped: " + std::to_string(RequestQueue::kMaxEntries) + " requests already waiting");
        return;
      case RequestQueue::Push::kQueued:
        break;
    }
    if (ctx_.log) {
      WriteServerLog({"Pushing Index ", std::to_string(queue_.Count()), " for socket ", std::to_string(index),
                      " with status ", std::to_string(state), " with data ", logged.substr(0, 50)});
      ctx_.log->Write(logged);
    }
    // The delay counts from the first packet of a burst.
    if (!serverTimer_->Armed()) serverTimer_->Start(kServeDelay, [this] { ProcessRequestQueue(); });
  } catch (const std::exception& e) {
    Fail("socket_DataArrival ", e);
  }
}

void TCPServerModule::ProcessRequestQueue() {
  serverTimer_->Stop();
  try {
    while (!queue_.Empty()) Serve(queue_.Pop());
  } catch (const std::exception& e) {
    Fail("ProcessRequestQueue ", e);
    // The rest is served on the next round rather than left for a packet that may never come.
    if (!queue_.Empty()) serverTimer_->Start(kServeDelay, [this] { ProcessRequestQueue(); });
  }
}

void TCPServerModule::Serve(RequestQueue::Entry entry) {
  const int index = entry.index;
  ConnectionSlot* slot = Slot(index);
  Request request(ctx_.log);
  if (slot) request.SetRemoteIp(slot->RemoteIp());
  request.ParsePage(entry.data);
  if (request.Method() == "POST") JoinPostData(request, index);
  if (!slot) {
    WriteServerLog({"Packet for socket ", std::to_string(index), " dropped: no such socket"});
    return;
  }
  Route(request, *slot);
}

// The body packets of the same socket waiting right behind its POST header. A packet of another socket
// ends the joining: the request goes on with the body it has, the other packet is served next.
void TCPServerModule::JoinPostData(Request& request, int index) {
  const std::string idx = std::to_string(index);
  size_t joined = 0;
  while (!queue_.Empty()) {
    WriteServerLog({"Poping socket for post data for socket ", idx});
    const int next = queue_.Front().index;
    if (next != index) {
      WriteServerLog({"Post data expected from socket ", idx, " but next packet was from socket ",
                      std::to_string(next)});
      return;
    }
    RequestQueue::Entry part = queue_.Pop();
    if (joined + part.data.size() > Request::kMaxPacket) {
      size_t dropped = part.data.size();
      while (!queue_.Empty() && queue_.Front().index == index) dropped += queue_.Pop().data.size();
      Dropped("Post data of " + std::to_string(dropped) + " bytes from socket " + idx +
              " dropped: body longer than " + std::to_string(Request::kMaxPacket));
      return;
    }
    joined += part.data.size();
    request.AddPostData(part.data);
  }
}

void TCPServerModule::Route(Request& request, ConnectionSlot& slot) {
  const std::string page = Response::PagePath(request.page());
  const std::string ext = page.size() > 4 ? page.substr(page.size() - 4) : page;
  WriteServerLog({"Popped socket ", std::to_string(slot.Index()), " for page ", page});
  Response response(slot, {ctx_.htmlFolder, ctx_.clock, ctx_.reporter, ctx_.log});
  if (ctx_.guard && !ctx_.guard->Admit(request, response)) return;
  if (ctx_.api && page.starts_with("\\api\\")) {
    ctx_.api->ServeApi(request, response);
  } else if (IsImage(ext)) {
    response.SendBinaryFile(page);
  } else if (ext == ".css") {
    response.SendTextFile(page);
  } else if (page == "\\wol" || page == "\\stat") {
    if (!ctx_.pages) {
      response.SendErrorResponse();
      return;
    }
    const std::string text = ctx_.pages->RemotePage(request, response);
    // A page whose script already answered through Response gets no second answer.
    if (!text.empty() && !response.Answered()) response.SendTextString(text);
  } else if (page == "\\" && !ctx_.hsNamed) {
    // No home-automation web server is named: the root leads to our own page.
    response.SendStatus("302 Found", "", "Location: /wol");
  } else {
    WriteServerLog({"User Agent ", request.ServerVariables("http_user_agent")});
    response.RedirectToHS(ctx_.hsAddress + ":" + ctx_.hsWebPort, request);
  }
}

void TCPServerModule::Socket_SendComplete(int index) {
  try {
    ConnectionSlot* slot = Slot(index);
    if (!slot) return;
    slot->StopSendTimer();
    WriteServerLog({"SendComplete for socket ", std::to_string(index), ", tag=", slot->Tag()});
    if (slot->Tag() != "1") Socket_Close(index);
  } catch (const std::exception& e) {
    Fail("Socket_SendComplete", e);
  }
}

void TCPServerModule::SendTimedOut(int index) {
  WriteServerLog({"Send time-out for socket ", std::to_string(index), ": the client takes nothing, closing"});
  Socket_Close(index);
}

void TCPServerModule::RequestTimedOut(int index) {
  WriteServerLog({"Request time-out for socket ", std::to_string(index), ": nothing answered within ",
                  std::to_string(ConnectionSlot::kRequestTimeout.count() / 1000), " s, closing"});
  Socket_Close(index);
}

void TCPServerModule::Socket_Close(int index) {
  try {
    ConnectionSlot* slot = Slot(index);
    const int state = slot ? slot->State() : 0;
    const int open = socketsOpen_;
    if (state > 0) {
      --socketsOpen_;
      slot->Close();
    }
    const std::string idx = std::to_string(index);
    if (auto removed = queue_.RemoveFirst(index); removed && ctx_.log) {
      ctx_.log->Write(FormatDateTime(ctx_.clock.Now()) + " | Pending Request Removed for socket " + idx +
                      ", " + removed->Text() + "\r\n");
    }
    WriteServerLog({"ConnectionClose for socket ", idx, ", Sockets Open=", std::to_string(socketsOpen_),
                    ", state was ", std::to_string(state), ", open count was ", std::to_string(open)});
  } catch (const std::exception& e) {
    Fail("socket_Close ", e);
  }
}

void TCPServerModule::CloseAll() {
  serverTimer_->Stop();
  queue_.Clear();
  for (const auto& slot : slots_) {
    if (slot) slot->Close();
  }
  slots_.clear();
  socketsOpen_ = 0;
  nextSocketIndex_ = 0;
  refusing_ = false;
}

void TCPServerModule::WriteServerLog(std::string_view text) const {
  if (ctx_.log) ctx_.log->WriteLine(text);
}

void TCPServerModule::Dropped(const std::string& line) {
  WriteServerLog(line);
  if (dropLogTimer_->Armed()) {
    ++dropsUnlogged_;
    return;
  }
  ctx_.reporter.WriteLog(kModule, "HTTP " + line);
  dropLogTimer_->Start(kDropLogWindow, [this] {
    if (dropsUnlogged_ == 0) return;
    ctx_.reporter.WriteLog(kModule, "HTTP " + std::to_string(dropsUnlogged_) + " more packets dropped");
    dropsUnlogged_ = 0;
  });
}

void TCPServerModule::Fail(std::string_view label, const std::exception& e) const {
  ctx_.reporter.ReportEvent(kModule, label, Err::From(e));
}

}  // namespace tavrel
