#include "platform/ScriptControl.h"

#include <windows.h>

#include <ole2.h>
#include <oleauto.h>

#include <atomic>
#include <utility>

namespace tavrel::platform {

// The control's own interfaces, in the order of its type library. They stand outside the anonymous
// namespace: the control implements them, and the compiler must not take them for types no object has. Run is
// called through the interface, not through IDispatch: Run's parameters are a variable argument list that
// late binding does not pass on every system.
struct IScriptError : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Number(long* number) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Source(BSTR* source) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Description(BSTR* description) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_HelpFile(BSTR* file) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_HelpContext(long* context) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Text(BSTR* text) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Line(long* line) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Column(long* column) = 0;
  virtual HRESULT STDMETHODCALLTYPE Clear() = 0;
};

struct IScriptControl : IDispatch {
  virtual HRESULT STDMETHODCALLTYPE get_Language(BSTR* language) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Language(BSTR language) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_State(int* state) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_State(int state) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_SitehWnd(long hwnd) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_SitehWnd(long* hwnd) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Timeout(long* milliseconds) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_Timeout(long milliseconds) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_AllowUI(VARIANT_BOOL* allow) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_AllowUI(VARIANT_BOOL allow) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_UseSafeSubset(VARIANT_BOOL* safe) = 0;
  virtual HRESULT STDMETHODCALLTYPE put_UseSafeSubset(VARIANT_BOOL safe) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Modules(IDispatch** modules) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Error(IScriptError** error) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_CodeObject(IDispatch** object) = 0;
  virtual HRESULT STDMETHODCALLTYPE get_Procedures(IDispatch** procedures) = 0;
  virtual HRESULT STDMETHODCALLTYPE AboutBox() = 0;
  virtual HRESULT STDMETHODCALLTYPE AddObject(BSTR name, IDispatch* object, VARIANT_BOOL addMembers) = 0;
  virtual HRESULT STDMETHODCALLTYPE Reset() = 0;
  virtual HRESULT STDMETHODCALLTYPE AddCode(BSTR code) = 0;
  virtual HRESULT STDMETHODCALLTYPE Eval(BSTR expression, VARIANT* result) = 0;
  virtual HRESULT STDMETHODCALLTYPE ExecuteStatement(BSTR statement) = 0;
  virtual HRESULT STDMETHODCALLTYPE Run(BSTR routine, SAFEARRAY** parameters, VARIANT* result) = 0;
};

