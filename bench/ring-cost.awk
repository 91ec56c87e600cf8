# Cost per block (ns) against ring length (ms) at one consumer, from the JSON
# results of scripts/bench.sh: the medians of BM_Distribution.
/"name": "BM_Distribution\/ring_ms:[0-9]+\/consumers:1_median"/ {
    split($0, parts, /[:\/]/)
    ring = parts[4]
}
ring != "" && /"real_time":/ {
    sub(/.*"real_time": */, "")
    sub(/,.*/, "")
    print ring, $0
    ring = ""
}
