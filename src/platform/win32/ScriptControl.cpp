#include "platform/ScriptControl.h"

#include <windows.h>

#include <activscp.h>
#include <ole2.h>
#include <wrl/client.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <utility>

#include "platform/win32/ScriptDispatch.h"

namespace tavrel::platform {
namespace {

using Microsoft::WRL::ComPtr;

// What a script that ran too long ends with: the runtime's number for an interrupted program.
constexpr long kTimedOut = 18;

// A BSTR that frees itself.
struct Bstr {
  explicit Bstr(const std::string& bytes) : value(MakeBstr(bytes)) {}
  ~Bstr() { SysFreeString(value); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  BSTR value;
};

// An EXCEPINFO that frees its texts.
struct ExcepInfo : EXCEPINFO {
  ExcepInfo() : EXCEPINFO{} {}
  ~ExcepInfo() {
    SysFreeString(bstrSource);
    SysFreeString(bstrDescription);
    SysFreeString(bstrHelpFile);
  }
  ExcepInfo(const ExcepInfo&) = delete;
  ExcepInfo& operator=(const ExcepInfo&) = delete;

  ScriptError ToError(HRESULT hr, long line = 0) {
    if (pfnDeferredFillIn != nullptr) pfnDeferredFillIn(this);
    const long number = wCode != 0 ? wCode : ErrorNumber(FAILED(scode) ? scode : hr);
    const std::string description = bstrDescription != nullptr ? Narrow(bstrDescription) : std::string();
    return ScriptError(number, description.empty() ? SystemText(FAILED(scode) ? scode : hr) : description,
                       line);
  }
};

// What the engine asks of its host. It never offers a window, and tells the engine that a script's
// MsgBox or InputBox is an error: no dialog may wait where nobody sees it.
class Site final : public IActiveScriptSite,
                   public IActiveScriptSiteUIControl,
                   public IActiveScriptSiteInterruptPoll {
 public:
  explicit Site(std::shared_ptr<CallGate> gate) : gate_(std::move(gate)) {}

  void AddItem(const std::string& name, ComPtr<IDispatch> object) {
    items_.emplace_back(Wide(name), std::move(object));
  }
  void ForgetItems() { items_.clear(); }
  // The error the engine reported since the last call, if any.
  std::optional<ScriptError> TakeError() { return std::exchange(error_, std::nullopt); }

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(IActiveScriptSite))) {
      *out = static_cast<IActiveScriptSite*>(this);
    } else if (IsEqualIID(iid, __uuidof(IActiveScriptSiteUIControl))) {
      *out = static_cast<IActiveScriptSiteUIControl*>(this);
    } else if (IsEqualIID(iid, __uuidof(IActiveScriptSiteInterruptPoll))) {
      *out = static_cast<IActiveScriptSiteInterruptPoll*>(this);
    } else {
      *out = nullptr;
      return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }

