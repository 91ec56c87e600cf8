# Cost per block (ns) against ring length (ms) at one consumer, from the CSV
# results of scripts/bench.sh: the medians of BM_Distribution.
BEGIN { FS = "," }
$1 ~ /^"BM_Distribution\/ring_ms:[0-9]+\/consumers:1_median"$/ {
    split($1, parts, /[:\/]/)
    print parts[3], $3
}
