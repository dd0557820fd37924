#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "core/common/unicode.h"
#include "processor/format/format_string.h"

namespace {

using Common::Str;
using Core::FormatString;

// A two-node chain: an error with a field, caused by a POSIX error.
Common::Error Chain() {
  Common::Error cause;
  cause.AddPosixError(ENOENT, AS_LOCATION_AT("core/include/file/file", "Open", 12));
  return Common::Error(0x72001F, Str(u"Failed to get disks with storages."),
                       AS_LOCATION_AT("virtualization/common/storage/storage_manager", "GetBlockDevices", 577),
                       {{"path", "/sys/block"}, {"token", int64_t{42}}})
      .WithCause(cause);
}

TEST(ErrorFormat, Styles) {
  const Common::Error e = Chain();
  struct Case {
    const char16_t* pattern;
    std::u16string want;
  } cases[] = {
      {u"{0,error,code}", u"0x72001F"},
      {u"{0,error,message}", u"Failed to get disks with storages."},
      {u"{0,error,field,path}", u"/sys/block"},
      {u"{0,error,field, token }", u"42"},
      {u"{0,error,field,nothing}", u"<unknown>"},
      {u"{0,error,full}",
       u"\n    0x72001F: Failed to get disks with storages."
       u"\n    path = /sys/block,token = 42,$module = appliance_storage_glxa64_38811"
       u"\n    virtualization/common/storage/storage_manager : GetBlockDevices(577)"
       u"\n    0xFFF1: No such file or directory"
       u"\n    code = 2,$module = appliance_storage_glxa64_38811"
       u"\n    core/include/file/file : Open(12)"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Common::ToUtf8(Str(c.pattern)));
    EXPECT_EQ(Str(c.want), FormatString(Str(c.pattern), e));
  }
  // With no style, and as a bare argument, the full form.
  EXPECT_EQ(FormatString(Str(u"{0,error,full}"), e), FormatString(Str(u"{0,error}"), e));
  EXPECT_EQ(FormatString(Str(u"{0,error,full}"), e), FormatString(Str(u"{0}"), e));

  char tag[32];
  std::snprintf(tag, sizeof tag, "0x%llX", static_cast<unsigned long long>(e.GetLocation().tag));
  EXPECT_EQ(Common::Widen(tag), FormatString(Str(u"{0,error,tag}"), e));
}

TEST(ErrorFormat, OtherTypesAndEmptyErrors) {
  EXPECT_EQ(Str(u"[]"), FormatString(Str(u"[{0,error,code}]"), 5));
  EXPECT_EQ(Str(u"0x0 <unknown>"), FormatString(Str(u"{0,error,code} {0,error}"), Common::Error()));
  // Missing place parts show as "<unknown>".
  const Common::Error bare(0x10, Common::ErrorLocation{});
  EXPECT_EQ(Str(u"\n    0x10: <unknown>\n    $module = appliance_storage_glxa64_38811\n    <unknown> : <unknown>(0)"),
            FormatString(Str(u"{0}"), bare));
}

}  // namespace