namespace {

// Script text is bytes in the system code page, as everywhere in the program; COM speaks UTF-16.
std::wstring Wide(const std::string& bytes) {
  if (bytes.empty()) return {};
  const int n = MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
  std::wstring wide(static_cast<size_t>(n), L'\0');
  MultiByteToWideChar(CP_ACP, 0, bytes.data(), static_cast<int>(bytes.size()), wide.data(), n);
  return wide;
}

std::string Narrow(const wchar_t* text, size_t length) {
  if (text == nullptr || length == 0) return {};
  const int n = WideCharToMultiByte(CP_ACP, 0, text, static_cast<int>(length), nullptr, 0, nullptr, nullptr);
  std::string bytes(static_cast<size_t>(n), '\0');
  WideCharToMultiByte(CP_ACP, 0, text, static_cast<int>(length), bytes.data(), n, nullptr, nullptr);
  return bytes;
}

std::string Narrow(BSTR text) { return Narrow(text, SysStringLen(text)); }

BSTR MakeBstr(const std::string& bytes) {
  const std::wstring wide = Wide(bytes);
  return SysAllocStringLen(wide.data(), static_cast<UINT>(wide.size()));
}

// A VARIANT that clears itself.
struct Variant : VARIANT {
  Variant() { VariantInit(this); }
  ~Variant() { VariantClear(this); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
};

// The number a script sees for a failure: the error number for the control's own codes (0x800A....) and
// for the automation codes the runtime has numbers for, the HRESULT otherwise.
long ErrorNumber(HRESULT hr) {
  switch (hr) {
    case DISP_E_OVERFLOW:
      return 6;
    case DISP_E_DIVBYZERO:
      return 11;
    case DISP_E_TYPEMISMATCH:
      return 13;
    default:
      return HRESULT_FACILITY(hr) == FACILITY_CONTROL ? static_cast<long>(hr & 0xFFFF)
                                                      : static_cast<long>(hr);
  }
}

std::string SystemText(HRESULT hr) {
  char* text = nullptr;
  FormatMessageA(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                 nullptr, static_cast<DWORD>(hr), 0, reinterpret_cast<char*>(&text), 0, nullptr);
  std::string message = text ? text : "Automation error";
  if (text) LocalFree(text);
  while (!message.empty() && (message.back() == '\n' || message.back() == '\r' || message.back() == ' '))
    message.pop_back();
  return message;
}

IDispatch* Wrap(std::shared_ptr<ScriptObject> object);

void ToVariant(const ScriptValue& value, VARIANT& out) {
  VariantInit(&out);
  if (const auto* b = std::get_if<bool>(&value)) {
    out.vt = VT_BOOL;
    out.boolVal = *b ? VARIANT_TRUE : VARIANT_FALSE;
  } else if (const auto* d = std::get_if<double>(&value)) {
    out.vt = VT_R8;
    out.dblVal = *d;
  } else if (const auto* s = std::get_if<std::string>(&value)) {
    out.vt = VT_BSTR;
    out.bstrVal = MakeBstr(*s);
  } else if (const auto* list = std::get_if<std::vector<std::string>>(&value)) {
    SAFEARRAY* array = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(list->size()));
    for (LONG i = 0; i < static_cast<LONG>(list->size()); ++i) {
      Variant item;
      item.vt = VT_BSTR;
      item.bstrVal = MakeBstr((*list)[static_cast<size_t>(i)]);
      SafeArrayPutElement(array, &i, &item);
    }
    out.vt = VT_ARRAY | VT_VARIANT;
    out.parray = array;
  } else if (const auto* object = std::get_if<std::shared_ptr<ScriptObject>>(&value)) {
    out.vt = VT_DISPATCH;
    out.pdispVal = *object ? Wrap(*object) : nullptr;
  }
}

ScriptValue FromVariant(VARIANT& in) {
  Variant value;
  if (FAILED(VariantCopyInd(&value, &in))) return {};
  switch (value.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return {};
    case VT_BOOL:
      return value.boolVal != VARIANT_FALSE;
    case VT_BSTR:
      return Narrow(value.bstrVal);
    default:
      break;
  }
  Variant number;
  if (SUCCEEDED(VariantChangeType(&number, &value, 0, VT_R8))) return number.dblVal;
  Variant text;
  if (SUCCEEDED(VariantChangeType(&text, &value, VARIANT_ALPHABOOL, VT_BSTR))) return Narrow(text.bstrVal);
  return {};
}

bool SameName(const std::string& a, const wchar_t* b) {
  const std::string name = Narrow(b, wcslen(b));
  if (a.size() != name.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto fold = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (fold(a[i]) != fold(name[i])) return false;
  }
  return true;
}

// One of the program's objects as scripts see it: a late-bound IDispatch whose member n has the
// DISPID n + 1, the default member (named "") DISPID_VALUE.
class Dispatch final : public IDispatch {
 public:
  explicit Dispatch(std::shared_ptr<ScriptObject> object) : object_(std::move(object)) {}
  virtual ~Dispatch() = default;

  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, IID_IDispatch)) {
      *out = static_cast<IDispatch*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfoCount(UINT* count) override {
    if (count == nullptr) return E_POINTER;
    *count = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE GetTypeInfo(UINT, LCID, ITypeInfo** info) override {
    if (info != nullptr) *info = nullptr;
    return TYPE_E_ELEMENTNOTFOUND;
  }
  HRESULT STDMETHODCALLTYPE GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) override {
    if (names == nullptr || ids == nullptr || count == 0) return E_INVALIDARG;
    for (UINT i = 0; i < count; ++i) ids[i] = DISPID_UNKNOWN;
    const auto& members = object_->Members();
    for (size_t m = 0; m < members.size(); ++m) {
      if (!members[m].empty() && SameName(members[m], names[0])) {
        ids[0] = static_cast<DISPID>(m + 1);
        return count == 1 ? S_OK : DISP_E_UNKNOWNNAME;  // no named arguments
      }
    }
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO* info, UINT*) override {
    const auto& members = object_->Members();
    size_t member = members.size();
    if (id == DISPID_VALUE) {
      for (size_t m = 0; m < members.size(); ++m)
        if (members[m].empty()) member = m;
    } else if (id > 0) {
      member = static_cast<size_t>(id - 1);
    }
    if (member >= members.size() || (flags & (DISPATCH_METHOD | DISPATCH_PROPERTYGET)) == 0)
      return DISP_E_MEMBERNOTFOUND;
    if (params != nullptr && params->cNamedArgs > 0) return DISP_E_NONAMEDARGS;

    std::vector<std::string> args;
    const UINT count = params ? params->cArgs : 0;
    for (UINT i = count; i-- > 0;) {  // rgvarg holds the arguments last first
      Variant arg;
      if (FAILED(VariantCopyInd(&arg, &params->rgvarg[i]))) return DISP_E_TYPEMISMATCH;
      if (arg.vt == VT_ERROR && arg.scode == DISP_E_PARAMNOTFOUND) {
        args.emplace_back();  // an argument left out reads as ""
        continue;
      }
      Variant text;
      if (arg.vt != VT_EMPTY && arg.vt != VT_NULL &&
          FAILED(VariantChangeType(&text, &arg, VARIANT_ALPHABOOL, VT_BSTR))) {
        return DISP_E_TYPEMISMATCH;
      }
      args.push_back(text.vt == VT_BSTR ? Narrow(text.bstrVal) : std::string());
    }
    try {
      ScriptValue value = object_->Call(member, args);
      if (result != nullptr) ToVariant(value, *result);
      return S_OK;
    } catch (const std::exception& e) {
      if (info != nullptr) {
        *info = EXCEPINFO{};
        const auto* error = dynamic_cast<const ScriptError*>(&e);
        info->scode = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_CONTROL, error ? error->number & 0xFFFF : 5);
        info->bstrSource = MakeBstr("tavrel");
        info->bstrDescription = MakeBstr(e.what());
      }
      return DISP_E_EXCEPTION;
    }
  }

 private:
  std::atomic<ULONG> refs_{1};
  std::shared_ptr<ScriptObject> object_;
};

