# SPDX-License-Identifier: Apache-2.0
# Completion of sealscope(1) for bash.

_sealscope() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD - 1]}
    local commands="follow exchanges objects packets tree streams decrypt export live plugins settings help"
    local common="--plugin-path --color --quiet --verbose --memory --no-sandbox --version --help"
    local words="" command="" word index

    # The command is the first word that is neither an option nor an option's argument.
    for ((index = 1; index < COMP_CWORD; index++)); do
        word=${COMP_WORDS[index]}
        case $word in
            -k | --keylog | -f | --filter | -n | --count | --packet | --stream | -o | --output | --pcap | --inject-secrets | \
                --strip-secrets | --private-key | --passphrase-file | --most-key-exchanges | --gaps | --reach | --largest-body | --most-messages | -i | --interface | -w | --write | --plugin-path | --color | --memory) ((index++)) ;;
            -*) ;;
            *)
                command=$word
                break
                ;;
        esac
    done

    case $previous in
        --color)
            mapfile -t COMPREPLY < <(compgen -W "auto always never" -- "$current")
            return
            ;;
        --reach)
            mapfile -t COMPREPLY < <(compgen -W "full strict" -- "$current")
            return
            ;;
        --gaps)
            mapfile -t COMPREPLY < <(compgen -W "zeros skip mark" -- "$current")
            return
            ;;
        -i | --interface)
            mapfile -t COMPREPLY < <(compgen -W "$(ls /sys/class/net 2>/dev/null)" -- "$current")
            return
            ;;
        -o | --output | --plugin-path)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -d -- "$current")
            return
            ;;
        -k | --keylog | --private-key | --passphrase-file | --pcap | --inject-secrets | --strip-secrets | -w | --write)
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$current")
            return
            ;;
        -f | --filter | -n | --count | --packet | --stream | --largest-body | --most-messages | --most-key-exchanges | --memory) return ;;
    esac

    if [[ $command == settings && $current != -* ]]; then
        case $previous in
            settings) words="list get set reset keylog-line" ;;
            get | set) words=$(sealscope settings list 2>/dev/null | cut -d ' ' -f 1) ;;
            *_use) words="true false" ;;
            *_keylog_path)
                compopt -o filenames
                mapfile -t COMPREPLY < <(compgen -f -- "$current")
                return
                ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
        return
    fi

    if [[ $command == export && $previous == export && $current != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$(sealscope export 2>/dev/null | cut -d ' ' -f 1)" -- "$current")
        return
    fi

    if [[ $current == -* ]]; then
        case $command in
            packets) words="--json --filter --count" ;;
            tree) words="--packet --hex --json --filter --count" ;;
            streams) words="--keylog --private-key --passphrase-file --most-key-exchanges --reach --stream --json --filter --count" ;;
            decrypt) words="--keylog --private-key --passphrase-file --most-key-exchanges --reach --stream --output --pcap --inject-secrets --strip-secrets --gaps --force --filter --count --json" ;;
            exchanges) words="--keylog --private-key --passphrase-file --most-key-exchanges --reach --stream --largest-body --most-messages --json --filter --count" ;;
            objects) words="--keylog --private-key --passphrase-file --most-key-exchanges --reach --stream --output --force --largest-body --most-messages --json --filter --count" ;;
            export) words="--keylog --private-key --passphrase-file --most-key-exchanges --reach --stream --output --force --largest-body --most-messages --json --filter --count" ;;
            live) words="--interface --follow --exchanges --keylog --largest-body --write --force --filter --count --json" ;;
            plugins | settings) words="--json" ;;
            *) words="--keylog --private-key --passphrase-file --most-key-exchanges --reach --stream --no-interpreters --bodies --largest-body --most-messages --json --filter --count" ;;
        esac
        mapfile -t COMPREPLY < <(compgen -W "$words $common" -- "$current")
        return
    fi

    compopt -o filenames
    mapfile -t COMPREPLY < <(compgen -f -- "$current")
    if [[ -z $command ]]; then
        mapfile -t -O "${#COMPREPLY[@]}" COMPREPLY < <(compgen -W "$commands" -- "$current")
    fi
}

complete -F _sealscope sealscope
