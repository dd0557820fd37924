#include "core/include/file/file.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <fstream>
#include <utility>

#include "../../support/child.h"
#include "../../support/descriptors.h"
#include "../../support/temp_dir.h"

namespace {

using namespace FileSystem;

TEST(FileLayer, WalkKindsChangesAndFailures) {
  const TestSupport::TempDir root;
  const std::string missing = root / "missing", full = root / "full";
  std::ofstream(root / "file") << "x";
  ASSERT_EQ(0, mkdir(full.c_str(), 0755));
  std::ofstream(full + "/keep") << "data";
  for (const char* link : {"full", "file", "nowhere"}) ASSERT_EQ(0, symlink(link, (root / link + "link").c_str()));
  ASSERT_EQ(0, mkfifo((root / "fifo").c_str(), 0600));
  auto dir = Directory::Open(root.path() + "//");
  ASSERT_TRUE(dir);
  EXPECT_EQ(root.path(), dir->FullPath());
  EXPECT_EQ("/", Directory::Open("//")->FullPath());
  std::map<std::string, EntryKind> seen;
  for (Directory::Entry e; dir->Next(e);) seen[e.name] = e.kind;
  EXPECT_EQ(kStatusEndOfDirectory, dir->Status());
  EXPECT_EQ((std::map<std::string, EntryKind>{{"full", kDirectory}, {"fulllink", kDirectoryLink}, {"file", kRegular},
                                               {"filelink", kSymlink}, {"fifo", kSpecial}, {"nowherelink", kSymlink}}),
            seen);
  EXPECT_TRUE(dir->OpenChild("fulllink") && !dir->OpenChild("nowherelink") && dir->CreateDir("st1"));
  EntryKind kind = kUnknown, fifo = kUnknown;
  EXPECT_TRUE(dir->Lookup("st1", &kind) && dir->Lookup("fifo", &fifo) && kind == kDirectory && fifo == kSpecial);
  EXPECT_TRUE(dir->RemoveDir("st1") && !dir->Lookup("st1") && !dir->HasError());
  File f;
  char byte;
  size_t count = 7;
  Common::Error e;
  // A change's error is kept until taken, and only when the change failed.
  auto failedChange = [&](bool changed) {
    const bool kept = dir->HasError();
    e = dir->TakeLastError();
    return !changed && kept && !dir->HasError() ? e : Common::Error();
  };
  const struct { std::function<Common::Error()> fail; uint32_t code; std::string path; int err; } cases[] = {
      {[&] { return Directory::Open(missing, &e), e; }, kErrorDirectoryOpen, missing, ENOENT},
      {[&] { return dir->OpenChild("file", &e), e; }, kErrorDirectoryOpen, root / "file", ENOTDIR},
      {[&] { return File::Open(missing, File::kRead, f); }, kErrorOpen, missing, ENOENT},
      {[&] { return File::Open(missing, File::kWrite, f); }, kErrorOpen, missing, ENOENT},  // never creates
      {[&] { return File::Open(root.path(), File::kRead, f) ? Common::Error() : f.Read(&byte, 1, count); },
       kErrorRead, root.path(), EISDIR},
      {[&] { return File::Open("/dev/full", File::kWrite, f) ? Common::Error() : f.Write("1\n", 2); },
       kErrorWrite, "/dev/full", ENOSPC},
      {[&] { return failedChange(dir->CreateDir("full")); }, kErrorDirectoryCreate, full, EEXIST},
      {[&] { return failedChange(dir->RemoveDir("full")); }, kErrorDirectoryRemove, full, ENOTEMPTY},
  };
  std::set<String> texts;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path + " " + std::to_string(c.err));
    const Common::Error error = c.fail();
    EXPECT_TRUE(error.GetCode() == c.code && error.GetStringField("path") == c.path) << error.GetCode();
    EXPECT_EQ(c.err, error.GetCause().GetNumericField("code"));
    texts.insert(error.GetText());
  }
  EXPECT_TRUE(texts.size() == 6 && !texts.count(String()));  // a message of its own for each code
  EXPECT_EQ(7u, count);
  EXPECT_EQ(-1, access(missing.c_str(), F_OK));
}

