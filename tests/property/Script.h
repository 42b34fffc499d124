#ifndef TESTS_PROPERTY_SCRIPT_H
#define TESTS_PROPERTY_SCRIPT_H

#include <cstdint>
#include <iosfwd>
#include <string>
#include <vector>

/// What a property test does, as text: one operation per line, for people and for replaying.
///
///     # a comment
///     language writer
///     queues size=300 depth=2
///     construct timeout=30 text="a stream\x00"
///
/// Arguments are unsigned decimal numbers; one that is left out has its usual value. A text comes
/// last, in double quotes; what is not printable is written as \xNN.
namespace korvex::test {

struct Parameter {
  const char* name;
  std::uint64_t usual;
};

/// One kind of operation.
struct Verb {
  const char* name;
  std::vector<Parameter> parameters;
  bool hasText;
};

/// The verbs that one test understands. Lives as long as the program: operations point into it.
struct Language {
  const char* name;
  std::vector<Verb> verbs;

  /// Throws std::invalid_argument for a word that is no verb of the language.
  const Verb& verb(const std::string& word) const;
};

struct Operation {
  const Verb* verb;
  std::vector<std::uint64_t> arguments;  ///< one per parameter
  std::string text;

  /// Every argument at its usual value.
  explicit Operation(const Verb& verb);

  /// Throws std::invalid_argument for a name that is no parameter of the verb.
  std::uint64_t operator[](const std::string& name) const;
  Operation& set(const std::string& name, std::uint64_t value);
  Operation& say(const std::string& words);

  std::uint32_t low(const std::string& name) const {
    return static_cast<std::uint32_t>((*this)[name]);
  }
};

struct Script {
  const Language* language;
  std::vector<Operation> operations;

  /// Appends an operation with usual values.
  Operation& add(const std::string& word);
};

std::ostream& operator<<(std::ostream& stream, const Operation& operation);

/// A whole file that parseScript reads back.
std::ostream& operator<<(std::ostream& stream, const Script& script);

/// Throws std::invalid_argument with the line, what was found and what was expected.
Script parseScript(std::istream& stream, const std::vector<const Language*>& languages);

/// Simpler scripts, most promising first: fewer operations, then arguments nearer to their usual
/// values, then shorter texts.
std::vector<Script> simplerScripts(const Script& script);

}  // namespace korvex::test

#endif
