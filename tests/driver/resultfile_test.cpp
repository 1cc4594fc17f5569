#include "driver/resultfile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <set>

#include "construct/child.h"

namespace kdr {
namespace {

using Files = std::set<std::string>;

Files filesin(const std::string& folder) {
  Files names;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
  return names;
}

// Writes 9 pieces of 300,000 bytes, more than the buffer holds.
void writefile(const std::string& path) {
  ResultFile file;
  openresult(file, path);
  for (int i = 0; i < 9; ++i) writeresult(file, std::string(300000, static_cast<char>('a' + i)));
  finishresult(file);
}

TEST(ResultFile, IsThereWhenItIsCompleteAndLeavesOtherFilesAlone) {
  Workplace workplace;
  const std::string longname(251, 'n');
  makefile("taken.part", "another");
  std::filesystem::create_symlink("pointed", "linked.part");
  makefile("earlier", "earlier");
  makefile("behind", "");
  std::filesystem::create_symlink("behind", "link");
  for (const std::string& name : {std::string("plain"), std::string("taken"), std::string("linked"), longname,
                                  std::string("earlier"), std::string("link")}) {
    const Files before = filesin(".");
    ResultFile file;
    openresult(file, name);
    writeresult(file, std::string(2000000, 'x'));
    EXPECT_LT(contents(name).size(), 10U) << name;  // not there, or what stood there
    EXPECT_EQ(run.files.unfinished.size(), 1U);
    finishresult(file);
    EXPECT_EQ(contents(name), std::string(2000000, 'x')) << name;
    EXPECT_TRUE(run.files.unfinished.empty());
    Files after = before;
    after.insert(name);
    EXPECT_EQ(filesin("."), after) << name;
  }
  EXPECT_EQ(contents("taken.part"), "another");
  EXPECT_TRUE(std::filesystem::is_symlink("link"));
  // A file takes over who may read the one that it replaces, from its first byte on.
  chmod("earlier", 0600);
  ResultFile file;
  openresult(file, "earlier");
  for (const char* name : {"earlier.part", "earlier"}) {
    struct stat status {};
    if (std::string(name) == "earlier") finishresult(file);
    EXPECT_EQ(stat(name, &status), 0);
    EXPECT_EQ(status.st_mode & 0777U, 0600U) << name;
  }
  // A link to what is not there yet stays a link.
  std::filesystem::create_symlink("ahead", "dangling");
  writefile("dangling");
  EXPECT_TRUE(std::filesystem::is_symlink("dangling"));
  EXPECT_EQ(contents("ahead").size(), 2700000U);
  EXPECT_FALSE(std::filesystem::exists("pointed"));
}

TEST(ResultFile, AFailureLeavesNothingThatLooksWhole) {
  Workplace workplace;
  chmod(".", 0755);
  for (const char* folder : {"open", "closed"}) {
    std::filesystem::create_directory(folder);
    for (const rlim_t limit : {rlim_t{1500000}, rlim_t{RLIM_INFINITY}}) {
      const bool fails = limit != RLIM_INFINITY, closed = *folder == 'c';
      const std::string name = std::string(folder) + "/" + std::string(251, 'n');
      chmod(folder, 0755);
      makefile(name, "earlier");
      chmod(name.c_str(), 0666);
      chmod(folder, closed ? 0555 : 0777);
      const ChildEnd outcome = runchild([&] {
        if (closed && geteuid() == 0 && setuid(65534) != 0) _exit(98);
        limitfiles(limit);
        writefile(name);
      });
      EXPECT_EQ(outcome.code, fails ? 5 : 0) << folder;
      EXPECT_EQ(filesin(folder).size(), 1U) << folder;
      // The closed folder takes no temporary file and lets nothing go.
      EXPECT_EQ(contents(name).size(), fails ? (closed ? 0U : 7U) : 2700000U) << folder;
    }
    chmod(folder, 0755);
  }
  EXPECT_EQ(runchild([] { writefile("nowhere/x"); }).code, 100);
}

TEST(ResultFile, AFailureLeavesNoneOfTwo) {
  Workplace workplace;
  const ChildEnd outcome = runchild([] {
    limitfiles(1500000);
    ResultFile one, two;
    openresult(one, "one");
    openresult(two, "two");
    for (int i = 0; i < 9; ++i)
      for (ResultFile* file : {&one, &two}) writeresult(*file, std::string(300000, 'a'));
  });
  EXPECT_EQ(outcome.code, 5);
  EXPECT_EQ(filesin("."), Files{"words"});
}

}  // namespace
}  // namespace kdr