// Descriptors are close-on-exec and given back; without standard input a file gets
// descriptor 0 and still gives it back.
TEST(FileLayer, DescriptorsAreCloseOnExecAndReleased) {
  const int before = TestSupport::CountOwnFds(), inherited = TestSupport::CountInheritableFds();
  {
    File f;
    auto dir = Directory::Open("/proc/self");
    EXPECT_FALSE(File::Open("/proc/self/stat", File::kRead, f));
    EXPECT_TRUE(before + 2 == TestSupport::CountOwnFds() && inherited == TestSupport::CountInheritableFds());
  }
  EXPECT_EQ(before, TestSupport::CountOwnFds());
  EXPECT_EQ(0, TestSupport::RunInChild([] {
    int left = close(0);
    for (bool reassign : {false, true}) {
      File f;
      if (File::Open("/proc/self/stat", File::kRead, f)) return 2;
      if (reassign) f = File(), left += fcntl(0, F_GETFD) != -1;
    }
    return left + (fcntl(0, F_GETFD) != -1);
  }));
}

// libc's read() for this program: once armed, its next call fails with EINTR as if a signal came first.
bool gInterruptNextRead = false;

// Whole files: what each helper gives, and what a failure leaves (code, errno, path).
TEST(FileLayer, WholeFiles) {
  const TestSupport::TempDir root;
  const std::string file = root / "file", number = root / "number", dir = root / "a/b/c";
  std::ofstream(file) << std::string(5000, 'x');
  std::ofstream(number) << "12345\n";
  const auto outcome = [](const Common::Error& e) {
    if (!e) return std::string("ok");
    const char* path = e.GetStringField("path");
    return std::to_string(e.GetCode()) + "/" + std::to_string(ErrnoOf(e)) + "/" + (path ? path : "");
  };
  std::string text;
  unsigned mode = 0;
  uint64_t value = 0;
  EXPECT_TRUE(!ReadFile(file, 4097, text, &mode) && text.size() == 4097u);
  EXPECT_TRUE(!ReadFile(file, 1 << 20, text) && text.size() == 5000u);
  EXPECT_EQ(std::to_string(kErrorOpen) + "/21/" + root.path(), outcome(ReadFile(root.path(), 10, text, &mode)));
  EXPECT_TRUE(!ReadNumber(number, value) && value == 12345u);
  EXPECT_EQ(std::to_string(kErrorRead) + "/22/" + file, outcome(ReadNumber(file, value)));
  EXPECT_TRUE(!CreateDirectories(dir) && !CreateDirectories(dir));
  EXPECT_EQ(std::to_string(kErrorDirectoryCreate) + "/20/" + file + "/d", outcome(CreateDirectories(file + "/d")));
  EXPECT_EQ(std::to_string(kErrorOpen) + "/2/" + root / "none", outcome(WriteFile(root / "none", "1\n")));
  // Replacing: the new content with its mode, or on failure the old file untouched.
  EXPECT_EQ("ok", outcome(ReplaceFile(number, number + ".tmp", "7\n", 0640)));
  struct stat st {};
  EXPECT_TRUE(ReadNumber(number, value).IsError() == false && value == 7 && stat(number.c_str(), &st) == 0 &&
              (st.st_mode & 07777) == 0640 && stat((number + ".tmp").c_str(), &st) != 0);
  EXPECT_EQ(std::to_string(kErrorWrite) + "/21/" + dir, outcome(ReplaceFile(dir, number + ".tmp", "x", 0644)));
  EXPECT_TRUE(!ReadNumber(number, value) && value == 7 && stat((number + ".tmp").c_str(), &st) != 0);
  // An interrupted read is tried again; an EINTR left by an earlier call is no failure.
  ::alarm(20);  // a read retried forever ends here
  File f;
  char buffer[8];
  size_t count = 0;
  ASSERT_FALSE(File::Open(number, File::kRead, f));
  gInterruptNextRead = true;
  EXPECT_TRUE(!f.Read(buffer, sizeof buffer, count) && std::string(buffer, count) == "7\n" && !gInterruptNextRead);
  gInterruptNextRead = true, errno = EINTR;
  EXPECT_TRUE(!ReadFile(number, 64, text) && text == "7\n" && !gInterruptNextRead);
  ::alarm(0);
}

}  // namespace

extern "C" ssize_t read(int fd, void* buffer, size_t size) {
  if (std::exchange(gInterruptNextRead, false)) return errno = EINTR, -1;
  return ::syscall(SYS_read, fd, buffer, size);
}