  HRESULT STDMETHODCALLTYPE GetLCID(LCID*) override { return E_NOTIMPL; }  // the user's locale
  HRESULT STDMETHODCALLTYPE GetItemInfo(LPCOLESTR name, DWORD mask, IUnknown** object,
                                        ITypeInfo** type) override {
    if ((mask & SCRIPTINFO_IUNKNOWN) != 0) {
      if (object == nullptr) return E_POINTER;
      *object = nullptr;
    }
    if ((mask & SCRIPTINFO_ITYPEINFO) != 0) {
      if (type == nullptr) return E_POINTER;
      *type = nullptr;  // the program's objects bind late
    }
    for (const auto& [itemName, dispatch] : items_) {
      if (name == nullptr || _wcsicmp(itemName.c_str(), name) != 0) continue;
      if ((mask & SCRIPTINFO_IUNKNOWN) == 0) return TYPE_E_ELEMENTNOTFOUND;
      dispatch.CopyTo(reinterpret_cast<IDispatch**>(object));
      return S_OK;
    }
    return TYPE_E_ELEMENTNOTFOUND;
  }
  HRESULT STDMETHODCALLTYPE GetDocVersionString(BSTR*) override { return E_NOTIMPL; }
  HRESULT STDMETHODCALLTYPE OnScriptTerminate(const VARIANT*, const EXCEPINFO*) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnStateChange(SCRIPTSTATE) override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnScriptError(IActiveScriptError* error) override {
    if (error == nullptr) return E_POINTER;
    ExcepInfo info;
    error->GetExceptionInfo(&info);
    DWORD context = 0;
    ULONG line = 0;
    LONG column = 0;
    const bool placed = SUCCEEDED(error->GetSourcePosition(&context, &line, &column));
    error_ = info.ToError(E_FAIL, placed ? static_cast<long>(line) + 1 : 0);
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE OnEnterScript() override { return S_OK; }
  HRESULT STDMETHODCALLTYPE OnLeaveScript() override { return S_OK; }

  HRESULT STDMETHODCALLTYPE GetUIBehavior(SCRIPTUICITEM, SCRIPTUICHANDLING* handling) override {
    if (handling == nullptr) return E_POINTER;
    *handling = SCRIPTUICHANDLING_NOUIERROR;
    return S_OK;
  }

  HRESULT STDMETHODCALLTYPE QueryContinue() override { return gate_->closed ? S_FALSE : S_OK; }

 private:
  ~Site() = default;

  std::atomic<ULONG> refs_{1};
  std::shared_ptr<CallGate> gate_;
  std::vector<std::pair<std::wstring, ComPtr<IDispatch>>> items_;
  std::optional<ScriptError> error_;
};

// Stops a script that runs past the time-out, from a thread of its own: the engine is told to interrupt it
// and the program's objects refuse further calls (the gate), whichever ends the script first.
class Watchdog {
 public:
  Watchdog(IActiveScript* engine, long timeoutMs, std::shared_ptr<CallGate> gate)
      : engine_(engine), timeout_(timeoutMs), gate_(std::move(gate)) {
    if (timeoutMs > 0) thread_ = std::thread([this] { Watch(); });
  }
  ~Watchdog() {
    if (!thread_.joinable()) return;
    {
      std::lock_guard<std::mutex> hold(lock_);
      stop_ = true;
    }
    wake_.notify_one();
    thread_.join();
  }
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  // A call into the engine begins. Only the outermost call of nested ones is timed.
  void Begin() {
    if (!thread_.joinable() || depth_++ > 0) return;
    bool idle = false;
    {
      std::lock_guard<std::mutex> hold(lock_);
      ++run_;
      busy_ = true;
      start_ = std::chrono::steady_clock::now();
      idle = idle_;
    }
    if (idle) wake_.notify_one();
  }
  // The call has ended; true when the watchdog stopped it.
  bool End() {
    if (!thread_.joinable() || --depth_ > 0) return false;
    bool fired = false;
    {
      std::lock_guard<std::mutex> hold(lock_);
      busy_ = false;
      fired = std::exchange(fired_, false);
      gate_->closed = false;
    }
    if (fired) wake_.notify_one();
    return fired;
  }

 private:
  void Watch() {
    std::unique_lock<std::mutex> hold(lock_);
    while (!stop_) {
      if (!busy_) {
        idle_ = true;
        wake_.wait(hold, [this] { return stop_ || busy_; });
        idle_ = false;
        continue;
      }
      // Calls that end before the deadline do not wake this thread; it looks again at the deadline.
      const auto run = run_;
      const auto ended = [this, run] { return stop_ || !busy_ || run_ != run; };
      if (wake_.wait_until(hold, start_ + timeout_, ended)) continue;
      if (fired_) {
        wake_.wait(hold, ended);
        continue;
      }
      // The engine is told under the lock, so no later call can have begun when it hears of it.
      fired_ = true;
      gate_->closed = true;
      EXCEPINFO info;
      FillException(info, gate_->number, gate_->description);
      engine_->InterruptScriptThread(SCRIPTTHREADID_BASE, &info, SCRIPTINTERRUPT_RAISEEXCEPTION);
      SysFreeString(info.bstrSource);
      SysFreeString(info.bstrDescription);
    }
  }

  IActiveScript* const engine_;
  const std::chrono::milliseconds timeout_;
  const std::shared_ptr<CallGate> gate_;
  int depth_ = 0;  // the program's thread only
  std::mutex lock_;
  std::condition_variable wake_;
  bool stop_ = false, busy_ = false, idle_ = false, fired_ = false;
  unsigned long long run_ = 0;
  std::chrono::steady_clock::time_point start_;
  std::thread thread_;
};

// The VBScript engine hosted directly, one engine for the life of the control.
class ActiveScriptHost final : public ScriptControl {
 public:
  ActiveScriptHost(ComPtr<IActiveScript> engine, long timeoutMs)
      : engine_(std::move(engine)),
        gate_(std::make_shared<CallGate>(kTimedOut,
                                         "Script timed out after " + std::to_string(timeoutMs) + " ms")),
        site_(new Site(gate_)),
        watchdog_(engine_.Get(), timeoutMs, gate_) {}
  ~ActiveScriptHost() override {
    module_.Reset();
    engine_->Close();
    site_->ForgetItems();
    site_->Release();
  }
  ActiveScriptHost(const ActiveScriptHost&) = delete;
  ActiveScriptHost& operator=(const ActiveScriptHost&) = delete;

