#include "property/Script.h"

#include <algorithm>
#include <istream>
#include <ostream>
#include <stdexcept>

namespace korvex::test {
namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

[[noreturn]] void refuse(const std::string& what, const std::string& found) {
  throw std::invalid_argument(what + ", found '" + found + "'");
}

std::size_t indexOf(const Verb& verb, const std::string& name) {
  for (std::size_t i = 0; i < verb.parameters.size(); ++i) {
    if (verb.parameters[i].name == name) return i;
  }
  refuse(std::string("expected a parameter of ") + verb.name, name);
}

bool isPlain(char letter) {
  return letter >= ' ' && letter <= '~' && letter != '"' && letter != '\\';
}

std::string quoted(const std::string& text) {
  std::string line = "\"";
  for (const char letter : text) {
    const auto byte = static_cast<unsigned char>(letter);
    line += isPlain(letter) ? std::string(1, letter)
                            : std::string("\\x") + kHexDigits[byte >> 4] + kHexDigits[byte & 15];
  }
  return line + '"';
}

int hexValue(char digit) {
  const char* const end = kHexDigits + 16;
  const char* const found = std::find(kHexDigits, end, digit);
  if (found == end) refuse("expected a hexadecimal digit", std::string(1, digit));
  return static_cast<int>(found - kHexDigits);
}

std::string unquoted(const std::string& line) {
  if (line.size() < 2 || line.front() != '"' || line.back() != '"') {
    refuse("expected a text in double quotes", line);
  }
  std::string text;
  for (std::size_t i = 1; i + 1 < line.size(); ++i) {
    if (line[i] != '\\') {
      text += line[i];
    } else if (i + 4 < line.size() && line[i + 1] == 'x') {
      text += static_cast<char>(hexValue(line[i + 2]) * 16 + hexValue(line[i + 3]));
      i += 3;
    } else {
      refuse("expected \\xNN", line.substr(i));
    }
  }
  return text;
}

std::uint64_t numberIn(const std::string& digits) {
  std::size_t used = 0;
  try {
    if (!digits.empty() && digits[0] != '-') {
      const std::uint64_t value = std::stoull(digits, &used);
      if (used == digits.size()) return value;
    }
  } catch (const std::exception&) {
    // Told below, with the other ways to be no number.
  }
  refuse("expected an unsigned 64-bit number", digits);
}

/// Takes the first word off the line.
std::string takeWord(std::string& line) {
  line.erase(0, std::min(line.find_first_not_of(' '), line.size()));
  const std::size_t end = std::min(line.find(' '), line.size());
  const std::string word = line.substr(0, end);
  line.erase(0, end);
  return word;
}

void parseArgument(Operation& operation, const std::string& word) {
  const std::size_t sign = word.find('=');
  if (sign == std::string::npos) refuse("expected name=value", word);
  operation.set(word.substr(0, sign), numberIn(word.substr(sign + 1)));
}

Operation parseOperation(const Language& language, std::string line) {
  const std::string kText = "text=";
  Operation operation(language.verb(takeWord(line)));
  while (line.find_first_not_of(' ') != std::string::npos) {
    line.erase(0, line.find_first_not_of(' '));
    if (operation.verb->hasText && line.compare(0, kText.size(), kText) == 0) {
      operation.text = unquoted(line.substr(kText.size()));
      return operation;
    }
    parseArgument(operation, takeWord(line));
  }
  return operation;
}

const Language& parseLanguage(std::string line, const std::vector<const Language*>& languages) {
  const std::string whole = line;
  if (takeWord(line) == "language") {
    const std::string name = takeWord(line);
    for (const Language* language : languages) {
      if (language->name == name) return *language;
    }
  }
  refuse("expected 'language' and one that is known", whole);
}

void addShorter(const Script& script, std::vector<Script>& simpler) {
  const std::size_t length = script.operations.size();
  for (std::size_t run = length; run > 0; run /= 2) {
    for (std::size_t start = 0; start + run <= length; start += run) {
      Script shorter = script;
      const auto first = shorter.operations.begin() + static_cast<std::ptrdiff_t>(start);
      shorter.operations.erase(first, first + static_cast<std::ptrdiff_t>(run));
      simpler.push_back(shorter);
    }
  }
}

/// Values between `value` and the usual one, the usual one first.
std::vector<std::uint64_t> nearer(std::uint64_t value, std::uint64_t usual) {
  std::vector<std::uint64_t> values;
  for (std::uint64_t rest = value - usual; value > usual && rest > 0; rest /= 2) {
    values.push_back(value - rest);
  }
  for (std::uint64_t rest = usual - value; value < usual && rest > 0; rest /= 2) {
    values.push_back(value + rest);
  }
  return values;
}

void addNearer(const Script& script, std::size_t index, std::vector<Script>& simpler) {
  const Operation& operation = script.operations[index];
  for (std::size_t i = 0; i < operation.arguments.size(); ++i) {
    for (const std::uint64_t value :
         nearer(operation.arguments[i], operation.verb->parameters[i].usual)) {
      simpler.push_back(script);
      simpler.back().operations[index].arguments[i] = value;
    }
  }
  for (std::size_t cut = operation.text.size(); cut > 0; cut /= 2) {
    simpler.push_back(script);
    simpler.back().operations[index].text.resize(operation.text.size() - cut);
  }
}

}  // namespace

