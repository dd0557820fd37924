#include "registry/document.h"

#include <gtest/gtest.h>

#include "core/common/unicode.h"
#include "registry/errors.h"
#include "registry/impl/text_codec.h"

namespace {

using Common::Str;
using Registry::Detail::DecodeText;
using Registry::Detail::EncodeText;
using Registry::KeyNode;

Common::Error Parse(const std::string& text, KeyNode& root) {
  return Registry::ParseRegistryDocument(text.data(), text.size(), "/etc/Zemlora/T.xml", root);
}

KeyNode& Child(KeyNode& node, const String& name) {
  auto& slot = node.children[name];
  if (!slot) slot = std::make_unique<KeyNode>();
  return *slot;
}

// Every value type and name survives a round trip; hand-written variants are read.
TEST(RegistryDocument, ReadsWhatItWritesAndWhatHandsWrite) {
  KeyNode root;
  const String hostileKey = String{'<', '&', 0, '\t', 0xD800, 0xFFFF, '"', ' '} + Str(u"\U0001F600]]>");
  const String hostile = hostileKey + Str(u"\\");
  KeyNode& key = Child(Child(root, hostileKey), Str(u" "));
  key.values[String()] = String();
  key.values[hostile] = hostile;
  key.values[Str(u"empty list")] = Registry::MultiString{};
  key.values[Str(u"list")] = Registry::MultiString{String(), Str(u"  "), hostile};
  key.values[Str(u"max32")] = uint32_t{0xFFFFFFFF};
  key.values[Str(u"max64")] = uint64_t{0xFFFFFFFFFFFFFFFF};
  key.values[Str(u"zero64")] = uint64_t{0};
  key.values[Str(u"no bytes")] = Registry::Binary{};
  Child(root, Str(u"other"));
  const std::string text = Registry::SerializeRegistryDocument(root, Str(u"HKEY_USERS"));
  KeyNode read;
  ASSERT_FALSE(Parse(text, read)) << text;
  ASSERT_EQ(read.children.size(), 2u);
  EXPECT_EQ(read.children.at(hostileKey)->children.at(Str(u" "))->values, key.values);

  ASSERT_FALSE(Parse("<registry/>", read));
  ASSERT_FALSE(Parse("\xEF\xBB\xBF<?xml version='1.0'?><!-- edited --><registry>"
                     "<key name='k'><value name='b' type='binary'>0A bC\n 0d Ff</value>"
                     "<value type='string'><![CDATA[<raw>]]></value></key></registry>",
                     read));
  const KeyNode& hand = *read.children.at(Str(u"k"));
  EXPECT_EQ(std::get<Registry::Binary>(hand.values.at(Str(u"b"))), (Registry::Binary{0x0A, 0xBC, 0x0D, 0xFF}));
  EXPECT_EQ(std::get<String>(hand.values.at(String())), Str(u"<raw>"));
}

TEST(RegistryDocument, RefusesWhatALaterWriteWouldLose) {
  std::string deep;
  for (size_t i = 0; i <= Registry::kMaxKeyDepth; ++i) deep = "<key name='k'>" + deep + "</key>";
  const std::pair<const char*, std::string> cases[] = {
      {"empty file", ""}, {"truncated", "<registry><key name='a'>"},
      {"other root element", "<config/>"}, {"two roots", "<registry/><registry/>"},
      {"newer version", "<registry version='2'/>"}, {"unknown element", "<registry><group/></registry>"},
      {"unknown attribute", "<registry><key name='a' hidden='1'/></registry>"},
      {"stray text", "<registry>text<key name='a'/></registry>"},
      {"key without name", "<registry><key/></registry>"}, {"empty key name", "<registry><key name=''/></registry>"},
      {"backslash in key name", "<registry><key name='a\\\\b'/></registry>"},
      {"duplicate key", "<registry><key name='a'/><key name='a'/></registry>"},
      {"duplicate value", "<registry><value type='dword'>1</value><value name='' type='dword'>2</value></registry>"},
      {"value without type", "<registry><value name='a'>1</value></registry>"},
      {"dword too big", "<registry><value type='dword'>4294967296</value></registry>"},
      {"qword too big", "<registry><value type='qword'>18446744073709551616</value></registry>"},
      {"negative number", "<registry><value type='dword'>-1</value></registry>"},
      {"empty number", "<registry><value type='qword'/></registry>"},
      {"odd hex digits", "<registry><value type='binary'>abc</value></registry>"},
      {"not hex", "<registry><value type='binary'>zz</value></registry>"},
      {"text split by a comment", "<registry><value type='string'>a<!--x-->b</value></registry>"},
      {"element inside a string", "<registry><value type='string'><b/></value></registry>"},
      {"text inside a multistring", "<registry><value type='multistring'>a</value></registry>"},
      {"other element in a multistring", "<registry><value type='multistring'><item>a</item></value></registry>"},
      {"bad escape", "<registry><value type='string'>\\q</value></registry>"},
      {"invalid UTF-8", "<registry><key name='\xC3'/></registry>"}, {"too deep", "<registry>" + deep + "</registry>"},
  };
  for (const auto& [name, text] : cases) {
    SCOPED_TRACE(name);
    KeyNode root;
    Child(root, Str(u"untouched"));
    const Common::Error error = Parse(text, root);
    ASSERT_EQ(error.GetCode(), Registry::kErrorFileCorrupt);
    EXPECT_STREQ(error.GetStringField("path"), "/etc/Zemlora/T.xml");
    EXPECT_EQ(error.GetCause().GetCode(), Registry::kErrorFileFormat);
    EXPECT_EQ(root.children.count(Str(u"untouched")), 1u);
  }
  KeyNode root;  // as deep as a key path may go is read
  EXPECT_FALSE(Parse("<registry>" + deep.substr(14, deep.size() - 20) + "</registry>", root));
}

// Text both ways (hex digits in either case); malformed text is refused and leaves the output alone.
TEST(RegistryTextCodec, EscapesWhatXmlCannotHoldAndRefusesMalformedText) {
  const struct { String text; std::string encoded; } cases[] = {
      {String{'a', '\\', 'b'}, "a\\\\b"},
      {String{0x00, 0x1F, 0x20, '\n'}, "\\u0000\\u001F \\u000A"},
      {String{0xFFFD, 0xFFFE, 0xFFFF}, "\xEF\xBF\xBD\\uFFFE\\uFFFF"},
      {String{0xD7FF, 0xD800, 'x', 0xDBFF}, "\xED\x9F\xBF\\uD800x\\uDBFF"},  // lone high surrogates
      {String{0xDC00, 0xDFFF, 0xE000}, "\\uDC00\\uDFFF\xEE\x80\x80"},          // lone low surrogates
      {String{0xDBFF, 0xDFFF}, "\xF4\x8F\xBF\xBF"},                            // a pair
      {String{0xDC00, 0xD800}, "\\uDC00\\uD800"},                              // a pair the wrong way round
      {Str(u"<&\"'>"), "<&\"'>"},
  };
  String decoded;
  for (const auto& c : cases) {
    SCOPED_TRACE(c.encoded);
    EXPECT_EQ(c.encoded, EncodeText(c.text));
    ASSERT_TRUE(DecodeText(c.encoded, decoded));
    EXPECT_EQ(c.text, decoded);
  }
  ASSERT_TRUE(DecodeText("\\u00e9\\u00AF\\ufeFf", decoded));
  EXPECT_EQ((String{0xE9, 0xAF, 0xFEFF}), decoded);
  for (const char* text : {"\\", "a\\x", "\\u12", "\\u12G4", "\\u12g4", "\\u/000", "\\u:000", "\\u@000", "\\u`000",
                           "\\U0041", "\xC0\xAF" /* overlong "/" */, "\xED\xA0\x80" /* an encoded surrogate */, "\xFF",
                           "abc\xE2\x82"}) {
    SCOPED_TRACE(text);
    EXPECT_FALSE(DecodeText(text, decoded));
    EXPECT_EQ((String{0xE9, 0xAF, 0xFEFF}), decoded);
  }
}

}  // namespace
