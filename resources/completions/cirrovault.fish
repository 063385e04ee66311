# fish completion for cirrovault
set -l commands logon logoff status task backup daemon restore versions log options check repair service
complete -c cirrovault -l service -r -d 'service URL for this command'
complete -c cirrovault -l user -r -d 'account name'
complete -c cirrovault -l limit-upload -r -d 'upload at most this many KiB/s'
complete -c cirrovault -l json -d 'print one JSON document on stdout'
complete -c cirrovault -s v -l verbose -d 'print the system-log lines on stderr too'
complete -c cirrovault -s q -l quiet -d 'print only errors'
complete -c cirrovault -l version -d 'print the version'
complete -c cirrovault -n "not __fish_seen_subcommand_from $commands" -f -a "$commands"
complete -c cirrovault -n "__fish_seen_subcommand_from task; and not __fish_seen_subcommand_from list show new edit delete migrate" -f -a "list show new edit delete migrate"
complete -c cirrovault -n "__fish_seen_subcommand_from service; and not __fish_seen_subcommand_from enable disable" -f -a "enable disable"
