#include <gtest/gtest.h>

#include <unicode/numfmt.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/common/unicode.h"
#include "processor/format/format_string.h"
#include "processor/format/message_format.h"

namespace {

using Common::Str;
using Core::FormatString;

// Patterns written with "'" where the engine's quotation mark U+F800 goes.
String P(std::u16string_view text) {
  String s = Str(text);
  for (auto& c : s)
    if (c == '\'') c = Processor::kQuotationMark;
  return s;
}

TEST(MessageFormat, Placeholders) {
  struct Case {
    const char* name;
    String got;
    const char16_t* want;
  } cases[] = {
      {"plain", FormatString(P(u"{0} and {1}"), Str(u"sdb"), 3), u"sdb and 3"},
      {"unknown argument echoed", FormatString(P(u"{5}"), 1, 2), u"{5}"},
      {"unknown argument drops type", FormatString(P(u"{5,number,hex}"), 1, 2), u"{5}"},
      {"huge argument number", FormatString(P(u"{99999999999999999999999}"), 1), u"{99999999999999999999999}"},
      {"not a number", FormatString(P(u"{x}"), 1), u"{x}"},
      {"empty placeholder", FormatString(P(u"a{}b"), 1), u"a{}b"},
      {"unknown keyword renders nothing", FormatString(P(u"[{0,bogus}]"), 1), u"[]"},
      {"keyword trimmed", FormatString(P(u"{0, number ,hex}"), 255), u"FF"},
      {"closing brace outside is literal", FormatString(P(u"a}b"), 1), u"a}b"},
      {"comma outside is literal", FormatString(P(u"a,b {0}"), 1), u"a,b 1"},
      {"integers are not grouped", FormatString(P(u"{0}"), 1234567), u"1234567"},
      {"quotation outside", FormatString(P(u"'{0}' is {0}"), 7), u"{0} is 7"},
      {"quotation keeps commas", FormatString(P(u"{0,choice,1#'a,b'|2#c}"), 1), u"a,b"},
      {"quoted bar is text", FormatString(P(u"{0,choice,1#'a|b'|2#c}"), 1), u"a|b"},
      {"nested in choice", FormatString(P(u"{0,choice,0#none|1#one|1<{0} files}"), 7), u"7 files"},
      {"nested twice", FormatString(P(u"{0,choice,1<{1,choice,2#{2}!|3#no}}"), 5, 2, Str(u"deep")), u"deep!"},
      {"nested unknown echoed", FormatString(P(u"{0,choice,1<x{7}y}"), 5), u"x{7}y"},
      {"unterminated keeps the current segment", FormatString(P(u"abc {0,num"), 1), u"num"},
      {"unterminated argument", FormatString(P(u"abc {0"), 1), u"0"},
      {"unterminated nested", FormatString(P(u"x{0,choice,1<{1,ab"), 5, 2), u"1<ab"},
      {"lone quotation mark", FormatString(P(u"a'b{0}"), 1), u"ab{0}"},
      {"fifth comma dropped", FormatString(P(u"{0,number,integer,#0,00}"), 1234), u"1234"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(Str(c.want), c.got);
  }
}

String IcuDefault(double value) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::NumberFormat> f(icu::NumberFormat::createInstance(status));
  icu::UnicodeString text;
  f->format(value, text);
  return String(reinterpret_cast<const unsigned short*>(text.getBuffer()), static_cast<size_t>(text.length()));
}

TEST(MessageFormat, NumberStyles) {
  EXPECT_EQ(Str(u"FF 7FFFFFFF FFFFFFFF"), FormatString(P(u"{0,number,hex} {1,number,hex} {2,number,hex}"), 255,
                                                        INT32_MAX, -1));
  EXPECT_EQ(Str(u"FFFFFFFFFFFFFFFF"), FormatString(P(u"{0,number,hex}"), int64_t{-1}));
  EXPECT_EQ(Str(u"1234567 -12"), FormatString(P(u"{0,number,simple} {1,number,simple}"), 1234567, -12));
  EXPECT_EQ(Str(u"18446744073709551615"), FormatString(P(u"{0,number,simple}"), UINT64_MAX));
  EXPECT_EQ(Str(u"0042"), FormatString(P(u"{0,number,integer,0000}"), 42));
  // Without a style: ICU's default format of the current locale.
  EXPECT_EQ(IcuDefault(1234567), FormatString(P(u"{0,number}"), 1234567));
  EXPECT_EQ(IcuDefault(-2.25), FormatString(P(u"{0,number}"), -2.25));
  EXPECT_EQ(Str(u"1.5"), FormatString(P(u"{0}"), 1.5));
  EXPECT_EQ(Str(u"sdb"), FormatString(P(u"{0,number,hex}"), Str(u"sdb")));
}

TEST(MessageFormat, Choice) {
  const String pattern = P(u"{0,choice,0#none|1#one|1<many}");
  EXPECT_EQ(Str(u"none"), FormatString(pattern, 0));
  EXPECT_EQ(Str(u"one"), FormatString(pattern, 1));
  EXPECT_EQ(Str(u"many"), FormatString(pattern, 7));
  EXPECT_EQ(Str(u"many"), FormatString(pattern, Str(u"abc")));  // a string counts by its length
  EXPECT_EQ(Str(u"none"), FormatString(pattern, Str(u"")));
  EXPECT_EQ(Str(u"one"), FormatString(pattern, true));
  // "≤" means equality here.
  EXPECT_EQ(Str(u"x"), FormatString(P(u"{0,choice,1≤x}"), 1));
  EXPECT_EQ(Str(u""), FormatString(P(u"{0,choice,1≤x}"), 2));
  EXPECT_EQ(Str(u""), FormatString(P(u"{0,choice,1≤x}"), 0));
  EXPECT_EQ(Str(u"small"), FormatString(P(u"{0,choice,10>small|10#ten}"), 3));
  EXPECT_EQ(Str(u"a#b"), FormatString(P(u"{0,choice,1#a#b}"), 1));
  EXPECT_EQ(Str(u"above"), FormatString(P(u"{0,choice, 1 #one|1<above}"), 1.5));
  EXPECT_EQ(Str(u""), FormatString(P(u"{0,choice,junk|x#y}"), 1));
}

TEST(MessageFormat, SimpleTypes) {
  struct Named : Processor::ObjectInterface {
    bool GetProperty(const char* name, String& value) const override {
      if (std::string(name) != "Name") return false;
      value = Str(u"disk object");
      return true;
    }
  };
  struct Nameless : Processor::ObjectInterface {
    bool GetProperty(const char*, String&) const override { return false; }
  };
  using Processor::Variant;
  EXPECT_EQ(Str(u"disk object"), FormatString(P(u"{0}"), Variant(std::make_shared<Named>())));
  EXPECT_EQ(Str(u"<unknown interface>"), FormatString(P(u"{0}"), Variant(std::make_shared<Nameless>())));
  EXPECT_EQ(Str(u"<binary data>"), FormatString(P(u"{0}"), Variant::MakeBinary({1, 2})));
  EXPECT_EQ(Str(u"<void>"), FormatString(P(u"{0}"), Variant()));
  EXPECT_EQ(Str(u"<unknown>"), FormatString(P(u"{0}"), Variant::MakeNested()));
  EXPECT_EQ(Str(u"true false"), FormatString(P(u"{0} {1}"), true, false));
  EXPECT_EQ(Str(u"id-1 été"), FormatString(P(u"{0} {1}"), Variant::MakeIdentifier("id-1"), "été"));
  EXPECT_EQ(Str(u"<invalid date>"), FormatString(P(u"{0}"), Processor::Date{1e300}));
}

TEST(MessageFormat, TypeNamesRoundTrip) {
  using Processor::Variant;
  for (int i = 0; i < Variant::kTypeCount; ++i) {
    Variant::Type t;
    ASSERT_TRUE(Variant::GetTypeByName(Variant::GetTypeName(i), t)) << i;
    EXPECT_EQ(i, t);
  }
  EXPECT_STREQ("TError", Variant::GetTypeName(12));
  EXPECT_STREQ("<unknown>", Variant::GetTypeName(Variant::kTypeCount));
}

TEST(MessageFormat, BufferInterfaceReturnsTheFullLength) {
  const Processor::MessageFormat& engine = Processor::MessageFormat::Instance();
  const String pattern = P(u"disk {0}");
  const Processor::Variant args[] = {Processor::Variant(Str(u"sdb"))};
  unsigned short small[5] = {1, 1, 1, 1, 1};
  EXPECT_EQ(8, engine.Format(small, 5, pattern.data(), static_cast<int32_t>(pattern.size()), args, 1));
  EXPECT_EQ(Str(u"disk "), String(small, 5));  // no room for the terminator
  unsigned short big[16];
  EXPECT_EQ(8, engine.Format(big, 16, pattern.c_str(), -1, args, 1));
  EXPECT_EQ(Str(u"disk sdb"), String(big));
  EXPECT_EQ(8, engine.Format(nullptr, 0, pattern.c_str(), -1, args, 1));
  EXPECT_EQ(0, engine.Format(big, 16, nullptr, -1, args, 1));
  EXPECT_EQ(0, big[0]);
}

TEST(MessageFormat, MalformedPatternsRenderWhatTheyCan) {
  // Deep nesting must neither overflow the stack nor lose the surrounding text.
  String deep = P(u"<");
  for (int i = 0; i < 100000; ++i) deep += Str(u"{0,choice,1#");
  deep += Str(u"x");
  for (int i = 0; i < 100000; ++i) deep.push_back('}');
  deep += Str(u">");
  EXPECT_EQ(Str(u"<x>"), FormatString(deep, 1));

  const std::u16string_view bad[] = {u"{", u"}", u"{{{{", u"}}}}", u"'", u"{'", u"{0,", u"{0,,,,,,,}", u"{,}",
                                     u"{0,choice,|||}", u"{0,choice,#}", u"{0,error,field}", u"{0,date,full",
                                     u"{0,number,integer,'}"};
  for (auto p : bad) {
    SCOPED_TRACE(Common::ToUtf8(Str(p)));
    (void)FormatString(P(p), 1, Str(u"s"));
  }
}

}  // namespace
