#include "core/include/file/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>

namespace {

using namespace FileSystem;

class FileLayer : public ::testing::Test {
 protected:
  void SetUp() override {
    char dir[] = "/tmp/as_fileXXXXXX";
    ASSERT_NE(nullptr, mkdtemp(dir));
    root_ = dir;
  }
  void TearDown() override { std::system(("rm -rf " + root_).c_str()); }
  std::string Path(const std::string& name) const { return root_ + "/" + name; }
  void Write(const std::string& name, const std::string& text) const { std::ofstream(Path(name)) << text; }

  std::string root_;
};

TEST_F(FileLayer, WalkTellsEntryKindsAndEndsWithItsStatus) {
  Write("file", "x");
  ASSERT_EQ(0, mkdir(Path("dir").c_str(), 0755));
  ASSERT_EQ(0, symlink("dir", Path("dirlink").c_str()));
  ASSERT_EQ(0, symlink("file", Path("filelink").c_str()));
  ASSERT_EQ(0, symlink("nowhere", Path("dangling").c_str()));
  ASSERT_EQ(0, mkfifo(Path("fifo").c_str(), 0600));

  auto dir = Directory::Open(root_ + "//");
  ASSERT_TRUE(dir);
  EXPECT_EQ(root_, dir->FullPath());
  std::map<std::string, EntryKind> seen;
  Directory::Entry e;
  while (dir->Next(e)) seen[e.name] = e.kind;
  EXPECT_EQ(kStatusEndOfDirectory, dir->Status());
  EXPECT_EQ((std::map<std::string, EntryKind>{{"dangling", kSymlink},
                                               {"dir", kDirectory},
                                               {"dirlink", kDirectoryLink},
                                               {"fifo", kSpecial},
                                               {"file", kRegular},
                                               {"filelink", kSymlink}}),
            seen);
  EXPECT_TRUE(dir->OpenChild("dirlink"));
  EXPECT_FALSE(dir->OpenChild("file"));
  EXPECT_FALSE(dir->OpenChild("dangling"));
}

TEST_F(FileLayer, OpenFailuresNameThePathAndKeepErrno) {
  Common::Error error;
  EXPECT_FALSE(Directory::Open(Path("missing"), &error));
  EXPECT_EQ(kErrorDirectoryOpen, error.GetCode());
  EXPECT_STREQ("path,$module", error.GetFieldNames());
  EXPECT_EQ(Path("missing"), error.GetStringField("path"));
  EXPECT_EQ(ENOENT, error.GetCause().GetNumericField("code"));

  File f;
  const Common::Error open = File::Open(Path("missing"), File::kRead, f);
  EXPECT_EQ(kErrorOpen, open.GetCode());
  EXPECT_EQ(Path("missing"), open.GetStringField("path"));
  EXPECT_FALSE(f.IsOpen());
}

TEST_F(FileLayer, ReadStopsAtTheLimitAndWritingNeverCreates) {
  Write("state", "running\n");
  File f;
  ASSERT_FALSE(File::Open(Path("state"), File::kRead, f));
  char buffer[32] = {};
  size_t count = 0;
  ASSERT_FALSE(f.Read(buffer, 4, count));
  EXPECT_EQ("runn", std::string(buffer, count));
  ASSERT_FALSE(f.Read(buffer, sizeof buffer, count));
  EXPECT_EQ("ing\n", std::string(buffer, count));

  File w;
  EXPECT_EQ(kErrorOpen, File::Open(Path("scan"), File::kWrite, w).GetCode());
  EXPECT_EQ(-1, access(Path("scan").c_str(), F_OK));

  File full;
  ASSERT_FALSE(File::Open("/dev/full", File::kWrite, full));
  const Common::Error e = full.Write("1\n", 2);
  EXPECT_EQ(kErrorWrite, e.GetCode());
  EXPECT_EQ(ENOSPC, e.GetCause().GetNumericField("code"));
}

TEST_F(FileLayer, DirectoryChangesKeepTheirLastError) {
  auto dir = Directory::Open(root_);
  ASSERT_TRUE(dir);
  EXPECT_TRUE(dir->CreateDir("st1"));
  EntryKind kind;
  ASSERT_TRUE(dir->Lookup("st1", &kind));
  EXPECT_EQ(kDirectory, kind);
  EXPECT_FALSE(dir->CreateDir("st1"));
  EXPECT_TRUE(dir->HasError());
  const Common::Error e = dir->TakeLastError();
  EXPECT_EQ(kErrorDirectoryCreate, e.GetCode());
  EXPECT_EQ(EEXIST, e.GetCause().GetNumericField("code"));
  EXPECT_FALSE(dir->HasError());

  Write("st1/keep", "data");
  EXPECT_FALSE(dir->RemoveDir("st1"));  // only an empty directory goes
  EXPECT_EQ(ENOTEMPTY, dir->TakeLastError().GetCause().GetNumericField("code"));
  ASSERT_EQ(0, unlink(Path("st1/keep").c_str()));
  EXPECT_TRUE(dir->RemoveDir("st1"));
  EXPECT_FALSE(dir->Lookup("st1"));
}

TEST_F(FileLayer, DescriptorsAreCloseOnExecAndReleased) {
  Write("f", "x");
  auto openFds = [] {
    std::map<int, bool> fds;  // descriptor -> close-on-exec
    for (int fd = 0; fd < 256; ++fd) {
      const int flags = fcntl(fd, F_GETFD);
      if (flags >= 0) fds[fd] = flags & FD_CLOEXEC;
    }
    return fds;
  };
  const auto before = openFds();
  {
    File f;
    ASSERT_FALSE(File::Open(Path("f"), File::kRead, f));
    auto dir = Directory::Open(root_);
    const auto during = openFds();
    EXPECT_EQ(before.size() + 2, during.size());
    for (const auto& [fd, cloexec] : during) {
      if (before.count(fd) == 0) {
        EXPECT_TRUE(cloexec) << fd;
      }
    }
  }
  EXPECT_EQ(before, openFds());
}

}  // namespace
