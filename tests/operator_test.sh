#!/bin/bash
# man: the man pages render without a warning and name every command and option of each tool's
# --help, and every area, field and fixed word qmtnm knows. completion: the qmtnm completion
# offers them. The tools load the library: run under tests/ns-run.
#   operator_test.sh man|completion SOURCE BUILD
set -euo pipefail
src=$2 build=$3 bad=0
PATH=$build/tools:$build/hconf:$PATH
table=$(qmtnm areas --complete)
diff <(qmtnm areas | awk '{print $1}') <(awk '$1 == "area" {print $2}' <<<"$table") || bad=1
if [ "$1" = man ]; then
    for tool in qmtnm sysconf hconf; do
        page=$build/man/$tool.1
        warn=$(MANWIDTH=80 man --warnings -l "$page" "$build/man/libqmtnm.3" 2>&1 >/dev/null)
        [ -z "$warn" ] || { echo "$warn"; bad=1; }
        # The words of the synopsis lines and options of the --help, not their explanations.
        words=$("$tool" --help | grep -E '^(usage:| )' | sed -E "s/^(usage:)? *//; s/^$tool //; s/   .*//" |
            grep -oE -- '(^|[ [|])-{0,2}[a-z][a-z-]*' | tr -d ' [|')
        [ "$tool" = qmtnm ] && words+=" $(cut -d' ' -f2- <<<"$table" | tr ' =' '\n\n')"
        for w in $words; do
            MANWIDTH=250 man --nh -l "$page" | grep -qwF -- "$w" || { echo "$tool.1 lacks $w"; bad=1; }
        done
    done
else
    . /usr/share/bash-completion/bash_completion
    . "$src/tools/qmtnm.bash-completion"
    compopt() { :; } # outside a completion of readline's
    c() { # the completions of a command line, as readline splits it at '='
        local line=${1//=/ = }
        read -ra COMP_WORDS <<<"$line"
        [[ $line == *' ' ]] && COMP_WORDS+=('')
        COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
        _qmtnm qmtnm
        printf '%s\n' "${COMPREPLY[@]}" | sort | xargs
    }
    areas() { awk -v k="$1" '$1 == "area" && $4 ~ k {print $2}' <<<"$table" | sort | xargs; }
    while IFS='|' read -r line want; do
        [ "$(c "$line")" = "$want" ] || { echo "'$line': '$(c "$line")', not '$want'"; bad=1; }
    done <<EOT
qmtnm |$(sed -n 's/^command //p' <<<"$table" | tr ' ' '\n' | sort | xargs)
qmtnm --js|--json
qmtnm get |$(areas .)
qmtnm -v set |$(areas set)
qmtnm set qos d|dscp=
qmtnm set ipfilter mode=|black white
qmtnm set sta wps=|pbc pin
qmtnm pin |ap sta
qmtnm unlock qos |get set
EOT
fi
exit $bad
