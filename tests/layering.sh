#!/bin/sh
# Each folder of src/ includes only its own headers, the public headers, and
# the public internal header (FOLDER/FOLDER.h) of the folders below it:
#   api -> legacy, kernel, snapshot -> machine.          layering.sh SRC_DIR
wrong=0
for dir in "$1"/*/; do
  part=$(basename "$dir")
  case $part in
    api) allowed="legacy kernel snapshot machine" ;;
    legacy | kernel | snapshot) allowed=machine ;;
    *) allowed= ;;
  esac
  for header in $(sed -n 's/^#include "\([^/"]*\/[^"]*\)".*/\1/p' "$dir"*); do
    case " $part xrprocdetector $(for a in $allowed; do printf ' %s/%s.h' "$a" "$a"; done) " in
      *" ${header%%/*} "* | *" $header "*) ;;
      *) echo "$part includes $header" && wrong=1 ;;
    esac
  done
done
[ $wrong = 0 ] && echo "every folder includes only downward"
exit $wrong
