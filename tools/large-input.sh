#!/usr/bin/env bash
# Large and deep inputs for the command-line tool, run by hand (too slow for the test
# suite). Generates the meshes as OBJ files, runs `meridbsp clip` and `meridbsp vis` on
# each under /usr/bin/time -v, and prints wall time, peak memory, exit status and the
# clip BSP's depth (from `meridbsp info`).
#
#   big    a closed box whose six sides are grids: 250 x 250 x 375 cells, two triangles
#          a cell, 1,000,000 triangles on six planes.
#   slabs  K nested closed slabs (box k spans x in [-k, k] and y, z in [-(W+k), W+k]):
#          thousands of parallel planes.
#   prism  a closed convex prism with K side faces: every face plane has every other
#          face behind it, so both pipelines make a chain of about K nodes, the deepest
#          tree a mesh of that size can give.
#   sphere a closed latitude-longitude sphere of about N triangles: a deeper chain.
#
# Usage: tools/large-input.sh [--build DIR] [--out DIR] [--skip-vis] [CASE...]
#   CASE: big, slabs:K, prism:K, sphere:N (default: big slabs:30 prism:1000 sphere:20000)
# The default stack (ulimit -s, normally 8 MB) is left as it is: a crash there is what
# the run is meant to find. Exit status 139 is a segmentation fault (stack overflow).
set -uo pipefail

root=$(cd "$(dirname "$0")/.." && pwd)
build="$root/build"
out=$(mktemp -d)
keep=0
skipvis=0
cases=()
while [ $# -gt 0 ]; do
  case "$1" in
    --build) build=$2; shift 2 ;;
    --out) out=$2; keep=1; mkdir -p "$out"; shift 2 ;;
    --skip-vis) skipvis=1; shift ;;
    -h|--help) sed -n '2,20p' "$0"; exit 0 ;;
    *) cases+=("$1"); shift ;;
  esac
done
[ ${#cases[@]} -eq 0 ] && cases=(big slabs:30 prism:1000 sphere:20000)
[ $keep -eq 0 ] && trap 'rm -rf "$out"' EXIT

tool="$build/meridbsp"
if [ ! -x "$tool" ]; then
  echo "large-input: $tool not found; build it first (make build, or --build DIR)" >&2
  exit 2
fi
[ -x /usr/bin/time ] || { echo "large-input: /usr/bin/time is needed (apt-get install time)" >&2; exit 2; }

# One closed axis-aligned box [x0,x1]x[y0,y1]x[z0,z1] as grids of nx x ny x nz cells,
# triangles wound counter-clockwise seen from outside. Appends to the OBJ on stdout;
# `base` is the number of vertices already written.
box_awk='
function quad(a, b, c, d) { printf "f %d %d %d\nf %d %d %d\n", a, b, c, a, c, d }
function side(axis, sgn, n1, n2,   i, j, u, v, p, first) {
  # Vertices of the grid on the side where coordinate `axis` is at its min (sgn<0) or max.
  first = base + 1
  for (i = 0; i <= n1; i++) for (j = 0; j <= n2; j++) {
    u = i / n1; v = j / n2
    if (axis == 0) printf "v %.6f %.6f %.6f\n", (sgn > 0 ? x1 : x0), y0 + u * (y1 - y0), z0 + v * (z1 - z0)
    if (axis == 1) printf "v %.6f %.6f %.6f\n", x0 + v * (x1 - x0), (sgn > 0 ? y1 : y0), z0 + u * (z1 - z0)
    if (axis == 2) printf "v %.6f %.6f %.6f\n", x0 + u * (x1 - x0), y0 + v * (y1 - y0), (sgn > 0 ? z1 : z0)
  }
  base += (n1 + 1) * (n2 + 1)
  for (i = 0; i < n1; i++) for (j = 0; j < n2; j++) {
    p = first + i * (n2 + 1) + j
    # (u, v) axes are right-handed with the outward normal for sgn > 0.
    if (sgn > 0) quad(p, p + n2 + 1, p + n2 + 2, p + 1)
    else quad(p, p + 1, p + n2 + 2, p + n2 + 1)
  }
}
function box() {
  side(0, -1, ny, nz); side(0, 1, ny, nz)
  side(1, -1, nz, nx); side(1, 1, nz, nx)
  side(2, -1, nx, ny); side(2, 1, nx, ny)
}'

gen_big() {
  awk -v x0=-125 -v x1=125 -v y0=-125 -v y1=125 -v z0=-187.5 -v z1=187.5 \
      -v nx=250 -v ny=250 -v nz=375 -v base=0 "$box_awk"' BEGIN { box() }'
}

gen_slabs() {
  awk -v K="$1" -v W=1000 -v base=0 "$box_awk"'
    BEGIN { nx = 1; ny = 1; nz = 1
      for (k = 1; k <= K; k++) { x0 = -k; x1 = k; y0 = -(W + k); y1 = W + k; z0 = y0; z1 = y1; box() } }'
}

# A closed latitude-longitude sphere: nlat bands of nlon quads (two triangles each, on
# one plane), fans at the poles. Convex, so again a chain, with more distinct planes than
# a prism can have (neighbouring prism sides merge once their normals are closer than the
# coplanar tolerance).
gen_sphere() {
  awk -v N="$1" 'BEGIN {
    pi = atan2(0, -1); R = 1000
    nlon = int(sqrt(N) * 1.4); if (nlon < 8) nlon = 8
    nlat = int(N / (2 * nlon)); if (nlat < 4) nlat = 4
    printf "v 0 0 %.6f\n", -R
    for (i = 1; i < nlat; i++) { phi = -pi / 2 + pi * i / nlat
      for (j = 0; j < nlon; j++) { t = 2 * pi * j / nlon
        printf "v %.6f %.6f %.6f\n", R * cos(phi) * cos(t), R * cos(phi) * sin(t), R * sin(phi) } }
    printf "v 0 0 %.6f\n", R
    top = 2 + (nlat - 1) * nlon
    for (j = 0; j < nlon; j++) { n = (j + 1) % nlon
      printf "f 1 %d %d\n", 2 + n, 2 + j
      printf "f %d %d %d\n", top, 2 + (nlat - 2) * nlon + j, 2 + (nlat - 2) * nlon + n }
    for (i = 0; i < nlat - 2; i++) for (j = 0; j < nlon; j++) { n = (j + 1) % nlon
      a = 2 + i * nlon + j; b = 2 + i * nlon + n; c = b + nlon; d = a + nlon
      printf "f %d %d %d\nf %d %d %d\n", a, b, c, a, c, d }
  }'
}

gen_prism() {
  awk -v K="$1" 'BEGIN {
    pi = atan2(0, -1); R = 1000; H = 50
    for (k = 0; k < K; k++) { a = 2 * pi * k / K; printf "v %.6f %.6f %.6f\nv %.6f %.6f %.6f\n", R * cos(a), R * sin(a), -H, R * cos(a), R * sin(a), H }
    printf "v 0 0 %.6f\nv 0 0 %.6f\n", -H, H
    bottom = 2 * K + 1; top = 2 * K + 2
    for (k = 0; k < K; k++) {
      n = (k + 1) % K
      lo = 2 * k + 1; hi = 2 * k + 2; nlo = 2 * n + 1; nhi = 2 * n + 2
      printf "f %d %d %d\nf %d %d %d\n", lo, nlo, nhi, lo, nhi, hi      # side, facing out
      printf "f %d %d %d\nf %d %d %d\n", top, hi, nhi, bottom, nlo, lo  # caps as fans
    }
  }'
}

