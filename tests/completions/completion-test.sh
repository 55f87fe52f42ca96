#!/usr/bin/env bash
# Runs the bash, zsh and fish completions of tvl non-interactively and checks what they offer:
# command words, catalog subcommands, options, query operators and catalog ids (from a catalogs
# folder made under a throw-away HOME). A shell that is not installed is reported and skipped.
#   tests/completions/completion-test.sh COMPLETIONS_DIR
set -uo pipefail
dir="$(cd "$1" && pwd)"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
export HOME="$work"
mkdir -p "$HOME/Library/Application Support/Tarvolin/Catalogs/cat-one" \
         "$HOME/Library/Application Support/Tarvolin/Catalogs/cat two"
failures=0

expect() {  # expect SHELL WHAT OUTPUT WORD...: each WORD must be a line of OUTPUT
  local shell="$1" what="$2" output="$3"
  shift 3
  local word
  for word in "$@"; do
    if ! grep -qxF -- "$word" <<<"$output"; then
      echo "FAIL $shell: $what does not offer '$word'; offered:"
      sed 's/^/    /' <<<"$output"
      failures=$((failures + 1))
    fi
  done
}

# bash: call the completion function with a prepared command line.
bash_complete() {
  bash --norc --noprofile -c '
    source "$1"; shift
    COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); COMP_LINE="$*"; COMP_POINT=${#COMP_LINE}
    _tvl; printf "%s\n" "${COMPREPLY[@]}"' _ "$dir/tvl.bash" "$@" 2>/dev/null
}
expect bash "the command word" "$(bash_complete tvl '')" scan search volumes catalog query --version
expect bash "catalog subcommands" "$(bash_complete tvl catalog '')" add list update remove export import efu search
expect bash "catalog ids" "$(bash_complete tvl catalog remove '')" cat-one "cat two"
expect bash "query options" "$(bash_complete tvl query -)" -0 --limit --catalogs --content --count --json
expect bash "query operators" "$(bash_complete tvl search e)" ext:
expect bash "volumes options" "$(bash_complete tvl volumes --)" --json --help --no-probe

# zsh: the completion system's helpers are replaced by ones that print what they are given.
if command -v zsh >/dev/null; then
  zsh_complete() {
    zsh -f -c '
      _describe() {  # prints each entry name: up to the first colon not escaped by a backslash
        local name=$4 entry
        for entry in ${(P)name}; do entry=${entry//\\:/@COLON@}; print -r -- ${${entry%%:*}//@COLON@/:}; done
      }
      compadd() {  # prints the words offered, or the array named after -a
        if [[ $1 == -a ]]; then print -l -- ${(P)2}; return; fi
        local a; for a in "$@"; do [[ $a == -* && $a != --* ]] || print -r -- $a; done
      }
      _arguments() {  # prints the options; runs the actions of the operands that are functions
        local a
        for a in "$@"; do
          if [[ $a == -s ]]; then continue
          elif [[ $a == -* || $a == \(* ]]; then print -r -- ${${a%%\[*}#\(*\)}
          elif [[ ${a##*:} == _tvl* ]]; then ${a##*:}
          fi
        done
      }
      _files() { }
      source "$1"; shift
      words=("$@"); CURRENT=$#
      _tvl' _ "$dir/_tvl" "$@" 2>/dev/null
  }
  expect zsh "the command word" "$(zsh_complete tvl '')" scan search volumes catalog query --version
  expect zsh "catalog subcommands" "$(zsh_complete tvl catalog '')" add list remove efu search
  expect zsh "query options" "$(zsh_complete tvl query '')" -0 --limit --catalogs --content --count
  expect zsh "query operators" "$(zsh_complete tvl search '')" ext: path: size: dm: contains:
  expect zsh "catalog ids" "$(zsh_complete tvl catalog remove '')" cat-one "cat two"
else
  echo "zsh not installed: its completion is not checked"
fi

# fish: its own non-interactive completer.
if command -v fish >/dev/null; then
  fish_complete() {
    fish --no-config -c "source '$dir/tvl.fish'; complete -C'$1'" 2>/dev/null | cut -f1
  }
  expect fish "the command word" "$(fish_complete 'tvl ')" scan search volumes catalog query
  expect fish "catalog subcommands" "$(fish_complete 'tvl catalog ')" add list update remove efu search
  expect fish "catalog ids" "$(fish_complete 'tvl catalog remove ')" cat-one "cat two"
  expect fish "query options" "$(fish_complete 'tvl query --')" --limit --catalogs --content --count --json
  expect fish "query operators" "$(fish_complete 'tvl search ')" ext: path: contains:
else
  echo "fish not installed: its completion is not checked"
fi

if [ "$failures" -ne 0 ]; then
  echo "$failures completion checks failed"
  exit 1
fi
echo "completions: all checks passed"
