# Ctrl-T for bash: pick paths with `tvl pick` (Tab marks several) and insert them, quoted, at the
# cursor. Source this file from ~/.bashrc:
#   source /usr/share/tarvolin/key-bindings.bash

__tvl_pick_insert() {
  local picked="" entry
  while IFS= read -r -d '' entry; do
    picked+="$(printf '%q' "$entry") "
  done < <(tvl pick -0)
  [[ -n $picked ]] || return 0
  READLINE_LINE="${READLINE_LINE:0:READLINE_POINT}${picked}${READLINE_LINE:READLINE_POINT}"
  READLINE_POINT=$((READLINE_POINT + ${#picked}))
}

if [[ $- == *i* ]]; then
  bind -m emacs-standard -x '"\C-t": __tvl_pick_insert'
  bind -m vi-command -x '"\C-t": __tvl_pick_insert'
  bind -m vi-insert -x '"\C-t": __tvl_pick_insert'
fi
