// Turns any bytes into script code as a framework page is, and follows its include directives: no crash,
// no hang, and code that only ever shrinks by what the directives took.
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "pages/HTMLIncludes.h"

using tavrel::fuzz::Check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view input(reinterpret_cast<const char*>(data), size);
  const std::string code = tavrel::PageToScript(input);
  Check(code.size() <= input.size());  // every rewrite puts in less than it takes out
  size_t cut = 0;
  const std::string rest = tavrel::CutIncludes(code, [&](const std::string& name, bool) {
    Check(name.find('"') == std::string::npos && name.find('/') == std::string::npos);
    cut += name.size() + 10;  // at least "#include", the name and its two quotes went
  });
  Check(rest.size() + cut <= code.size());
  return 0;
}
