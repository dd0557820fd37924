#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>

#include "core/common/unicode.h"
#include "processor/format/format_string.h"

namespace {

using Common::Str;
using Core::FormatString;

TEST(SizeFormat, PicksTheLargestUnit) {
  struct Case {
    uint64_t bytes;
    const char16_t* want;
  } cases[] = {
      {0, u"0 bytes"},
      {1023, u"1023 bytes"},
      {1024, u"1 KB"},
      {1536, u"1.5 KB"},
      {10737418240ull, u"10 GB"},
      {10737418239ull, u"10 GB"},
      // Just below a unit boundary: never shown as 1024 of the smaller unit.
      {1048575, u"1 MB"},
      {1073741823, u"1 GB"},
      {1099511627776ull * 3 / 2, u"1.5 TB"},
      {UINT64_MAX, u"16 EB"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(Str(c.want), FormatString(Str(u"{0,size}"), c.bytes));
  }
  EXPECT_EQ(Str(u"1048576 bytes"), FormatString(Str(u"{0,size,bytes}"), 1048576));
  EXPECT_EQ(Str(u"-5"), FormatString(Str(u"{0,size}"), -5));
  EXPECT_EQ(Str(u"sdb"), FormatString(Str(u"{0,size}"), Str(u"sdb")));
}

TEST(EllipsisFormat, CutsTheEnd) {
  const String text = Str(u"abcdefghij");
  EXPECT_EQ(Str(u"abcdefghij"), FormatString(Str(u"{0,ellipsis,10}"), text));
  EXPECT_EQ(Str(u"abcde..."), FormatString(Str(u"{0,ellipsis,8}"), text));
  EXPECT_EQ(Str(u".."), FormatString(Str(u"{0,ellipsis,2}"), text));
  EXPECT_EQ(Str(u"abcdefghij"), FormatString(Str(u"{0,ellipsis}"), text));
  EXPECT_EQ(Str(u"abcdefghij"), FormatString(Str(u"{0,ellipsis,x}"), text));
  // A surrogate pair is never split.
  EXPECT_EQ(Str(u"a..."), FormatString(Str(u"{0,ellipsis,5}"), Str(u"a\U0001F600bcdef")));
}

TEST(PathEllipsisFormat, KeepsHeadAndTrailingComponents) {
  const String path = Str(u"/mnt/local_storages/ZLM01/backups/daily");
  struct Case {
    int limit;
    const char16_t* want;
  } cases[] = {
      {100, u"/mnt/local_storages/ZLM01/backups/daily"},
      {30, u"/mnt/.../ZLM01/backups/daily"},
      {20, u"/mnt/.../daily"},
      {12, u"/mnt/...aily"},  // no whole component fits: cut in the middle
      {3, u"..."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.limit);
    EXPECT_EQ(Str(c.want), FormatString(Str(u"{0,path_ellipsis,{1}}"), path, c.limit));
  }
}

TEST(TimeSpanFormat, ShowsEachNonZeroUnit) {
  EXPECT_EQ(Str(u"0 ms"), FormatString(Str(u"{0,time_span}"), 0));
  EXPECT_EQ(Str(u"1 h 5 min"), FormatString(Str(u"{0,time_span}"), 3900000));
  EXPECT_EQ(Str(u"2 d 3 s 4 ms"), FormatString(Str(u"{0,time_span}"), int64_t{2 * 86400000 + 3004}));
  EXPECT_EQ(Str(u"1 s 500 ms"), FormatString(Str(u"{0,time_span}"), 1500.7));
  EXPECT_EQ(Str(u"<invalid time span>"), FormatString(Str(u"{0,time_span}"), -1));
  EXPECT_EQ(Str(u"<invalid time span>"), FormatString(Str(u"{0,time_span}"), Str(u"x")));
}

TEST(DateFormat, StylesAndFallbacks) {
  const Processor::Date date{0};  // 1970-01-01 00:00 UTC
  for (const char16_t* p : {u"{0,date}", u"{0,date,full}", u"{0,date,long}", u"{0,date,medium}", u"{0,time}",
                            u"{0,date_time,long}"}) {
    SCOPED_TRACE(Common::ToUtf8(Str(p)));
    const String text = FormatString(Str(p), date);
    EXPECT_FALSE(text.empty());
    EXPECT_EQ(String::npos, text.find('<'));
  }
  EXPECT_NE(String::npos, FormatString(Str(u"{0,date,full}"), Processor::Date{86400000.0 * 365}).find(Str(u"1971")));
  EXPECT_EQ(Str(u"<unexpected type of date format>"), FormatString(Str(u"{0,date}"), 5));
  EXPECT_EQ(Str(u"<invalid date>"), FormatString(Str(u"{0,time}"), Processor::Date{NAN}));
}

}  // namespace