const Verb& Language::verb(const std::string& word) const {
  for (const Verb& known : verbs) {
    if (known.name == word) return known;
  }
  refuse(std::string("expected a verb of the language '") + name + "'", word);
}

Operation::Operation(const Verb& itsVerb) : verb(&itsVerb) {
  for (const Parameter& parameter : itsVerb.parameters) arguments.push_back(parameter.usual);
}

std::uint64_t Operation::operator[](const std::string& name) const {
  return arguments[indexOf(*verb, name)];
}

Operation& Operation::set(const std::string& name, std::uint64_t value) {
  arguments[indexOf(*verb, name)] = value;
  return *this;
}

Operation& Operation::say(const std::string& words) {
  text = words;
  return *this;
}

Operation& Script::add(const std::string& word) {
  operations.emplace_back(language->verb(word));
  return operations.back();
}

std::ostream& operator<<(std::ostream& stream, const Operation& operation) {
  stream << operation.verb->name;
  for (std::size_t i = 0; i < operation.arguments.size(); ++i) {
    const Parameter& parameter = operation.verb->parameters[i];
    if (operation.arguments[i] == parameter.usual) continue;
    stream << ' ' << parameter.name << '=' << std::to_string(operation.arguments[i]);
  }
  if (!operation.text.empty()) stream << " text=" << quoted(operation.text);
  return stream;
}

std::ostream& operator<<(std::ostream& stream, const Script& script) {
  stream << "language " << script.language->name << '\n';
  for (const Operation& operation : script.operations) stream << operation << '\n';
  return stream;
}

Script parseScript(std::istream& stream, const std::vector<const Language*>& languages) {
  Script script{nullptr, {}};
  std::string line;
  for (int number = 1; std::getline(stream, line); ++number) {
    if (line.empty() || line[0] == '#') continue;
    try {
      if (script.language == nullptr) {
        script.language = &parseLanguage(line, languages);
      } else {
        script.operations.push_back(parseOperation(*script.language, line));
      }
    } catch (const std::invalid_argument& error) {
      throw std::invalid_argument("line " + std::to_string(number) + ": " + error.what());
    }
  }
  if (script.language == nullptr) refuse("expected a script", "nothing");
  return script;
}

std::vector<Script> simplerScripts(const Script& script) {
  std::vector<Script> simpler;
  addShorter(script, simpler);
  for (std::size_t i = 0; i < script.operations.size(); ++i) addNearer(script, i, simpler);
  return simpler;
}

}  // namespace korvex::test
