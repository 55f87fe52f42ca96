# Ctrl-T for fish: pick paths with `tvl pick` (Tab marks several) and insert them, quoted, at the
# cursor. Source this file from ~/.config/fish/config.fish:
#   source /usr/share/tarvolin/key-bindings.fish

function __tvl_pick_insert
    set -l picked (tvl pick -0 | string split0)
    if test (count $picked) -gt 0
        commandline --insert -- (string escape -- $picked | string join ' ')' '
    end
    commandline --function repaint
end

bind \ct __tvl_pick_insert
if bind -M insert >/dev/null 2>&1
    bind -M insert \ct __tvl_pick_insert
end
