// Runs under LANG=de_DE.UTF-8 (see CMakeLists.txt): a locale that groups digits.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>

#include "core/common/guid.h"
#include "core/common/unicode.h"
#include "processor/format/format_string.h"
#include "processor/format/impl/subformat.h"
#include "processor/format/message_format.h"
#include "resource_api.h"

namespace {

using Common::Str;
using Core::FormatString;
using Processor::Variant;

// A UTF-16 pattern written with "'" where the engine's quotation mark U+F800 goes.
template <class... A>
String F(std::u16string_view pattern, const A&... args) {
  String p = Str(pattern);
  for (auto& c : p)
    if (c == '\'') c = Processor::kQuotationMark;
  return FormatString(p, args...);
}

TEST(Format, Narrow) {
  const Common::GUID guid = Common::GUID::FromBytes({1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16});
  const char* none = nullptr;
  char unterminated[8] = {'{', '0', '}', '!', '{', '0', '}', '?'};
  const std::pair<std::string, std::string> cases[] = {  // got, want
      {FormatString("{1}:{0}", 8, 16), "16:8"}, {FormatString("{0}", "{1}", "z"), "{1}"},  // inserted text stays
      {FormatString("{0} {2} {1}", "x", "y"), "x {2} {1}"},  // stops at the first missing argument
      {FormatString("{{0}}{00} {x} {} {0", 7), "{7}7 {x} {} {0"},
      {FormatString("{99999999999999999999999}", 1), "{99999999999999999999999}"},
      {FormatString("{0} {1} {2} {3}", INT32_MIN, UINT32_MAX, INT64_MIN, UINT64_MAX),
       "-2147483648 4294967295 -9223372036854775808 18446744073709551615"},
      {FormatString("{0} {1} {2} {3} {4} {5} {6}", int16_t{0}, uint8_t{255}, Variant(int32_t{1234567}), 1.5, true,
                    false, 'c'),
       "0 255 1234567 1.5 true false c"},
      {FormatString("{0} {1} {2}", Str(u"été"), std::string("ü"), u"ß"), "été ü ß"},
      {FormatString("{0}", guid), guid.ToString()}, {FormatString("[{0}]", none), "[]"},
      {FormatString(unterminated, "x"), "x!x?"},  // an array is read no further than its end
      {FormatString(std::string_view("x{0}", 3), 7), "x{0"},
      {FormatString(std::string_view("x{12}", 3), 7), "x{1"},  // the digit past its end is not read
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(want, got);
}

// A two-node chain: an error with fields, caused by a POSIX error.
Common::Error Chain() {
  Common::Error cause;
  cause.AddPosixError(ENOENT, AS_LOCATION_AT("core/include/file/file", "Open", 12));
  return Common::Error(0x72001F, Str(u"Failed to get disks."), AS_LOCATION_AT("storage/manager", "Get", 577),
                       {{"path", "/sys/block"}, {"token", int64_t{42}}})
      .WithCause(cause);
}

TEST(Format, Utf16) {
  struct Named : Processor::ObjectInterface {
    bool GetProperty(const char* n, String& v) const override { return v = Str(u"disk object"), std::string(n) == "Name"; }
  };
  const Common::Error e = Chain();
  const String path = Str(u"/mnt/local_storages/ZLM01/backups/daily");
  const std::pair<String, const char16_t*> cases[] = {  // got, want
      {F(u"{0} and {1}|{5}|{5,number,hex}", Str(u"sdb"), u"sdc"), u"sdb and sdc|{5}|{5}"},
      {F(u"{x}|a{}b|a}b|a,b {0}|{99999999999999999999999}", 1), u"{x}|a{}b|a}b|a,b 1|{99999999999999999999999}"},
      {F(u"[{0,bogus}] {\t0 ,\tnumber ,hex}", 255), u"[] FF"}, {F(u"'{0}' is {0}", 7), u"{0} is 7"},
      {F(u"{0,choice,1#'a,b'|2#c} {0,choice,1#'a|b'|2#c}", 1), u"a,b a|b"},
      {F(u"{0,choice,0#none|1#one|1<{0} files} {0,choice,1<x{7}y}", 1234), u"1.234 files x{7}y"},
      {F(u"{0,choice,1<{1,choice,2#{2}!|3#no}}", 5, 2, u"deep"), u"deep!"},
      // Numbers: a bare placeholder and an unknown style take the locale's default format.
      {F(u"{0} {1} {2} {3}", 1234567, uint32_t{4000000000}, int64_t{-1234567}, UINT64_MAX),
       u"1.234.567 4.000.000.000 -1.234.567 18.446.744.073.709.551.615"},
      {F(u"{0} {1,number} {2,number,other}", -2.25, 1234567, true), u"-2,25 1.234.567 1"},
      {F(u"{0,number,hex} {1,number,hex} {2,number,hex} {3,number,hex} {4,number,hex}", 255, INT32_MAX, -1,
         int64_t{-1}, true),
       u"FF 7FFFFFFF FFFFFFFF FFFFFFFFFFFFFFFF 1"},
      {F(u"{0,number,simple} {1,number,simple} {2,number,simple} {3,number,simple}", 1234567, -12, int64_t{-3}, 2.5),
       u"1234567 -12 -3 2"},
      {F(u"{0,number,hex} {1,number,hex} {2,number,hex} {3,number,simple} {4,number,simple}", -1.5, 0.0,
         -9223372036854775808.0, -9223372036854775808.0, -1e19),
       u"FFFFFFFFFFFFFFFF 0 8000000000000000 -9223372036854775808 -18446744073709551615"},
      {F(u"{0,number,simple} {1,number,simple} {2,number,simple} {3,number}", 0, int64_t{0}, INT64_MIN,
         Processor::Date{1234567}),
       u"0 0 -9223372036854775808 1.234.567"},
      {F(u"{0,number, }|{0,number,\t}|{0,number,hex\t}|{0,number,integer, }", 255), u"255|255|FF|255"},
      {F(u"{0,number,simple} {1,number,hex}", UINT64_MAX, u"sdb"), u"18446744073709551615 sdb"},
      {F(u"{0,number,integer,0000} {0,number,integer,#0,00}", 42), u"0042 042"},
      {F(u"{0,number,integer,0#}", 1234), u"1.234"},  // ICU refuses the pattern: the default format
      // Choice: the first matching clause; "≤" means equality, "<" is strict.
      {F(u"{0,choice,0#none|1#one|1<many} {1,choice,0#none|1#one|1<many}", u"abc", u""), u"many none"},
      {F(u"{0,choice,1<many|1#one} {1,choice,1<many|1#one}", 1, true), u"one one"},
      {F(u"{0,choice,1≤x}|{1,choice,1≤x}|{2,choice,1≤x}", 1, 2, 0), u"x||"},
      {F(u"{0,choice,10>small|10#ten} {1,choice,1#a#b} {2,choice, 1 #one|1<above}", 3, 1, 1.5), u"small a#b above"},
      {F(u"{0,choice,-2#minus|+2.7#two|∞#inf} {1,choice,-2#minus|+2.7#two|∞#inf}", -2, 2), u"minus two"},
      {F(u"{0,choice,-2#minus|+2.7#two|∞#inf}|{0,choice,junk|x#y}", INFINITY), u"inf|"},
      {F(u"{0,choice,-∞#ninf|∞x#inf|0<pos}|{1,choice,-∞#ninf|∞x#inf|0<pos}", -INFINITY, INFINITY), u"ninf|pos"},
      {F(u"{0,choice,67515448340910453820#eq|1<gt} {1,choice,999999999999999#eq}", 6.751544834091045e19,
         int64_t{999999999999999}),
       u"gt eq"},  // long limits are rounded once, not digit by digit
      {F(u"{0}|{1}|{2}", Variant(std::make_shared<Named>()), Variant::MakeBinary({1}), Variant()),
       u"disk object|<binary data>|<void>"},
      {F(u"{0}|{1} {2}|{3}|{4}", Variant::MakeNested(), true, false, Variant::MakeIdentifier("id-é"),
         Processor::Date{1e300}),
       u"<unknown>|true false|id-é|<invalid date>"},
      {F(u"{0,size}|{1,size}|{2,size}|{3,size}|{4,size}", 0, 1023, 1024, 1536, 511.25),
       u"0 bytes|1023 bytes|1 KB|1,5 KB|511,2 bytes"},
      {F(u"{0,size}|{1,size}|{2,size}", 1048575, uint64_t{10737418239}, UINT64_MAX), u"1 MB|10 GB|16 EB"},
      {F(u"{0,size}|{1,size}|{2,size,bytes}", 1099511627776.0 * 3 / 2, -5, 1048576), u"1,5 TB|-5|1048576 bytes"},
      {F(u"{0,size}", 1e24), u"867.361,7 EB"},  // beyond the last unit
      {F(u"{0,ellipsis,10}|{0,ellipsis,8}|{0,ellipsis,2}|{0,ellipsis}", u"abcdefghij"),
       u"abcdefghij|abcde...|..|abcdefghij"},
      {F(u"{0,ellipsis,5}|{1,ellipsis,5}", u"a\U00010000bcd", u"a\U0010FFFFbcd"), u"a...|a..."},  // pairs stay whole
      {F(u"{0,path_ellipsis,100}|{0,path_ellipsis,30}|{0,path_ellipsis,{1}}", path, 20),
       u"/mnt/local_storages/ZLM01/backups/daily|/mnt/.../ZLM01/backups/daily|/mnt/.../daily"},
      {F(u"{0,path_ellipsis,39}|{0,path_ellipsis,28}", path),
       u"/mnt/local_storages/ZLM01/backups/daily|/mnt/.../ZLM01/backups/daily"},
      {F(u"{0,path_ellipsis,12}|{0,path_ellipsis,3}", path), u"/mnt/...aily|..."},
      {F(u"{0,time_span}|{1,time_span}|{2,time_span}", 0, 3900000, int64_t{2 * 86400000 + 3004}),
       u"0 ms|1 h 5 min|2 d 3 s 4 ms"},
      {F(u"{0,time_span}|{1,time_span}|{2,time_span}", 1500.7, -1, u"x"),
       u"1 s 500 ms|<invalid time span>|<invalid time span>"},
      {F(u"{0,date}|{1,time}", 5, Processor::Date{NAN}), u"<unexpected type of date format>|<invalid date>"},
      {F(u"{0,error,code} {0,error,message}", e), u"0x72001F Failed to get disks."},
      {F(u"{0,error,field,path} {0,error,field, token } {0,error,field,none}", e), u"/sys/block 42 <unknown>"},
      {F(u"[{0,error,code}] {1,error,code} {1,error}", 5, Common::Error()), u"[] 0x0 <unknown>"},
      {F(u"{0,error,full}", e),
       u"\n    0x72001F: Failed to get disks.\n    path = /sys/block,token = 42,$module = appliance_storage_glxa64_38811"
       u"\n    storage/manager : Get(577)\n    0xFFF1: No such file or directory"
       u"\n    code = 2,$module = appliance_storage_glxa64_38811\n    core/include/file/file : Open(12)"},
      {F(u"{0}", Common::Error(0x10, Common::ErrorLocation{})),
       u"\n    0x10: <unknown>\n    $module = appliance_storage_glxa64_38811\n    <unknown> : <unknown>(0)"},
  };
  for (const auto& [got, want] : cases) EXPECT_EQ(Str(want), got) << Common::ToUtf8(Str(want));
  EXPECT_EQ(F(u"{0,error,full}|{0,error,full}", e), F(u"{0,error}|{0}", e));
  EXPECT_EQ(F(u"0x{0,number,hex}", e.GetLocation().tag), F(u"{0,error,tag}", e));
  // Dates: every style gives a date, the full one with its year; date and time make up date_time.
  const Processor::Date date{86400000.0 * 365};  // 1971-01-01
  for (auto p : {u"{0,date}", u"{0,date,full}", u"{0,date,long}", u"{0,date,medium}", u"{0,time}", u"{0,date_time}"})
    EXPECT_EQ(String::npos, F(p, date).find('<')) << Common::ToUtf8(Str(p));
  EXPECT_NE(String::npos, F(u"{0,date,full}", date).find(Str(u"1971")));
  const String day = F(u"{0,date}", date), hour = F(u"{0,time}", date), both = F(u"{0,date_time}", date);
  EXPECT_TRUE(both != day && both != hour && both.find(day) != String::npos && both.find(hour) != String::npos)
      << Common::ToUtf8(both);
}

TEST(Format, Concord) {
  const double three[][2] = {{1, 0},  {21, 0}, {101, 0}, {-1, 0}, {2, 1},   {4, 1},   {22, 1},   {1.5, 1}, {NAN, 1},
                             {5, 2},  {11, 2}, {12, 2},  {14, 2}, {20, 2},  {25, 2},  {0, 2},    {111, 2}, {1e300, 2}};
  for (const auto& c : three) EXPECT_EQ(c[1], Processor::ConcordCategory(c[0], true)) << c[0];
  // The built-in (English) texts select two categories, the Russian message file three.
  const char16_t* en = u"{0} {0,concord,0#file|1#files}";
  EXPECT_EQ(Str(u"1 file|21 files|abc files"), F(u"{0}|{1}|{2}", F(en, 1), F(en, 21), F(en, u"abc")));
  setenv("ZEMLORA_RESOURCE_DIR", AS_TEST_RESOURCES, 1);
  ResourceApi::SetLanguage("ru");
  const char16_t* ru = u"{0} {0,concord,0#файл|1#файла|2#файлов}";
  EXPECT_EQ(Str(u"21 файл|22 файла|11 файлов"), F(u"{0}|{1}|{2}", F(ru, 21), F(ru, 22), F(ru, 11)));
  EXPECT_EQ(Str(u"last"), F(u"{0,concord,0#first|1#last}", 5));  // no clause matches: the last one tried
  ResourceApi::SetLanguage("en");
}

// The engine's buffer interface gives the full length; deep nesting neither overflows the
// stack nor loses the surrounding text; type names read back.
TEST(Format, BufferNestingAndTypeNames) {
  const Processor::MessageFormat& engine = Processor::MessageFormat::Instance();
  const String pattern = Str(u"disk {0}");
  const Variant args[] = {Variant(Str(u"sdb"))};
  unsigned short small[5] = {1, 1, 1, 1, 1}, big[16];
  EXPECT_EQ(8, engine.Format(small, 5, pattern.data(), static_cast<int32_t>(pattern.size()), args, 1));
  EXPECT_EQ(Str(u"disk "), String(small, 5));  // no room for the terminator
  EXPECT_EQ(8, engine.Format(big, 16, pattern.c_str(), -1, args, 1));
  EXPECT_EQ(Str(u"disk sdb"), String(big));
  EXPECT_EQ(8, engine.Format(nullptr, 0, pattern.c_str(), -1, args, 1));
  EXPECT_TRUE(engine.Format(big, 16, nullptr, -1, args, 1) == 0 && big[0] == 0);
  for (int depth : {8, 9, 20, 100000}) {  // around the parser's inline stack, and far beyond
    const bool text = depth < 100;
    String deep = Str(u"<"), want = deep;
    for (int i = 0; i < depth; ++i) deep += Str(text ? u"{0,choice,1#(" : u"{0,choice,1#"), want += Str(text ? u"(" : u"");
    for (int i = 0; i < depth; ++i) deep += Str(text ? u")}" : u"}"), want += Str(text ? u")" : u"");
    EXPECT_EQ(want + Str(u">"), FormatString(deep + Str(u">"), 1)) << depth;
  }
  Variant::Type t = Variant::TEmpty;
  for (int i = 0; i < Variant::kTypeCount; ++i) EXPECT_TRUE(Variant::GetTypeByName(Variant::GetTypeName(i), t) && t == i);
  EXPECT_STREQ("<unknown>", Variant::GetTypeName(Variant::kTypeCount));
}

}  // namespace
