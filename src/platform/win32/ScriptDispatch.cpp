#include "platform/win32/ScriptDispatch.h"

#include <ole2.h>

#include <algorithm>
#include <cmath>
#include <utility>
#include <vector>

namespace tavrel::platform {

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

void FillException(EXCEPINFO& info, long number, const std::string& description) {
  info = EXCEPINFO{};
  info.scode = MAKE_HRESULT(SEVERITY_ERROR, FACILITY_CONTROL, number & 0xFFFF);
  info.bstrSource = MakeBstr("tavrel");
  info.bstrDescription = MakeBstr(description);
}

namespace {

// A date is days since 30 December 1899 with the time of day as the fraction, which counts forward from
// midnight even for days before that one (-1.25 is 29 December 1899, 06:00).
constexpr std::chrono::local_days kDayZero{std::chrono::year{1899} / 12 / 30};
constexpr double kSecondsPerDay = 86400;

double ToDate(const ScriptDate& date) {
  const auto seconds = (date.time - kDayZero).count();
  const auto days = seconds >= 0 ? seconds / 86400 : -((-seconds + 86399) / 86400);
  const double time = static_cast<double>(seconds - days * 86400) / kSecondsPerDay;
  return days >= 0 ? static_cast<double>(days) + time : static_cast<double>(days) - time;
}

ScriptDate FromDate(double value) {
  const double days = std::trunc(value);
  const auto time = std::llround(std::fabs(value - days) * kSecondsPerDay);
  return ScriptDate{kDayZero + std::chrono::seconds(static_cast<long long>(days) * 86400 + time)};
}

bool SameName(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  for (size_t i = 0; i < a.size(); ++i) {
    auto fold = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; };
    if (fold(a[i]) != fold(b[i])) return false;
  }
  return true;
}

// Reference counting shared by the COM objects below: the last Release deletes the object.
template <typename Interface>
class ComObject : public Interface {
 public:
  virtual ~ComObject() = default;
  ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
  ULONG STDMETHODCALLTYPE Release() override {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
  }
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    if (out == nullptr) return E_POINTER;
    if (IsEqualIID(iid, IID_IUnknown) || IsEqualIID(iid, __uuidof(Interface))) {
      *out = static_cast<Interface*>(this);
      AddRef();
      return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
  }

 private:
  std::atomic<ULONG> refs_{1};
};

// What "For Each" walks over a collection: its values at the time the loop began.
class Enumerator final : public ComObject<IEnumVARIANT> {
 public:
  Enumerator(std::shared_ptr<const std::vector<ScriptValue>> items, std::shared_ptr<CallGate> gate,
             size_t next = 0)
      : items_(std::move(items)), gate_(std::move(gate)), next_(next) {}

  HRESULT STDMETHODCALLTYPE Next(ULONG count, VARIANT* out, ULONG* fetched) override {
    if (out == nullptr && count > 0) return E_POINTER;
    ULONG n = 0;
    for (; n < count && next_ < items_->size(); ++n) ToVariant((*items_)[next_++], out[n], gate_);
    if (fetched != nullptr) *fetched = n;
    return n == count ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Skip(ULONG count) override {
    const size_t left = items_->size() - next_;
    next_ += std::min<size_t>(count, left);
    return count <= left ? S_OK : S_FALSE;
  }
  HRESULT STDMETHODCALLTYPE Reset() override {
    next_ = 0;
    return S_OK;
  }
  HRESULT STDMETHODCALLTYPE Clone(IEnumVARIANT** out) override {
    if (out == nullptr) return E_POINTER;
    *out = new Enumerator(items_, gate_, next_);
    return S_OK;
  }

 private:
  std::shared_ptr<const std::vector<ScriptValue>> items_;
  std::shared_ptr<CallGate> gate_;
  size_t next_;
};

// One of the program's objects as scripts see it: a late-bound IDispatch whose member n has the
// DISPID n + 1, the default member (named "") DISPID_VALUE; a collection answers DISPID_NEWENUM.
class Dispatch final : public ComObject<IDispatch> {
 public:
  Dispatch(std::shared_ptr<ScriptObject> object, std::shared_ptr<CallGate> gate)
      : object_(std::move(object)), gate_(std::move(gate)) {}

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
    if (names == nullptr || names[0] == nullptr || ids == nullptr || count == 0) return E_INVALIDARG;
    for (UINT i = 0; i < count; ++i) ids[i] = DISPID_UNKNOWN;
    const std::string name = Narrow(names[0], wcslen(names[0]));
    const auto& members = object_->Members();
    for (size_t m = 0; m < members.size(); ++m) {
      if (!members[m].empty() && SameName(members[m], name)) {
        ids[0] = static_cast<DISPID>(m + 1);
        return count == 1 ? S_OK : DISP_E_UNKNOWNNAME;  // no named arguments
      }
    }
    return DISP_E_UNKNOWNNAME;
  }
  HRESULT STDMETHODCALLTYPE Invoke(DISPID id, REFIID, LCID, WORD flags, DISPPARAMS* params, VARIANT* result,
                                   EXCEPINFO* info, UINT*) override {
    if ((flags & (DISPATCH_METHOD | DISPATCH_PROPERTYGET)) == 0) return DISP_E_MEMBERNOTFOUND;
    if (gate_->closed) return Fail(info, gate_->number, gate_->description);
    if (id == DISPID_NEWENUM) return Enumerate(result);
    const auto& members = object_->Members();
    size_t member = members.size();
    if (id == DISPID_VALUE) {
      for (size_t m = 0; m < members.size(); ++m)
        if (members[m].empty()) member = m;
    } else if (id > 0) {
      member = static_cast<size_t>(id - 1);
    }
    if (member >= members.size()) return DISP_E_MEMBERNOTFOUND;
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
      const bool object = arg.vt == VT_DISPATCH || arg.vt == VT_UNKNOWN;
      // An object passed as an argument reads as its default value, or "" when it has none (the
      // request handed to Response.RedirectToHS).
      if (arg.vt != VT_EMPTY && arg.vt != VT_NULL &&
          FAILED(VariantChangeType(&text, &arg, VARIANT_ALPHABOOL, VT_BSTR)) && !object) {
        return DISP_E_TYPEMISMATCH;
      }
      args.push_back(text.vt == VT_BSTR ? Narrow(text.bstrVal) : std::string());
    }
    try {
      ScriptValue value = object_->Call(member, args);
      if (result != nullptr) ToVariant(value, *result, gate_);
      return S_OK;
    } catch (const std::exception& e) {
      const auto* error = dynamic_cast<const ScriptError*>(&e);
      return Fail(info, error ? error->number : 5, e.what());
    }
  }

