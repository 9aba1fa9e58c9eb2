#!/usr/bin/env bash
# Plots the zu-bench results: throughput against size, one panel per scenario and kind.
#   bench/plot.sh [DIR]   reads DIR/results.tsv (default docs/bench), writes DIR/results.png
set -euo pipefail
dir=${1:-docs/bench}
tsv="$dir/results.tsv"
[ -f "$tsv" ] || { echo "plot.sh: no $tsv (run zu-bench first)" >&2; exit 1; }
mapfile -t titles < <(grep '^# ' "$tsv" | sed 's/^# //')
n=${#titles[@]}
[ "$n" -gt 0 ] || { echo "plot.sh: no series in $tsv" >&2; exit 1; }
cols=3
rows=$(((n + cols - 1) / cols))
{
  echo "set terminal pngcairo size $((cols * 520)),$((rows * 360)) font ',9'"
  echo "set output '$dir/results.png'"
  echo "set datafile separator '\t'"
  echo "set datafile missing 'NaN'"
  echo "set logscale xy"
  echo "set format x '%.0s%c'"
  echo "set xlabel 'elements (int64)'"
  echo "set key left bottom font ',8'"
  echo "set grid"
  echo "set multiplot layout $rows,$cols title 'zu-bench: this library (zu) next to its peers'"
  for i in "${!titles[@]}"; do
    echo "set title '${titles[$i]}'"
    echo "plot for [c=2:7] '$tsv' index $i using 1:c with linespoints title columnhead(c)"
  done
  echo "unset multiplot"
} | gnuplot 2> >(grep -v 'warning: Skipping data file with no valid points' >&2)
echo "wrote $dir/results.png"
