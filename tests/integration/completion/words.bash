# words.bash SCRIPT WORD...: what bash completes the last word to, one a line.
source "$1"
shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
"_$1"
printf '%s\n' "${COMPREPLY[@]}"
