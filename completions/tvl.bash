# bash completion for tvl: command words, subcommands, options, query operators and catalog ids.

_tvl_catalog_ids() {
  local dir="${HOME}/Library/Application Support/Tarvolin/Catalogs"
  [ -d "$dir" ] || return 0
  local entry
  for entry in "$dir"/*/; do
    [ -d "$entry" ] || continue
    entry="${entry%/}"
    printf '%s\n' "${entry##*/}"
  done
}

_tvl() {
  local cur prev words cword
  if declare -F _init_completion >/dev/null; then
    _init_completion -n : || return
  else
    cur="${COMP_WORDS[COMP_CWORD]}"
    prev="${COMP_WORDS[COMP_CWORD-1]}"
    words=("${COMP_WORDS[@]}")
    cword=$COMP_CWORD
  fi

  local commands="scan search content find bench measure volumes estimate watch catalog dupes serve status query explain pick --version --help"
  local operators="ext: path: size: size:> size:< dm: dm:today dm:<7d contains: in: folder: file: app:"
  local catalog_subcommands="add list update remove export import efu search"

  if [ "$cword" -eq 1 ]; then
    COMPREPLY=($(compgen -W "$commands" -- "$cur"))
    return
  fi

  local command="${words[1]}"
  local options="--json --help"
  case "$command" in
    scan|content|volumes|estimate|status|serve|explain|dupes|watch)
      case "$command" in
        volumes) options="$options --no-probe" ;;
        watch) options="$options --latency" ;;
        serve) options="$options --rewrite-interval" ;;
        dupes) options="$options -n --limit" ;;
      esac
      if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
      else
        COMPREPLY=($(compgen -f -- "$cur"))
      fi
      return
      ;;
    search|find|query|pick)
      case "$command" in
        query) options="$options -0 --null -n --limit --catalogs --content -c --count" ;;
        pick) options="$options -0" ;;
        search|find) options="" ;;
      esac
      if [[ "$cur" == -* && -n "$options" ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
      else
        COMPREPLY=($(compgen -W "$operators" -- "$cur"))
        compopt -o nospace 2>/dev/null
      fi
      return
      ;;
    catalog)
      if [ "$cword" -eq 2 ]; then
        COMPREPLY=($(compgen -W "$catalog_subcommands" -- "$cur"))
        return
      fi
      local sub="${words[2]}"
      case "$sub" in
        add|efu) options="$options --name" ;;
      esac
      if [[ "$cur" == -* ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$cur"))
        return
      fi
      case "$sub" in
        update|remove|export)
          if [ "$cword" -eq 3 ]; then
            local IFS=$'\n'
            COMPREPLY=($(compgen -W "$(_tvl_catalog_ids)" -- "$cur"))
          else
            COMPREPLY=($(compgen -f -- "$cur"))
          fi
          ;;
        add) COMPREPLY=($(compgen -d -- "$cur")) ;;
        import|efu) COMPREPLY=($(compgen -f -- "$cur")) ;;
        search)
          COMPREPLY=($(compgen -W "$operators" -- "$cur"))
          compopt -o nospace 2>/dev/null
          ;;
      esac
      return
      ;;
  esac
}

complete -F _tvl tvl
