# words.fish SCRIPT WORD...: what fish completes the last word to, one a line.
source $argv[1]
complete -C "$argv[2..]" | cut -f 1
