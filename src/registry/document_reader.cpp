#include <pugixml.hpp>

#include <cstring>
#include <string_view>

#include "core/common/decimal.h"
#include "core/common/hex_internal.h"
#include "core/common/message_ids.h"
#include "registry/document.h"
#include "registry/errors.h"
#include "registry/impl/errors.h"
#include "registry/impl/text_codec.h"

namespace Registry {
namespace {

// The first thing found wrong, with the byte offset of the node that holds it.
struct Problem {
  std::string what;
  ptrdiff_t offset = -1;
};

class Reader {
 public:
  bool ReadRoot(const pugi::xml_node& element, KeyNode& root) {
    const pugi::xml_attribute version = element.attribute("version");
    if (version && std::strcmp(version.value(), "1") != 0)
      return Fail(element, std::string("unknown version '") + version.value() + "'");
    return CheckAttributes(element, {"root", "version"}) && ReadKey(element, root, 0);
  }
  Problem problem;

 private:
  bool ReadKey(const pugi::xml_node& element, KeyNode& key, size_t depth);
  bool Fail(const pugi::xml_node& node, std::string what) {
    problem.what = std::move(what);
    problem.offset = node.offset_debug();
    return false;
  }
  bool CheckAttributes(const pugi::xml_node& element, std::initializer_list<const char*> allowed);
  bool TextOf(const pugi::xml_node& element, std::string_view& text);
  bool DecodedTextOf(const pugi::xml_node& element, String& text);
  bool ReadName(const pugi::xml_node& element, bool required, String& name);
  bool ReadValue(const pugi::xml_node& element, Value& value);
  bool ReadNumber(const pugi::xml_node& element, uint64_t max, uint64_t& number);
  bool ReadBinary(const pugi::xml_node& element, Binary& bytes);
};

bool IsBlank(std::string_view text) {
  return text.find_first_not_of(" \t\r\n") == std::string_view::npos;
}

bool IsText(const pugi::xml_node& node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

bool Reader::CheckAttributes(const pugi::xml_node& element, std::initializer_list<const char*> allowed) {
  for (const pugi::xml_attribute& attribute : element.attributes()) {
    bool known = false;
    for (const char* name : allowed) known = known || std::strcmp(attribute.name(), name) == 0;
    if (!known)
      return Fail(element, std::string("unknown attribute '") + attribute.name() + "' of <" + element.name() + ">");
  }
  return true;
}

// The text of an element that may hold nothing but text.
bool Reader::TextOf(const pugi::xml_node& element, std::string_view& text) {
  text = std::string_view();
  size_t pieces = 0;
  for (const pugi::xml_node& child : element.children()) {
    if (!IsText(child) || ++pieces > 1)
      return Fail(child, std::string("unexpected content in <") + element.name() + ">");
    text = child.value();
  }
  return true;
}

bool Reader::DecodedTextOf(const pugi::xml_node& element, String& text) {
  std::string_view raw;
  if (!TextOf(element, raw)) return false;
  if (!Detail::DecodeText(raw, text)) return Fail(element, "malformed text");
  return true;
}

bool Reader::ReadName(const pugi::xml_node& element, bool required, String& name) {
  const pugi::xml_attribute attribute = element.attribute("name");
  name.clear();
  if (!attribute) return required ? Fail(element, "a key without a name") : true;
  if (!Detail::DecodeText(attribute.value(), name)) return Fail(element, "malformed name");
  return true;
}

bool Reader::ReadNumber(const pugi::xml_node& element, uint64_t max, uint64_t& number) {
  std::string_view text;
  if (!TextOf(element, text)) return false;
  if (text.empty() || text.size() > 20 || text.find_first_not_of("0123456789") != std::string_view::npos)
    return Fail(element, "malformed number");
  uint64_t parsed = 0;
  if (!Common::ParseDecimal(text, parsed) || parsed > max) return Fail(element, "number out of range");
  number = parsed;
  return true;
}

bool Reader::ReadBinary(const pugi::xml_node& element, Binary& bytes) {
  std::string_view text;
  if (!TextOf(element, text)) return false;
  bytes.clear();
  int high = -1;
  for (char c : text) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') continue;
    const int digit = Common::HexDigitValue(static_cast<unsigned char>(c));
    if (digit < 0) return Fail(element, "malformed binary data");
    if (high < 0) {
      high = digit;
    } else {
      bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  if (high >= 0) return Fail(element, "odd number of hex digits");
  return true;
}

bool Reader::ReadValue(const pugi::xml_node& element, Value& value) {
  const std::string_view type = element.attribute("type").value();
  if (type == "string") {
    String text;
    if (!DecodedTextOf(element, text)) return false;
    value = std::move(text);
  } else if (type == "multistring") {
    MultiString strings;
    for (const pugi::xml_node& child : element.children()) {
      if (IsText(child) && IsBlank(child.value())) continue;
      if (child.type() != pugi::node_element || std::strcmp(child.name(), "string") != 0)
        return Fail(child, "unexpected content in a multistring");
      if (!CheckAttributes(child, {})) return false;
      strings.emplace_back();
      if (!DecodedTextOf(child, strings.back())) return false;
    }
    value = std::move(strings);
  } else if (type == "dword") {
    uint64_t number = 0;
    if (!ReadNumber(element, UINT32_MAX, number)) return false;
    value = static_cast<uint32_t>(number);
  } else if (type == "qword") {
    uint64_t number = 0;
    if (!ReadNumber(element, UINT64_MAX, number)) return false;
    value = number;
  } else if (type == "binary") {
    Binary bytes;
    if (!ReadBinary(element, bytes)) return false;
    value = std::move(bytes);
  } else {
    return Fail(element, "unknown value type '" + std::string(type) + "'");
  }
  return true;
}

bool Reader::ReadKey(const pugi::xml_node& element, KeyNode& key, size_t depth) {
  for (const pugi::xml_node& child : element.children()) {
    if (IsText(child) && IsBlank(child.value())) continue;
    const bool isKey = child.type() == pugi::node_element && std::strcmp(child.name(), "key") == 0;
    const bool isValue = child.type() == pugi::node_element && std::strcmp(child.name(), "value") == 0;
    if (!isKey && !isValue) return Fail(child, std::string("unexpected content in <") + element.name() + ">");
    String name;
    if (isKey) {
      if (!CheckAttributes(child, {"name"}) || !ReadName(child, true, name)) return false;
      if (name.empty() || name.find('\\') != String::npos) return Fail(child, "invalid key name");
      if (depth >= kMaxKeyDepth) return Fail(child, "keys nested too deep");
      auto sub = std::make_unique<KeyNode>();
      if (!ReadKey(child, *sub, depth + 1)) return false;
      if (!key.children.emplace(std::move(name), std::move(sub)).second) return Fail(child, "duplicate key name");
    } else {
      if (!CheckAttributes(child, {"name", "type"}) || !ReadName(child, false, name)) return false;
      Value value;
      if (!ReadValue(child, value)) return false;
      if (!key.values.emplace(std::move(name), std::move(value)).second)
        return Fail(child, "duplicate value name");
    }
  }
  return true;
}

Common::Error Corrupt(const std::string& path, const Problem& problem) {
  std::string detail = problem.what;
  if (problem.offset >= 0) detail += " at byte " + std::to_string(problem.offset);
  return Detail::FileError(kErrorFileCorrupt, Messages::RegistryFileCorrupt, path, AS_HERE)
      .WithCause(Common::Error(kErrorFileFormat, detail.c_str(), AS_HERE));
}

}  // namespace

Common::Error ParseRegistryDocument(const char* data, size_t size, const std::string& path, KeyNode& root) {
  pugi::xml_document document;
  const pugi::xml_parse_result parsed =
      document.load_buffer(data, size, pugi::parse_default | pugi::parse_ws_pcdata_single, pugi::encoding_utf8);
  if (!parsed) return Corrupt(path, Problem{parsed.description(), parsed.offset});

  Reader reader;
  pugi::xml_node top;
  for (const pugi::xml_node& child : document.children()) {
    if (IsText(child) && IsBlank(child.value())) continue;
    if (child.type() != pugi::node_element || std::strcmp(child.name(), "registry") != 0 || top)
      return Corrupt(path, Problem{"not a registry document", child.offset_debug()});
    top = child;
  }
  if (!top) return Corrupt(path, Problem{"no <registry> element", -1});

  KeyNode tree;
  if (!reader.ReadRoot(top, tree)) return Corrupt(path, reader.problem);
  root = std::move(tree);
  return Common::Error();
}

}  // namespace Registry
