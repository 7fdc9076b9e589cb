#include "app/SetPassword.h"

#include <exception>
#include <optional>
#include <ostream>
#include <string>

#include "http/PasswordHash.h"
#include "platform/Console.h"
#include "settings/Hs.h"
#include "settings/Settings.h"

namespace tavrel {

namespace {
// The new password, or nullopt after telling err why there is none.
std::optional<std::string> AskPassword(std::ostream& err) {
  const bool terminal = platform::StdinIsTerminal();
  auto password = platform::ReadSecretLine(terminal ? "New password for the page: " : "");
  if (!password) {
    err << "tavrel: set-password: no password given (end of input); nothing was written\n";
    return std::nullopt;
  }
  if (password->empty()) {
    err << "tavrel: set-password: the password is empty; nothing was written\n";
    return std::nullopt;
  }
  if (terminal && platform::ReadSecretLine("Once more: ") != password) {
    err << "tavrel: set-password: the two entries differ; nothing was written\n";
    return std::nullopt;
  }
  return password;
}

int Clear(Hs& hs, std::ostream& out, std::ostream& err) {
  const std::string path = hs.FilePath(kIniFile).string();
  if (ReadWolSettings(hs).passwordHash.empty()) {
    out << "tavrel: no password was set in " << path << "; the page is open to the allowed networks\n";
    return 0;
  }
  hs.RemoveIniSetting(kPasswordHashSection, kPasswordHashKey, kIniFile);
  if (!ReadWolSettings(hs).passwordHash.empty()) {
    err << "tavrel: set-password: could not remove the password from " << path << "\n";
    return 1;
  }
  out << "tavrel: password removed from " << path
      << "; the page is open again, without a password, to the allowed networks\n";
  return 0;
}
}  // namespace

int SetPasswordCommand(const std::filesystem::path& home, bool clear, Reporter& reporter, std::ostream& out,
                       std::ostream& err) {
  Hs hs(home / "Config", reporter);
  if (clear) return Clear(hs, out, err);
  const auto password = AskPassword(err);
  if (!password) return 2;
  std::string hash;
  try {
    hash = MakePasswordHash(*password);
  } catch (const std::exception& e) {
    err << "tavrel: set-password: " << e.what() << "; nothing was written\n";
    return 1;
  }
  const std::string path = hs.FilePath(kIniFile).string();
  hs.SaveIniSetting(kPasswordHashSection, kPasswordHashKey, hash, kIniFile);  // makes Config/ when missing
  if (ReadWolSettings(hs).passwordHash != hash) {
    err << "tavrel: set-password: could not write the password to " << path << "\n";
    return 1;
  }
  out << "tavrel: password set in " << path << " (" << kPasswordHashKey
      << "): the page now asks for it by HTTP Basic, any user name with this password (a running service"
         " from its next request)\n";
  return 0;
}

}  // namespace tavrel
