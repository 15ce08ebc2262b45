#!/usr/bin/env bash
# Fails on an include that reaches up the layers, naming the file and the include: a folder of
# OrinLink/ includes only itself and folders of a lower rank, so each library links only those
# below it. A new folder needs a rank here.
set -euo pipefail
root=${1:?usage: layering_test.sh SOURCE_DIR}
declare -A rank=([OrinLinkShared]=0 [common]=1 [concurrency]=1 [http]=2 [transport]=2 [pairing]=3 [runtime]=3
  [settings]=3 [controlclient]=3 [system]=4 [server]=5 [aiservice]=5 [screenstream]=6 [core]=7 [ui]=8 [app]=9)

# Sets `layer` to the folder that ranks a path relative to the source directory.
layer_of() {
  case $1 in
    OrinLinkShared/*) layer=OrinLinkShared ;;
    OrinLink/*/*) layer=${1#OrinLink/} && layer=${layer%%/*} ;;
    *) layer=${1%/*} ;;
  esac
  [[ -n ${rank[$layer]+set} ]] && return
  echo "$file:$line: $layer has no rank in $0"
  failed=1 && return 1
}

pattern='include[[:space:]]*["<]((OrinLinkShared|OrinLink/[^/">]+)/[^">]*)'
failed=0
while IFS=: read -r file line text; do
  [[ $text =~ $pattern ]] || continue
  header=${BASH_REMATCH[1]} && file=${file#"$root"/}
  layer_of "$file" && from=$layer && layer_of "$header" && to=$layer || continue
  if [[ $from != "$to" ]] && ((rank[$to] >= rank[$from])); then
    echo "$file:$line: includes $header, which is not below $from"
    failed=1
  fi
done < <(grep -rnE '^[[:space:]]*#[[:space:]]*include' --include='*.h' --include='*.cpp' \
  "$root/OrinLink" "$root/OrinLinkShared")
exit $failed
