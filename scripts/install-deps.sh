#!/usr/bin/env bash
# Installs what building and testing KEL needs on Debian 12, skipping the
# packages that are already there. Run as root (or with sudo available).
set -euo pipefail

packages=(build-essential cmake pkg-config libgtest-dev libpng-dev python3 gettext locales ffmpeg sox lame libmp3lame0 mp3gain libavcodec-dev libavutil-dev libavformat-dev libtag1-dev libebur128-dev libcli11-dev nlohmann-json3-dev libcue-dev mp3splt nodejs)
# The waveform-data test loads KEL's output with the npm package; Debian's npm
# only when the machine's Node.js does not bring its own.
if ! command -v npm >/dev/null 2>&1; then packages+=(npm); fi

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -gt 0 ]; then
  SUDO=""
  if [ "$(id -u)" -ne 0 ]; then SUDO="sudo"; fi
  echo "installing: ${missing[*]}"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
