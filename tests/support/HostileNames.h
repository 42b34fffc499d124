#ifndef TESTS_SUPPORT_HOSTILE_NAMES_H
#define TESTS_SUPPORT_HOSTILE_NAMES_H

#include <string>
#include <vector>

namespace korvex::test {

/// Valid queue names that try to leave a folder, to hide, to pass for something else, or to break
/// the format they are written into. Each may also start or end a name.
inline const std::vector<std::string>& hostileNames() {
  static const std::vector<std::string> names = {
      // Folders, and what programs take for folders.
      "..a", "...", "....", ".hidden", ".partial", "a..", "..%2f", "%2e%2e", "%2e%2e%2f", "%252e",
      "..\\", "\\..\\..", "a\\b", "..;", "..:", "~", "~root", "C:", "\xc0\xae\xc0\xae", "\xc0\xaf",
      "\xe0\x80\xaf", "\xef\xbc\x8f", "\xe2\x88\x95",
      // Our own names.
      "manifest.json", "data", "stats.json", ".tmp", ".json.tmp", ".korvexd-1-2-3", "Response",
      "-20010909T014640Z-1", ".batch", ".room",
      // Percent signs and formats.
      "%", "%%", "%2F", "%00", "%n", "%s%s%s", "{}", "{0}",
      // Shells and options.
      "$HOME", "`id`", "$(id)", "a;b", "a|b", "a&b", "*", "?", "[a]", "{a,b}", "'", "\"", "a<b>c",
      "-", "--", "--output", "-rf", "#", "!", "=", "+", "@", ",",
      // Blanks and control characters.
      " ", "  a", "a ", "a b", "\t", "\n", "\r", "\r\n", "a\nb", "\v", "\f", "\b", "\x01", "\x1f",
      "\x7f", "\x1b[2J", "\x1b]0;t\x07", "\xc2\x85", "\xc2\x80",
      // Texts in other alphabets, well formed and not.
      "\xc3\xa4", "a\xcc\x88",
      "\xe2\x80\xae"
      "txt",
      "\xe2\x80\x8b", "\xef\xbb\xbf", "\xf0\x9f\x92\xbe", "\xff", "\xff\xfe", "\xfe\xff", "\x80",
      "\xc3", "\xe2\x82", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80",
      // JSON.
      "\":{}", "\\", "\\u0000", "\\\"", "null", "},{",
      // Devices of other systems.
      "nul", "con", "a:b"};
  return names;
}

}  // namespace korvex::test

#endif
