# How the tests here begin: in a throw-away world made of the programs in the folder that is their first word, with chance
# that comes from --seed. Sourced, after the numbers that may be given are set, and named in OPTIONS.
set -euo pipefail
OPTIONS+=' seed'
SEED=$((SRANDOM % 1000000))
usage() {
  printf 'usage: %s FOLDER-OF-PROGRAMS' "$(basename "$0")"
  # shellcheck disable=SC2086
  printf ' [--%s N]' $OPTIONS
  echo
} >&2
[ $# -gt 0 ] || { usage; exit 2; }
BIN_GIVEN=$(realpath "$1")
shift
while [ $# -gt 0 ]; do
  name=${1#--}
  [[ $1 = --* && $# -gt 1 && " $OPTIONS " == *" $name "* && $2 =~ ^[0-9]+$ ]] || { usage; exit 2; }
  printf -v "${name^^}" %s "$2"
  shift 2
done
cd "$(dirname "$0")/../.."
source tools/demo.sh
source tests/checks.sh

# How this run can be repeated.
given() {
  local name
  for name in $OPTIONS; do
    local value=${name^^}
    printf -- ' --%s %s' "$name" "${!value}"
  done
}
echo "this is$(given)"
RANDOM=$SEED
make_world "$BIN_GIVEN"
