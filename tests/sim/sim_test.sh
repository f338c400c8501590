#!/usr/bin/env bash
# What is asked of the simulator: sim_test.sh PROGRAM. Fifty seeds hold, a mistake that is planted is found, and the same
# seed is the same run.
set -euo pipefail
SIM=$1

"$SIM" --seed 1 --runs "${VONDLE_SIM_RUNS:-50}" --jobs 2
"$SIM" --canary
first=$("$SIM" --seed 1 --runs 5 --hashes)
[ "$first" = "$("$SIM" --seed 1 --runs 5 --hashes)" ] || { echo "the same seeds were other runs" >&2; exit 1; }
