# words.zsh SCRIPT WORD...: what zsh completes the last word to, one a line. Only an interactive
# shell completes, so there is one inside, whose compadd prints what it is given.
zmodload zsh/zpty
script=$1
shift
zpty shell zsh -f -i
() {
  zpty -w shell "source $1"
  repeat 20; do zpty -r shell line; [[ $line == *ready* ]] && break; done
} =(cat <<END
PROMPT=
autoload -U compinit && compinit -D -u
source $script
bindkey '^M' undefined
bindkey '^J' undefined
bindkey '^I' complete-word
say-edge() { print -r - '--edge--' }
compprefuncs=(say-edge)
comppostfuncs=(say-edge exit)
zstyle ':completion:*' insert-tab false
compadd() {
  if [[ \${@[1,(i)(-|--)]} == *-(O|A|D)\ * ]]; then
    builtin compadd "\$@"
    return
  fi
  local -a hits
  builtin compadd -A hits "\$@"
  print -rl - \$hits
  builtin compadd "\$@"
}
print ready
END
)
zpty -w shell "$*"$'\t'
integer edges=0
while zpty -r shell line; do print -r - ${line%%[[:space:]]#}; done | while read -r line; do
  if [[ $line == *--edge--* ]]; then
    (( ++edges == 2 )) && break
  elif (( edges == 1 )) && [[ -n $line ]]; then
    print -r - ${line%$'\r'}
  fi
done
