#!/usr/bin/env bash
# Plots RDMA write bandwidth over message size: through the adaptor, on VAPI directly (--direct),
# and memcpy of the same sizes on this machine, in one SVG.
#
#   scripts/plot-bw.sh [-o OUT.svg] [-n ITERS] [ADAPTOR.json DIRECT.json MEMCPY.json]
#
# With no JSON files it measures them first (ib_write_bw -a, ib_write_bw -a --direct and
# memcpy_bw -a in the marlix console; the adaptor run needs the module, so the console loads it).
# A run that cannot be made (the adaptor path where it is not available) is left out of the plot.
set -euo pipefail
cd "$(dirname "$0")/.."
out=bw.svg
iters=1000
while getopts "o:n:h" opt; do
  case $opt in
    o) out=$OPTARG ;;
    n) iters=$OPTARG ;;
    *) sed -n '2,9p' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))

bash scripts/setup.sh
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

if [ $# -eq 3 ]; then
  adaptor=$1 direct=$2 memcpy=$3
elif [ $# -eq 0 ]; then
  cmake --preset default >/dev/null
  cmake --build --preset default --target marlix all_modules >/dev/null
  marlix=build/default/tools/marlix/marlix
  adaptor=$work/adaptor.json direct=$work/direct.json memcpy=$work/memcpy.json
  "$marlix" -c "ib_write_bw -a --direct -n $iters --out_json $direct" >&2
  "$marlix" -c "memcpy_bw -a -n $iters --out_json $memcpy" >&2
  "$marlix" -c "insmod adaptor-mlx; ib_write_bw -a -n $iters --out_json $adaptor" >&2 ||
    echo "plot-bw: the adaptor run failed; plotting without it" >&2
else
  sed -n '2,9p' "$0" >&2
  exit 2
fi

# One data file per line: "bytes bw_average".
series=()
for pair in "adaptor:$adaptor:through the adaptor" "direct:$direct:VAPI direct" "memcpy:$memcpy:memcpy"; do
  IFS=: read -r name file title <<<"$pair"
  [ -s "$file" ] || continue
  jq -r '.results[] | "\(.bytes) \(.bw_average)"' "$file" >"$work/$name.dat"
  [ -s "$work/$name.dat" ] || continue
  units=$(jq -r '.units' "$file")
  series+=("'$work/$name.dat' using 1:2 with linespoints title '$title'")
done
if [ ${#series[@]} -eq 0 ]; then
  echo "plot-bw: no results to plot" >&2
  exit 1
fi
plot=$(IFS=,; echo "${series[*]}")
gnuplot <<GNUPLOT
set terminal svg size 900,560 dynamic background rgb 'white'
set output '$out'
set title 'RDMA write bandwidth over message size (ib\\_write\\_bw -a)'
set xlabel 'message size [bytes]'
set ylabel 'bandwidth [${units:-MB/sec}]'
set logscale x 2
set format x '2^{%L}'
set key top left
set grid
plot $plot
GNUPLOT
echo "plot-bw: wrote $out"
