// The scripts as text; what the shells make of them is tested with the shells.

#include <CLI/CLI.hpp>
#include <gtest/gtest.h>
#include <string>

#include "common/Completion.h"

using korvex::common::checkShell;
using korvex::common::completionFor;

namespace {

const std::string kFiles =
    "compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -f -- \"$current\")";
const std::string kFolders =
    "compopt -o filenames 2>/dev/null; mapfile -t COMPREPLY < <(compgen -d -- \"$current\")";

/// A program with an option, an argument and a verb of each kind.
class Completion : public testing::Test {
 protected:
  Completion() {
    program_.add_flag("-q,--quiet", "Don't say [much]: \\");
    CLI::App* const get = program_.add_subcommand("get", "Gets it");
    get->set_help_flag();
    get->add_option("--to", text_, "To")->type_name("DIR");
    get->add_option("FILE", text_, "What to get");
    CLI::App* const put = program_.add_subcommand("put", "Puts it");
    put->set_help_flag();
    put->add_option("--from", text_, "A file")->type_name("FILE");
    put->add_option("--as", text_, "How")->type_name("raw|hex");
    put->add_option("--count", text_, "How many")->type_name("N");
    put->add_option("--secret", text_, "")->group("");
    put->add_option("where", text_, "Where to")->type_name("DIR");
    single_.set_help_flag();
    single_.add_option("-m,--mode", text_, "The mode")->type_name("MODE in octal");
    single_.add_option_group("Data")->add_option("NAME", text_, "Any name");
  }

  CLI::App program_{"Does it", "do"};
  CLI::App single_{"Does one thing", "one"};
  std::string text_;
};

}  // namespace

TEST_F(Completion, InBash) {
  EXPECT_EQ(completionFor(program_, "bash"), R"(# Completes the words of do in bash.
_do() {
  local current=${COMP_WORDS[COMP_CWORD]} verb= i
  local previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  for ((i = 1; i < COMP_CWORD; i++)); do
    case ${COMP_WORDS[i]} in get | put) verb=${COMP_WORDS[i]}; break ;; esac
  done
  case "$verb $previous $current" in
    'get --to '*) )" + kFolders + R"( ;;
    'get '*' -'*) mapfile -t COMPREPLY < <(compgen -W '--to' -- "$current") ;;
    'get '*) )" + kFiles + R"( ;;
    'put --from '*) )" + kFiles + R"( ;;
    'put --as '*) mapfile -t COMPREPLY < <(compgen -W 'raw hex' -- "$current") ;;
    'put --count '*) COMPREPLY=() ;;
    'put '*' -'*) mapfile -t COMPREPLY < <(compgen -W '--from --as --count' -- "$current") ;;
    'put '*) )" + kFolders + R"( ;;
    ' '*' -'*) mapfile -t COMPREPLY < <(compgen -W '-h --help -q --quiet' -- "$current") ;;
    ' '*) mapfile -t COMPREPLY < <(compgen -W 'get put' -- "$current") ;;
  esac
}
complete -F _do do
)");
  EXPECT_EQ(completionFor(single_, "bash"), R"(# Completes the words of one in bash.
_one() {
  local current=${COMP_WORDS[COMP_CWORD]} verb= i
  local previous=${COMP_WORDS[COMP_CWORD-1]}
  COMPREPLY=()
  case "$verb $previous $current" in
    ' -m '*) COMPREPLY=() ;;
    ' --mode '*) COMPREPLY=() ;;
    ' '*' -'*) mapfile -t COMPREPLY < <(compgen -W '-m --mode' -- "$current") ;;
    ' '*) COMPREPLY=() ;;
  esac
}
complete -F _one one
)");
}

TEST_F(Completion, InZsh) {
  EXPECT_EQ(completionFor(program_, "zsh"), R"(#compdef do
# Completes the words of do in zsh.
_do() {
  local context state state_descr line
  typeset -A opt_args
  local -a verbs=(
    'get:Gets it'
    'put:Puts it'
  )
  _arguments -C \
    '*-h[Print this help message and exit]' \
    '*--help[Print this help message and exit]' \
    '*-q[Don'\''t say '\\'[much'\\']'\\': '\\''\\']' \
    '*--quiet[Don'\''t say '\\'[much'\\']'\\': '\\''\\']' \
    '1: :->verb' '*:: :->words'
  case $state in
    verb) _describe verb verbs ;;
    words)
      case $words[1] in
        get) _arguments -s \
          '*--to[To]:DIR:_files -/' \
          '*:FILE:_files' ;;
        put) _arguments -s \
          '*--from[A file]:FILE:_files' \
          '*--as[How]:raw|hex:(raw hex)' \
          '*--count[How many]:N: ' \
          '*:DIR:_files -/' ;;
      esac ;;
  esac
}
if [ "$funcstack[1]" = _do ]; then _do "$@"; else compdef _do do; fi
)");
  EXPECT_EQ(completionFor(single_, "zsh"), R"(#compdef one
# Completes the words of one in zsh.
_one() {
  _arguments -s \
    '*-m[The mode]:MODE: ' \
    '*--mode[The mode]:MODE: ' \
    '*:NAME: '
}
if [ "$funcstack[1]" = _one ]; then _one "$@"; else compdef _one one; fi
)");
}

TEST_F(Completion, InFish) {
  EXPECT_EQ(completionFor(program_, "fish"), R"(# Completes the words of do in fish.
complete -c do -f
complete -c do -n __fish_use_subcommand -s h -l help -d 'Print this help message and exit'
complete -c do -n __fish_use_subcommand -s q -l quiet -d 'Don'\''t say [much]: '\\''
complete -c do -n __fish_use_subcommand -a get -d 'Gets it'
complete -c do -n '__fish_seen_subcommand_from get' -l to -x)"
                                             R"( -a '(__fish_complete_directories)' -d 'To'
complete -c do -n '__fish_seen_subcommand_from get' -F
complete -c do -n __fish_use_subcommand -a put -d 'Puts it'
complete -c do -n '__fish_seen_subcommand_from put' -l from -r -F -d 'A file'
complete -c do -n '__fish_seen_subcommand_from put' -l as -x -a 'raw hex' -d 'How'
complete -c do -n '__fish_seen_subcommand_from put' -l count -x -d 'How many'
complete -c do -n '__fish_seen_subcommand_from put' -a '(__fish_complete_directories)'
)");
  EXPECT_EQ(completionFor(single_, "fish"), R"(# Completes the words of one in fish.
complete -c one -f
complete -c one -s m -l mode -x -d 'The mode'
)");
}

TEST(CompletionShell, IsOneOfThree) {
  for (const char* shell : {"bash", "zsh", "fish"}) EXPECT_EQ(checkShell(shell), "");
  EXPECT_EQ(checkShell("csh"), "found 'csh', expected bash, zsh or fish");
}
