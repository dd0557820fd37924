// Compiles the gettext message catalogues of the library:
//   header TEMPLATE OUT        the message numbers, one TextFromMessageFile constant per message;
//   source TEMPLATE OUT        the built-in (English) message-text block as a C++ array;
//   binary CATALOGUE OUT TEMPLATE
//                              a message file of another language, numbered like the template;
//   check TEMPLATE CATALOGUE... every message translated, placeholders alike in both.
//
// The template (.pot) and the catalogues (.po) are ordinary PO files: msgctxt holds the
// message's name, which keeps its number stable, msgid the English text, msgstr the
// translation. A fuzzy, empty or stale (msgid no longer the template's) translation is
// not used: that message keeps its English text.
//
// Block layout (all words little-endian, 32-bit):
//   [total size][magic 1636][message count][one entry per message][UTF-16 texts]
// Each entry holds the distance in bytes from the entry itself to its NUL-terminated text.
#include <unicode/ustring.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <fstream>
#include <iostream>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "processor/format/pattern_grammar.h"

namespace {

struct Message {
  std::string name;  // msgctxt
  std::string text;  // msgid
  std::string translation;
  bool fuzzy = false;
  std::string where;
};

[[noreturn]] void Fail(const std::string& what) {
  std::cerr << "msgc: " << what << "\n";
  std::exit(1);
}

// The body of a quoted PO string: "..." with C escapes.
std::string Unquote(const std::string& s, const std::string& where) {
  if (s.size() < 2 || s.front() != '"' || s.back() != '"') Fail(where + ": expected a quoted string");
  std::string out;
  for (size_t i = 1; i + 1 < s.size(); ++i) {
    if (s[i] == '"') Fail(where + ": unescaped quotation mark");
    if (s[i] != '\\') {
      out += s[i];
      continue;
    }
    if (++i + 1 == s.size()) Fail(where + ": trailing backslash");
    switch (s[i]) {
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case '\\': out += '\\'; break;
      case '"': out += '"'; break;
      default: Fail(where + ": unknown escape");
    }
  }
  return out;
}

std::vector<Message> ReadCatalogue(const std::string& path) {
  std::ifstream in(path);
  if (!in) Fail("cannot open " + path);
  std::vector<Message> messages;
  Message m;
  std::string* field = nullptr;  // the keyword whose string continues on the next lines
  std::string keyword;
  bool fuzzy = false, header = false;
  const auto finish = [&] {
    if (keyword.empty()) return;
    if (m.text.empty()) {  // the header entry
      if (header) Fail(m.where + ": a second entry without msgid");
      if (m.translation.find("charset=UTF-8") == std::string::npos) Fail(m.where + ": the header must say charset=UTF-8");
      header = true;
    } else {
      if (m.name.empty()) Fail(m.where + ": no msgctxt (the message's name)");
      for (char c : m.name)
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_') Fail(m.where + ": bad name " + m.name);
      for (const Message& other : messages)
        if (other.name == m.name) Fail(m.where + ": duplicate " + m.name);
      m.fuzzy = fuzzy;
      messages.push_back(m);
    }
    m = Message{};
    keyword.clear();
    field = nullptr;
    fuzzy = false;
  };
  std::string line;
  for (int number = 1; std::getline(in, line); ++number) {
    const std::string where = path + ":" + std::to_string(number);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    const size_t first = line.find_first_not_of(" \t");
    if (first == std::string::npos) continue;
    line.erase(0, first);
    if (line[0] == '#') {
      if (line.rfind("#~", 0) == 0) continue;  // obsolete entry
      if (keyword == "msgstr") finish();
      if (line.rfind("#,", 0) == 0 && line.find("fuzzy") != std::string::npos) fuzzy = true;
      continue;
    }
    if (line[0] == '"') {
      if (field == nullptr) Fail(where + ": a string outside an entry");
      *field += Unquote(line, where);
      continue;
    }
    const size_t space = line.find(' ');
    const std::string word = line.substr(0, space);
    if (space == std::string::npos) Fail(where + ": expected a keyword and a string");
    if (word == "msgctxt" || (word == "msgid" && keyword != "msgctxt")) finish();
    if (m.where.empty()) m.where = where;
    if (word == "msgctxt" && keyword.empty())
      field = &m.name;
    else if (word == "msgid" && (keyword.empty() || keyword == "msgctxt"))
      field = &m.text;
    else if (word == "msgstr" && keyword == "msgid")
      field = &m.translation;
    else
      Fail(where + ": unexpected " + word + " (plural forms are not used)");
    keyword = word;
    *field = Unquote(line.substr(line.find_first_not_of(' ', space)), where);
  }
  finish();
  if (!header) Fail(path + ": no header entry");
  return messages;
}

std::u16string ToUtf16(const std::string& s) {
  std::u16string out(s.size() + 1, u'\0');
  int32_t length = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(out.data(), static_cast<int32_t>(out.size()), &length, s.data(), static_cast<int32_t>(s.size()),
                &status);
  if (U_FAILURE(status)) Fail("bad UTF-8 in: " + s);
  out.resize(static_cast<size_t>(length));
  return out;
}

// The placeholders of a pattern, each as "argument,type,style" with blanks trimmed. A
// choice or concord style holds texts of the language: only the placeholders nested
// in it count.
std::multiset<std::u16string> Placeholders(std::u16string_view pattern) {
  struct Collector {
    std::u16string_view pattern;
    std::multiset<std::u16string> found;
    std::vector<size_t> cuts;  // where the outermost placeholder's segments begin
    size_t depth = 0;

    void Text(size_t, size_t, size_t) {}
    void Quote(size_t) {}
    void Open(size_t at) {
      if (depth++ == 0) cuts.assign(1, at + 1);
    }
    void Comma(size_t at) {
      if (depth == 1) cuts.push_back(at + 1);
    }
    void Close(size_t at) {
      if (--depth > 0) return;
      cuts.push_back(at + 1);
      std::vector<std::u16string> segments;
      for (size_t k = 0; k + 1 < cuts.size(); ++k) {
        std::u16string s(pattern.substr(cuts[k], cuts[k + 1] - 1 - cuts[k]));
        s.erase(0, s.find_first_not_of(u' '));
        s.erase(s.find_last_not_of(u' ') + 1);
        segments.push_back(s);
      }
      std::u16string signature = segments[0] + u"," + (segments.size() > 1 ? segments[1] : u"");
      std::u16string style;
      for (size_t k = 2; k < segments.size(); ++k) style += (k > 2 ? u"," : u"") + segments[k];
      if (segments.size() > 1 && (segments[1] == u"choice" || segments[1] == u"concord")) {
        for (const std::u16string& nested : Placeholders(style)) signature += u",{" + nested + u"}";
      } else {
        signature += u"," + style;
      }
      found.insert(signature);
    }
  } collector{pattern, {}, {}};
  const Processor::PatternEnd end = Processor::ScanPattern(pattern.data(), pattern.size(), collector);
  if (end.depth != 0 || end.quoted) collector.found.insert(u"(unbalanced)");
  return collector.found;
}

struct Problem {
  std::string text;
  bool wrong;  // placeholders unlike the English: never to be shipped
};

// The texts of the template's messages in `catalogue`'s language; what keeps a message
// English (missing, untranslated, fuzzy, stale, wrong placeholders) is added to `problems`.
std::vector<std::string> Translate(const std::vector<Message>& reference, const std::vector<Message>& catalogue,
                                   std::vector<Problem>& problems) {
  std::map<std::string, const Message*> byName;
  for (const Message& m : catalogue) byName[m.name] = &m;
  std::vector<std::string> texts;
  for (const Message& r : reference) {
    auto it = byName.find(r.name);
    const Message* m = it == byName.end() ? nullptr : it->second;
    if (m != nullptr) byName.erase(it);
    const char* why = m == nullptr                ? "missing"
                      : m->translation.empty()    ? "not translated"
                      : m->fuzzy                  ? "fuzzy"
                      : m->text != r.text         ? "stale: its msgid is not the template's"
                                                  : nullptr;
    const bool wrong = why == nullptr && Placeholders(ToUtf16(m->translation)) != Placeholders(ToUtf16(r.text));
    if (wrong) why = "the placeholders differ from the English ones";
    if (why != nullptr) problems.push_back({(m ? m->where + ": " : "") + r.name + ": " + why, wrong});
    texts.push_back(why == nullptr ? m->translation : r.text);
  }
  if (!byName.empty()) Fail(byName.begin()->second->where + ": unknown message " + byName.begin()->first);
  return texts;
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
  if (argc < 4) Fail("usage: msgc header|source|binary|check ...");
  const std::string mode = argv[1];
  if (mode == "check") {
    const std::vector<Message> reference = ReadCatalogue(argv[2]);
    std::vector<Problem> problems;
    for (int i = 3; i < argc; ++i) Translate(reference, ReadCatalogue(argv[i]), problems);
    for (const Problem& p : problems) std::cerr << "msgc: " << p.text << "\n";
    return problems.empty() ? 0 : 1;
  }
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
  } else if (mode == "binary" && argc >= 5) {
    std::vector<Problem> untranslated;  // they keep the English text
    const std::vector<uint8_t> block = BuildBlock(Translate(ReadCatalogue(argv[4]), messages, untranslated));
    for (const Problem& p : untranslated)
      if (p.wrong) Fail(p.text);
    WriteFile(argv[3], std::string(block.begin(), block.end()));
    return 0;
  } else {
    Fail("unknown mode or missing arguments: " + mode);
  }
  WriteFile(argv[3], out.str());
  return 0;
}
