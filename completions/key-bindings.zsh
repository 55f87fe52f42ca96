# Ctrl-T for zsh: pick paths with `tvl pick` (Tab marks several) and insert them, quoted, at the
# cursor. Source this file from ~/.zshrc:
#   source /usr/share/tarvolin/key-bindings.zsh

tvl-pick-widget() {
  local -a picked
  # Split on the NUL bytes of -0; empty pieces (the last one) are dropped.
  picked=(${(0)"$(tvl pick -0 </dev/tty)"})
  if (( ${#picked} )); then
    LBUFFER+="${(j: :)${(q)picked}} "
  fi
  zle reset-prompt
}
zle -N tvl-pick-widget
bindkey -M emacs '^T' tvl-pick-widget
bindkey -M viins '^T' tvl-pick-widget
bindkey -M vicmd '^T' tvl-pick-widget
