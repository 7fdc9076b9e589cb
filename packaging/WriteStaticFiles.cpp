// Build-time helper for the packages: writes the page's built-in images and style sheet into a folder,
// the same bytes the service writes into a fresh home.
#include <iostream>
#include <string_view>

#include "pages/StaticFiles.h"

namespace {

class FailureReporter final : public tavrel::Reporter {
 public:
  using Reporter::ReportEvent;
  using Reporter::WriteLog;
  void WriteLog(std::string_view module, std::string_view text, const tavrel::Err& err) override {
    Fail(module, text, err);
  }
  void ReportEvent(std::string_view module, std::string_view text, const tavrel::Err& err) override {
    Fail(module, text, err);
  }
  bool failed = false;

 private:
  void Fail(std::string_view module, std::string_view text, const tavrel::Err& err) {
    std::cerr << "tavrel-static-files: " << module << " " << text << ": " << err.Description << "\n";
    failed = true;
  }
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: tavrel-static-files DIR\n";
    return 2;
  }
  FailureReporter reporter;
  tavrel::WriteStaticFiles(argv[1], reporter);
  return reporter.failed ? 1 : 0;
}