// A COM object owns itself: its last Release deletes it.
IDispatch* Wrap(std::shared_ptr<ScriptObject> object) { return new Dispatch(std::move(object)); }

constexpr IID kIID_IScriptControl = {
    0x0E59F1D3, 0x1FBE, 0x11D0, {0x8F, 0xF2, 0x00, 0xA0, 0xD1, 0x00, 0x38, 0xBC}};

// A BSTR that frees itself.
struct Bstr {
  explicit Bstr(const std::string& bytes) : value(MakeBstr(bytes)) {}
  ~Bstr() { SysFreeString(value); }
  Bstr(const Bstr&) = delete;
  Bstr& operator=(const Bstr&) = delete;
  BSTR value;
};

class ComScriptControl final : public ScriptControl {
 public:
  explicit ComScriptControl(IScriptControl* control) : control_(control) {}
  ~ComScriptControl() override { control_->Release(); }
  ComScriptControl(const ComScriptControl&) = delete;
  ComScriptControl& operator=(const ComScriptControl&) = delete;

  void Configure(const std::string& language, long timeoutMs) {
    Bstr name(language);
    Check(control_->put_Language(name.value));
    Check(control_->put_AllowUI(VARIANT_TRUE));
    Check(control_->put_Timeout(timeoutMs));
  }

  void AddObject(const std::string& name, std::shared_ptr<ScriptObject> object, bool globalMembers) override {
    Bstr text(name);
    IDispatch* dispatch = Wrap(std::move(object));
    const HRESULT hr =
        control_->AddObject(text.value, dispatch, globalMembers ? VARIANT_TRUE : VARIANT_FALSE);
    dispatch->Release();
    Check(hr);
  }

  void AddCode(const std::string& code) override {
    Bstr text(code);
    Check(control_->AddCode(text.value));
  }

  ScriptValue Run(const std::string& routine, const std::vector<ScriptValue>& args) override {
    SAFEARRAY* parameters = SafeArrayCreateVector(VT_VARIANT, 0, static_cast<ULONG>(args.size()));
    for (LONG i = 0; i < static_cast<LONG>(args.size()); ++i) {
      Variant value;
      ToVariant(args[static_cast<size_t>(i)], value);
      SafeArrayPutElement(parameters, &i, &value);
    }
    Bstr name(routine);
    Variant result;
    const HRESULT hr = control_->Run(name.value, &parameters, &result);
    SafeArrayDestroy(parameters);
    Check(hr);
    return FromVariant(result);
  }

 private:
  // A failed call throws what the control's Error object says about it.
  void Check(HRESULT hr) {
    if (SUCCEEDED(hr)) return;
    long number = 0;
    std::string description;
    IScriptError* error = nullptr;
    if (SUCCEEDED(control_->get_Error(&error)) && error != nullptr) {
      BSTR text = nullptr;
      error->get_Number(&number);
      if (SUCCEEDED(error->get_Description(&text))) description = Narrow(text);
      SysFreeString(text);
      error->Clear();
      error->Release();
    }
    // Some controls give the HRESULT as the number.
    number = number < 0 ? ErrorNumber(static_cast<HRESULT>(number)) : number;
    if (number == 0) number = ErrorNumber(hr);
    throw ScriptError(number, description.empty() ? SystemText(hr) : description);
  }

  IScriptControl* control_;
};

}  // namespace

std::unique_ptr<ScriptControl> CreateScriptControl(const std::string& language, long timeoutMs) {
  // The control lives in the calling thread's apartment, which stays for the rest of the run (a thread
  // already in one gets S_FALSE or RPC_E_CHANGED_MODE and keeps it).
  const HRESULT apartment = CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED);
  if (FAILED(apartment) && apartment != RPC_E_CHANGED_MODE) {
    throw ScriptError(ErrorNumber(apartment), SystemText(apartment));
  }
  CLSID clsid;
  IScriptControl* control = nullptr;
  if (FAILED(CLSIDFromProgID(L"MSScriptControl.ScriptControl", &clsid)) ||
      FAILED(CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER | CLSCTX_LOCAL_SERVER, kIID_IScriptControl,
                              reinterpret_cast<void**>(&control)))) {
    throw ScriptError(429, "ActiveX component can't create object");
  }
  auto result = std::make_unique<ComScriptControl>(control);
  result->Configure(language, timeoutMs);
  return result;
}

}  // namespace tavrel::platform
