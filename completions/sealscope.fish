# SPDX-License-Identifier: Apache-2.0
# Completion of sealscope(1) for fish.

set -l commands follow exchanges objects packets tree streams decrypt export live plugins settings help

complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a follow -d "what was said, stream by stream"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a exchanges -d "requests and replies, a row each"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a objects -d "save every body that was carried"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a export -d "the capture in a format of another program"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a packets -d "the packet list"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a tree -d "the field tree of each packet"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a streams -d "the TCP connections, and which decrypt"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a decrypt -d "the plaintext, as files or as a capture"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a live -d "packets of a network interface as they arrive"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a plugins -d "the loaded plug-ins"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a settings -d "show, set and reset the settings"
complete -c sealscope -n "not __fish_seen_subcommand_from $commands" -a help -d "how to use a command"

complete -c sealscope -l plugin-path -xa "(__fish_complete_directories)" -d "look for plug-ins here first"
complete -c sealscope -l color -xa "auto always never" -d "colours"
complete -c sealscope -s q -l quiet -d "only errors on standard error"
complete -c sealscope -s v -l verbose -d "say how the run is confined"
complete -c sealscope -l memory -x -d "use at most so much memory"
complete -c sealscope -l no-sandbox -d "keep all rights while captures are read"
complete -c sealscope -l version -d "print the version"
complete -c sealscope -s h -l help -d "print help"

set -l streaming "not __fish_seen_subcommand_from packets tree live plugins settings help"
complete -c sealscope -n "$streaming" -s k -l keylog -rF -d "take secrets from this key log"
complete -c sealscope -n "$streaming" -l reach -xa "full strict" -d "how far decryption goes"
complete -c sealscope -n "$streaming" -l stream -x -d "only this stream"
complete -c sealscope -n "not __fish_seen_subcommand_from exchanges objects packets tree streams decrypt export live plugins settings help" -l no-interpreters -d "show decrypted bytes as they are"
complete -c sealscope -n "not __fish_seen_subcommand_from exchanges objects packets tree streams decrypt export live plugins settings help" -l bodies -d "print bodies whole"
complete -c sealscope -n "not __fish_seen_subcommand_from packets tree streams decrypt live plugins settings help" -l largest-body -x -d "stop decoding a compressed body there"
complete -c sealscope -n "__fish_seen_subcommand_from export" -a "(sealscope export 2>/dev/null | string split -f 1 ' ')"
complete -c sealscope -n "not __fish_seen_subcommand_from help" -l json -d "one JSON object a line"
complete -c sealscope -n "not __fish_seen_subcommand_from plugins settings help" -s f -l filter -x -d "only packets that a capture filter passes"
complete -c sealscope -n "not __fish_seen_subcommand_from plugins settings help" -s n -l count -x -d "stop after so many packets"
complete -c sealscope -n "__fish_seen_subcommand_from tree" -l packet -x -d "only this packet"
complete -c sealscope -n "__fish_seen_subcommand_from tree" -l hex -d "show the bytes of each field"
complete -c sealscope -n "__fish_seen_subcommand_from decrypt objects" -s o -l output -xa "(__fish_complete_directories)" -d "write files into this folder"
complete -c sealscope -n "__fish_seen_subcommand_from export" -s o -l output -rF -d "write this file"
complete -c sealscope -n "__fish_seen_subcommand_from decrypt" -l pcap -rF -d "write the plaintext as a capture"
complete -c sealscope -n "__fish_seen_subcommand_from decrypt" -l inject-secrets -rF -d "write the capture with its secrets inside"
complete -c sealscope -n "__fish_seen_subcommand_from decrypt" -l strip-secrets -rF -d "write the capture without secrets"
complete -c sealscope -n "__fish_seen_subcommand_from decrypt objects export live" -l force -d "replace files that exist"
complete -c sealscope -n "__fish_seen_subcommand_from live" -s i -l interface -xa "(__fish_print_interfaces)" -d "capture from this interface"
complete -c sealscope -n "__fish_seen_subcommand_from live" -s w -l write -rF -d "keep the captured packets"

complete -c sealscope -n "__fish_seen_subcommand_from plugins settings help" -f
set -l verbs list get set reset keylog-line
complete -c sealscope -n "__fish_seen_subcommand_from settings; and not __fish_seen_subcommand_from $verbs" -a "$verbs"
complete -c sealscope -n "__fish_seen_subcommand_from get set" -a "(sealscope settings list 2>/dev/null | string split -f 1 ' ')"
complete -c sealscope -n "__fish_seen_subcommand_from help" -a "$commands"
