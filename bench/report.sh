# What the measuring scripts share. Sourced.

# report WHAT ASKED REFERENCE OURS RATIO: one line; what is absent is empty.
report() {
  printf '%-58s asked %-12s reference %-14s ours %-14s ratio %s\n' "$1" "$2" "${3:--}" "$4" "${5:--}"
}

median() { printf '%s\n' "$@" | sort -g | awk '{ value[NR] = $1 } END { print value[int((NR + 1) / 2)] }'; }
# quotient A B
quotient() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

# seconds_of COMMAND...: runs it with its output thrown away and prints how long it took.
seconds_of() {
  local before after
  before=$(date +%s%N)
  "$@" >/dev/null
  after=$(date +%s%N)
  awk -v d=$((after - before)) 'BEGIN { printf "%.3f", d / 1e9 }'
}

sh_in_world() { in_world sh -c "$@"; }

# compare_seconds WHAT ASKED ROUNDS REFERENCE-COMMAND OUR-COMMAND: in turn; the ratio is the median of the rounds' own.
compare_seconds() {
  local theirs=() ours=() ratios=() a b i
  for ((i = 0; i <= $3; ++i)); do
    a=$(seconds_of sh -c "$4")
    b=$(seconds_of sh -c "$5")
    [ $i -gt 0 ] || continue # the first is to warm up
    theirs+=("$a")
    ours+=("$b")
    ratios+=("$(quotient "$b" "$a")")
  done
  report "$1" "$2" "$(median "${theirs[@]}") s" "$(median "${ours[@]}") s" "$(median "${ratios[@]}")"
}
