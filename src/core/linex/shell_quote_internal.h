#pragma once
// Quoting for the command lines that the library builds from texts it did not write
// (device names, labels, directory names): such a text reaches the tool as data,
// while an ordinary text leaves the command line exactly as it was.
#include <string>

namespace Shell {

// One shell word: unchanged when made of plain characters, else in single quotes.
inline std::string Word(const std::string& text) {
  static const char kPlain[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789/._-+:@%,=";
  if (!text.empty() && text.find_first_not_of(kPlain) == std::string::npos) return text;
  std::string quoted = "'";
  for (const char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

// The body of a double-quoted word: the four characters that the shell still
// interprets there are escaped.
inline std::string InDoubleQuotes(const std::string& text) {
  std::string escaped;
  for (const char c : text) {
    if (c == '"' || c == '\\' || c == '$' || c == '`') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

}  // namespace Shell
