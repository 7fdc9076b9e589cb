#pragma once

// The program's objects and values as the VBScript engine sees them: IDispatch objects and VARIANTs.

#include <windows.h>

#include <oleauto.h>

#include <atomic>
#include <memory>
#include <string>

#include "platform/ScriptControl.h"

namespace tavrel::platform {

// Script text is bytes in the system code page, as everywhere in the program; COM speaks UTF-16.
std::wstring Wide(const std::string& bytes);
std::string Narrow(const wchar_t* text, size_t length);
std::string Narrow(BSTR text);
BSTR MakeBstr(const std::string& bytes);

// A VARIANT that clears itself.
struct Variant : VARIANT {
  Variant() { VariantInit(this); }
  ~Variant() { VariantClear(this); }
  Variant(const Variant&) = delete;
  Variant& operator=(const Variant&) = delete;
};

// The number a script sees for a failure: the error number for the runtime's own codes (0x800A....) and
// for the automation codes the runtime has numbers for, the HRESULT otherwise.
long ErrorNumber(HRESULT hr);
// The system's text for a failure code, "Automation error" when it has none.
std::string SystemText(HRESULT hr);

// Shared by a host and every object it hands to scripts. Once closed (by the host's watchdog, from its own
// thread), every call of a script into the program's objects fails with the gate's error, so a script that
// keeps calling them ends even where the engine itself cannot be interrupted.
struct CallGate {
  CallGate(long number, std::string description) : number(number), description(std::move(description)) {}
  const long number;
  const std::string description;
  std::atomic<bool> closed{false};
};

// out must be uninitialised or cleared; objects are wrapped with the gate of the host they go to.
void ToVariant(const ScriptValue& value, VARIANT& out, const std::shared_ptr<CallGate>& gate);
ScriptValue FromVariant(const VARIANT& in);

// A new IDispatch for object with one reference, which the caller owns.
IDispatch* Wrap(std::shared_ptr<ScriptObject> object, std::shared_ptr<CallGate> gate);

// Fills info with a script error of the given number and text.
void FillException(EXCEPINFO& info, long number, const std::string& description);

}  // namespace tavrel::platform