# Runs one command under /usr/bin/time -v; prints the status, time and peak memory.
measure() {
  local label=$1; shift
  local log="$out/$label.time"
  /usr/bin/time -v "$@" >"$out/$label.out" 2>"$log"
  local rc=$?
  local wall peak status
  wall=$(sed -n 's/.*Elapsed (wall clock) time (h:mm:ss or m:ss): //p' "$log")
  peak=$(sed -n 's/.*Maximum resident set size (kbytes): //p' "$log")
  status=$(sed -n 's/.*Exit status: //p' "$log")
  if grep -q "Command terminated by signal" "$log"; then
    status="killed by signal $(sed -n 's/.*Command terminated by signal //p' "$log")"
  fi
  printf '  %-6s exit %-22s wall %-10s peak %6s MB\n' "$label" "${status:-$rc}" "$wall" "$(( ${peak:-0} / 1024 ))"
  return 0
}

for c in "${cases[@]}"; do
  name=${c%%:*}
  arg=${c#*:}
  [ "$arg" = "$c" ] && arg=""
  mesh="$out/$name${arg:+-$arg}.obj"
  case "$name" in
    big) gen_big >"$mesh" ;;
    slabs) gen_slabs "${arg:-2000}" >"$mesh" ;;
    prism) gen_prism "${arg:-2000}" >"$mesh" ;;
    sphere) gen_sphere "${arg:-20000}" >"$mesh" ;;
    *) echo "large-input: unknown case $c" >&2; exit 2 ;;
  esac
  tris=$(grep -c '^f ' "$mesh")
  echo "== $c: $tris triangles, $(( $(stat -c %s "$mesh") / 1048576 )) MB of OBJ"
  clipfile="$out/$name${arg:+-$arg}.mrc"
  measure clip "$tool" clip "$mesh" -o "$clipfile"
  if [ -s "$clipfile" ]; then
    "$tool" info "$clipfile" 2>/dev/null | grep -E '^(nodes|depth)' | sed 's/^/  info   /'
    measure trace "$tool" trace "$clipfile" -5000 1 2 5000 -1 3
  fi
  if [ $skipvis -eq 0 ]; then
    mkdir -p "$out/vis-$name${arg:+-$arg}"
    measure vis "$tool" vis "$mesh" --out "$out/vis-$name${arg:+-$arg}" --json
    grep -oE '"(planes|numSplitNodes|visleafs|visportals)":[0-9]+' "$out/vis.out" | tr '\n' ' ' | sed 's/^/  vis    /'
    echo
  fi
done
