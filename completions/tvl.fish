# fish completion for tvl: command words, subcommands, options, query operators and catalog ids.

function __tvl_catalog_ids
    set -l dir "$HOME/Library/Application Support/Tarvolin/Catalogs"
    test -d "$dir"; or return
    for entry in $dir/*/
        basename $entry
    end
end

set -l commands scan search content find bench measure volumes estimate watch catalog dupes serve status query explain pick
set -l catalog_subcommands add list update remove export import efu search
set -l added volumes estimate watch catalog dupes serve status query explain pick

complete -c tvl -f
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -l version -d 'Print the version'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a scan -d 'Index a subtree'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a search -d 'Search the current index'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a content -d 'Build the document content index'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a find -d 'Search document contents'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a bench -d 'Report index stats and query timings'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a measure -d 'Time matching and ranking'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a volumes -d 'List the mounted volumes'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a estimate -d 'Estimate the entries of a full scan'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a watch -d 'Print file-system changes'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a catalog -d 'Offline catalogs'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a dupes -d 'Other copies of a file'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a serve -d 'Run the service'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a status -d 'Show the running service'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a query -d 'Scriptable search'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a explain -d 'Why a path is or is not found'
complete -c tvl -n "not __fish_seen_subcommand_from $commands" -a pick -d 'Interactive search'

# Options every added command takes.
complete -c tvl -n "__fish_seen_subcommand_from $added" -l json -d 'Print JSON'
complete -c tvl -n "__fish_seen_subcommand_from $added" -s h -l help -d 'Show help'

# Folders and files as operands.
complete -c tvl -n "__fish_seen_subcommand_from scan content serve watch" -F
complete -c tvl -n "__fish_seen_subcommand_from dupes explain" -F
complete -c tvl -n "__fish_seen_subcommand_from volumes" -l no-probe -d 'Do not look inside volume roots'
complete -c tvl -n "__fish_seen_subcommand_from watch" -l latency -x -d 'Seconds to gather events'
complete -c tvl -n "__fish_seen_subcommand_from serve" -l rewrite-interval -x -d 'Least seconds between index rewrites'
complete -c tvl -n "__fish_seen_subcommand_from dupes query" -s n -l limit -x -d 'Most results'
complete -c tvl -n "__fish_seen_subcommand_from query pick" -s 0 -l null -d 'Separate paths with NUL'
complete -c tvl -n "__fish_seen_subcommand_from query" -l catalogs -d 'Also search the offline catalogs'
complete -c tvl -n "__fish_seen_subcommand_from query" -l content -d 'Also search document contents'
complete -c tvl -n "__fish_seen_subcommand_from query" -s c -l count -d 'Print only the number of matches'

# The query language.
for operator in ext: path: size: 'size:>' 'size:<' dm: dm:today 'dm:<7d' contains: in: folder: file: app:
    complete -c tvl -n "__fish_seen_subcommand_from search find query pick; or __fish_seen_subcommand_from catalog; and __fish_seen_subcommand_from search" -a "$operator" -d 'Query operator'
end

# Catalog subcommands and ids.
complete -c tvl -n "__fish_seen_subcommand_from catalog; and not __fish_seen_subcommand_from $catalog_subcommands" -a "$catalog_subcommands"
complete -c tvl -n "__fish_seen_subcommand_from catalog; and __fish_seen_subcommand_from update remove export" -a "(__tvl_catalog_ids)" -d 'Catalog'
complete -c tvl -n "__fish_seen_subcommand_from catalog; and __fish_seen_subcommand_from add efu" -l name -x -d 'Display name'
complete -c tvl -n "__fish_seen_subcommand_from catalog; and __fish_seen_subcommand_from add import efu export" -F
