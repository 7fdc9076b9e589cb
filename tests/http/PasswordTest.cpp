// The page's password hash: the stored text, which must verify alike on every platform.
#include <string>

#include <gtest/gtest.h>

#include "http/PasswordHash.h"

namespace tavrel {
namespace {

// Made elsewhere (another PBKDF2 implementation): a settings file written on one system verifies on any.
constexpr std::string_view kSecret =
    "pbkdf2-sha256$1000$a0a1a2a3a4a5a6a7a8a9aaabacadaeaf$"
    "4b47379d593c45497f48997e42a5f888ecd450992e0872eacbccd5e023facc2d";

TEST(PasswordTest, StoredHashVerifiesOnlyItsPasswordAndMalformedTextIsRefused) {
  EXPECT_TRUE(VerifyPassword(kSecret, "secret"));
  const std::string made = MakePasswordHash("s\xe9 cr$t=", 1000);
  EXPECT_TRUE(IsPasswordHash(made) && made.starts_with("pbkdf2-sha256$1000$")) << made;
  EXPECT_NE(made, MakePasswordHash("s\xe9 cr$t=", 1000));  // a fresh salt each time
  EXPECT_TRUE(VerifyPassword(made, "s\xe9 cr$t="));
  for (std::string_view other : {"", "Secret", "secret ", "secre"})
    EXPECT_FALSE(VerifyPassword(kSecret, other));

  // Malformed: each edit "from>to" changes the first "from" of the good text into "to" (4294968296 is
  // 1000 past 2^32).
  EXPECT_FALSE(IsPasswordHash(""));
  // clang-format off
  const char* edits[] = {"sha256>sha1", "pbkdf2-sha256>PBKDF2-SHA256", "$1000$>$0$", "$1000$>$01000$",
      "$1000$>$4294968296$", "$1000$>$$", "$a0a1>$a1", "c2d>c2d00", "c2d>cg", "c2d>c2d$", "af$>af", "pbkdf2> pbkdf2"};
  // clang-format on
  for (const std::string edit : edits) {
    std::string stored(kSecret);
    const std::string from = edit.substr(0, edit.find('>'));
    stored.replace(stored.find(from), from.size(), edit.substr(edit.find('>') + 1));
    EXPECT_FALSE(IsPasswordHash(stored)) << stored;
    EXPECT_FALSE(VerifyPassword(stored, "secret")) << stored;
  }
  // Well formed but with other rounds: the count is part of what is checked.
  const std::string otherRounds = "pbkdf2-sha256$1001$" + std::string(kSecret.substr(19));
  EXPECT_TRUE(IsPasswordHash(otherRounds));
  EXPECT_FALSE(VerifyPassword(otherRounds, "secret"));
}

}  // namespace
}  // namespace tavrel