 private:
  static HRESULT Fail(EXCEPINFO* info, long number, const std::string& description) {
    if (info != nullptr) FillException(*info, number, description);
    return DISP_E_EXCEPTION;
  }

  HRESULT Enumerate(VARIANT* result) {
    std::optional<std::vector<ScriptValue>> items;
    try {
      items = object_->Items();
    } catch (const std::exception&) {
      return E_FAIL;
    }
    if (!items) return DISP_E_MEMBERNOTFOUND;
    if (result == nullptr) return S_OK;
    VariantInit(result);
    result->vt = VT_UNKNOWN;
    result->punkVal =
        new Enumerator(std::make_shared<const std::vector<ScriptValue>>(std::move(*items)), gate_);
    return S_OK;
  }

  std::shared_ptr<ScriptObject> object_;
  std::shared_ptr<CallGate> gate_;
};

}  // namespace

IDispatch* Wrap(std::shared_ptr<ScriptObject> object, std::shared_ptr<CallGate> gate) {
  return new Dispatch(std::move(object), std::move(gate));
}

void ToVariant(const ScriptValue& value, VARIANT& out, const std::shared_ptr<CallGate>& gate) {
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
    if (array == nullptr) return;
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
    out.pdispVal = *object ? Wrap(*object, gate) : nullptr;
  } else if (const auto* date = std::get_if<ScriptDate>(&value)) {
    out.vt = VT_DATE;
    out.date = ToDate(*date);
  }
}

ScriptValue FromVariant(const VARIANT& in) {
  Variant value;
  if (FAILED(VariantCopyInd(&value, const_cast<VARIANT*>(&in)))) return {};
  switch (value.vt) {
    case VT_EMPTY:
    case VT_NULL:
      return {};
    case VT_BOOL:
      return value.boolVal != VARIANT_FALSE;
    case VT_BSTR:
      return Narrow(value.bstrVal);
    case VT_DATE:
      return FromDate(value.date);
    case VT_ARRAY | VT_VARIANT: {
      // A script's array comes back as its texts.
      std::vector<std::string> list;
      LONG low = 0, high = -1;
      if (SafeArrayGetDim(value.parray) != 1 || FAILED(SafeArrayGetLBound(value.parray, 1, &low)) ||
          FAILED(SafeArrayGetUBound(value.parray, 1, &high))) {
        return {};
      }
      for (LONG i = low; i <= high; ++i) {
        Variant item, text;
        if (SUCCEEDED(SafeArrayGetElement(value.parray, &i, &item)) &&
            SUCCEEDED(VariantChangeType(&text, &item, VARIANT_ALPHABOOL, VT_BSTR))) {
          list.push_back(Narrow(text.bstrVal));
        } else {
          list.emplace_back();
        }
      }
      return list;
    }
    default:
      break;
  }
  Variant number;
  if (SUCCEEDED(VariantChangeType(&number, &value, 0, VT_R8))) return number.dblVal;
  Variant text;
  if (SUCCEEDED(VariantChangeType(&text, &value, VARIANT_ALPHABOOL, VT_BSTR))) return Narrow(text.bstrVal);
  return {};
}

}  // namespace tavrel::platform
