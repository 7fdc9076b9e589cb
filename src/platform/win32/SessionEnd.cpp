#include "platform/SessionEnd.h"

#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include <asio/io_context.hpp>
#include <asio/post.hpp>

#include "platform/SystemHeaders.h"

namespace tavrel::platform {

namespace {

// Windows gives a program about 5 s after a session-end notice before it ends the process by force.
constexpr DWORD kAnswerWait = 4000;
// After a closed console, logoff or shutdown the process ends when the console handler returns: once the
// loop has finished, main gets this long to return by itself (which ends the handler's thread too).
constexpr DWORD kLastMoment = 900;
constexpr UINT kCloseWindow = WM_APP + 1;
constexpr char kWindowClass[] = "TavrelSessionWindow";

// Shared by the loop, the console's handler thread and the hidden window's thread.
struct State {
  State(asio::io_context& io, std::function<void()> onEnd) : io(io), onEnd(std::move(onEnd)) {}
  ~State() { CloseHandle(finished); }
  State(const State&) = delete;
  State& operator=(const State&) = delete;

  asio::io_context& io;
  const std::function<void()> onEnd;
  std::mutex mutex;
  bool watching = true;  // false once the watch is gone: the loop may be gone too
  bool asked = false;
  HANDLE finished = CreateEventA(nullptr, TRUE, FALSE, nullptr);
};

// From any thread: onEnd into the loop (once for the whole run), then wait until the watch is gone.
void EndAndWait(const std::shared_ptr<State>& state, DWORD wait) {
  {
    std::lock_guard<std::mutex> lock(state->mutex);
    if (state->watching && !state->asked) {
      state->asked = true;
      asio::post(state->io, [state] { state->onEnd(); });
    }
  }
  if (wait > 0) WaitForSingleObject(state->finished, wait);
}

std::mutex consoleMutex;
std::shared_ptr<State> consoleState;

BOOL WINAPI OnConsoleEvent(DWORD type) {
  std::shared_ptr<State> state;
  {
    std::lock_guard<std::mutex> lock(consoleMutex);
    state = consoleState;
  }
  if (!state) return FALSE;
  EndAndWait(state, kAnswerWait);
  if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT)
    Sleep(kLastMoment);
  return TRUE;
}

LRESULT CALLBACK SessionWindowProc(HWND hwnd, UINT msg, WPARAM wParam, LPARAM lParam) {
  if (msg == WM_NCCREATE) {
    SetWindowLongPtrA(hwnd, GWLP_USERDATA,
                      reinterpret_cast<LONG_PTR>(reinterpret_cast<CREATESTRUCTA*>(lParam)->lpCreateParams));
  }
  auto* state = reinterpret_cast<std::shared_ptr<State>*>(GetWindowLongPtrA(hwnd, GWLP_USERDATA));
  switch (msg) {
    case WM_QUERYENDSESSION:
      return TRUE;
    case WM_ENDSESSION:
      // The process may be ended any time after this answer: the program ends first.
      if (wParam && state) EndAndWait(*state, kAnswerWait);
      return 0;
    case WM_CLOSE:  // taskkill without /f, or another program asking politely
      if (state) EndAndWait(*state, 0);
      return 0;
    case kCloseWindow:
      DestroyWindow(hwnd);
      return 0;
    case WM_DESTROY:
      PostQuitMessage(0);
      return 0;
    default:
      return DefWindowProcA(hwnd, msg, wParam, lParam);
  }
}

// A hidden top-level window (only those hear of the session's end) with its message loop, on a thread of
// its own. Without a display there is none, and the console's events are all there is.
class SessionWindow {
 public:
  explicit SessionWindow(std::shared_ptr<State> state) : state_(std::move(state)) {
    std::promise<HWND> created;
    std::future<HWND> window = created.get_future();
    thread_ = std::thread([this, &created] { Run(created); });
    hwnd_ = window.get();
  }
  ~SessionWindow() {
    if (hwnd_) PostMessageA(hwnd_, kCloseWindow, 0, 0);
    thread_.join();
  }
  SessionWindow(const SessionWindow&) = delete;
  SessionWindow& operator=(const SessionWindow&) = delete;

 private:
  void Run(std::promise<HWND>& created) {
    HINSTANCE instance = GetModuleHandleA(nullptr);
    WNDCLASSEXA cls{};
    cls.cbSize = sizeof cls;
    cls.lpfnWndProc = SessionWindowProc;
    cls.hInstance = instance;
    cls.lpszClassName = kWindowClass;
    RegisterClassExA(&cls);
    HWND hwnd = CreateWindowExA(0, kWindowClass, "Tavrel", WS_OVERLAPPED, 0, 0, 0, 0, nullptr, nullptr,
                                instance, &state_);
    created.set_value(hwnd);
    if (!hwnd) return;
    MSG msg;
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) DispatchMessageA(&msg);
  }

  std::shared_ptr<State> state_;
  std::thread thread_;
  HWND hwnd_ = nullptr;
};

class Watch {
 public:
  Watch(asio::io_context& io, std::function<void()> onEnd)
      : state_(std::make_shared<State>(io, std::move(onEnd))), window_(state_) {
    std::lock_guard<std::mutex> lock(consoleMutex);
    consoleState = state_;
    SetConsoleCtrlHandler(OnConsoleEvent, TRUE);
  }
  ~Watch() {
    {
      std::lock_guard<std::mutex> lock(consoleMutex);
      consoleState.reset();
    }
    {
      std::lock_guard<std::mutex> lock(state_->mutex);
      state_->watching = false;
    }
    SetEvent(state_->finished);
    // The handler stays registered: a late event finds no watch, and the default handling ends the process.
  }
  Watch(const Watch&) = delete;
  Watch& operator=(const Watch&) = delete;

 private:
  std::shared_ptr<State> state_;
  SessionWindow window_;
};

}  // namespace

std::shared_ptr<void> WatchSessionEnd(asio::io_context& io, std::function<void()> onEnd) {
  return std::make_shared<Watch>(io, std::move(onEnd));
}

}  // namespace tavrel::platform
