# bash completion for kestrelexp
# shellcheck shell=bash

# generated: tables
_kx_options='-d -e -m -u -v -H -X -G -P -C -I -q -t -E -n -N -F -S -h -l -V'
_kx_input='pcap rawnetcap af-packet capture-file'
_kx_process='end-reason'
_kx_filter='filter as_helper anonymizer'
_kx_export='null netflow-v5 netflow-v9 ipfix ipfix-file json kafka metrics'
declare -gA _kx_keys=(
    [pcap]='device sampling'
    [rawnetcap]='device sampling cache-size'
    [netflow-v5]='host port ip source_id reconnect queue drain'
    [netflow-v9]='host port ip source_id template-file template-refresh-time template-refresh-packets reconnect queue drain options-refresh-time sampling-elements group'
    [ipfix]='host port ip protocol source_id template_file template-refresh-time template-refresh-packets reconnect queue drain options-refresh-time sampling-elements group'
    [af-packet]='device lanes fanout ring sampling promiscuous snap filter'
    [capture-file]='file filter-file sampling'
    [ipfix-file]='file rotate-time rotate-size template-file source_id queue drain'
    [json]='file socket style fields seed sampler rotate-time rotate-size compress queue drain'
    [kafka]='brokers topic format style fields seed key config sampler queue drain'
    [metrics]='port address'
)
# end

# Readline splits words at ':' and '='. This reads the line as the shell will split it, and returns
# to readline the text that comes after the last of these signs.
_kestrelexp() {
    local line=${COMP_LINE:0:COMP_POINT} word=''
    local -a words
    read -ra words <<<"$line"
    [[ $line == *[[:blank:]] ]] || word=${words[-1]}
    local option=${words[-1]}
    if [[ -n $word ]]; then
        option=${words[-2]:-}
    fi
    local -a found=()
    case $option in
        -I) _kestrelexp_named "$word" "$_kx_input" ;;
        -P) _kestrelexp_named "$word" "$_kx_process" ;;
        -F | -G) _kestrelexp_named "$word" "$_kx_filter" ;;
        -E) _kestrelexp_named "$word" "$_kx_export" ;;
        -e) _kestrelexp_from "$word" '' 'vlan mpls mac' ;;
        -v) _kestrelexp_from "$word" '' '0 1 2 3 4 5' ;;
        -u) mapfile -t found < <(compgen -u -- "$word") ;;
        -H) mapfile -t found < <(compgen -d -- "$word") ;;
        -X) _kestrelexp_files "${word##*,}" "${word%"${word##*,}"}" ;;
        -[CmnNqSt]) ;; # numbers
        *) _kestrelexp_from "$word" '' "$_kx_options" ;;
    esac
    local done_before=${word%"${word##*[:=]}"}
    COMPREPLY=("${found[@]#"$done_before"}")
    if [[ ${#found[@]} -eq 1 && ${found[0]} == *[:=] ]]; then
        compopt -o nospace 2>/dev/null
    fi
}

# "name:key=value,key=value": the name, a key, or a value. Adds to found.
_kestrelexp_named() {
    local word=$1 names=$2 name=${1%%:*}
    if [[ $word != *:* ]]; then
        # shellcheck disable=SC2086  # one name a word
        printf -v names '%s: ' $names
        _kestrelexp_from "$word" '' "${names//null: /null }"
        return
    fi
    local params=${word#*:}
    local item=${params##*,}
    local before=${word%"$item"}
    case $name:$item in
        filter:* | as_helper:*) _kestrelexp_files "$params" "$name:" ;;
        anonymizer:*) _kestrelexp_from "$params" 'anonymizer:' 'MASK: AES:' ;;
        *:device=*)
            _kestrelexp_from "${item#*=}" "${before}device=" "$(ls /sys/class/net 2>/dev/null)"
            ;;
        *:protocol=*) _kestrelexp_from "${item#*=}" "${before}protocol=" 'udp tcp sctp' ;;
        *:ip=*) _kestrelexp_from "${item#*=}" "${before}ip=" '4 6 46 64' ;;
        *:file=* | *:*[-_]file=*) _kestrelexp_files "${item#*=}" "$before${item%%=*}=" ;;
        *:*=*) ;;
        *)
            # shellcheck disable=SC2086  # one key a word
            printf -v names '%s= ' ${_kx_keys[$name]:-}
            _kestrelexp_from "$item" "$before" "${names#= }"
            ;;
    esac
}

# PREFIX BEFORE WORDS: adds to found each of the words that begins with PREFIX, after BEFORE.
_kestrelexp_from() {
    local prefix=$1 before=$2 candidate
    for candidate in $3; do
        [[ $candidate == "$prefix"* ]] && found+=("$before$candidate")
    done
}

_kestrelexp_files() {
    local name
    while IFS= read -r name; do
        found+=("$2$name")
    done < <(compgen -f -- "$1")
    compopt -o filenames 2>/dev/null
}

complete -F _kestrelexp kestrelexp
