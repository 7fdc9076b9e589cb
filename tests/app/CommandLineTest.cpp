#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "app/CommandLine.h"

namespace tavrel {
namespace {

// A missing home is made at start-up; a file where the home or one of its folders should be stops it.
TEST(HomeFolderError, OnlyAFileInThePathStopsTheStart) {
  test::TempDir dir;
  test::WriteFile(dir.Path() / "file", "x");
  const std::string file = (dir.Path() / "file").string();
  const std::pair<std::filesystem::path, std::string> cases[] = {
      {dir.Path(), ""},
      {dir.Path() / "new" / "home", ""},
      {dir.Path() / "file", "cannot use " + file + " as the home folder: " + file + " is not a folder"},
      {dir.Path() / "file" / "home", "cannot use " + (dir.Path() / "file" / "home").string() +
                                         " as the home folder: " + file + " is not a folder"}};
  for (const auto& [home, error] : cases) EXPECT_EQ(HomeFolderError(home), error) << home;
}

}  // namespace
}  // namespace tavrel
