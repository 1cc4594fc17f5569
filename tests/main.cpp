// Runs the tests of a room in a temporary folder of their own, so that tests running side by side share no file.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>

int main(int argc, char** argv) {
  std::string folder = (std::filesystem::temp_directory_path() / "kdr3testXXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) return 1;
  setenv("TEST_TMPDIR", folder.c_str(), 1);
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  std::filesystem::remove_all(folder);
  return result;
}
