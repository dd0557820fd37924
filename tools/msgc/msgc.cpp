// Compiles a message catalogue ("Name = text" lines, UTF-8) into
//   header: the message numbers, one TextFromMessageFile constant per message;
//   source: the built-in message-text block as a C++ array;
//   binary: a message file of another language, numbered like the reference catalogue.
//
// Block layout (all words little-endian, 32-bit):
//   [total size][magic 1636][message count][one entry per message][UTF-16 texts]
// Each entry holds the distance in bytes from the entry itself to its NUL-terminated text.
#include <unicode/ustring.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace {

struct Message {
  std::string name;
  std::string text;
};

[[noreturn]] void Fail(const std::string& what) {
  std::cerr << "msgc: " << what << "\n";
  std::exit(1);
}

std::string Unescape(const std::string& s, const std::string& where) {
  std::string out;
  for (size_t i = 0; i < s.size(); ++i) {
    if (s[i] != '\\') {
      out += s[i];
      continue;
    }
    if (++i == s.size()) Fail(where + ": trailing backslash");
    switch (s[i]) {
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case '\\': out += '\\'; break;
      default: Fail(where + ": unknown escape");
    }
  }
  return out;
}

std::vector<Message> ReadCatalogue(const std::string& path) {
  std::ifstream in(path);
  if (!in) Fail("cannot open " + path);
  std::vector<Message> messages;
  std::map<std::string, int> seen;
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::string where = path + ":" + std::to_string(number);
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos || line[first] == '#') continue;
    const size_t eq = line.find(" = ");
    if (eq == std::string::npos) Fail(where + ": expected 'Name = text'");
    Message m{line.substr(first, eq - first), Unescape(line.substr(eq + 3), where)};
    for (char c : m.name)
      if (!isalnum(static_cast<unsigned char>(c)) && c != '_') Fail(where + ": bad name");
    if (!seen.emplace(m.name, number).second) Fail(where + ": duplicate " + m.name);
    messages.push_back(m);
  }
  return messages;
}

std::u16string ToUtf16(const std::string& s) {
  std::u16string out(s.size() + 1, u'\0');
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8WithSub(out.data(), static_cast<int32_t>(out.size()), &length, s.data(),
                       static_cast<int32_t>(s.size()), 0xFFFD, nullptr, &status);
  if (U_FAILURE(status)) Fail("bad UTF-8 in: " + s);
  out.resize(static_cast<size_t>(length));
  return out;
}

void Put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

std::vector<uint8_t> BuildBlock(const std::vector<std::string>& texts) {
  const size_t header = 12, table = 4 * texts.size();
  std::vector<uint8_t> block(header + table);
  for (size_t i = 0; i < texts.size(); ++i) {
    const std::u16string t = ToUtf16(texts[i]);
    const size_t entry = header + 4 * i;
    Put32(block, entry, static_cast<uint32_t>(block.size() - entry));
    for (char16_t c : t) {
      block.push_back(static_cast<uint8_t>(c & 0xFF));
      block.push_back(static_cast<uint8_t>(c >> 8));
    }
    block.push_back(0);
    block.push_back(0);
  }
  while (block.size() % 4) block.push_back(0);
  Put32(block, 0, static_cast<uint32_t>(block.size()));
  Put32(block, 4, 1636);
  Put32(block, 8, static_cast<uint32_t>(texts.size()));
  return block;
}

void WriteFile(const std::string& path, const std::string& content) {
  std::ofstream out(path, std::ios::binary);
  out << content;
  if (!out.flush()) Fail("cannot write " + path);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 4) Fail("usage: msgc header|source|binary CATALOGUE OUTPUT [REFERENCE]");
  const std::string mode = argv[1];
  const std::vector<Message> messages = ReadCatalogue(argv[2]);
  std::ostringstream out;
  if (mode == "header") {
    out << "// Generated from the message catalogue; do not edit.\n#pragma once\n"
           "#include \"core/common/message_text.h\"\n\nnamespace Messages {\n";
    for (size_t i = 0; i < messages.size(); ++i)
      out << "inline constexpr TextFromMessageFile " << messages[i].name << "{" << i << "};\n";
    out << "inline constexpr unsigned Count = " << messages.size() << ";\n}  // namespace Messages\n";
  } else if (mode == "source") {
    std::vector<std::string> texts;
    for (const Message& m : messages) texts.push_back(m.text);
    const std::vector<uint8_t> block = BuildBlock(texts);
    out << "// Generated from the message catalogue; do not edit.\n#include <cstdint>\n\n"
           "namespace Common::Detail {\nalignas(8) extern const uint8_t kDefaultMessageBlock[];\n"
           "alignas(8) const uint8_t kDefaultMessageBlock["
        << block.size() << "] = {";
    for (size_t i = 0; i < block.size(); ++i) out << (i % 16 ? " " : "\n  ") << int(block[i]) << ",";
    out << "\n};\n}  // namespace Common::Detail\n";
  } else if (mode == "binary") {
    if (argc < 5) Fail("binary needs the reference catalogue");
    const std::vector<Message> reference = ReadCatalogue(argv[4]);
    std::map<std::string, std::string> translated;
    for (const Message& m : messages) translated[m.name] = m.text;
    std::vector<std::string> texts;
    for (const Message& m : reference) {
      auto it = translated.find(m.name);
      texts.push_back(it != translated.end() ? it->second : m.text);
      if (it != translated.end()) translated.erase(it);
    }
    if (!translated.empty()) Fail(std::string(argv[2]) + ": unknown message " + translated.begin()->first);
    const std::vector<uint8_t> block = BuildBlock(texts);
    WriteFile(argv[3], std::string(block.begin(), block.end()));
    return 0;
  } else {
    Fail("unknown mode " + mode);
  }
  WriteFile(argv[3], out.str());
  return 0;
}
