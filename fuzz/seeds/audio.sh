#!/usr/bin/env bash
# Fills folder $1 with real audio files of kind $2 (wav or aiff): short tones sox writes at every depth
# and channel count we read, and for WAV the system's own sound files.
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
  for f in /usr/share/sounds/alsa/*.wav /usr/share/puredata/doc/sound/*.wav; do
    [ -f "$f" ] && cp "$f" "$out/"
  done
fi
exit 0