  void Start() {
    Check(engine_.As(&parse_));
    Check(parse_->InitNew());
    Check(engine_->SetScriptSite(site_));
    Check(engine_->SetScriptState(SCRIPTSTATE_CONNECTED));
  }

  void AddObject(const std::string& name, std::shared_ptr<ScriptObject> object, bool globalMembers) override {
    ComPtr<IDispatch> dispatch;
    dispatch.Attach(Wrap(std::move(object), gate_));
    site_->AddItem(name, std::move(dispatch));
    const std::wstring wide = Wide(name);
    Check(engine_->AddNamedItem(wide.c_str(),
                                SCRIPTITEM_ISVISIBLE | (globalMembers ? SCRIPTITEM_GLOBALMEMBERS : 0)));
  }

  void AddCode(const std::string& code) override {
    routines_.clear();  // names may now stand for other routines
    const std::wstring text = Wide(code);
    ExcepInfo info;
    watchdog_.Begin();
    const HRESULT hr = parse_->ParseScriptText(text.c_str(), nullptr, nullptr, nullptr, 0, 0,
                                               SCRIPTTEXT_ISVISIBLE, nullptr, &info);
    Finish(hr, info);
  }

  ScriptValue Run(const std::string& routine, const std::vector<ScriptValue>& args) override {
    const DISPID id = Routine(routine);
    std::vector<Variant> values(args.size());
    for (size_t i = 0; i < args.size(); ++i) ToVariant(args[i], values[args.size() - 1 - i], gate_);
    DISPPARAMS params{values.data(), nullptr, static_cast<UINT>(values.size()), 0};
    Variant result;
    ExcepInfo info;
    UINT badArg = 0;
    watchdog_.Begin();
    const HRESULT hr =
        module_->Invoke(id, IID_NULL, LOCALE_USER_DEFAULT, DISPATCH_METHOD, &params, &result, &info, &badArg);
    Finish(hr, info);
    return FromVariant(result);
  }

 private:
  DISPID Routine(const std::string& name) {
    if (const auto known = routines_.find(name); known != routines_.end()) return known->second;
    if (!module_) Check(engine_->GetScriptDispatch(nullptr, &module_));
    std::wstring wide = Wide(name);
    LPOLESTR names[] = {wide.data()};
    DISPID id = DISPID_UNKNOWN;
    Check(module_->GetIDsOfNames(IID_NULL, names, 1, LOCALE_USER_DEFAULT, &id));
    routines_.emplace(name, id);
    return id;
  }

  // Ends a timed call: a time-out, then what the engine reported, then the call's own failure.
  void Finish(HRESULT hr, ExcepInfo& info) {
    std::optional<ScriptError> reported = site_->TakeError();
    if (watchdog_.End()) throw ScriptError(gate_->number, gate_->description);
    if (SUCCEEDED(hr)) return;
    if (reported) throw *reported;
    if (hr == DISP_E_EXCEPTION) throw info.ToError(hr);
    Check(hr);
  }

  static void Check(HRESULT hr) {
    if (FAILED(hr)) throw ScriptError(ErrorNumber(hr), SystemText(hr));
  }

  ComPtr<IActiveScript> engine_;
  ComPtr<IActiveScriptParse> parse_;
  ComPtr<IDispatch> module_;
  std::shared_ptr<CallGate> gate_;
  Site* site_;
  Watchdog watchdog_;
  std::unordered_map<std::string, DISPID> routines_;
};

}  // namespace

std::unique_ptr<ScriptControl> CreateScriptControl(const std::string& language, long timeoutMs) {
  // The engine lives in the calling thread's apartment, which stays for the rest of the run (a thread
  // already in one gets S_FALSE or RPC_E_CHANGED_MODE and keeps it).
  const HRESULT apartment = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  if (FAILED(apartment) && apartment != RPC_E_CHANGED_MODE) {
    throw ScriptError(ErrorNumber(apartment), SystemText(apartment));
  }
  CLSID clsid;
  ComPtr<IActiveScript> engine;
  if (FAILED(CLSIDFromProgID(Wide(language).c_str(), &clsid)) ||
      FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&engine)))) {
    throw ScriptError(429, "ActiveX component can't create object");
  }
  auto host = std::make_unique<ActiveScriptHost>(std::move(engine), timeoutMs);
  host->Start();
  return host;
}

}  // namespace tavrel::platform
