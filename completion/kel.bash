# bash completion for kel: commands, each command's options, and the values
# of the options that take a word from a fixed list; files elsewhere.
# The option lists follow "kel CMD --help" (the install test compares them).

_kel()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    local prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands="info cut copy splice split join gain fade convert peak loudness normalize overview demo explain"
    COMPREPLY=()

    if ((COMP_CWORD == 1)); then
        mapfile -t COMPREPLY < <(compgen -W "$commands --help" -- "$cur")
        return
    fi

    # Options every writing command takes, and those of a batch of them.
    local write="-o --output --codec --no-tags"
    local batch="--out-dir --format -j --jobs --json"
    local range="--start --end --packets"
    local opts
    case ${COMP_WORDS[1]} in
    info) opts="--json" ;;
    cut | copy) opts="$write $batch $range" ;;
    splice) opts="$write --at --packets --insert" ;;
    split) opts="--at --every --silence --cue --threshold --min-silence --trim -o --output --no-tags --codec" ;;
    join) opts="-o --output --convert --no-tags --codec" ;;
    gain) opts="$write $batch $range --db" ;;
    fade) opts="$write $batch --in --out" ;;
    convert) opts="$write $batch --rate --bits --bitrate --vbr --lossless" ;;
    peak) opts="$range" ;;
    loudness) opts="-j --jobs --album --tag --json" ;;
    normalize) opts="--target --album --max-true-peak -o --output --out-dir --in-place --no-tags -j --jobs --json" ;;
    overview) opts="-o --output --width --height $range --text --format --samples-per-pixel --pixels-per-second --bits --channels" ;;
    demo | explain) opts="" ;;
    *) return ;;
    esac

    case $prev in
    --codec)
        mapfile -t COMPREPLY < <(compgen -W "aac alac" -- "$cur")
        return
        ;;
    --format)
        local formats="wav aif aiff caf mp3 m4a"
        [[ ${COMP_WORDS[1]} == overview ]] && formats="dat json"
        mapfile -t COMPREPLY < <(compgen -W "$formats" -- "$cur")
        return
        ;;
    --bits)
        local widths="16 24"
        [[ ${COMP_WORDS[1]} == overview ]] && widths="8 16"
        mapfile -t COMPREPLY < <(compgen -W "$widths" -- "$cur")
        return
        ;;
    --channels)
        mapfile -t COMPREPLY < <(compgen -W "mono stereo" -- "$cur")
        return
        ;;
    --out-dir)
        mapfile -t COMPREPLY < <(compgen -d -- "$cur")
        return
        ;;
    -o | --output | --insert)
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
        ;;
    --start | --end | --at | --db | --in | --out | --rate | --bitrate | -j | --jobs | --target | \
        --max-true-peak | --width | --height | --every | --threshold | --min-silence | --samples-per-pixel | \
        --pixels-per-second)
        return # a number
        ;;
    esac

    if [[ $cur == -* ]]; then
        mapfile -t COMPREPLY < <(compgen -W "$opts --help" -- "$cur")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
    fi
}

complete -o filenames -F _kel kel
