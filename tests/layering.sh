#!/bin/sh
# Each folder of src/ includes only its own headers and the public internal
# header (FOLDER/FOLDER.h) of the folders below it:
#   api -> legacy, linux, snapshot -> machine.
#   layering.sh SRC_DIR
src=$1
below() {
  case $1 in
    api) echo "legacy linux snapshot machine" ;;
    legacy | linux | snapshot) echo "machine" ;;
    *) echo "" ;;
  esac
}
wrong=0
for dir in "$src"/*/; do
  part=$(basename "$dir")
  allowed=$(below "$part")
  for file in "$dir"*; do
    for header in $(sed -n 's/^#include "\([^"]*\)".*/\1/p' "$file"); do
      folder=${header%%/*}
      [ "$folder" = "$part" ] || [ "$folder" = xrprocdetector ] && continue
      ok=no
      for lower in $allowed; do
        [ "$header" = "$lower/$lower.h" ] && ok=yes
      done
      if [ $ok = no ]; then
        echo "$part/$(basename "$file") includes $header"
        wrong=1
      fi
    done
  done
done
[ $wrong = 0 ] && echo "every folder includes only downward"
exit $wrong
