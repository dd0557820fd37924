#include <pugixml.hpp>

#include "registry/document.h"
#include "registry/impl/text_codec.h"

namespace Registry {
namespace {

class StringWriter : public pugi::xml_writer {
 public:
  explicit StringWriter(std::string& out) : out_(out) {}
  void write(const void* data, size_t size) override { out_.append(static_cast<const char*>(data), size); }

 private:
  std::string& out_;
};

const char* TypeName(ValueType type) {
  switch (type) {
    case ValueType::kString: return "string";
    case ValueType::kMultiString: return "multistring";
    case ValueType::kDword: return "dword";
    case ValueType::kQword: return "qword";
    case ValueType::kBinary: return "binary";
  }
  return "";
}

std::string Hex(const Binary& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (uint8_t byte : bytes) {
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 0xF]);
  }
  return text;
}

void SetText(pugi::xml_node element, const std::string& text) {
  if (!text.empty()) element.append_child(pugi::node_pcdata).set_value(text.c_str());
}

void WriteValue(pugi::xml_node element, const Value& value) {
  switch (TypeOf(value)) {
    case ValueType::kString:
      SetText(element, Detail::EncodeText(std::get<String>(value)));
      break;
    case ValueType::kMultiString:
      for (const String& text : std::get<MultiString>(value))
        SetText(element.append_child("string"), Detail::EncodeText(text));
      break;
    case ValueType::kDword:
      SetText(element, std::to_string(std::get<uint32_t>(value)));
      break;
    case ValueType::kQword:
      SetText(element, std::to_string(std::get<uint64_t>(value)));
      break;
    case ValueType::kBinary:
      SetText(element, Hex(std::get<Binary>(value)));
      break;
  }
}

void WriteKey(pugi::xml_node element, const KeyNode& key) {
  for (const auto& [name, value] : key.values) {
    pugi::xml_node child = element.append_child("value");
    if (!name.empty()) child.append_attribute("name").set_value(Detail::EncodeText(name).c_str());
    child.append_attribute("type").set_value(TypeName(TypeOf(value)));
    WriteValue(child, value);
  }
  for (const auto& [name, sub] : key.children) {
    pugi::xml_node child = element.append_child("key");
    child.append_attribute("name").set_value(Detail::EncodeText(name).c_str());
    WriteKey(child, *sub);
  }
}

}  // namespace

std::string SerializeRegistryDocument(const KeyNode& root, const String& rootName) {
  pugi::xml_document document;
  pugi::xml_node declaration = document.append_child(pugi::node_declaration);
  declaration.append_attribute("version").set_value("1.0");
  declaration.append_attribute("encoding").set_value("UTF-8");
  pugi::xml_node top = document.append_child("registry");
  top.append_attribute("root").set_value(Detail::EncodeText(rootName).c_str());
  top.append_attribute("version").set_value("1");
  WriteKey(top, root);

  std::string out;
  StringWriter writer(out);
  document.save(writer, "  ", pugi::format_indent, pugi::encoding_utf8);
  return out;
}

}  // namespace Registry
