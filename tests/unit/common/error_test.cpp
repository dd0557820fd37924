#include "core/common/error.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "core/common/message_ids.h"
#include "core/common/message_text.h"
#include "core/common/module.h"
#include "core/common/unicode.h"

// Error nodes are allocated with the nothrow operator new; counting (and failing)
// those calls here shows how many allocations each kind of error costs.
namespace {
thread_local int gNothrowAllocations = 0;
thread_local bool gFailNothrow = false;
}  // namespace

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  ++gNothrowAllocations;
  return gFailNothrow ? nullptr : std::malloc(size ? size : 1);
}
void* operator new(std::size_t size) {
  if (void* p = std::malloc(size ? size : 1)) return p;
  throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Common::Error;
using Common::Str;

int CountAllocations(const std::function<void()>& f) {
  const int before = gNothrowAllocations;
  f();
  return gNothrowAllocations - before;
}

TEST(Error, CodeZeroIsEmptyWhateverTheText) {
  const String wide = Str(u"ignored");
  EXPECT_EQ(0, CountAllocations([&] {
    Error a(0, AS_HERE), b(0, "text", AS_HERE), c(0, wide, AS_HERE);
    for (const Error* e : {&a, &b, &c}) {
      EXPECT_FALSE(e->IsError());
      EXPECT_EQ(0u, e->GetCode());
      EXPECT_TRUE(e->GetText().empty());
      EXPECT_STREQ("", e->GetFieldNames());
      EXPECT_FALSE(e->GetCause());
    }
  }));
}

TEST(Error, OneAllocationPerTextedErrorNoneForMessageTexts) {
  const unsigned short* shared = GetTextFromMessageFile(Messages::InternalError);
  ASSERT_NE(nullptr, shared);
  EXPECT_EQ(1, CountAllocations([] { Error e(1, "narrow", AS_HERE); }));
  EXPECT_EQ(1, CountAllocations([] { Error e(1, Str(u"a much longer wide text than any small buffer"), AS_HERE); }));
  EXPECT_EQ(1, CountAllocations([] { Error e(1, AS_HERE); }));
  EXPECT_EQ(1, CountAllocations([&] { Error e(1, shared, AS_HERE); }));  // the node, not the text

  Error fromTable(0x530040, shared, AS_HERE);
  EXPECT_EQ(static_cast<const void*>(shared), fromTable.GetTextAddress());
  EXPECT_EQ(Str(u"An internal error."), fromTable.GetText());
}

TEST(Error, CopiedTextSurvivesTheCallersBuffer) {
  auto narrow = std::make_unique<char[]>(16);
  std::strcpy(narrow.get(), "gone soon");
  String wide = Str(u"gone too");
  Error a(7, narrow.get(), AS_HERE), b(8, wide.c_str(), AS_HERE);
  EXPECT_NE(static_cast<const void*>(narrow.get()), a.GetTextAddress());
  narrow.reset();
  wide.assign(wide.size(), 'x');
  EXPECT_EQ(Str(u"gone soon"), a.GetText());
  EXPECT_EQ(Str(u"gone too"), b.GetText());
}

TEST(Error, NarrowTextIsWidenedByteByByte) {
  Error e(1, "\xC3\xA9", AS_HERE);
  EXPECT_EQ((String{0x00C3, 0x00A9}), e.GetText());
}

TEST(Error, KindsAnswerTheirFields) {
  Error plain(3, AS_HERE);
  EXPECT_STREQ("$module", plain.GetFieldNames());
  EXPECT_STREQ("appliance_storage_glxa64_38811", plain.GetStringField("$module"));
  EXPECT_EQ(nullptr, plain.GetStringField("$Module"));  // exact, case-sensitive
  EXPECT_EQ(0, plain.GetNumericField("code"));

  Error posix;
  posix.AddPosixError(ENOENT, AS_HERE);
  EXPECT_EQ(0xFFF1u, posix.GetCode());
  EXPECT_EQ(ENOENT, posix.GetNumericField("code"));
  EXPECT_EQ(0, posix.GetNumericField("Code"));
  EXPECT_STREQ("code,$module", posix.GetFieldNames());
  EXPECT_STREQ(_ErrorModuleName, posix.GetStringField("$module"));
  EXPECT_EQ(Common::Widen(std::strerror(ENOENT)), posix.GetText());

  Error fielded(0x6, Str(u"lock failed"), AS_HERE, {{"token", "SCSISubsystemLocker"}, {"count", int64_t{3}}});
  EXPECT_STREQ("token,count,$module", fielded.GetFieldNames());
  EXPECT_STREQ("SCSISubsystemLocker", fielded.GetStringField("token"));
  EXPECT_EQ(nullptr, fielded.GetStringField("count"));
  EXPECT_EQ(3, fielded.GetNumericField("count"));
  EXPECT_STREQ(_ErrorModuleName, fielded.GetStringField("$module"));
  EXPECT_EQ(Str(u"lock failed"), fielded.GetText());
  Error copy = Error(fielded).AddPosixError(EIO, AS_HERE);  // a clone keeps its fields
  EXPECT_STREQ("SCSISubsystemLocker", copy.GetStringField("token"));
}

TEST(Error, LocationIsKept) {
  Error e(1, "x", AS_LOCATION("GetBlockDevices", 577));
  const Common::ErrorLocation where = e.GetLocation();
  EXPECT_STREQ("tests/unit/common/error_test", where.file);
  EXPECT_STREQ("GetBlockDevices", where.function);
  EXPECT_EQ(577, where.line);
  EXPECT_EQ(Common::LocationTag("tests/unit/common/error_test", 577), where.tag);
  const uint64_t first = AS_LOCATION("f", 1).tag, second = AS_LOCATION("f", 2).tag;
  EXPECT_NE(first, second);
}

TEST(Error, AddPosixErrorOnEmptyBecomesTheError) {
  Error e;
  e.AddPosixError(EACCES, AS_HERE);
  EXPECT_EQ(0xFFF1u, e.GetCode());
  EXPECT_EQ(EACCES, e.GetNumericField("code"));
  EXPECT_FALSE(e.GetCause());
}

TEST(Error, AddPosixErrorReplacesTheCause) {
  Error e(0x530123, "open", AS_HERE);
  e.SetCause(Error(2, "first cause", AS_HERE).AddPosixError(EPERM, AS_HERE));
  e.AddPosixError(ENOSPC, AS_HERE);
  const Error cause = e.GetCause();
  EXPECT_EQ(0xFFF1u, cause.GetCode());
  EXPECT_EQ(ENOSPC, cause.GetNumericField("code"));
  EXPECT_FALSE(cause.GetCause());  // replaced, not appended behind
}

TEST(Error, AddPosixErrorCopiesASharedHead) {
  Error a(0x530040, "outer", AS_HERE);
  a.AddPosixError(EIO, AS_HERE);
  Error b = a;
  ASSERT_EQ(a.GetNode(), b.GetNode());
  b.AddPosixError(EBUSY, AS_HERE);
  EXPECT_NE(a.GetNode(), b.GetNode());
  EXPECT_EQ(EIO, a.GetCause().GetNumericField("code"));
  EXPECT_EQ(EBUSY, b.GetCause().GetNumericField("code"));
  EXPECT_EQ(a.GetText(), b.GetText());
  EXPECT_EQ(a.GetLocation().tag, b.GetLocation().tag);
  // Once b has its own head, it changes in place.
  const void* own = b.GetNode();
  b.AddPosixError(EAGAIN, AS_HERE);
  EXPECT_EQ(own, b.GetNode());
}

TEST(Error, WrappingKeepsTheInnerChain) {
  Error inner(0x530124, "read", AS_HERE);
  inner.AddPosixError(EIO, AS_HERE);
  Error outer = Error(0x530040, "enumerate", AS_HERE).WithCause(inner);
  EXPECT_EQ(0x530124u, outer.GetCause().GetCode());
  EXPECT_EQ(EIO, outer.GetCause().GetCause().GetNumericField("code"));
  EXPECT_EQ(inner.GetNode(), outer.GetCause().GetNode());  // shared, not copied

  Error self(1, "self", AS_HERE);
  self.SetCause(self);  // never a cycle: the head is copied first
  EXPECT_EQ(1u, self.GetCause().GetCode());
  EXPECT_FALSE(self.GetCause().GetCause());
}

TEST(Error, LongChainsAreReleasedWithoutDeepRecursion) {
  Error chain(1, AS_HERE);
  for (int i = 0; i < 1000000; ++i) chain = Error(2, AS_HERE).WithCause(chain);
  chain = Error();  // would overflow the stack if released recursively
  SUCCEED();
}

TEST(Error, OutOfMemoryGivesTheSharedNode) {
  gFailNothrow = true;
  Error a(0x530040, "no memory for me", AS_HERE);
  Error b(0x720022, Str(u"nor for me"), AS_HERE);
  Error c;
  c.AddPosixError(EIO, AS_HERE);
  gFailNothrow = false;
  EXPECT_EQ(a.GetNode(), b.GetNode());
  EXPECT_EQ(a.GetNode(), c.GetNode());
  EXPECT_EQ(0xFFF1u, a.GetCode());
  EXPECT_EQ(ENOMEM, a.GetNumericField("code"));
  // The shared node is never changed in place: a cause goes on a copy.
  a.AddPosixError(EPERM, AS_HERE);
  EXPECT_NE(b.GetNode(), a.GetNode());
  EXPECT_FALSE(b.GetCause());
  EXPECT_EQ(EPERM, a.GetCause().GetNumericField("code"));
  // With no memory even for the copy, the error stays as it was.
  gFailNothrow = true;
  b.AddPosixError(EPERM, AS_HERE);
  gFailNothrow = false;
  EXPECT_EQ(c.GetNode(), b.GetNode());
  EXPECT_FALSE(b.GetCause());
}

TEST(Error, ThrownAndCaughtByValue) {
  try {
    AS_THROW(0x720022, Str(u"Failed to initialize storage '/dev/sdb'."));
  } catch (const Error& e) {
    EXPECT_EQ(0x720022u, e.GetCode());
    EXPECT_STREQ("TestBody", e.GetLocation().function);
  }
}

}  // namespace
