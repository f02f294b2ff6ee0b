#!/usr/bin/env bash
# Fails when a library uses any instruction that needs more than SSE2 (the generic variant).
set -euo pipefail
status=0
for lib in "$@"; do
    # VEX/EVEX-encoded instructions print with a leading v (vaddps, vmovdqu...) and the
    # SSE3+ families have their own mnemonics; either means the variant has been broken.
    bad=$(objdump -d --no-show-raw-insn "$lib" |
          awk -F'\t' 'NF >= 2 {split($2, w, " "); print w[1]}' |
          grep -E '^(v[a-z].*|pshufb|palignr|phadd[a-z]*|phsub[a-z]*|pmaddubsw|pmulhrsw|psign[bwd]|pabs[bwd]|ptest|pblend[a-z]*|blendv?p[sd]|round[ps][sd]|dpp[sd]|insertps|extractps|pextr[bdq]|pinsr[bdq]|pmin[su][bdw]|pmax[su][bdw]|pmovsx[a-z]*|pmovzx[a-z]*|pmulld|pcmpeqq|pcmpgtq|packusdw|popcnt|lzcnt|tzcnt|andn|bextr|shlx|shrx|sarx|movbe|lddqu|movddup|movs[hl]dup|addsubp[sd]|haddp[sd]|hsubp[sd]|crc32[a-z]*)$' |
          sort -u || true)
    if [ -n "$bad" ]; then
        echo "$lib uses instructions beyond SSE2:"; echo "$bad"; status=1
    fi
done
[ $status -eq 0 ] && echo "isa ok"
exit $status
