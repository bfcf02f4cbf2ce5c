#!/bin/bash
# The man pages render cleanly and name the words of each tool's --help synopsis and options and
# every area, field and fixed word qmtnm knows; the qmtnm completion offers them.
set -euo pipefail
src=$1 build=$2 bad=0
PATH=$build/tools:$build/hconf:$PATH
table=$(qmtnm areas --complete)
diff <(qmtnm areas | awk '{print $1}') <(awk '$1 == "area" {print $2}' <<<"$table") || bad=1
for tool in qmtnm sysconf hconf; do
    [ -z "$(MANWIDTH=80 man --warnings -l "$build/man/"{"$tool.1",libqmtnm.3} 2>&1 >/dev/null | tee /dev/stderr)" ] || bad=1
    words=$("$tool" --help | grep -E '^(usage:| )' | sed -E "s/^(usage:)? *//; s/^$tool //; s/   .*//" |
        grep -oE -- '(^|[ [|])-{0,2}[a-z][a-z-]*' | tr -d ' [|')
    [ "$tool" = qmtnm ] && words+=" $(cut -d' ' -f2- <<<"$table" | tr ' =' '\n\n')"
    page=$(MANWIDTH=250 man --nh -l "$build/man/$tool.1")
    for w in $words; do grep -qwF -- "$w" <<<"$page" || { echo "$tool.1 lacks $w"; bad=1; }; done
done
. /usr/share/bash-completion/bash_completion
. "$src/tools/qmtnm.bash-completion"
compopt() { :; } # outside readline's completion
c() { # the completions of a command line, its words split at '=' as readline does
    local line=${1//=/ = }
    read -ra COMP_WORDS <<<"$line${line:+.}" && COMP_WORDS[-1]=${COMP_WORDS[-1]%.}
    COMP_CWORD=$((${#COMP_WORDS[@]} - 1)) COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
    _qmtnm qmtnm; printf '%s\n' "${COMPREPLY[@]}" | sort | xargs
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
qmtnm unlock qos |get set
EOT
exit $bad
