#!/usr/bin/env bash
# Fills folder $1 with real audio files of kind $2 (wav or aiff): short tones sox writes at every depth
# and channel count we read, and for WAV the start of the system's own sound files and a looped one.
set -euo pipefail
out=$1
kind=$2
mkdir -p "$out"
case $kind in
  wav) depths="-b16 -b24 -efloat:-b32 -b8 -eulaw:-b8" ;;
  aiff) depths="-b16 -b24 -b32 -b8" ;;
  *) echo "audio.sh: unknown kind $kind" >&2; exit 2 ;;
esac
for depth in $depths; do
  for channels in 1 2; do
    name="sox${depth//[^a-z0-9]/}-c$channels.$kind"
    sox -n -r 22050 ${depth//:/ } -c "$channels" "$out/$name" synth 0.02 sine 440 2>/dev/null || true
  done
done
if [ "$kind" = wav ]; then
  # Their headers as other programs write them; the first 4 KB are enough, as the fuzzer's speed goes
  # with the length of its inputs, and the data sizes then claim more than the file holds.
  for f in /usr/share/sounds/alsa/*.wav /usr/share/puredata/doc/sound/*.wav; do
    [ -f "$f" ] && head -c 4096 "$f" > "$out/$(basename "$f")"
  done
  # A sampler chunk with one forward loop behind the data, as samplers store it.
  python3 - "$out/soxb16-c1.wav" "$out/loop.wav" <<'PY'
import struct, sys
wav = bytearray(open(sys.argv[1], "rb").read())
loop = struct.pack("<9I", 0, 0, 0, 60, 0, 0, 0, 1, 0) + struct.pack("<6I", 0, 0, 100, 300, 0, 0)
wav += b"smpl" + struct.pack("<I", len(loop)) + loop
wav[4:8] = struct.pack("<I", len(wav) - 8)
open(sys.argv[2], "wb").write(wav)
PY
fi
exit 0
